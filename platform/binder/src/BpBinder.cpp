#include "Connection.h"

#include <binder/BpBinder.h>
#include <binder/Parcel.h>

namespace android {

BpBinder::BpBinder(const std::shared_ptr<Connection> &connection, uint64_t handle)
    : mConnection(connection), mHandle(handle)
{
}

BpBinder::~BpBinder()
{
    mConnection->forgetProxy(mHandle, this);
}

const String16 &BpBinder::getInterfaceDescriptor() const
{
    std::lock_guard<std::mutex> lock(mDescriptorLock);
    if (!mDescriptorFetched) {
        Parcel data;
        Parcel reply;
        if (mConnection->transact(mHandle, INTERFACE_TRANSACTION, data, &reply, 0) == NO_ERROR) {
            mDescriptor = reply.readString16();
            mDescriptorFetched = true;
        }
    }
    return mDescriptor;
}

bool BpBinder::isBinderAlive() const
{
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mDead)
            return false;
    }
    return mConnection->isAlive();
}

status_t BpBinder::pingBinder()
{
    Parcel data;
    Parcel reply;
    return transact(PING_TRANSACTION, data, &reply);
}

status_t BpBinder::transact(uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags)
{
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mDead)
            return DEAD_OBJECT;
    }
    return mConnection->transact(mHandle, code, data, reply, flags);
}

status_t BpBinder::linkToDeath(const sp<DeathRecipient> &recipient, void *cookie, uint32_t flags)
{
    if (recipient == nullptr)
        return BAD_VALUE;
    std::lock_guard<std::mutex> lock(mLock);
    // A proxy made after its connection closed will never be told; say so now.
    if (mDead || !mConnection->isAlive())
        return DEAD_OBJECT;
    mObituaries.push_back({ recipient, cookie, flags });
    return NO_ERROR;
}

status_t BpBinder::unlinkToDeath(
    const wp<DeathRecipient> &recipient, void *cookie, uint32_t flags, wp<DeathRecipient> *out)
{
    std::lock_guard<std::mutex> lock(mLock);
    if (mDead)
        return DEAD_OBJECT;
    for (auto it = mObituaries.begin(); it != mObituaries.end(); ++it) {
        const bool match
            = recipient.unsafe_get() != nullptr ? it->recipient == recipient : it->cookie == cookie;
        if (match && it->flags == flags) {
            if (out != nullptr)
                *out = it->recipient;
            mObituaries.erase(it);
            return NO_ERROR;
        }
    }
    return NAME_NOT_FOUND;
}

void BpBinder::sendObituary()
{
    std::vector<Obituary> obituaries;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mDead)
            return;
        mDead = true;
        obituaries.swap(mObituaries);
    }
    const wp<IBinder> who(this);
    for (const Obituary &o : obituaries) {
        if (sp<DeathRecipient> recipient = o.recipient.promote())
            recipient->binderDied(who);
    }
}

} // namespace android

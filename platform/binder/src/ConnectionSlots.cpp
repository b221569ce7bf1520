#include "ConnectionSlots.h"

#include <android/log.h>

namespace android {

std::shared_ptr<ConnectionSlots> ConnectionSlots::create(size_t maxTotal, size_t maxPerUid)
{
    return std::shared_ptr<ConnectionSlots>(new ConnectionSlots(maxTotal, maxPerUid));
}

ConnectionSlots::ConnectionSlots(size_t maxTotal, size_t maxPerUid)
    : mMaxTotal(maxTotal), mMaxPerUid(maxPerUid)
{
}

std::shared_ptr<void> ConnectionSlots::take(uid_t uid, pid_t pid)
{
    bool processFull = false;
    {
        std::lock_guard<std::mutex> lock(mLock);
        size_t &mine = mPerUid[uid];
        processFull = mTotal >= mMaxTotal;
        if (!processFull && mine < mMaxPerUid) {
            ++mTotal;
            ++mine;
            struct Slot {
                std::shared_ptr<ConnectionSlots> owner;
                uid_t uid;
                ~Slot() { owner->give(uid); }
            };
            return std::shared_ptr<Slot>(new Slot { shared_from_this(), uid });
        }
        if (mine == 0)
            mPerUid.erase(uid);
    }
    __android_log_print(ANDROID_LOG_WARN, "binder",
        "refusing a connection from pid %d uid %u: %s limit of %zu connections reached",
        int(pid), unsigned(uid), processFull ? "the process's" : "its user's",
        processFull ? mMaxTotal : mMaxPerUid);
    return nullptr;
}

void ConnectionSlots::give(uid_t uid)
{
    std::lock_guard<std::mutex> lock(mLock);
    --mTotal;
    if (--mPerUid[uid] == 0)
        mPerUid.erase(uid);
}

} // namespace android

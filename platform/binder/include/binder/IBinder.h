#pragma once

#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>

#include <cstdint>

namespace android {

class BBinder;
class BpBinder;
class IInterface;
class Parcel;

// An object that can be called, locally (BBinder) or in another process (BpBinder).
class IBinder : public virtual RefBase {
public:
    enum {
        FIRST_CALL_TRANSACTION = 0x00000001,
        LAST_CALL_TRANSACTION = 0x00ffffff,
        PING_TRANSACTION = 0x5f504e47,
        INTERFACE_TRANSACTION = 0x5f4e5446,
        FLAG_ONEWAY = 0x00000001,
    };

    // Told on a pool thread, with no runtime lock held, when the object's process is gone.
    class DeathRecipient : public virtual RefBase {
    public:
        virtual void binderDied(const wp<IBinder> &who) = 0;
    };

    virtual sp<IInterface> queryLocalInterface(const String16 &descriptor);
    virtual const String16 &getInterfaceDescriptor() const = 0;
    virtual bool isBinderAlive() const = 0;
    virtual status_t pingBinder() = 0;
    virtual status_t transact(uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags = 0)
        = 0;
    // The runtime holds recipients weakly; the caller keeps its own strong reference.
    virtual status_t linkToDeath(
        const sp<DeathRecipient> &recipient, void *cookie = nullptr, uint32_t flags = 0)
        = 0;
    virtual status_t unlinkToDeath(const wp<DeathRecipient> &recipient, void *cookie = nullptr,
        uint32_t flags = 0, wp<DeathRecipient> *outRecipient = nullptr)
        = 0;

    virtual BBinder *localBinder() { return nullptr; }
    virtual BpBinder *remoteBinder() { return nullptr; }

protected:
    ~IBinder() override = default;
};

} // namespace android

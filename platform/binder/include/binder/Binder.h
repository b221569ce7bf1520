#pragma once

#include <binder/IBinder.h>

namespace android {

// The local side of an object: incoming calls arrive in onTransact() on a pool thread.
class BBinder : public IBinder {
public:
    BBinder() = default;

    const String16 &getInterfaceDescriptor() const override;
    bool isBinderAlive() const override { return true; }
    status_t pingBinder() override { return NO_ERROR; }
    status_t transact(uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags = 0) final;
    status_t linkToDeath(
        const sp<DeathRecipient> &recipient, void *cookie = nullptr, uint32_t flags = 0) override;
    status_t unlinkToDeath(const wp<DeathRecipient> &recipient, void *cookie = nullptr,
        uint32_t flags = 0, wp<DeathRecipient> *outRecipient = nullptr) override;
    BBinder *localBinder() override { return this; }

protected:
    ~BBinder() override = default;
    virtual status_t onTransact(
        uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags = 0);
};

// Base of interface proxies: holds the remote object strongly.
class BpRefBase : public virtual RefBase {
protected:
    explicit BpRefBase(const sp<IBinder> &remote) : mRemote(remote) { }
    ~BpRefBase() override = default;
    IBinder *remote() const { return mRemote.get(); }

private:
    const sp<IBinder> mRemote;
};

} // namespace android

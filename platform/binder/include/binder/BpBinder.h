#pragma once

#include <binder/IBinder.h>

#include <memory>
#include <mutex>
#include <vector>

namespace android {

class Connection;

// Proxy for an object in another process. There is one proxy per remote object per connection.
class BpBinder : public IBinder {
public:
    BpBinder(const std::shared_ptr<Connection> &connection, uint64_t handle);

    const String16 &getInterfaceDescriptor() const override;
    bool isBinderAlive() const override;
    status_t pingBinder() override;
    status_t transact(
        uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags = 0) override;
    status_t linkToDeath(
        const sp<DeathRecipient> &recipient, void *cookie = nullptr, uint32_t flags = 0) override;
    status_t unlinkToDeath(const wp<DeathRecipient> &recipient, void *cookie = nullptr,
        uint32_t flags = 0, wp<DeathRecipient> *outRecipient = nullptr) override;
    BpBinder *remoteBinder() override { return this; }

    uint64_t handle() const { return mHandle; }
    const std::shared_ptr<Connection> &connection() const { return mConnection; }
    // Called by the runtime once the peer is gone; must be called with no runtime lock held.
    void sendObituary();

protected:
    ~BpBinder() override;

private:
    struct Obituary {
        wp<DeathRecipient> recipient;
        void *cookie;
        uint32_t flags;
    };

    const std::shared_ptr<Connection> mConnection;
    const uint64_t mHandle;
    mutable std::mutex mLock;
    std::vector<Obituary> mObituaries;
    bool mDead = false;
    mutable std::mutex mDescriptorLock;
    mutable String16 mDescriptor;
    mutable bool mDescriptorFetched = false;
};

} // namespace android

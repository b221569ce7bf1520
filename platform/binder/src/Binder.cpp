#include <binder/Binder.h>
#include <binder/IInterface.h>
#include <binder/Parcel.h>

namespace android {

sp<IInterface> IBinder::queryLocalInterface(const String16 &)
{
    return nullptr;
}

const String16 &BBinder::getInterfaceDescriptor() const
{
    static const String16 empty;
    return empty;
}

status_t BBinder::transact(uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags)
{
    data.setDataPosition(0);
    Parcel scratch;
    if (reply == nullptr)
        reply = &scratch;
    switch (code) {
    case PING_TRANSACTION:
        return NO_ERROR;
    case INTERFACE_TRANSACTION:
        return reply->writeString16(getInterfaceDescriptor());
    default: {
        const status_t err = onTransact(code, data, reply, flags);
        reply->setDataPosition(0);
        return err;
    }
    }
}

status_t BBinder::linkToDeath(const sp<DeathRecipient> &, void *, uint32_t)
{
    return INVALID_OPERATION;
}

status_t BBinder::unlinkToDeath(const wp<DeathRecipient> &, void *, uint32_t, wp<DeathRecipient> *)
{
    return INVALID_OPERATION;
}

status_t BBinder::onTransact(uint32_t, const Parcel &, Parcel *, uint32_t)
{
    return UNKNOWN_TRANSACTION;
}

sp<IBinder> IInterface::asBinder(const IInterface *iface)
{
    if (iface == nullptr)
        return nullptr;
    return const_cast<IInterface *>(iface)->onAsBinder();
}

sp<IBinder> IInterface::asBinder(const sp<IInterface> &iface)
{
    return asBinder(iface.get());
}

} // namespace android

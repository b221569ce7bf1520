#include "DemoInterface.h"

using namespace android;

class BpDemoCallback : public BpInterface<IDemoCallback> {
public:
    explicit BpDemoCallback(const sp<IBinder> &impl) : BpInterface<IDemoCallback>(impl) { }
    void onEvent(int32_t seq, const std::string &payload) override
    {
        Parcel data;
        data.writeInterfaceToken(IDemoCallback::descriptor);
        data.writeInt32(seq);
        data.writeUint32(uint32_t(payload.size()));
        data.write(payload.data(), payload.size());
        remote()->transact(ON_EVENT, data, nullptr, IBinder::FLAG_ONEWAY);
    }
    int32_t compute(int32_t a, int32_t b) override
    {
        Parcel data, reply;
        data.writeInterfaceToken(IDemoCallback::descriptor);
        data.writeInt32(a);
        data.writeInt32(b);
        const status_t err = remote()->transact(COMPUTE, data, &reply);
        return err == NO_ERROR ? reply.readInt32() : err;
    }
};

IMPLEMENT_META_INTERFACE(DemoCallback, "com.velta.test.IDemoCallback");

status_t BnDemoCallback::onTransact(
    uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags)
{
    switch (code) {
    case ON_EVENT: {
        if (!data.enforceInterface(IDemoCallback::descriptor))
            return PERMISSION_DENIED;
        const int32_t seq = data.readInt32();
        const uint32_t size = data.readUint32();
        if (size > data.dataAvail())
            return BAD_VALUE;
        std::string payload(size, '\0');
        data.read(payload.data(), size);
        onEvent(seq, payload);
        return NO_ERROR;
    }
    case COMPUTE: {
        if (!data.enforceInterface(IDemoCallback::descriptor))
            return PERMISSION_DENIED;
        const int32_t a = data.readInt32();
        return reply->writeInt32(compute(a, data.readInt32()));
    }
    default:
        return BBinder::onTransact(code, data, reply, flags);
    }
}

class BpDemoService : public BpInterface<IDemoService> {
public:
    explicit BpDemoService(const sp<IBinder> &impl) : BpInterface<IDemoService>(impl) { }

    int32_t add(int32_t a, int32_t b) override
    {
        Parcel data, reply;
        data.writeInterfaceToken(IDemoService::descriptor);
        data.writeInt32(a);
        data.writeInt32(b);
        return call(ADD, data, &reply);
    }
    status_t registerCallback(const sp<IDemoCallback> &cb) override
    {
        return sendBinder(REGISTER, cb);
    }
    status_t unregisterCallback(const sp<IDemoCallback> &cb) override
    {
        return sendBinder(UNREGISTER, cb);
    }
    status_t fire(int32_t count, int32_t payloadBytes) override
    {
        Parcel data, reply;
        data.writeInterfaceToken(IDemoService::descriptor);
        data.writeInt32(count);
        data.writeInt32(payloadBytes);
        return call(FIRE, data, &reply);
    }
    int32_t callBack(const sp<IDemoCallback> &cb, int32_t a, int32_t b) override
    {
        Parcel data, reply;
        data.writeInterfaceToken(IDemoService::descriptor);
        data.writeStrongBinder(IInterface::asBinder(cb));
        data.writeInt32(a);
        data.writeInt32(b);
        return call(CALL_BACK, data, &reply);
    }
    int32_t deaths() override
    {
        Parcel data, reply;
        data.writeInterfaceToken(IDemoService::descriptor);
        return call(DEATHS, data, &reply);
    }
    bool rendezvous(int32_t n) override
    {
        Parcel data, reply;
        data.writeInterfaceToken(IDemoService::descriptor);
        data.writeInt32(n);
        return call(RENDEZVOUS, data, &reply) == 1;
    }
    status_t whoAmI(int32_t *pid, int32_t *uid) override
    {
        Parcel data, reply;
        data.writeInterfaceToken(IDemoService::descriptor);
        const status_t err = remote()->transact(WHOAMI, data, &reply);
        *pid = reply.readInt32();
        *uid = reply.readInt32();
        return err;
    }

private:
    // Answers the reply's int32, or the transport error.
    int32_t call(uint32_t code, const Parcel &data, Parcel *reply)
    {
        const status_t err = remote()->transact(code, data, reply);
        return err == NO_ERROR ? reply->readInt32() : err;
    }
    status_t sendBinder(uint32_t code, const sp<IDemoCallback> &cb)
    {
        Parcel data, reply;
        data.writeInterfaceToken(IDemoService::descriptor);
        data.writeStrongBinder(IInterface::asBinder(cb));
        return call(code, data, &reply);
    }
};

IMPLEMENT_META_INTERFACE(DemoService, "com.velta.test.IDemoService");

status_t BnDemoService::onTransact(uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags)
{
    if (code < ADD || code > ECHO)
        return BBinder::onTransact(code, data, reply, flags);
    if (!data.enforceInterface(IDemoService::descriptor))
        return PERMISSION_DENIED;
    switch (code) {
    case ADD: {
        const int32_t a = data.readInt32();
        return reply->writeInt32(add(a, data.readInt32()));
    }
    case REGISTER:
    case UNREGISTER: {
        sp<IDemoCallback> cb = interface_cast<IDemoCallback>(data.readStrongBinder());
        if (cb == nullptr)
            return BAD_VALUE;
        return reply->writeInt32(code == REGISTER ? registerCallback(cb) : unregisterCallback(cb));
    }
    case FIRE: {
        const int32_t count = data.readInt32();
        return reply->writeInt32(fire(count, data.readInt32()));
    }
    case CALL_BACK: {
        sp<IDemoCallback> cb = interface_cast<IDemoCallback>(data.readStrongBinder());
        const int32_t a = data.readInt32();
        const int32_t b = data.readInt32();
        return cb == nullptr ? BAD_VALUE : reply->writeInt32(callBack(cb, a, b));
    }
    case DEATHS:
        return reply->writeInt32(deaths());
    case RENDEZVOUS:
        return reply->writeInt32(rendezvous(data.readInt32()) ? 1 : 0);
    case WHOAMI: {
        int32_t pid = 0, uid = 0;
        whoAmI(&pid, &uid);
        reply->writeInt32(pid);
        return reply->writeInt32(uid);
    }
    case ECHO: {
        reply->writeInt32(data.readInt32());
        reply->writeUint32(data.readUint32());
        reply->writeInt64(data.readInt64());
        reply->writeUint64(data.readUint64());
        reply->writeBool(data.readBool());
        const char *c = data.readCString();
        reply->writeCString(c ? c : "<null>");
        reply->writeString8(data.readString8());
        reply->writeString16(data.readString16());
        std::string utf8;
        data.readUtf8FromUtf16(&utf8);
        reply->writeUtf8AsUtf16(utf8);
        sp<IBinder> b = data.readStrongBinder();
        reply->writeStrongBinder(b);
        reply->writeStrongBinder(b);
        reply->writeInt32(b != nullptr && b->localBinder() == nullptr ? 1 : 0);
        return reply->writeInt32(int32_t(data.dataAvail()));
    }
    }
    return UNKNOWN_TRANSACTION;
}

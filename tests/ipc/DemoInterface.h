#pragma once

#include <binder/IInterface.h>
#include <binder/Parcel.h>

#include <string>

// A small interface pair used by the IPC tests: a service and the callback clients hand to it.
class IDemoCallback : public android::IInterface {
public:
    DECLARE_META_INTERFACE(DemoCallback);
    enum { ON_EVENT = android::IBinder::FIRST_CALL_TRANSACTION, COMPUTE };
    virtual void onEvent(int32_t seq, const std::string &payload) = 0; // one-way
    virtual int32_t compute(int32_t a, int32_t b) = 0;
};

class BnDemoCallback : public android::BnInterface<IDemoCallback> {
protected:
    android::status_t onTransact(uint32_t code, const android::Parcel &data, android::Parcel *reply,
        uint32_t flags = 0) override;
};

class IDemoService : public android::IInterface {
public:
    DECLARE_META_INTERFACE(DemoService);
    enum {
        ADD = android::IBinder::FIRST_CALL_TRANSACTION,
        REGISTER,
        UNREGISTER,
        FIRE,
        CALL_BACK,
        DEATHS,
        RENDEZVOUS,
        WHOAMI,
        ECHO, // reads every parcel type and writes it back; driven by raw transactions
    };
    virtual int32_t add(int32_t a, int32_t b) = 0;
    virtual android::status_t registerCallback(const android::sp<IDemoCallback> &cb) = 0;
    virtual android::status_t unregisterCallback(const android::sp<IDemoCallback> &cb) = 0;
    // Sends `count` one-way events with `payloadBytes` of payload to every registered callback.
    virtual android::status_t fire(int32_t count, int32_t payloadBytes) = 0;
    virtual int32_t callBack(const android::sp<IDemoCallback> &cb, int32_t a, int32_t b) = 0;
    virtual int32_t deaths() = 0;
    // True when `n` callers were inside this call at the same time (waits up to ten seconds).
    virtual bool rendezvous(int32_t n) = 0;
    virtual android::status_t whoAmI(int32_t *pid, int32_t *uid) = 0;
};

class BnDemoService : public android::BnInterface<IDemoService> {
protected:
    android::status_t onTransact(uint32_t code, const android::Parcel &data, android::Parcel *reply,
        uint32_t flags = 0) override;
};

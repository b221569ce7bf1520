#pragma once

#include <binder/IBinder.h>

namespace android {

// Services are published as sockets named after the service in $BINDER_SOCKET_DIR
// (default /run/binder); there is no separate service manager process.
class IServiceManager : public virtual RefBase {
public:
    // Publishes `service`; ALREADY_EXISTS when another live process serves `name`. Publishing a
    // name again from the same process makes new connections reach the new object.
    virtual status_t addService(const String16 &name, const sp<IBinder> &service,
        bool allowIsolated = false, int dumpsysPriority = 0)
        = 0;
    // Waits about five seconds for the service to appear.
    virtual sp<IBinder> getService(const String16 &name) const = 0;
    // Returns null at once when nobody serves `name`.
    virtual sp<IBinder> checkService(const String16 &name) const = 0;
};

sp<IServiceManager> defaultServiceManager();

} // namespace android

#pragma once

#include <binder/IBinder.h>

namespace android {

// Services are published as sockets named after the service in $BINDER_SOCKET_DIR (default
// /run/downloadmanager, created mode 0755; sockets are mode 0666: every user may connect and the
// service judges each call by its caller's uid). There is no service manager process.
class IServiceManager : public virtual RefBase {
public:
    // Publishes `service`; ALREADY_EXISTS when another live process serves `name`. Publishing a
    // name again from the same process makes new connections reach the new object.
    virtual status_t addService(const String16 &name, const sp<IBinder> &service,
        bool allowIsolated = false, int dumpsysPriority = 0)
        = 0;
    // Waits about five seconds for the service to appear.
    virtual sp<IBinder> getService(const String16 &name) const = 0;
    // Returns null at once when nobody serves `name`, with errno saying why: ENOENT or
    // ECONNREFUSED not served, EACCES not reachable by this user, EAGAIN the service did not
    // accept within five seconds, EINTR a signal arrived while waiting.
    virtual sp<IBinder> checkService(const String16 &name) const = 0;
};

sp<IServiceManager> defaultServiceManager();

} // namespace android

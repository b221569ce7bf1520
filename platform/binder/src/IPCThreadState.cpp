#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include <unistd.h>

namespace android {

IPCThreadState::IPCThreadState() : mCallingPid(getpid()), mCallingUid(getuid()) { }

IPCThreadState *IPCThreadState::self()
{
    static thread_local IPCThreadState state;
    return &state;
}

void IPCThreadState::joinThreadPool(bool)
{
    ProcessState::self()->runWorker();
}

} // namespace android

#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include <unistd.h>

namespace android {

pid_t IPCThreadState::getCallingPid() const
{
    return serving.empty() ? getpid() : serving.back().pid;
}

uid_t IPCThreadState::getCallingUid() const
{
    return serving.empty() ? getuid() : serving.back().uid;
}

std::shared_ptr<void> IPCThreadState::keepCallCounted() const
{
    return serving.empty() ? nullptr : serving.back().work;
}

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

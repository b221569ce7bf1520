#include "Session.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <string>
#include <thread>

namespace dlm {

using namespace android;

std::atomic<bool> interrupted { false };
std::atomic<bool> endsByItself { false };

// SIGINT and SIGTERM are blocked in every thread and taken by one that waits for them, so the
// others wait without polling. Call before any other thread starts: they inherit the mask.
void handleSignals(const sp<UpdateQueue> &events)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread([set, events] {
        int signal = 0;
        while (sigwait(&set, &signal) == 0) {
            if (!endsByItself)
                _exit(128 + signal);
            interrupted = true;
            events->interrupt();
        }
    }).detach();
}

sp<IDLService> connectService(const sp<UpdateQueue> &events)
{
    ProcessState::self()->startThreadPool();
    sp<IBinder> binder = defaultServiceManager()->checkService(String16(IDLService::kServiceName));
    if (binder == nullptr) {
        const int why = errno;
        const char *dir = getenv("BINDER_SOCKET_DIR");
        const std::string path = std::string(dir && *dir ? dir : "/run/downloadmanager") + "/"
            + IDLService::kServiceName;
        if (why == EACCES || why == EPERM)
            fprintf(stderr, "dlctl: permission denied: this user may not reach %s\n", path.c_str());
        else if (why == EAGAIN || why == ETIMEDOUT)
            fprintf(stderr,
                "dlctl: the download service is not answering (%s accepts no "
                "connection)\n",
                path.c_str());
        else if (why == ENOENT || why == ECONNREFUSED || why == ENOTDIR)
            fprintf(stderr, "dlctl: the download service is not running (no %s)\n", path.c_str());
        else
            fprintf(stderr, "dlctl: cannot reach the download service at %s: %s\n", path.c_str(),
                strerror(why));
        return nullptr;
    }
    binder->linkToDeath(events);
    return interface_cast<IDLService>(binder);
}

// Every call that did not reach the service ends dlctl with status 2 and says so.
int notAnswered(const char *call, int status)
{
    if (status == IDLService::TEXT_TOO_LONG) {
        fprintf(stderr,
            "dlctl: refused: an argument is longer than the service accepts (%zu bytes "
            "for an identifier or client, %zu for a URL, %zu for a path)\n",
            IDLService::kMaxIdBytes, IDLService::kMaxUrlBytes, IDLService::kMaxPathBytes);
        return 1;
    }
    fprintf(stderr, "dlctl: the download service did not answer %s (status %d)\n", call, status);
    return 2;
}

} // namespace dlm

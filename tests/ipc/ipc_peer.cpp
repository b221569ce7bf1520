// Peer process for the IPC tests. Modes:
//   service NAME              publish the demo service, print "ready"
//   starved-service NAME      the same, then limit the address space so that few more threads fit
//   register NAME             register a callback with NAME, print "registered", wait forever
//   register-unregister NAME  the same, but unregister again before waiting
//   stress NAME CALLS         check CALLS additions, a rendezvous of 8 callers and a callback
#include "DemoInterface.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

using namespace android;

namespace {

class DemoService : public BnDemoService, public IBinder::DeathRecipient {
public:
    int32_t add(int32_t a, int32_t b) override { return a + b; }

    status_t registerCallback(const sp<IDemoCallback> &cb) override
    {
        const status_t err = IInterface::asBinder(cb)->linkToDeath(this);
        if (err != NO_ERROR)
            return err;
        std::lock_guard<std::mutex> lock(mLock);
        mCallbacks.push_back(cb);
        return NO_ERROR;
    }

    status_t unregisterCallback(const sp<IDemoCallback> &cb) override
    {
        std::lock_guard<std::mutex> lock(mLock);
        for (auto it = mCallbacks.begin(); it != mCallbacks.end(); ++it) {
            if (IInterface::asBinder(*it) == IInterface::asBinder(cb)) {
                mCallbacks.erase(it);
                return IInterface::asBinder(cb)->unlinkToDeath(
                    wp<IBinder::DeathRecipient>(this), nullptr, 0);
            }
        }
        return NAME_NOT_FOUND;
    }

    status_t fire(int32_t count, int32_t payloadBytes) override
    {
        std::vector<sp<IDemoCallback>> callbacks;
        {
            std::lock_guard<std::mutex> lock(mLock);
            callbacks = mCallbacks;
        }
        const std::string payload(size_t(std::max(payloadBytes, 0)), 'p');
        for (const sp<IDemoCallback> &cb : callbacks)
            for (int32_t i = 0; i < count; ++i)
                cb->onEvent(i, payload);
        return NO_ERROR;
    }

    int32_t callBack(const sp<IDemoCallback> &cb, int32_t a, int32_t b) override
    {
        return cb->compute(a, b);
    }

    int32_t deaths() override { return mDeaths; }

    bool rendezvous(int32_t n) override
    {
        std::unique_lock<std::mutex> lock(mLock);
        ++mInside;
        mArrived.notify_all();
        const bool met = mArrived.wait_for(
            lock, std::chrono::seconds(10), [&] { return mInside >= n || mMet; });
        mMet = mMet || met;
        return met;
    }

    status_t whoAmI(int32_t *pid, int32_t *uid) override
    {
        *pid = IPCThreadState::self()->getCallingPid();
        *uid = int32_t(IPCThreadState::self()->getCallingUid());
        return NO_ERROR;
    }

    void binderDied(const wp<IBinder> &who) override
    {
        sp<IBinder> b = who.unsafe_get();
        std::lock_guard<std::mutex> lock(mLock);
        for (auto it = mCallbacks.begin(); it != mCallbacks.end(); ++it) {
            if (IInterface::asBinder(*it) == b) {
                mCallbacks.erase(it);
                break;
            }
        }
        ++mDeaths;
    }

private:
    std::mutex mLock;
    std::condition_variable mArrived;
    std::vector<sp<IDemoCallback>> mCallbacks;
    std::atomic<int32_t> mDeaths { 0 };
    int32_t mInside = 0;
    bool mMet = false;
};

class Doubler : public BnDemoCallback {
public:
    void onEvent(int32_t, const std::string &) override { }
    int32_t compute(int32_t a, int32_t b) override { return 2 * (a + b); }
};

// Lets the process grow by `headroomKiB` of address space: a thread's stack takes 8 MiB.
void limitAddressSpace(long headroomKiB)
{
    long sizeKiB = 0;
    if (FILE *status = std::fopen("/proc/self/status", "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, status))
            if (std::sscanf(line, "VmSize: %ld kB", &sizeKiB) == 1)
                break;
        std::fclose(status);
    }
    const rlim_t limit = rlim_t(sizeKiB + headroomKiB) * 1024;
    const rlimit r { limit, limit };
    setrlimit(RLIMIT_AS, &r);
}

int runService(const char *name, bool starved)
{
    ProcessState::self()->startThreadPool();
    sp<DemoService> service = new DemoService;
    const status_t err = defaultServiceManager()->addService(String16(name), service);
    if (err != NO_ERROR) {
        std::printf("addService failed %d\n", err);
        return 1;
    }
    if (starved)
        limitAddressSpace(40 * 1024);
    std::printf("ready\n");
    std::fflush(stdout);
    IPCThreadState::self()->joinThreadPool();
    return 0;
}

int runClient(const char *mode, const char *name, int calls)
{
    sp<IDemoService> service
        = interface_cast<IDemoService>(defaultServiceManager()->getService(String16(name)));
    if (service == nullptr) {
        std::printf("no service\n");
        return 2;
    }
    sp<IDemoCallback> cb = new Doubler;
    if (std::strcmp(mode, "stress") == 0) {
        const int32_t base = int32_t(getpid());
        for (int i = 0; i < calls; ++i) {
            if (service->add(base, i) != base + i) {
                std::printf("wrong sum\n");
                return 3;
            }
        }
        if (!service->rendezvous(8)) {
            std::printf("callers did not overlap\n");
            return 4;
        }
        return service->callBack(cb, base, 1) == 2 * (base + 1) ? 0 : 5;
    }
    if (service->registerCallback(cb) != NO_ERROR)
        return 6;
    if (std::strcmp(mode, "register-unregister") == 0
        && service->unregisterCallback(cb) != NO_ERROR)
        return 7;
    std::printf("registered\n");
    std::fflush(stdout);
    for (;;)
        pause();
}

} // namespace

int main(int argc, char **argv)
{
    // A peer must not outlive a test that crashed.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == 1)
        return 1;
    if (argc >= 3 && std::strcmp(argv[1], "service") == 0)
        return runService(argv[2], false);
    if (argc >= 3 && std::strcmp(argv[1], "starved-service") == 0)
        return runService(argv[2], true);
    if (argc >= 3)
        return runClient(argv[1], argv[2], argc >= 4 ? std::atoi(argv[3]) : 0);
    std::fprintf(stderr, "usage: ipc_peer service|register|register-unregister|stress NAME [N]\n");
    return 64;
}

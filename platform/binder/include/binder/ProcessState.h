#pragma once

#include <utils/Errors.h>
#include <utils/RefBase.h>

#include <cstddef>
#include <functional>

namespace android {

// Per-process runtime: owns the pool of threads that run incoming calls and death notices.
class ProcessState : public virtual RefBase {
public:
    static sp<ProcessState> self();

    // Pool threads are started on demand as work arrives; this only marks the pool as wanted.
    void startThreadPool();
    status_t setThreadPoolMaxThreadCount(size_t maxThreads);
    size_t maxThreads() const;

    // Runtime internal: queues work for a pool thread.
    void post(std::function<void()> work);
    // Runs pool work on the calling thread forever (used by IPCThreadState::joinThreadPool).
    void runWorker();

private:
    ProcessState();
    struct Pool;
    Pool *mPool;
};

} // namespace android

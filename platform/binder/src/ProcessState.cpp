#include <binder/ProcessState.h>

#include <android/log.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <system_error>
#include <thread>

namespace android {

struct ProcessState::Pool {
    std::mutex lock;
    std::condition_variable wake;
    std::deque<std::function<void()>> work;
    size_t threads = 0;
    size_t idle = 0;
    size_t max = 15;
};

ProcessState::ProcessState() : mPool(new Pool) { }

sp<ProcessState> ProcessState::self()
{
    // Never destroyed: detached pool and connection threads may still run during exit.
    static ProcessState *const instance = [] {
        auto *p = new ProcessState;
        p->incStrong(p);
        return p;
    }();
    return instance;
}

void ProcessState::startThreadPool() { }

status_t ProcessState::setThreadPoolMaxThreadCount(size_t maxThreads)
{
    if (maxThreads == 0)
        return BAD_VALUE;
    std::lock_guard<std::mutex> lock(mPool->lock);
    mPool->max = maxThreads;
    return NO_ERROR;
}

size_t ProcessState::maxThreads() const
{
    std::lock_guard<std::mutex> lock(mPool->lock);
    return mPool->max;
}

void ProcessState::post(std::function<void()> work)
{
    std::lock_guard<std::mutex> lock(mPool->lock);
    mPool->work.push_back(std::move(work));
    if (mPool->work.size() > mPool->idle && mPool->threads < mPool->max) {
        // Out of threads or memory, the work waits for a thread that is already running (or
        // for the next post to try again); the process goes on.
        try {
            std::thread([this] { runWorker(); }).detach();
            mPool->threads++;
            return;
        } catch (const std::system_error &e) {
            __android_log_print(ANDROID_LOG_WARN, "binder",
                "cannot start a pool thread (%zu running): %s", mPool->threads, e.what());
        }
    }
    mPool->wake.notify_one();
}

void ProcessState::runWorker()
{
    std::unique_lock<std::mutex> lock(mPool->lock);
    for (;;) {
        mPool->idle++;
        mPool->wake.wait(lock, [this] { return !mPool->work.empty(); });
        mPool->idle--;
        std::function<void()> work = std::move(mPool->work.front());
        mPool->work.pop_front();
        lock.unlock();
        work();
        work = nullptr;
        lock.lock();
    }
}

} // namespace android

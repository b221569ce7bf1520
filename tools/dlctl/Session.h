#pragma once

#include "IDLService.h"

#include <binder/IBinder.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <unistd.h>

// What every dlctl command shares: the connection to the service, the deadline of its calls,
// the update stream and the handling of SIGINT and SIGTERM.

namespace dlm {

extern std::atomic<bool> interrupted;
// Set while a loop ends by itself on SIGINT or SIGTERM; otherwise a signal ends dlctl at once,
// wherever it waits (a connect, or a call to a service that does not answer).
extern std::atomic<bool> endsByItself;

// Every call to the service has a deadline: a service that accepted the connection but does not
// answer (stopped, or stuck) ends dlctl with status 2 instead of holding it for ever. One thread
// waits for the armed deadline; waiting for updates is not a call and is not armed.
class CallDeadline {
public:
    static void arm(const char *call)
    {
        static std::once_flag started;
        std::call_once(started, [] { std::thread(watch).detach(); });
        std::lock_guard<std::mutex> lock(mutex);
        armed = call;
        deadline = std::chrono::steady_clock::now() + timeout();
        changed.notify_all();
    }
    static void disarm()
    {
        std::lock_guard<std::mutex> lock(mutex);
        armed = nullptr;
        changed.notify_all();
    }

private:
    static std::chrono::milliseconds timeout()
    {
        const char *text = getenv("DLCTL_TIMEOUT_MS");
        const long ms = text && *text ? strtol(text, nullptr, 10) : 0;
        return std::chrono::milliseconds(ms > 0 ? ms : 15000);
    }
    static void watch()
    {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            if (!armed)
                changed.wait(lock);
            else if (changed.wait_until(lock, deadline) == std::cv_status::timeout && armed
                && std::chrono::steady_clock::now() >= deadline) {
                fprintf(stderr, "dlctl: the download service did not answer %s within %lld ms\n",
                    armed, static_cast<long long>(timeout().count()));
                fflush(nullptr);
                _exit(2);
            }
        }
    }
    static inline std::mutex mutex;
    static inline std::condition_variable changed;
    static inline const char *armed = nullptr;
    static inline std::chrono::steady_clock::time_point deadline;
};

// Collects update callbacks, which arrive on IPC pool threads, for the main thread, or hands
// them to a sink on the thread they arrive on.
class UpdateQueue : public BnDLClient, public android::IBinder::DeathRecipient {
public:
    void onDownloadUpdate(IDownload download) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (sink) {
            sink(download);
            return;
        }
        updates.push_back(std::move(download));
        ready.notify_all();
    }
    // From now on, updates go to sink (none when empty), one at a time and in order.
    void setSink(std::function<void(const IDownload &)> f)
    {
        std::lock_guard<std::mutex> lock(mutex);
        sink = std::move(f);
    }
    void binderDied(const android::wp<android::IBinder> &) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        serviceDied = true;
        ready.notify_all();
    }
    // Wakes a waiting next() once `interrupted` is set.
    void interrupt()
    {
        std::lock_guard<std::mutex> lock(mutex);
        ready.notify_all();
    }
    // Waits until an update arrives, without a time-out when timeoutMs is negative. False on
    // time-out, interruption or the service's death.
    bool next(IDownload *out, int timeoutMs)
    {
        std::unique_lock<std::mutex> lock(mutex);
        const auto woken = [this] { return !updates.empty() || serviceDied || interrupted; };
        if (timeoutMs < 0)
            ready.wait(lock, woken);
        else
            ready.wait_for(lock, std::chrono::milliseconds(timeoutMs), woken);
        if (updates.empty())
            return false;
        *out = std::move(updates.front());
        updates.pop_front();
        return true;
    }
    bool died()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return serviceDied;
    }

private:
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<IDownload> updates;
    std::function<void(const IDownload &)> sink;
    bool serviceDied = false;
};

// Blocks SIGINT and SIGTERM in every thread and takes them in one of its own. Call before any
// other thread starts.
void handleSignals(const android::sp<UpdateQueue> &events);
// Null (after saying why on standard error) when the service cannot be reached.
android::sp<IDLService> connectService(const android::sp<UpdateQueue> &events);
// Says why a call did not reach the service; the exit status for it (1 or 2).
int notAnswered(const char *call, int status);

} // namespace dlm

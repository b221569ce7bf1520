#pragma once

#include "DownloadManager.h"
#include "MainThreadQueue.h"

#include <QThread>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>

namespace dlm {

// The one way from IPC pool threads into the manager's thread: every call, one-way or answered,
// is queued on one MainThreadQueue in order of arrival, and the manager pointer is used only
// under the gate's lock, so that after close() no thread reaches the manager.
class ManagerGate {
public:
    explicit ManagerGate(DownloadManager *manager) : manager(manager) { }
    ~ManagerGate() { close(); }

    // Creates the queue; on the manager's thread, before any call may arrive.
    void open() { queue = new MainThreadQueue; }
    // Detaches from the manager and drops what is queued; later calls get their fallback.
    void close();
    // Queues a request unless the manager is gone; it stays counted against the calling
    // connection and uid until it has run.
    void post(std::function<void(DownloadManager *)> request);
    // Runs question on the manager's thread and waits; fallback once the manager is gone.
    template <typename R> R ask(R fallback, std::function<R(DownloadManager *)> question);

private:
    std::shared_mutex gate; // guards the three below against close()
    DownloadManager *manager;
    bool detached = false;
    MainThreadQueue *queue = nullptr;
};

template <typename R> R ManagerGate::ask(R fallback, std::function<R(DownloadManager *)> question)
{
    struct Answer {
        std::mutex mutex;
        std::condition_variable ready;
        bool done = false;
        R value;
    };
    auto answer = std::make_shared<Answer>();
    {
        std::shared_lock<std::shared_mutex> lock(gate);
        if (detached || !manager)
            return fallback;
        DownloadManager *target = manager;
        if (QThread::currentThread() == target->thread())
            return question(target);
        // The answer lives in shared state: work that runs after we gave up writes there.
        const bool queued = queue && queue->post([target, answer, question] {
            R value = question(target);
            std::lock_guard<std::mutex> guard(answer->mutex);
            answer->value = std::move(value);
            answer->done = true;
            answer->ready.notify_all();
        });
        if (!queued)
            return fallback;
    }
    std::unique_lock<std::mutex> wait(answer->mutex);
    while (!answer->done) {
        if (answer->ready.wait_for(wait, std::chrono::milliseconds(50))
            == std::cv_status::timeout) {
            // quit() drops queued work; do not wait for an answer that will never come.
            std::shared_lock<std::shared_mutex> lock(gate);
            if (detached)
                return fallback;
        }
    }
    return answer->value;
}

} // namespace dlm

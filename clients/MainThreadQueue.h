#pragma once

#include <QObject>

#include <deque>
#include <functional>
#include <mutex>

class QSocketNotifier;

namespace dlm {

// Runs work on the thread that created the queue, in the order it was posted, from any thread.
// Hand-over uses a plain mutex and an eventfd (not Qt's event queue), so ThreadSanitizer sees
// every hand-over. Must be created and destroyed on its own thread.
class MainThreadQueue : public QObject {
public:
    MainThreadQueue();
    ~MainThreadQueue() override;

    // False when the queue is closed; the work is then dropped.
    bool post(std::function<void()> work);
    // Refuses new work and drops what is still queued.
    void close();

private:
    void runPending();

    int wakeFd;
    QSocketNotifier *notifier;
    std::mutex mutex;
    std::deque<std::function<void()>> pending;
    bool closed = false;
};

} // namespace dlm

#include "MainThreadQueue.h"

#include <QSocketNotifier>

#include <sys/eventfd.h>
#include <unistd.h>

namespace dlm {

MainThreadQueue::MainThreadQueue()
    : wakeFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)), notifier(nullptr)
{
    if (wakeFd >= 0) {
        notifier = new QSocketNotifier(wakeFd, QSocketNotifier::Read, this);
        connect(notifier, &QSocketNotifier::activated, this, &MainThreadQueue::runPending);
    } else {
        closed = true;
    }
}

MainThreadQueue::~MainThreadQueue()
{
    close();
    delete notifier;
    if (wakeFd >= 0)
        ::close(wakeFd);
}

bool MainThreadQueue::post(std::function<void()> work)
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (closed)
            return false;
        pending.push_back(std::move(work));
    }
    const uint64_t one = 1;
    ssize_t written = ::write(wakeFd, &one, sizeof one);
    (void)written; // a full counter still wakes the reader
    return true;
}

void MainThreadQueue::close()
{
    std::deque<std::function<void()>> dropped;
    std::lock_guard<std::mutex> lock(mutex);
    closed = true;
    dropped.swap(pending);
}

void MainThreadQueue::runPending()
{
    uint64_t count = 0;
    ssize_t got = ::read(wakeFd, &count, sizeof count);
    (void)got;
    std::deque<std::function<void()>> batch;
    {
        std::lock_guard<std::mutex> lock(mutex);
        batch.swap(pending);
    }
    for (auto &work : batch)
        work();
}

} // namespace dlm

#include "ManagerGate.h"

#include <binder/IPCThreadState.h>

namespace dlm {

void ManagerGate::close()
{
    MainThreadQueue *closing = nullptr;
    {
        std::unique_lock<std::shared_mutex> lock(gate);
        detached = true;
        manager = nullptr;
        std::swap(closing, queue);
    }
    delete closing; // no pool thread can be inside post() any more
}

void ManagerGate::post(std::function<void(DownloadManager *)> request)
{
    // Queued work stays counted against the caller's connection and uid until it has run, so a
    // flood of calls that return at once is held back like any other (see IPCThreadState).
    std::shared_ptr<void> counted = android::IPCThreadState::self()->keepCallCounted();
    std::shared_lock<std::shared_mutex> lock(gate);
    if (detached || !manager || !queue)
        return;
    DownloadManager *target = manager;
    queue->post([target, request = std::move(request), counted] {
        if (!target->isQuitting())
            request(target);
    });
}

} // namespace dlm

#include "RequestQueue.h"

#include <QTimer>
#include <QUrl>

RequestQueue &RequestQueue::instance()
{
    static RequestQueue queue;
    return queue;
}

QString RequestQueue::originOf(const QString &url)
{
    const QUrl parsed(url);
    const QString scheme = parsed.scheme().toLower();
    const int port = parsed.port(scheme == QLatin1String("https") ? 443 : 80);
    return scheme + QLatin1String("://") + parsed.host().toLower() + QLatin1Char(':')
        + QString::number(port);
}

void RequestQueue::enter(const void *owner, const QString &origin, std::function<void()> start)
{
    leave(owner);
    Origin &entry = origins[origin];
    // Never ahead of a request that waits: its slot is on the way.
    const bool wait = entry.running >= kPerOrigin || !entry.waiting.isEmpty();
    owners.insert(owner, { origin, wait });
    if (wait) {
        entry.waiting.append({ owner, std::move(start) });
        return;
    }
    ++entry.running;
    start();
}

void RequestQueue::leave(const void *owner)
{
    const auto found = owners.constFind(owner);
    if (found == owners.constEnd())
        return;
    const QString origin = found.value().first;
    const bool waiting = found.value().second;
    owners.erase(found);
    Origin &entry = origins[origin];
    if (waiting) {
        entry.waiting.removeIf([owner](const auto &w) { return w.first == owner; });
    } else {
        --entry.running;
        // Started from the event loop, not from inside the caller (often a transfer that is
        // ending); "pause all" drops every waiting request before any of them would start.
        if (!entry.waiting.isEmpty())
            QTimer::singleShot(0, [this, origin] { startWaiting(origin); });
    }
    if (entry.running == 0 && entry.waiting.isEmpty())
        origins.remove(origin);
}

void RequestQueue::startWaiting(const QString &origin)
{
    for (;;) {
        const auto entry = origins.find(origin);
        if (entry == origins.end() || entry->running >= kPerOrigin || entry->waiting.isEmpty())
            return;
        auto [owner, start] = entry->waiting.takeFirst();
        owners[owner].second = false;
        ++entry->running;
        start(); // may enter or leave: the entry is looked up again
    }
}

#include "RequestQueue.h"

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
    const bool wait = entry.running >= kPerOrigin;
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
        return;
    }
    --entry.running;
    if (entry.waiting.isEmpty()) {
        if (entry.running == 0)
            origins.remove(origin);
        return;
    }
    // The slot passes on; the started request may itself leave or enter, so nothing of the
    // entry is used after start().
    std::function<void()> start = std::move(entry.waiting.first().second);
    owners[entry.waiting.first().first].second = false;
    entry.waiting.removeFirst();
    ++entry.running;
    start();
}

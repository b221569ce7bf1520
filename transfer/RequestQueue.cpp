#include "RequestQueue.h"

#include <QTimer>
#include <QUrl>

#include <algorithm>

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

void RequestQueue::setPerOrigin(int limit)
{
    perOriginSlots = qMax(2, limit);
}

bool RequestQueue::Origin::mayStart(uint uid, int limit) const
{
    if (running >= limit)
        return false;
    if (uid == 0)
        return held.value(0) < limit - 1;
    return held.value(uid) < qMax(1, limit * 2 / 3) && running - held.value(0) < limit - 1;
}

void RequestQueue::enter(
    const void *owner, uint uid, const QString &origin, std::function<void()> start)
{
    leave(owner);
    Origin &entry = origins[origin];
    owners.insert(owner, { origin, uid, true });
    entry.waiting[uid].append({ owner, std::move(start) });
    if (!entry.turns.contains(uid))
        entry.turns.append(uid);
    // A slot given back is already promised to a request that waits: the turns decide.
    startWaiting(origin);
}

void RequestQueue::leave(const void *owner)
{
    const auto found = owners.constFind(owner);
    if (found == owners.constEnd())
        return;
    const Owner left = found.value();
    owners.erase(found);
    Origin &entry = origins[left.origin];
    if (left.waiting) {
        auto &queue = entry.waiting[left.uid];
        queue.removeIf([owner](const auto &w) { return w.first == owner; });
        if (queue.isEmpty()) {
            entry.waiting.remove(left.uid);
            entry.turns.removeOne(left.uid);
        }
    } else {
        --entry.running;
        if (--entry.held[left.uid] == 0)
            entry.held.remove(left.uid);
        // Started from the event loop, not from inside the caller (often a transfer that is
        // ending); "pause all" drops every waiting request before any of them would start.
        if (!entry.turns.isEmpty())
            QTimer::singleShot(0, [this, origin = left.origin] { startWaiting(origin); });
    }
    if (entry.running == 0 && entry.turns.isEmpty())
        origins.remove(left.origin);
}

void RequestQueue::startWaiting(const QString &origin)
{
    for (;;) {
        const auto entry = origins.find(origin);
        if (entry == origins.end())
            return;
        const auto next = std::find_if(entry->turns.cbegin(), entry->turns.cend(),
            [&](uint uid) { return entry->mayStart(uid, perOriginSlots); });
        if (next == entry->turns.cend())
            return;
        const uint uid = *next;
        entry->turns.erase(next);
        auto &queue = entry->waiting[uid];
        auto [owner, start] = queue.takeFirst();
        if (queue.isEmpty())
            entry->waiting.remove(uid);
        else
            entry->turns.append(uid); // its next request waits for its next turn
        owners[owner].waiting = false;
        ++entry->running;
        ++entry->held[uid];
        start(); // may enter or leave: the entry is looked up again
    }
}

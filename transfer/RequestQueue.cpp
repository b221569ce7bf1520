#include "RequestQueue.h"

#include <UserShare.h>

#include <QTimer>
#include <QUrl>

#include <algorithm>

namespace dlm {

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
    perOriginLimit = qMax(2, limit);
}

void RequestQueue::setActiveLimit(int limit)
{
    allLimit = limit <= 0 ? 0 : qMax(2, limit);
}

bool RequestQueue::Holders::mayStart(uint uid, int limit) const
{
    if (limit == 0)
        return true;
    // Root, too, leaves a slot to the others.
    const UserShare<int> share { limit, qMax(1, limit * 2 / 3), limit - 1, limit - 1 };
    return share.judge(uid == 0, held.value(uid), running - held.value(0), running, 1)
        == share.Fits;
}

void RequestQueue::Holders::add(uint uid, int count)
{
    running += count;
    if ((held[uid] += count) == 0)
        held.remove(uid);
}

void RequestQueue::enter(const void *owner, uint uid, const QString &origin, quint64 order,
    std::function<void()> start, int priority)
{
    leave(owner);
    Origin &entry = origins[origin];
    owners.insert(owner, { origin, uid, true });
    QList<Waiter> &queue = entry.waiting[uid];
    Waiter w { owner, order, std::move(start), priority };
    const auto later = std::upper_bound(queue.begin(), queue.end(), w,
        [](const Waiter &a, const Waiter &b) { return a.before(b); });
    queue.insert(later, std::move(w));
    if (!entry.turns.contains(uid))
        entry.turns.append(uid);
    // A slot given back is already promised to a request that waits: the turns decide.
    startWaiting();
}

void RequestQueue::setPriority(const void *owner, int priority)
{
    const auto found = owners.constFind(owner);
    if (found == owners.constEnd() || !found->waiting)
        return;
    QList<Waiter> &queue = origins[found->origin].waiting[found->uid];
    const auto at = std::find_if(
        queue.begin(), queue.end(), [owner](const Waiter &w) { return w.owner == owner; });
    if (at == queue.end())
        return;
    Waiter w = std::move(*at);
    queue.erase(at);
    w.priority = priority;
    queue.insert(std::upper_bound(queue.begin(), queue.end(), w,
                     [](const Waiter &a, const Waiter &b) { return a.before(b); }),
        std::move(w));
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
        queue.removeIf([owner](const Waiter &w) { return w.owner == owner; });
        if (queue.isEmpty()) {
            entry.waiting.remove(left.uid);
            entry.turns.removeOne(left.uid);
        }
    } else {
        entry.add(left.uid, -1);
        all.add(left.uid, -1);
        // Started from the event loop, not from inside the caller (often a transfer that is
        // ending); "pause all" drops every waiting request before any of them would start.
        QTimer::singleShot(0, [this] { startWaiting(); });
    }
    if (entry.running == 0 && entry.turns.isEmpty())
        origins.remove(left.origin);
}

void RequestQueue::startWaiting()
{
    for (;;) {
        Origin *from = nullptr;
        QList<uint>::const_iterator next;
        for (Origin &entry : origins) {
            const auto turn = std::find_if(entry.turns.cbegin(), entry.turns.cend(), [&](uint uid) {
                return entry.mayStart(uid, perOriginLimit) && all.mayStart(uid, allLimit);
            });
            if (turn != entry.turns.cend()
                && (!from || entry.waiting[*turn].first().before(from->waiting[*next].first()))) {
                from = &entry;
                next = turn;
            }
        }
        if (!from)
            return;
        const uint uid = *next;
        from->turns.erase(next);
        auto &queue = from->waiting[uid];
        Waiter w = queue.takeFirst();
        if (queue.isEmpty())
            from->waiting.remove(uid);
        else
            from->turns.append(uid); // its next request waits for its next turn
        owners[w.owner].waiting = false;
        from->add(uid, 1);
        all.add(uid, 1);
        w.start(); // may enter or leave: the entries are looked up again
    }
}

} // namespace dlm

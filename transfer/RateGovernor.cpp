#include "RateGovernor.h"

#include <QTimer>

#include <climits>
#include <vector>

namespace dlm {

RateGovernor::RateGovernor(QObject *parent) : QObject(parent)
{
    clock.start();
}

RateGovernor::~RateGovernor() = default;

void RateGovernor::join(const void *who, int64_t ownLimit, Pause pause)
{
    auto member = std::make_unique<Member>();
    member->own = ownLimit;
    member->pause = std::move(pause);
    member->wake = new QTimer(this);
    member->wake->setSingleShot(true);
    // Precise: a rest that ends early would rest a quarter second more.
    member->wake->setTimerType(Qt::PreciseTimer);
    connect(member->wake, &QTimer::timeout, this, [this, who] {
        const auto found = members.find(who);
        if (found != members.end())
            rest(*found->second);
    });
    std::unique_ptr<Member> &slot = members[who];
    if (slot)
        slot->wake->deleteLater();
    slot = std::move(member);
    reshare();
}

void RateGovernor::leave(const void *who)
{
    const auto found = members.find(who);
    if (found == members.end())
        return;
    // Possibly inside its own timer's call: stopped now, freed later.
    found->second->wake->stop();
    found->second->wake->deleteLater();
    members.erase(found);
    // Only the others' shares change; nothing of who is called any more.
    if (overallLimit > 0)
        reshare();
}

void RateGovernor::setOwnLimit(const void *who, int64_t bytesPerSecond)
{
    const auto found = members.find(who);
    if (found == members.end() || found->second->own == bytesPerSecond)
        return;
    found->second->own = bytesPerSecond;
    reshare();
}

void RateGovernor::setOverall(int64_t bytesPerSecond)
{
    if (overallLimit == bytesPerSecond)
        return;
    overallLimit = bytesPerSecond;
    reshare();
}

void RateGovernor::reshare()
{
    std::vector<int64_t> own;
    own.reserve(members.size());
    for (const auto &entry : members)
        own.push_back(entry.second->own);
    const std::vector<int64_t> shares = shareRates(overallLimit, own);
    const int64_t now = clock.elapsed();
    std::vector<const void *> resting;
    size_t i = 0;
    for (auto &[who, m] : members) {
        const int64_t share = shares[i++];
        if (m->bucket.rate() == share)
            continue;
        m->bucket.setRate(share, now);
        if (m->paused)
            resting.push_back(who);
    }
    // After the walk: resuming a transfer may run its callbacks.
    for (const void *who : resting) {
        const auto found = members.find(who);
        if (found != members.end())
            rest(*found->second);
    }
}

void RateGovernor::arrived(const void *who, int64_t bytes)
{
    const auto found = members.find(who);
    if (found == members.end() || found->second->bucket.rate() == 0)
        return;
    Member &m = *found->second;
    // curl hands over what it read in blocks, one call each, also after the pause: each moves
    // the one resume time, none adds a wake-up.
    if (m.bucket.take(bytes, clock.elapsed()) > 0)
        rest(m);
}

void RateGovernor::rest(Member &m)
{
    // The rest left at the current rate; none once the rate is lifted.
    const int64_t waitMs = m.bucket.take(0, clock.elapsed());
    if (waitMs <= 0) {
        m.wake->stop();
        if (m.paused) {
            m.paused = false; // before the call: curl may hand over bytes, and pause, inside it
            m.pause(false);
        }
        return;
    }
    m.wake->start(int(std::min<int64_t>(waitMs, INT_MAX)));
    if (!m.paused) {
        m.paused = true;
        m.pause(true);
    }
}

} // namespace dlm

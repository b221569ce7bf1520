#pragma once

#include "RateShares.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <functional>
#include <memory>
#include <unordered_map>

namespace dlm {

// Holds every running transfer to its rate: its own limit and its share of the overall limit
// (see shareRates), paced by a TokenBucket of its own. A transfer that must rest is paused at
// once and resumed by its one timer on the event loop (one wake-up per rest); a change of a
// limit re-shares the rates and moves every resting transfer's resume time at once. Transfers
// without a rate cost a lookup per buffer. Rates in bytes per second, 0 for none. Main thread
// only.
class RateGovernor : public QObject {
    Q_OBJECT

public:
    // Pauses (true) or resumes (false) a transfer's reading.
    using Pause = std::function<void(bool paused)>;

    explicit RateGovernor(QObject *parent = nullptr);
    ~RateGovernor() override;

    // A transfer on the wire with its own limit; joining again replaces the earlier entry.
    void join(const void *who, int64_t ownLimit, Pause pause);
    // The transfer is over: it is never called back again.
    void leave(const void *who);
    // Ignored for a transfer that has not joined.
    void setOwnLimit(const void *who, int64_t bytesPerSecond);
    // The overall limit in effect.
    void setOverall(int64_t bytesPerSecond);
    int64_t overall() const { return overallLimit; }
    // bytes were received (and written) by who; pauses it when its bucket says it must rest.
    void arrived(const void *who, int64_t bytes);

private:
    struct Member {
        int64_t own = 0;
        Pause pause;
        TokenBucket bucket;
        bool paused = false;
        QTimer *wake = nullptr; // ends the rest; a child of the governor, freed after leave()
    };
    // Gives every member its share again; resting ones get a new resume time.
    void reshare();
    // Pauses a member for its bucket's rest, or resumes it when there is none.
    void rest(Member &m);

    std::unordered_map<const void *, std::unique_ptr<Member>> members;
    int64_t overallLimit = 0;
    QElapsedTimer clock;
};

} // namespace dlm

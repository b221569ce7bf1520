#pragma once

#include <QElapsedTimer>
#include <QTimer>

#include <functional>

namespace dlm {

// When a running download's written bytes are committed (reported, then stored): after
// MAX_PACKET_COUNT arrivals and DLM_REPORT_INTERVAL_MS since the last commit; on a slow link
// also after enough content or a few quiet intervals, so that a download costs a few commits per
// MiB at any rate; and at once past a bound of uncommitted bytes. Bytes that arrive just before
// the link goes quiet are committed by a timer. Measures the rate at commits.
class CommitBatch {
public:
    // due: the timer found a batch waiting; the owner commits it (or not) and calls committed().
    explicit CommitBatch(std::function<void()> due);

    // A new attempt: counts afresh, with the interval and the count read from the environment.
    void begin();
    // A block was written; amount: the bytes in the file now; bound: uncommitted bytes that
    // make a commit due at once. True when the owner should commit now.
    bool arrived(qint64 amount, qint64 bound);
    // Everything up to amount is committed; the rate runs while the download progresses.
    void committed(qint64 amount, bool progressing);
    // No batch waits any more (the timer stops, the count starts afresh).
    void stop();
    bool isBehind(qint64 amount) const { return amount != reportedAmount; }
    // Bytes per second over the last second or more of commits; 0 when not progressing.
    qint64 rate() const { return measuredRate; }

private:
    QTimer flushTimer;
    QElapsedTimer sinceCommit;
    int interval = 0;
    // MAX_PACKET_COUNT, read with the interval: a lookup per block cost more than the block.
    int packets = 0;
    int packetCount = 0;
    qint64 reportedAmount = 0;
    // The rate: bytes since rateClock started at rateBase.
    QElapsedTimer rateClock;
    qint64 rateBase = 0;
    qint64 measuredRate = 0;
};

} // namespace dlm

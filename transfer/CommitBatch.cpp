#include "CommitBatch.h"

#include <QtGlobal>

namespace dlm {

namespace {
constexpr int kDefaultPacketLimit = 10;
constexpr int kDefaultReportIntervalMs = 500;
// On a slow link a batch also waits for this much content, or for this many intervals.
constexpr qint64 kReportBytes = 512 * 1024;
constexpr int kMaxQuietIntervals = 6;

int packetLimit()
{
    bool ok = false;
    const int value = qgetenv("MAX_PACKET_COUNT").toInt(&ok, 10);
    return (ok && value != 0) ? value : kDefaultPacketLimit;
}

int reportIntervalMs()
{
    bool ok = false;
    const int value = qgetenv("DLM_REPORT_INTERVAL_MS").toInt(&ok, 10);
    return (ok && value >= 0) ? value : kDefaultReportIntervalMs;
}
} // namespace

CommitBatch::CommitBatch(std::function<void()> due)
{
    flushTimer.setSingleShot(true);
    flushTimer.callOnTimeout(std::move(due));
}

void CommitBatch::begin()
{
    packetCount = 0;
    interval = reportIntervalMs();
    packets = packetLimit();
}

bool CommitBatch::arrived(qint64 amount, qint64 bound)
{
    const qint64 fresh = amount - reportedAmount;
    if (fresh >= bound)
        return true;
    const qint64 quiet = sinceCommit.elapsed();
    const qint64 longest = qint64(interval) * kMaxQuietIntervals;
    if (packets > packetCount++ || quiet < interval || (fresh < kReportBytes && quiet < longest)) {
        if (interval > 0 && !flushTimer.isActive())
            flushTimer.start(int(qMax<qint64>(longest - quiet, 0)));
        return false;
    }
    return true;
}

void CommitBatch::committed(qint64 amount, bool progressing)
{
    sinceCommit.start();
    reportedAmount = amount;
    if (!progressing) {
        rateClock.invalidate();
        measuredRate = 0;
    } else if (!rateClock.isValid()) {
        rateClock.start();
        rateBase = amount;
    } else if (const qint64 ms = rateClock.elapsed(); ms >= 1000) {
        measuredRate = qMax<qint64>(0, amount - rateBase) * 1000 / ms;
        rateClock.start();
        rateBase = amount;
    }
}

void CommitBatch::stop()
{
    flushTimer.stop();
    packetCount = 0;
}

} // namespace dlm

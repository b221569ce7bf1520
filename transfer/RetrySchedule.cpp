#include "RetrySchedule.h"

#include <QDateTime>
#include <QRandomGenerator>

namespace {
constexpr qint64 kDefaultBaseMs = 1000;
constexpr qint64 kLongestBackoffMs = 60 * 1000;
constexpr qint64 kLongestRetryAfterMs = 60 * 60 * 1000;

qint64 baseDelayMs()
{
    bool ok = false;
    const qint64 value = qgetenv("DLM_RETRY_BASE_MS").toLongLong(&ok, 10);
    return (ok && value > 0) ? qMin(value, kLongestBackoffMs) : kDefaultBaseMs;
}
} // namespace

RetrySchedule::RetrySchedule(QObject *parent) : QObject(parent)
{
    timer.setSingleShot(true);
    timer.setTimerType(Qt::CoarseTimer);
    connect(&timer, &QTimer::timeout, this, &RetrySchedule::due);
}

qint64 RetrySchedule::schedule(qint64 committedBytes, qint64 retryAfterMs)
{
    timer.stop();
    if (committedBytes > furthest) {
        furthest = committedBytes;
        failures = 0;
    }
    if (++failures > maxRetries)
        return -1;
    const int doublings = qMin(failures - 1, 30);
    const qint64 nominal = qMin(kLongestBackoffMs, baseDelayMs() << doublings);
    const double jitter = 0.8 + 0.4 * QRandomGenerator::global()->generateDouble();
    qint64 delay = qMin(kLongestBackoffMs, qint64(double(nominal) * jitter));
    delay = qMax(delay, qMin(retryAfterMs, kLongestRetryAfterMs));
    dueAt = QDateTime::currentMSecsSinceEpoch() + delay;
    timer.start(int(delay));
    return delay;
}

void RetrySchedule::cancel()
{
    timer.stop();
}

void RetrySchedule::reset()
{
    timer.stop();
    failures = 0;
    furthest = -1;
}

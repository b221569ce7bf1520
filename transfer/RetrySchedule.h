#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QObject>
#include <QTimer>

namespace dlm {

// When a download whose attempt failed for a passing reason tries again. The delay doubles from
// a base (1 s, or DLM_RETRY_BASE_MS) up to a minute with +-20 % jitter, and is never shorter than
// the server's Retry-After (itself bounded to an hour). An attempt that got further into the
// content than any before it starts the count afresh; maxRetries failures in a row without that
// use the attempts up. Owns the timer that fires due(); lives on the download's thread.
class RetrySchedule : public QObject {
    Q_OBJECT

public:
    static constexpr int kDefaultMaxRetries = 5;

    explicit RetrySchedule(QObject *parent = nullptr);

    // A "Retry-After" value, delay seconds or an HTTP date in any of its three forms, as
    // milliseconds from now (a day at most, 0 for a date past); -1 when absent or unreadable.
    static qint64 retryAfterMs(const QByteArray &value, const QDateTime &now);

    void setMaxRetries(int count) { maxRetries = count; }
    // Plans the attempt after a failed one that had committed committedBytes in all; retryAfterMs
    // is the server's wish (-1 when none). Returns the delay, or -1 when the attempts are used up.
    qint64 schedule(qint64 committedBytes, qint64 retryAfterMs);
    // Forgets the pending attempt; the count stays.
    void cancel();
    // A fresh start after a request from a person: no failures counted.
    void reset();
    // Milliseconds since the epoch of the pending attempt; 0 when none is pending.
    qint64 nextAttemptTime() const { return timer.isActive() ? dueAt : 0; }

signals:
    void due();

private:
    QTimer timer;
    int maxRetries = kDefaultMaxRetries;
    int failures = 0;
    qint64 furthest = -1; // most bytes any failed attempt had committed
    qint64 dueAt = 0;
};

} // namespace dlm

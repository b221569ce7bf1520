#include "RetrySchedule.h"

#include <QLocale>
#include <QRandomGenerator>

namespace dlm {

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

qint64 RetrySchedule::retryAfterMs(const QByteArray &value, const QDateTime &now)
{
    const QByteArray text = value.simplified();
    if (text.isEmpty())
        return -1;
    bool ok = false;
    const qint64 seconds = text.toLongLong(&ok, 10);
    if (ok)
        return seconds >= 0 ? qMin<qint64>(seconds, 24 * 3600) * 1000 : -1;
    // Always GMT, in English: "Sun, 06 Nov 1994 08:49:37 GMT", the obsolete
    // "Sunday, 06-Nov-94 08:49:37 GMT" and "Sun Nov 6 08:49:37 1994" (RFC 9110, 5.6.7). The
    // weekday is left out: Qt would check it against a two-digit year's century.
    const QString date
        = QString::fromLatin1(text.mid(text.indexOf(text.contains(',') ? ',' : ' ') + 1));
    for (const char *format :
        { "dd MMM yyyy hh:mm:ss 'GMT'", "dd-MMM-yy hh:mm:ss 'GMT'", "MMM d hh:mm:ss yyyy" }) {
        QDateTime when = QLocale::c().toDateTime(date.trimmed(), QLatin1String(format));
        if (!when.isValid())
            continue;
        when.setTimeSpec(Qt::UTC);
        if (when.date().year() < 1970) // a two-digit year is never in the past century
            when = when.addYears(100);
        return qBound(qint64(0), now.msecsTo(when), qint64(24 * 3600 * 1000));
    }
    return -1;
}

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

} // namespace dlm

#include "DownloadRules.h"

#include "Download.h"
#include "FileNames.h"
#include "RateLimits.h"

#include <QCryptographicHash>
#include <QDir>
#include <QUrl>

#include <atomic>
#include <chrono>

namespace dlm {

bool rules::isHttpUrl(const QString &url)
{
    const QUrl parsed(url);
    const QString scheme = url.left(url.indexOf(QLatin1Char(':')));
    return parsed.isValid() && !parsed.host().isEmpty()
        && (scheme == QLatin1String("http") || scheme == QLatin1String("https"));
}

Outcome<CreateStatus> rules::creationRefusal(
    const QString &url, const ExpectedContent &expected, const RateAndPriority &order)
{
    if (!isHttpUrl(url))
        return { CreateStatus::BadUrl, QStringLiteral("not an http or https URL") };
    if (const QString why = ContentCheck::refusal(expected.size, expected.sha256); !why.isEmpty())
        return { CreateStatus::BadArgument, why };
    if (!RateLimits::validRate(order.rateLimit) || !RateLimits::validPriority(order.priority))
        return { CreateStatus::BadArgument,
            QStringLiteral("rate %1 or priority %2 out of bounds")
                .arg(order.rateLimit)
                .arg(order.priority) };
    return {};
}

QString rules::storedRowFault(const Download *download)
{
    if (!isHttpUrl(download->contentURL()))
        return QStringLiteral("not an http or https URL");
    const QString path = download->filePath();
    if (!QDir::isAbsolutePath(path)
        || !filenames::isPlainName(path.mid(path.lastIndexOf(QLatin1Char('/')) + 1)))
        return QStringLiteral("not an absolute path to a plain file name");
    return QString();
}

QString rules::newUniqueID(const QString &url)
{
    // The counter tells apart calls within one clock tick, the time tells apart runs.
    static std::atomic<quint64> counter { 0 };
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    QCryptographicHash hash(QCryptographicHash::Md5);
    hash.addData(url.toUtf8());
    hash.addData(QByteArray::number(++counter) + ' '
        + QByteArray::number(
            qint64(std::chrono::duration_cast<std::chrono::microseconds>(now).count())));
    return QString::fromLatin1(hash.result().toHex());
}

} // namespace dlm

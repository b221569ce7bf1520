#include "DownloadRules.h"

#include "Download.h"
#include "FileNames.h"
#include "RateLimits.h"

#include <QCryptographicHash>
#include <QDir>
#include <QUrl>

#include <atomic>
#include <chrono>
#include <cstring>

namespace dlm {

namespace {
bool isAsciiAlnum(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool oneOf(char c, const char *set)
{
    return c != '\0' && std::strchr(set, c) != nullptr;
}

// An http(s) URL that QUrl takes as it is, with a host: the scheme, dot-separated labels of
// letters, digits and inner dashes, an optional port, and a rest of the characters a URL carries
// unencoded. Every URL a download was made with looks so; a stored row parses only the others.
bool isPlainHttpUrl(QByteArrayView url)
{
    qsizetype at = url.startsWith("http://") ? 7 : url.startsWith("https://") ? 8 : 0;
    if (at == 0)
        return false;
    const qsizetype hostStart = at;
    while (at < url.size() && (isAsciiAlnum(url[at]) || url[at] == '-' || url[at] == '.'))
        ++at;
    for (qsizetype i = hostStart, labelStart = hostStart; i <= at; ++i) {
        if (i < at && url[i] != '.')
            continue;
        if (i == labelStart || url[labelStart] == '-' || url[i - 1] == '-')
            return false;
        labelStart = i + 1;
    }
    if (at < url.size() && url[at] == ':') {
        const qsizetype portStart = ++at;
        int port = 0;
        while (at < url.size() && at - portStart < 5 && url[at] >= '0' && url[at] <= '9')
            port = port * 10 + (url[at++] - '0');
        if (at == portStart || port > 65535)
            return false;
    }
    if (at < url.size() && !oneOf(url[at], "/?"))
        return false;
    for (; at < url.size(); ++at) {
        if (!isAsciiAlnum(url[at]) && !oneOf(url[at], "-._~!$&'()*+,;=:@/?"))
            return false;
    }
    return true;
}

} // namespace

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
    // Most rows are decided on their bytes; only the others make strings to parse.
    if (!isPlainHttpUrl(download->utf8(RecordText::Url)) && !isHttpUrl(download->contentURL()))
        return QStringLiteral("not an http or https URL");
    const QByteArrayView bytes = download->utf8(RecordText::Path);
    const int plain = bytes.startsWith('/')
        ? filenames::isPlainAsciiName(bytes.sliced(bytes.lastIndexOf('/') + 1))
        : -1;
    if (plain == 1)
        return QString();
    const QString path = download->filePath();
    if (plain == 0 || !QDir::isAbsolutePath(path)
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

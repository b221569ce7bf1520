#include "HttpAnswer.h"

#include <QList>

namespace dlm {

namespace http {

bool parseContentRange(const QByteArray &header, ContentRange *range)
{
    const QByteArray value = header.trimmed();
    if (!value.startsWith("bytes "))
        return false;
    const QByteArray rangeText = value.mid(6).trimmed();
    const int slash = rangeText.indexOf('/');
    if (slash < 0)
        return false;
    const QByteArray span = rangeText.left(slash).trimmed();
    const QByteArray total = rangeText.mid(slash + 1).trimmed();
    bool ok = true;
    range->total = total == "*" ? -1 : total.toLongLong(&ok, 10);
    if (!ok || (total != "*" && range->total < 0))
        return false;
    if (span == "*") {
        range->first = -1;
        return range->total >= 0;
    }
    const int dash = span.indexOf('-');
    if (dash <= 0)
        return false;
    range->first = span.left(dash).toLongLong(&ok, 10);
    if (!ok || range->first < 0)
        return false;
    span.mid(dash + 1).toLongLong(&ok, 10);
    return ok;
}

int parseStatusLine(const QByteArray &line, QByteArray *reasonPhrase)
{
    if (!line.startsWith("HTTP/"))
        return 0;
    const QList<QByteArray> parts = line.trimmed().split(' ');
    bool ok = false;
    const int status = parts.value(1).toInt(&ok, 10);
    if (!ok || status < 100 || status > 999)
        return 0;
    *reasonPhrase = parts.size() > 2 ? line.trimmed().mid(parts[0].size() + parts[1].size() + 2)
                                     : QByteArray();
    return status;
}

bool isPassingStatus(int status)
{
    return status == 408 || status == 429 || status == 500 || status == 502 || status == 503
        || status == 504;
}

Judgement judge(int status, qint64 offset, qint64 knownTotal, const QByteArray &contentRange,
    qint64 contentLength)
{
    ContentRange range;
    const bool hasRange = parseContentRange(contentRange, &range);
    if (status == 206) {
        const bool sameContent = range.total < 0 || knownTotal == 0 || range.total == knownTotal;
        if (hasRange && range.first == offset && sameContent)
            return { Verdict::Accept, range.total };
        if (offset > 0)
            return { sameContent ? Verdict::StartOver : Verdict::StartOverChanged };
        return { Verdict::Reject };
    }
    if (status >= 200 && status < 300)
        return { offset > 0 ? Verdict::AcceptFromZero : Verdict::Accept, contentLength };
    if (status == 416 && offset > 0 && hasRange && range.first < 0 && range.total == offset)
        return { Verdict::Complete, range.total };
    return { Verdict::Reject };
}

bool Head::addLine(const QByteArray &line)
{
    QByteArray phrase;
    if (const int code = parseStatusLine(line, &phrase)) {
        *this = Head();
        status = code;
        reason = phrase;
        return false;
    }
    const int colon = line.indexOf(':');
    if (colon <= 0)
        return line.trimmed().isEmpty();
    const QByteArray name = line.left(colon).trimmed().toLower();
    const QByteArray value = line.mid(colon + 1).trimmed();
    if (name == "content-range")
        contentRange = value;
    else if (name == "content-length")
        contentLength = value.toLongLong();
    else if (name == "retry-after")
        retryAfter = value;
    else if (name == "location")
        hasLocation = true;
    else if (name == "etag")
        etag = value;
    else if (name == "last-modified")
        lastModified = value;
    return false;
}

bool Head::isFinal() const
{
    const bool redirect
        = status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
    return status >= 200 && !(redirect && hasLocation);
}

curl_slist *requestHeaders(qint64 offset, const QByteArray &validator)
{
    curl_slist *headers = curl_slist_append(nullptr, "Accept-Encoding: identity");
    if (offset > 0) {
        const QByteArray range = "Range: bytes=" + QByteArray::number(offset) + '-';
        headers = curl_slist_append(headers, range.constData());
        if (!validator.isEmpty())
            headers = curl_slist_append(headers, ("If-Range: " + validator).constData());
    }
    return headers;
}

} // namespace http

} // namespace dlm

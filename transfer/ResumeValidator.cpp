#include "ResumeValidator.h"

#include <algorithm>

namespace dlm {

namespace ResumeValidator {

QByteArray fromAnswer(const QByteArray &etag, const QByteArray &lastModified)
{
    // A header value is sent back as it came: no control characters may ride along.
    const auto printable = [](const QByteArray &v) {
        return v.size() <= 1024
            && std::all_of(v.begin(), v.end(), [](char c) { return c >= 0x20 && c != 0x7f; });
    };
    const QByteArray tag = etag.trimmed();
    if (tag.size() >= 2 && tag.startsWith('"') && tag.endsWith('"') && printable(tag))
        return tag;
    const QByteArray date = lastModified.trimmed();
    return printable(date) ? date : QByteArray();
}

} // namespace ResumeValidator

} // namespace dlm

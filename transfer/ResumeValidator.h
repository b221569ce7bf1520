#pragma once

#include <QByteArray>

namespace dlm {

// What tells one version of a resource from another: the strong ETag of the answer a download's
// bytes started with, else its Last-Modified. A resumed request sends it as "If-Range", so a
// changed resource comes whole (200) instead of its new bytes after the old ones. A weak ETag
// ("W/...") never qualifies: If-Range only takes strong ones.
namespace ResumeValidator {

// Empty when the answer has none that may be used.
QByteArray fromAnswer(const QByteArray &etag, const QByteArray &lastModified);

} // namespace ResumeValidator

} // namespace dlm

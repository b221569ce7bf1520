#pragma once

#include "Outcome.h"

#include <QString>

namespace dlm {

class Download;

// What a creator may say of the content: its size (-1: not said) and SHA-256 in hexadecimal
// (empty: not said). A download that ends otherwise fails with FAILURE_CONTENT_MISMATCH.
struct ExpectedContent {
    qint64 size = -1;
    QString sha256;
};
// A download's own rate limit (bytes per second, 0: none) and its priority among the waiting
// (higher first); both within RateLimits' bounds.
struct RateAndPriority {
    qint64 rateLimit = 0;
    int priority = 0;
};

// What a request or a stored row must look like for the service to carry it out.
namespace rules {
// Only http and https, as the URL's own scheme says: neither "httpfoo:" nor "HTTP:".
bool isHttpUrl(const QString &url);
// What a new download's own arguments must be: an http(s) URL (BadUrl), an expectation
// ContentCheck accepts, a rate and a priority within RateLimits' bounds (BadArgument).
Outcome<CreateStatus> creationRefusal(
    const QString &url, const ExpectedContent &expected, const RateAndPriority &order);
// Why a stored download may not be carried out, or empty.
QString storedRowFault(const Download *download);
// 32 lowercase hexadecimal characters, different on every call.
QString newUniqueID(const QString &url);
} // namespace rules

} // namespace dlm

#pragma once

#include <QString>

namespace dlm {

class Download;

// What a request or a stored row must look like for the service to carry it out.
namespace rules {
// Only http and https, as the URL's own scheme says: neither "httpfoo:" nor "HTTP:".
bool isHttpUrl(const QString &url);
// Why a stored download may not be carried out, or empty.
QString storedRowFault(const Download *download);
// 32 lowercase hexadecimal characters, different on every call.
QString newUniqueID(const QString &url);
} // namespace rules

} // namespace dlm

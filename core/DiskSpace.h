#pragma once

#include <QString>

namespace dlm {

namespace disk {
// Bytes of the file system holding path that may still be used (blocks reserved for root
// excluded: the installed service cannot use them), or -1.
long long availableBytes(const QString &path);
// Identifier of the device (file system) that holds path, or -1 when path cannot be read.
long long deviceOf(const QString &path);
} // namespace disk

} // namespace dlm

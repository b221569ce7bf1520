#pragma once

#include <QList>
#include <QString>

#include <optional>

namespace dlm {

class Download;

namespace disk {
// Bytes of the file system holding path that may still be used (blocks reserved for root
// excluded: the installed service cannot use them), or -1.
long long availableBytes(const QString &path);
// Identifier of the device (file system) that holds path, or -1 when path cannot be read.
long long deviceOf(const QString &path);
// What the file system of directory has left once the running downloads on it have their
// remaining bytes (negative when they need more than it has); nothing when it cannot be read.
std::optional<long long> freeBeside(const QString &directory, const QList<Download *> &downloads);
} // namespace disk

} // namespace dlm

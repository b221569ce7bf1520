#pragma once

#include <QString>

// Platform queries the manager needs; stateless.
class DLTools
{
public:
    // Bytes of the file system holding path that may still be used (blocks reserved for root
    // excluded: the installed service cannot use them), or -1.
    long long getAvailableSize(QString path);
    // Identifier of the device (file system) that holds path, or -1 when path cannot be read.
    long long getDeviceID(const QString &path);
};

#pragma once

#include <QString>

// Platform queries the manager needs; stateless.
class DLTools
{
public:
    // Free bytes of the file system holding path (blocks reserved for root included), or -1.
    long long getAvailableSize(QString path);
    // Identifier of the device (file system) that holds path, or -1 when path cannot be read.
    long long getDeviceID(const QString &path);
};

#pragma once

#include <QString>

// Platform queries the manager needs; stateless.
class DLTools
{
public:
    // Free bytes of the file system holding path (blocks reserved for root included), or -1.
    long long getAvailableSize(QString path);
};

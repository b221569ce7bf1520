#include "DiskSpace.h"

#include <QFile>

#include <sys/stat.h>
#include <sys/statvfs.h>

namespace dlm {

long long disk::availableBytes(const QString &path)
{
    struct statvfs info;
    if (statvfs(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return static_cast<long long>(info.f_bsize) * static_cast<long long>(info.f_bavail);
}

long long disk::deviceOf(const QString &path)
{
    struct stat info;
    if (stat(QFile::encodeName(path).constData(), &info) != 0)
        return -1;
    return static_cast<long long>(info.st_dev);
}

} // namespace dlm

#include "DLTools.h"

#include <QFile>

#include <sys/stat.h>
#include <sys/statvfs.h>

long long DLTools::getAvailableSize(QString path)
{
    const QByteArray native = QFile::encodeName(path);
    struct statvfs info;
    if (statvfs(native.constData(), &info) != 0)
        return -1;
    return static_cast<long long>(info.f_bsize) * static_cast<long long>(info.f_bavail);
}

long long DLTools::getDeviceID(const QString &path)
{
    const QByteArray native = QFile::encodeName(path);
    struct stat info;
    if (stat(native.constData(), &info) != 0)
        return -1;
    return static_cast<long long>(info.st_dev);
}

#include "DLTools.h"

#include <sys/statvfs.h>

long long DLTools::getAvailableSize(QString path)
{
    const QByteArray native = path.toLatin1();
    struct statvfs info;
    if (statvfs(native.constData(), &info) != 0)
        return -1;
    return static_cast<long long>(info.f_bsize) * static_cast<long long>(info.f_bfree);
}

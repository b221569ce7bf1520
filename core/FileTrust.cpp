#include "FileTrust.h"

#include <QFile>

#include <sys/stat.h>
#include <unistd.h>

namespace dlm {

namespace filetrust {

QString distrust(const QString &path)
{
    struct stat st { };
    if (::stat(QFile::encodeName(path).constData(), &st) != 0)
        return QString();
    if (st.st_uid != 0 && st.st_uid != geteuid())
        return QStringLiteral("owned by uid %1").arg(st.st_uid);
    if (st.st_mode & (S_IWGRP | S_IWOTH))
        return QStringLiteral("writable by group or others (mode %1)")
            .arg(st.st_mode & 07777, 4, 8, QLatin1Char('0'));
    return QString();
}

} // namespace filetrust

} // namespace dlm

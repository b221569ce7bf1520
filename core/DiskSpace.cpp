#include "DiskSpace.h"

#include "Download.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

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

std::optional<long long> disk::freeBeside(
    const QString &directory, const QList<Download *> &downloads)
{
    const long long available = QDir(directory).exists() ? availableBytes(directory) : -1;
    if (available == -1)
        return std::nullopt;
    // What downloads on other file systems still need takes nothing from this one.
    const long long device = deviceOf(directory);
    long long reserved = 0;
    for (const Download *download : downloads) {
        if (download->state == Download::Progressing
            && deviceOf(QFileInfo(download->filePath()).absolutePath()) == device)
            reserved += download->totalSize - download->amountDownloaded;
    }
    return available - reserved;
}

} // namespace dlm

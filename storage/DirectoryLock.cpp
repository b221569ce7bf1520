#include "DirectoryLock.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace dlm {

DirectoryLock::~DirectoryLock()
{
    if (fd >= 0)
        ::close(fd);
}

DirectoryLock::Result DirectoryLock::lock(const QString &directory)
{
    const QByteArray native = QFile::encodeName(directory);
    fd = ::open(native.constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        error = QString::fromLocal8Bit(std::strerror(errno));
        return Unavailable;
    }
    if (::flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int cause = errno;
        error = QString::fromLocal8Bit(std::strerror(cause));
        ::close(fd);
        fd = -1;
        return cause == EWOULDBLOCK ? Busy : Unavailable;
    }
    return Locked;
}

} // namespace dlm

#include "OwnedFile.h"

#include "FsIdentity.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {
// Non-blocking while it is checked: a FIFO planted at the path must not hang the service.
constexpr int kOpenFlags = O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
} // namespace

bool OwnedFile::openExisting(const QString &path, uid_t owner)
{
    if (isOpen())
        close();
    const FsIdentity identity(owner);
    if (!identity.active())
        return fail();
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDWR | kOpenFlags);
    return adopt(fd, identity.uid(), false, QIODevice::ReadWrite) || fail();
}

bool OwnedFile::openFresh(const QString &path, uid_t owner)
{
    if (isOpen())
        close();
    const FsIdentity identity(owner);
    if (!identity.active())
        return fail();
    const QByteArray name = QFile::encodeName(path);
    int fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | kOpenFlags, 0666);
    if (fd < 0 && errno == EEXIST)
        fd = ::open(name.constData(), O_WRONLY | kOpenFlags);
    return adopt(fd, identity.uid(), true, QIODevice::WriteOnly) || fail();
}

bool OwnedFile::removeAs(const QString &path, uid_t owner)
{
    const FsIdentity identity(owner);
    return identity.active() && ::unlink(QFile::encodeName(path).constData()) == 0;
}

bool OwnedFile::adopt(int fd, uid_t expectedOwner, bool empty, QIODevice::OpenMode mode)
{
    if (fd < 0)
        return false;
    struct stat st { };
    int why = 0;
    if (fstat(fd, &st) != 0)
        why = errno;
    else if (!S_ISREG(st.st_mode))
        why = EINVAL;
    else if (st.st_uid != expectedOwner || st.st_nlink != 1)
        why = EPERM; // another user's file, or a second name of one
    else if ((empty && ftruncate(fd, 0) != 0)
        || fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK) != 0)
        why = errno;
    if (why == 0 && open(fd, mode | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle))
        return true;
    ::close(fd);
    errno = why ? why : EIO;
    return false;
}

bool OwnedFile::fail()
{
    setErrorString(QString::fromLocal8Bit(strerror(errno)));
    return false;
}

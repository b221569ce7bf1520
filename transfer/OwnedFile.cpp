#include "OwnedFile.h"

#include "FsIdentity.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace dlm {

namespace {
// Non-blocking while it is checked: a FIFO planted at the path must not hang the service.
constexpr int kOpenFlags = O_NOFOLLOW | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
constexpr int kDirFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;
// A file at the path that is not the one the download created.
constexpr int kForeign = -1;

// The directory path names, reached without following a link in any component; -1 and errno.
int openDirectory(const QByteArray &path)
{
    static std::atomic<bool> noOpenat2 { false };
    if (!noOpenat2) {
        open_how how {};
        how.flags = kDirFlags;
        how.resolve = RESOLVE_NO_SYMLINKS;
        const int fd = int(syscall(SYS_openat2, AT_FDCWD, path.constData(), &how, sizeof how));
        if (fd >= 0 || errno != ENOSYS)
            return fd;
        noOpenat2 = true;
    }
    // Kernels before 5.6: one component at a time, from the root; ".." is never taken.
    int fd = ::open("/", kDirFlags);
    for (const QByteArray &part : path.split('/')) {
        if (fd < 0 || part.isEmpty() || part == ".")
            continue;
        const int next = part == ".." ? (errno = ELOOP, -1)
                                      : ::openat(fd, part.constData(), kDirFlags | O_NOFOLLOW);
        struct stat st { };
        // A link is named as openat2 names it, not "not a directory".
        if (next < 0 && errno == ENOTDIR
            && fstatat(fd, part.constData(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode))
            errno = ELOOP;
        const int why = errno;
        ::close(fd);
        errno = why;
        fd = next;
    }
    return fd;
}

// A path as the descriptor of its directory and the name in it.
struct Location {
    explicit Location(const QString &path)
    {
        const QByteArray native = QFile::encodeName(path);
        const int slash = native.lastIndexOf('/');
        name = native.mid(slash + 1);
        dir = slash < 0 ? (errno = EINVAL, -1) : openDirectory(native.left(slash + 1));
    }
    ~Location()
    {
        if (dir >= 0)
            ::close(dir);
    }
    int dir;
    QByteArray name;
};

// 0 when st is the download's file; otherwise why not.
int judge(const struct stat &st, uid_t owner, const FileIdentity &identity)
{
    if (!S_ISREG(st.st_mode))
        return EINVAL;
    if (identity.inode != 0)
        return st.st_dev == identity.device && st.st_ino == identity.inode ? 0 : kForeign;
    if (!identity.unrecorded)
        return kForeign; // it has created none: whatever is there is someone else's
    return st.st_uid == owner && st.st_nlink == 1 ? 0 : EPERM;
}
} // namespace

bool OwnedFile::openExisting(const QString &path, uid_t owner, FileIdentity *identity)
{
    return openAs(path, owner, identity, false, 0);
}

bool OwnedFile::openFresh(const QString &path, uid_t owner, FileIdentity *identity, mode_t mode)
{
    return openAs(path, owner, identity, true, mode);
}

bool OwnedFile::openAs(
    const QString &path, uid_t owner, FileIdentity *identity, bool fresh, mode_t mode)
{
    if (isOpen())
        close();
    const FsIdentity as(owner);
    if (!as.active())
        return fail(errno);
    const Location at(path);
    if (at.dir < 0)
        return fail(errno);
    if (!fresh) {
        const int fd = ::openat(at.dir, at.name.constData(), O_RDWR | kOpenFlags);
        return adopt(fd, as.uid(), identity, false, false, QIODevice::ReadWrite);
    }
    int fd = ::openat(at.dir, at.name.constData(), O_WRONLY | O_CREAT | O_EXCL | kOpenFlags, mode);
    const bool created = fd >= 0;
    if (fd < 0 && errno == EEXIST)
        fd = ::openat(at.dir, at.name.constData(), O_WRONLY | kOpenFlags);
    return adopt(fd, as.uid(), identity, created, true, QIODevice::WriteOnly);
}

bool OwnedFile::removeAs(const QString &path, uid_t owner, const FileIdentity &identity)
{
    const FsIdentity as(owner);
    if (!as.active())
        return false;
    const Location at(path);
    struct stat st { };
    // Only another user who may write the directory could swap the name before the unlink,
    // and such a user could remove that name anyway.
    return at.dir >= 0 && fstatat(at.dir, at.name.constData(), &st, AT_SYMLINK_NOFOLLOW) == 0
        && judge(st, as.uid(), identity) == 0 && unlinkat(at.dir, at.name.constData(), 0) == 0;
}

bool OwnedFile::adopt(
    int fd, uid_t owner, FileIdentity *identity, bool created, bool empty, QIODevice::OpenMode mode)
{
    if (fd < 0)
        return fail(errno);
    struct stat st { };
    int why = fstat(fd, &st) != 0 ? errno : created ? 0 : judge(st, owner, *identity);
    // Only a regular file gets here, where O_NONBLOCK changes nothing: it stays set.
    if (why == 0 && !created && empty && ftruncate(fd, 0) != 0)
        why = errno;
    if (why == 0 && open(fd, mode | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle)) {
        *identity = FileIdentity { quint64(st.st_dev), quint64(st.st_ino) };
        return true;
    }
    ::close(fd);
    return fail(why ? why : EIO);
}

bool OwnedFile::fail(int why)
{
    setErrorString(why == kForeign ? QStringLiteral("a file this download did not create")
                                   : QString::fromLocal8Bit(strerror(why)));
    return false;
}

} // namespace dlm

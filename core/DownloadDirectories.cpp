#include "DownloadDirectories.h"

#include "DlmLog.h"
#include "FileNames.h"
#include "FsIdentity.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace dlm {

const QString DownloadDirectories::kDefaultClientID = QStringLiteral("DEFAULT_CLIENT_ID");

namespace {
using PathStatus = DownloadDirectories::PathStatus;

// Whether the service itself (root) can write into dir now: not on a read-only mount (which is
// also how its sandbox hides and protects paths) and not refused by access().
bool serviceMayWrite(const QByteArray &dir)
{
    struct statvfs fs { };
    return ::statvfs(dir.constData(), &fs) == 0 && !(fs.f_flag & ST_RDONLY)
        && ::access(dir.constData(), W_OK) == 0;
}

// The deepest directory of path that exists, as the calling thread's identity sees it.
QByteArray existingAncestor(QString path)
{
    struct stat st { };
    while (path.size() > 1 && ::stat(QFile::encodeName(path).constData(), &st) != 0)
        path = QFileInfo(path).path();
    return QFile::encodeName(path);
}

// The directory path names, resolved to its canonical form as uid: what the uid could not
// search stays hidden (NotPermitted whether it exists or not), and the uid must be able to
// write and search the directory itself (with AT_EACCESS the kernel judges the file-system
// identity). Root's directory may lie under another user's: every file is reached without links.
// A directory below a read-only mount (the sandbox's hidden paths too) is NotWritable.
PathStatus resolveDirectory(uint uid, const QString &path, QString *canonical)
{
    char *real = nullptr;
    bool directory = false, writable = false;
    {
        const FsIdentity identity(uid);
        if (!identity.active())
            return PathStatus::NotPermitted;
        if (!(real = ::realpath(QFile::encodeName(path).constData(), nullptr))) {
            // What the uid sees of the path: a read-only part hides it from the service too.
            const PathStatus missing
                = errno == EACCES ? PathStatus::NotPermitted : PathStatus::NotADirectory;
            return serviceMayWrite(existingAncestor(path)) ? missing : PathStatus::NotWritable;
        }
        struct stat st { };
        directory = ::stat(real, &st) == 0 && S_ISDIR(st.st_mode);
        writable = uid == 0 || faccessat(AT_FDCWD, real, W_OK | X_OK, AT_EACCESS) == 0;
    }
    *canonical = QFile::decodeName(real);
    const bool serviceWrites = serviceMayWrite(real);
    free(real);
    if (!directory)
        return PathStatus::NotADirectory;
    if (!writable)
        return PathStatus::NotPermitted;
    return serviceWrites ? PathStatus::Set : PathStatus::NotWritable;
}

const char *refusalText(PathStatus status)
{
    switch (status) {
    case PathStatus::NotAbsolute:
        return "not an absolute path";
    case PathStatus::NotPermitted:
        return "not permitted";
    case PathStatus::NotWritable:
        return "the service cannot write there (read-only file system, or outside its "
               "ReadWritePaths=)";
    default:
        return "no such directory";
    }
}
} // namespace

void DownloadDirectories::restore(uint ownerUid, const QString &clientID, const QString &path)
{
    const PathKey key(ownerUid, clientID);
    paths.insert(key, QDir::cleanPath(path));
    chosen.insert(key);
}

Outcome<PathStatus> DownloadDirectories::choose(
    const QString &clientID, const QString &path, uint ownerUid, QString *stored)
{
    QString given = path;
    if (given.startsWith(QLatin1String("~/")))
        given.replace(QLatin1Char('~'), QDir::homePath());
    PathStatus status = PathStatus::Set;
    // The default directory is every user's fallback: only root chooses it.
    if (ownerUid != 0 && clientID == kDefaultClientID)
        status = PathStatus::NotPermitted;
    // Relative paths would land in whatever the service's working directory is.
    else if (!QDir::isAbsolutePath(given))
        status = PathStatus::NotAbsolute;
    // Canonical, so that no two spellings of one directory give one file to two downloads.
    else
        status = resolveDirectory(ownerUid, given, stored);
    if (status != PathStatus::Set) {
        DLM_LOGW("Download path \"%s\" of %s refused for uid %u: %s", qUtf8Printable(given),
            qUtf8Printable(clientID), ownerUid, refusalText(status));
        return { status, QString::fromUtf8(refusalText(status)) };
    }
    DLM_LOGD("clientID = %s Download path=%s", qUtf8Printable(clientID), qUtf8Printable(*stored));
    paths.insert(PathKey(ownerUid, clientID), *stored);
    chosen.insert(PathKey(ownerUid, clientID));
    return {};
}

void DownloadDirectories::ensure(const QString &clientID, const QString &path, uint ownerUid)
{
    const PathKey key(ownerUid, clientID);
    if (!paths.contains(key))
        paths.insert(key, QDir::cleanPath(path));
}

QString DownloadDirectories::of(const QString &clientID, uint ownerUid) const
{
    const auto it = paths.constFind(PathKey(ownerUid, clientID));
    if (it != paths.constEnd())
        return it.value();
    return paths.value(PathKey(0, kDefaultClientID));
}

bool DownloadDirectories::isChosen(
    uint ownerUid, const QString &clientID, const QByteArray &filePath) const
{
    const PathKey key(ownerUid, clientID);
    return chosen.contains(key)
        && QFileInfo(QString::fromUtf8(filePath)).path() == paths.value(key);
}

QString DownloadDirectories::reserveFileName(
    const QString &clientID, const QString &url, uint ownerUid)
{
    const QString directory = of(clientID, ownerUid);
    const QString name = filenames::fromUrl(url);
    for (qint64 n = -1;; ++n) {
        const QString candidate = filenames::join(directory,
            filenames::fit(name, n < 0 ? QString() : QLatin1Char('.') + QString::number(n)));
        // A dangling symbolic link is a name in use too.
        const QByteArray bytes = candidate.toUtf8();
        struct stat st;
        if (!reserved.contains(qHash(QByteArrayView(bytes)))
            && ::lstat(bytes.constData(), &st) != 0) {
            reserve(bytes);
            return candidate;
        }
    }
}

} // namespace dlm

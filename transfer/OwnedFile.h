#pragma once

#include "FileIdentity.h"

#include <QFile>

#include <sys/types.h>

namespace dlm {

// A download's file, opened the way its owner could open it: under the owner's file-system
// identity (FsIdentity), so the kernel judges every permission and a new file belongs to the
// owner. No component of the path is followed through a symbolic link (openat2 with
// RESOLVE_NO_SYMLINKS, or one openat(O_NOFOLLOW) per component where the kernel lacks it), and
// the file is then reached through that directory's descriptor. Only the file the download
// created is opened again, emptied or removed: its identity is recorded at creation and checked
// every time after. Opened unbuffered, so a written byte is in the file before it is counted.
class OwnedFile : public QFile {
public:
    // The download's existing file, read and write, for a transfer that goes on from an offset.
    bool openExisting(const QString &path, uid_t owner, FileIdentity *identity);
    // A new file created exclusively with mode (before the umask), else the download's own file
    // emptied. *identity is the created or checked file's.
    bool openFresh(const QString &path, uid_t owner, FileIdentity *identity, mode_t mode);
    // Unlinks path as its owner would, only when it is the download's own file.
    static bool removeAs(const QString &path, uid_t owner, const FileIdentity &identity);

private:
    // Both opens: as owner, through the directory reached without links; fresh creates or empties.
    bool openAs(const QString &path, uid_t owner, FileIdentity *identity, bool fresh, mode_t mode);
    bool adopt(int fd, uid_t owner, FileIdentity *identity, bool created, bool empty,
        QIODevice::OpenMode mode);
    bool fail(int why); // keeps why's text as the error string
};

} // namespace dlm

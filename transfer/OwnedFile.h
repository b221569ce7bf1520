#pragma once

#include <QFile>

#include <sys/types.h>

// A download's file, opened the way its owner could open it: under the owner's file-system
// identity (FsIdentity), so the kernel judges every permission and a new file belongs to the
// owner. Never through a symbolic link, and only a regular file of that owner with a single
// name: nobody can make the service write into a file other than the one it created. Opened
// unbuffered, so a written byte is in the file before it is counted.
class OwnedFile : public QFile {
public:
    // An existing file, read and write, for a transfer that goes on from a stored offset.
    bool openExisting(const QString &path, uid_t owner);
    // A new file created exclusively, or else an existing one (checked as above) emptied.
    bool openFresh(const QString &path, uid_t owner);
    // Unlinks path as its owner would: the name only, a symbolic link itself.
    static bool removeAs(const QString &path, uid_t owner);

private:
    bool adopt(int fd, uid_t expectedOwner, bool empty, QIODevice::OpenMode mode);
    bool fail(); // keeps errno's text as the error string
};

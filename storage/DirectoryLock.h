#pragma once

#include <QString>

namespace dlm {

// An exclusive advisory lock (flock) on a directory, held until this object is destroyed or the
// process ends, however it ends. Two services on one database directory would both relaunch the
// stored downloads into the same files.
class DirectoryLock {
public:
    enum Result { Locked, Busy, Unavailable };

    DirectoryLock() = default;
    ~DirectoryLock();
    DirectoryLock(const DirectoryLock &) = delete;
    DirectoryLock &operator=(const DirectoryLock &) = delete;

    // Busy: another process holds it. Unavailable: the directory cannot be opened (errorText says
    // why); there is then nothing to protect, since no database can be opened there either.
    Result lock(const QString &directory);
    QString errorText() const { return error; }

private:
    int fd = -1;
    QString error;
};

} // namespace dlm

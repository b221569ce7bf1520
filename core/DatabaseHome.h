#pragma once

#include "DirectoryLock.h"
#include "DownloadDataBase.h"

#include <memory>

namespace dlm {

// The database's directory. Its files are used only when nobody but root could change them (one
// ERROR line otherwise: the service runs without persistence), and the directory is held
// against a second service for as long as this object lives.
class DatabaseHome {
public:
    // Null when the service runs without persistence; *busy when another service holds the
    // directory (one ERROR line: the service must not start).
    std::unique_ptr<DownloadDataBase> open(
        const QString &directory, DownloadDataBase::RowReader reader, bool *busy);

private:
    DirectoryLock lock;
};

} // namespace dlm

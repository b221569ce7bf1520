#include "DatabaseHome.h"

#include "DlmLog.h"
#include "FileNames.h"
#include "FileTrust.h"

namespace dlm {

std::unique_ptr<DownloadDataBase> DatabaseHome::open(
    const QString &directory, DownloadDataBase::RowReader reader, bool *busy)
{
    *busy = false;
    const QString file = filenames::join(directory, QStringLiteral("dlm_download.db"));
    // Whoever can change these could make the service carry out their rows.
    for (const QString &path : { directory, file, file + QStringLiteral("-wal"),
             file + QStringLiteral("-shm"), file + QStringLiteral("-journal") }) {
        const QString why = filetrust::distrust(path);
        if (!why.isEmpty()) {
            DLM_LOGE("Database %s not used, running without persistence: %s is %s",
                qUtf8Printable(file), qUtf8Printable(path), qUtf8Printable(why));
            return nullptr;
        }
    }
    switch (lock.lock(directory)) {
    case DirectoryLock::Locked:
        break;
    case DirectoryLock::Busy:
        DLM_LOGE("Another download service uses the database directory %s: not starting",
            qUtf8Printable(directory));
        *busy = true;
        return nullptr;
    case DirectoryLock::Unavailable:
        DLM_LOGW("Cannot lock the database directory %s: %s", qUtf8Printable(directory),
            qUtf8Printable(lock.errorText()));
        break;
    }
    return std::make_unique<DownloadDataBase>(file, std::move(reader));
}

} // namespace dlm

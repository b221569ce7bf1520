#include "StoredDownloads.h"

#include "Download.h"

namespace dlm::stored {

StoredRecord recordOf(DownloadDataBase::RowKey row)
{
    const auto *d = static_cast<const Download *>(row);
    const Download::Details &more = d->details();
    return { d->uniqueID(), d->clientID, d->name(), d->contentURL(), d->filePath(), d->state,
        d->failureCode, d->totalSize, d->amountDownloaded, d->startTime, d->ownerUid,
        d->fileIdentity, more.content.expectedSize(), more.content.expectedSha256(), more.validator,
        more.failureReason, more.httpStatus, more.rateLimit, more.priority };
}

Download *downloadOf(DownloadContext &context, const StoredRecord &r, const QString &canonicalPath)
{
    auto *download = new Download(context, r.uniqueID, r.clientID, r.name, r.contentURL,
        canonicalPath, r.state, r.failureCode, r.totalSize, r.amountDownloaded, r.startTime);
    download->ownerUid = r.ownerUid;
    download->fileIdentity = r.fileIdentity;
    // Most stored downloads have none of these: they stay without details.
    if (r.expectedSize == -1 && r.expectedSha256.isEmpty() && r.validator.isEmpty()
        && r.failureReason.isEmpty() && r.httpStatus == 0 && r.rateLimit == 0 && r.priority == 0)
        return download;
    Download::Details &more = download->editDetails();
    more.content = ContentCheck(r.expectedSize, r.expectedSha256);
    more.validator = r.validator;
    more.failureReason = r.failureReason;
    more.httpStatus = r.httpStatus;
    more.rateLimit = r.rateLimit;
    more.priority = r.priority;
    return download;
}

} // namespace dlm::stored

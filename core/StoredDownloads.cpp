#include "StoredDownloads.h"

#include "Download.h"

namespace dlm::stored {

StoredRecord recordOf(DownloadDataBase::RowKey row)
{
    const auto *d = static_cast<const Download *>(row);
    return { d->uniqueID(), d->clientID, d->name(), d->contentURL(), d->filePath(), d->state,
        d->failureCode, d->totalSize, d->amountDownloaded, d->startTime, d->ownerUid,
        d->fileIdentity, d->content.expectedSize(), d->content.expectedSha256(), d->validator,
        d->failureReason, d->httpStatus, d->rateLimit, d->priority };
}

Download *downloadOf(DownloadContext &context, const StoredRecord &r, const QString &canonicalPath)
{
    auto *download = new Download(context, r.uniqueID, r.clientID, r.name, r.contentURL,
        canonicalPath, r.state, r.failureCode, r.totalSize, r.amountDownloaded, r.startTime);
    download->ownerUid = r.ownerUid;
    download->fileIdentity = r.fileIdentity;
    download->content = ContentCheck(r.expectedSize, r.expectedSha256);
    download->validator = r.validator;
    download->failureReason = r.failureReason;
    download->httpStatus = r.httpStatus;
    download->rateLimit = r.rateLimit;
    download->priority = r.priority;
    return download;
}

} // namespace dlm::stored

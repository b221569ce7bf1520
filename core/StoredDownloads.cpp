#include "StoredDownloads.h"

#include "Download.h"

namespace dlm::stored {

StoredRecord recordOf(DownloadDataBase::RowKey row)
{
    const auto *d = static_cast<const Download *>(row);
    const Download::Details &more = d->details();
    const auto utf8 = [d](RecordText::Part part) { return d->utf8(part).toByteArray(); };
    return { utf8(RecordText::Id), d->clientID, utf8(RecordText::Name), utf8(RecordText::Url),
        utf8(RecordText::Path), d->state, d->failureCode, d->totalSize, d->amountDownloaded,
        d->startTime, d->ownerUid, d->fileIdentity, more.content.expectedSize(),
        more.content.expectedSha256(), more.validator, more.failureReason, more.httpStatus,
        more.rateLimit, more.priority };
}

Download *downloadOf(
    DownloadContext &context, const StoredRecord &r, const QByteArray &canonicalPath)
{
    auto *download
        = new Download(context, RecordText(r.uniqueID, r.name, r.contentURL, canonicalPath),
            r.clientID, r.state, r.failureCode, r.totalSize, r.amountDownloaded, r.startTime);
    download->ownerUid = r.ownerUid;
    download->fileIdentity = r.fileIdentity;
    // Most stored downloads have none of these: only a value that is there makes their details.
    if (r.expectedSize != -1 || !r.expectedSha256.isEmpty())
        download->editDetails().content = ContentCheck(r.expectedSize, r.expectedSha256);
    if (!r.validator.isEmpty())
        download->editDetails().validator = r.validator;
    if (!r.failureReason.isEmpty())
        download->editDetails().failureReason = r.failureReason;
    if (r.httpStatus != 0)
        download->editDetails().httpStatus = r.httpStatus;
    if (r.rateLimit != 0)
        download->editDetails().rateLimit = r.rateLimit;
    if (r.priority != 0)
        download->editDetails().priority = r.priority;
    return download;
}

} // namespace dlm::stored

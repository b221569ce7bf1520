#include "CallerView.h"

#include "Download.h"
#include "DownloadManager.h"
#include "IDLService.h"

namespace dlm {

namespace {

QString ownPrefix(uint caller)
{
    return QString::number(caller) + QLatin1Char(':');
}

std::string utf8(const QString &text, size_t max)
{
    const QByteArray bytes = text.toUtf8();
    return CallerView::cut(std::string(bytes.constData(), size_t(bytes.size())), max);
}

} // namespace

namespace CallerView {

QString storedId(const QString &given, uint caller)
{
    return caller == 0 || given.isEmpty() ? given : ownPrefix(caller) + given;
}

Download *find(DownloadManager *manager, const QString &id, uint caller)
{
    if (caller != 0) {
        if (Download *own = manager->getDownload(storedId(id, caller), caller))
            return own;
    }
    return manager->getDownload(id, caller);
}

QString shownId(const QString &storedId, uint caller)
{
    const QString prefix = caller == 0 ? QString() : ownPrefix(caller);
    return !prefix.isEmpty() && storedId.startsWith(prefix) ? storedId.mid(prefix.size())
                                                            : storedId;
}

void fillRecord(IDownload *record, const Download *download, uint caller)
{
    record->clientID = utf8(download->clientID, IDLService::kMaxIdBytes);
    record->uniqueID = utf8(shownId(download->uniqueID(), caller), IDLService::kMaxIdBytes);
    record->name = utf8(download->name(), IDLService::kMaxNameBytes);
    record->contentURL = utf8(download->contentURL(), IDLService::kMaxUrlBytes);
    record->state = int32_t(download->state);
    record->failureCode = int32_t(download->failureCode);
    record->totalSize = download->totalSize;
    record->amountDownloaded = download->amountDownloaded;
    record->startTime = download->startTime;
    record->filePath = utf8(download->filePath(), IDLService::kMaxPathBytes);
    record->nextAttemptTime = download->nextAttemptTime();
    record->failureReason = utf8(download->details().failureReason, IDownload::kMaxReasonBytes);
    record->httpStatus = download->details().httpStatus;
    record->bytesPerSecond = download->bytesPerSecond();
    record->expectedSha256 = download->details().content.expectedSha256().toStdString();
    record->rateLimit = download->details().rateLimit;
    record->priority = download->details().priority;
}

std::string cut(const std::string &text, size_t max)
{
    if (text.size() <= max)
        return text;
    size_t keep = max - (sizeof kCutMarker - 1);
    while (keep > 0 && (static_cast<unsigned char>(text[keep]) & 0xc0) == 0x80)
        --keep; // not inside a character
    return text.substr(0, keep) + kCutMarker;
}

} // namespace CallerView

} // namespace dlm

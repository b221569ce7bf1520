#include "ReadBudget.h"

#include <curl/curl.h>

namespace dlm {

namespace {
constexpr qint64 kReadBudget = 32 * 1024 * 1024;
constexpr qint64 kMinReadBufferSize = 16 * 1024;
constexpr qint64 kMaxReadBufferSize = CURL_MAX_READ_SIZE;
// A lower bound under 512 KiB only added reports on slow links (4.5 per MiB on 50 links
// instead of 4), where the bytes are in the file anyway.
constexpr qint64 kMinReportBound = 512 * 1024;
constexpr qint64 kMaxReportBound = 4 * 1024 * 1024;

// Transfers with a request on the wire.
int receivingTransfers = 0;
} // namespace

void ReadBudget::setReceiving(bool on)
{
    if (receiving == on)
        return;
    receiving = on;
    receivingTransfers += on ? 1 : -1;
}

qint64 ReadBudget::bufferSize()
{
    return qBound(
        kMinReadBufferSize, kReadBudget / qMax(1, receivingTransfers), kMaxReadBufferSize);
}

qint64 ReadBudget::reportBound()
{
    return qBound(kMinReportBound, kReadBudget / 2 / qMax(1, receivingTransfers), kMaxReportBound);
}

} // namespace dlm

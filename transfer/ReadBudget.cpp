#include "ReadBudget.h"

namespace dlm {

namespace {
constexpr qint64 kReadBudget = 32 * 1024 * 1024;
constexpr qint64 kMinReadBufferSize = 16 * 1024;
// Not CURL_MAX_READ_SIZE: 10 MiB since curl 7.88, and one transfer alone held all of it
// resident. Blocks reach us in 16 KiB pieces whatever the buffer; a larger read saves nothing.
constexpr qint64 kMaxReadBufferSize = 512 * 1024;
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

ReadBudget::Buffers ReadBudget::buffers(qint64 rate)
{
    constexpr int kFewTransfers = 8;
    // Half of a share that is then at its most, 512 KiB.
    constexpr qint64 kWriteBatch = 256 * 1024;
    const qint64 share
        = qBound(kMinReadBufferSize, kReadBudget / qMax(1, receivingTransfers), kMaxReadBufferSize);
    const bool few = receivingTransfers <= kFewTransfers;
    if (rate == 0)
        return { few ? share - kWriteBatch : share, few ? kWriteBatch : 0 };
    // Half a second of a limited transfer's rate: a larger read is a burst its rest pays for
    // later, and held a 5 s average 17 % over the limit.
    const qint64 read = qBound(kMinReadBufferSize, rate / 2, share);
    return { read, few ? read : 0 };
}

qint64 ReadBudget::reportBound()
{
    return qBound(kMinReportBound, kReadBudget / 2 / qMax(1, receivingTransfers), kMaxReportBound);
}

} // namespace dlm

#include "IDownload.h"

#include "ParcelText.h"

using android::BAD_VALUE;
using android::NO_ERROR;
using android::Parcel;
using android::status_t;
using dlparcel::readText;
using dlparcel::writeText;

const char *downloadStateName(int32_t state)
{
    switch (state) {
    case STATE_COMPLETED:
        return "Completed";
    case STATE_PROGRESSING:
        return "Progressing";
    case STATE_PAUSED:
        return "Paused";
    case STATE_FAILED:
        return "Failed";
    case STATE_PENDING:
        return "Pending";
    case STATE_STALLED:
        return "Stalled";
    default:
        return "Undefined";
    }
}

IDownload::IDownload()
    : state(0),
      failureCode(0),
      totalSize(0),
      amountDownloaded(0),
      startTime(0),
      nextAttemptTime(0),
      httpStatus(0),
      bytesPerSecond(0),
      rateLimit(0),
      priority(0)
{
}

status_t IDownload::writeToParcel(Parcel *parcel) const
{
    status_t err = writeFirstPart(parcel);
    return err != NO_ERROR ? err : writeTail(parcel);
}

status_t IDownload::readFromParcel(const Parcel &parcel)
{
    status_t err = readFirstPart(parcel);
    return err != NO_ERROR ? err : readTail(parcel);
}

status_t IDownload::writeList(Parcel *parcel, const std::vector<IDownload> &list)
{
    status_t err = parcel->writeInt32(int32_t(list.size()));
    for (auto it = list.begin(); err == NO_ERROR && it != list.end(); ++it)
        err = it->writeFirstPart(parcel);
    for (auto it = list.begin(); err == NO_ERROR && it != list.end(); ++it)
        err = it->writeTail(parcel);
    return err;
}

status_t IDownload::readList(const Parcel &parcel, std::vector<IDownload> *list)
{
    list->clear();
    int32_t count = 0;
    status_t err = parcel.readInt32(&count);
    if (err != NO_ERROR)
        return err;
    // Each first part takes at least 4 bytes: a count beyond that is a lie, not an allocation.
    if (count < 0 || size_t(count) > parcel.dataAvail() / 4)
        return BAD_VALUE;
    list->resize(size_t(count));
    for (auto it = list->begin(); err == NO_ERROR && it != list->end(); ++it)
        err = it->readFirstPart(parcel);
    for (auto it = list->begin(); err == NO_ERROR && it != list->end(); ++it)
        err = it->readTail(parcel);
    if (err != NO_ERROR)
        list->clear();
    return err;
}

status_t IDownload::writeFirstPart(Parcel *parcel) const
{
    status_t err = NO_ERROR;
    for (const std::string *text : { &clientID, &uniqueID, &name, &contentURL }) {
        if ((err = writeText(parcel, *text)) != NO_ERROR)
            return err;
    }
    if ((err = parcel->writeInt32(state)) != NO_ERROR
        || (err = parcel->writeInt32(failureCode)) != NO_ERROR
        || (err = parcel->writeInt64(totalSize)) != NO_ERROR
        || (err = parcel->writeInt64(amountDownloaded)) != NO_ERROR
        || (err = parcel->writeInt64(startTime)) != NO_ERROR)
        return err;
    if ((err = writeText(parcel, filePath)) != NO_ERROR)
        return err;
    return parcel->writeInt64(nextAttemptTime);
}

status_t IDownload::readFirstPart(const Parcel &parcel)
{
    status_t err = NO_ERROR;
    for (std::string *text : { &clientID, &uniqueID, &name, &contentURL }) {
        if ((err = readText(parcel, text)) != NO_ERROR)
            return err;
    }
    if ((err = parcel.readInt32(&state)) != NO_ERROR
        || (err = parcel.readInt32(&failureCode)) != NO_ERROR
        || (err = parcel.readInt64(&totalSize)) != NO_ERROR
        || (err = parcel.readInt64(&amountDownloaded)) != NO_ERROR
        || (err = parcel.readInt64(&startTime)) != NO_ERROR)
        return err;
    if ((err = readText(parcel, &filePath)) != NO_ERROR)
        return err;
    return parcel.readInt64(&nextAttemptTime);
}

status_t IDownload::writeTail(Parcel *parcel) const
{
    const size_t countAt = parcel->dataPosition();
    status_t err = parcel->writeInt32(0);
    if (err != NO_ERROR || (err = writeText(parcel, failureReason)) != NO_ERROR
        || (err = parcel->writeInt32(httpStatus)) != NO_ERROR
        || (err = parcel->writeInt64(bytesPerSecond)) != NO_ERROR
        || (err = writeText(parcel, expectedSha256)) != NO_ERROR
        || (err = parcel->writeInt64(rateLimit)) != NO_ERROR
        || (err = parcel->writeInt32(priority)) != NO_ERROR)
        return err;
    const size_t end = parcel->dataPosition();
    parcel->setDataPosition(countAt);
    err = parcel->writeInt32(int32_t(end - countAt - 4));
    parcel->setDataPosition(end);
    return err;
}

status_t IDownload::readTail(const Parcel &parcel)
{
    failureReason.clear();
    httpStatus = 0;
    bytesPerSecond = 0;
    expectedSha256.clear();
    rateLimit = 0;
    priority = 0;
    if (parcel.dataAvail() == 0)
        return NO_ERROR; // written before the tail existed
    int32_t size = 0;
    status_t err = parcel.readInt32(&size);
    if (err != NO_ERROR)
        return err;
    if (size < 0 || size_t(size) > parcel.dataAvail())
        return BAD_VALUE;
    // Members appended later are skipped; those known here must lie inside the tail.
    const size_t end = parcel.dataPosition() + size_t(size);
    if (size > 0
        && ((err = readText(parcel, &failureReason, size_t(size))) != NO_ERROR
            || (err = parcel.readInt32(&httpStatus)) != NO_ERROR
            || (err = parcel.readInt64(&bytesPerSecond)) != NO_ERROR
            || (err = readText(parcel, &expectedSha256, size_t(size))) != NO_ERROR))
        return err;
    // A tail that ends here came from a service without rates.
    if (parcel.dataPosition() < end
        && ((err = parcel.readInt64(&rateLimit)) != NO_ERROR
            || (err = parcel.readInt32(&priority)) != NO_ERROR))
        return err;
    if (parcel.dataPosition() > end)
        return BAD_VALUE;
    parcel.setDataPosition(end);
    return NO_ERROR;
}

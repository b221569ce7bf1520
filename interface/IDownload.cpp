#include "IDownload.h"

#include "ParcelText.h"

using android::NO_ERROR;
using android::Parcel;
using android::status_t;
using dlparcel::readText;
using dlparcel::writeText;

IDownload::IDownload()
    : state(0), failureCode(0), totalSize(0), amountDownloaded(0), startTime(0), nextAttemptTime(0)
{
}

status_t IDownload::writeToParcel(Parcel *parcel) const
{
    status_t err = NO_ERROR;
    for (const std::string *text : {&clientID, &uniqueID, &name, &contentURL}) {
        if ((err = writeText(parcel, *text)) != NO_ERROR)
            return err;
    }
    if ((err = parcel->writeInt32(state)) != NO_ERROR ||
        (err = parcel->writeInt32(failureCode)) != NO_ERROR ||
        (err = parcel->writeInt64(totalSize)) != NO_ERROR ||
        (err = parcel->writeInt64(amountDownloaded)) != NO_ERROR ||
        (err = parcel->writeInt64(startTime)) != NO_ERROR)
        return err;
    if ((err = writeText(parcel, filePath)) != NO_ERROR)
        return err;
    if ((err = parcel->writeInt64(nextAttemptTime)) != NO_ERROR)
        return err;
    return writeText(parcel, expectedSha256);
}

status_t IDownload::readFromParcel(const Parcel &parcel)
{
    status_t err = NO_ERROR;
    for (std::string *text : {&clientID, &uniqueID, &name, &contentURL}) {
        if ((err = readText(parcel, text)) != NO_ERROR)
            return err;
    }
    if ((err = parcel.readInt32(&state)) != NO_ERROR ||
        (err = parcel.readInt32(&failureCode)) != NO_ERROR ||
        (err = parcel.readInt64(&totalSize)) != NO_ERROR ||
        (err = parcel.readInt64(&amountDownloaded)) != NO_ERROR ||
        (err = parcel.readInt64(&startTime)) != NO_ERROR)
        return err;
    if ((err = readText(parcel, &filePath)) != NO_ERROR)
        return err;
    if ((err = parcel.readInt64(&nextAttemptTime)) != NO_ERROR)
        return err;
    return readText(parcel, &expectedSha256);
}

#pragma once

#include <cstdint>
#include <string>

#include <utils/Errors.h>

namespace android {
class Parcel;
}

// A download's record as other processes see it. Plain value: copied member-wise.
class IDownload
{
public:
    IDownload();

    std::string clientID;
    std::string uniqueID;
    std::string name;
    std::string contentURL;
    int32_t state;
    int32_t failureCode;
    int64_t totalSize;
    int64_t amountDownloaded;
    int64_t startTime;
    std::string filePath;

    android::status_t writeToParcel(android::Parcel *parcel) const;
    android::status_t readFromParcel(const android::Parcel &parcel);
};

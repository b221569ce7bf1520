#pragma once

#include <cstdint>
#include <string>

#include <utils/Errors.h>

namespace android {
class Parcel;
}

// Values of IDownload::failureCode: why the download last failed. A code stays after a later
// success, so only a Failed (or Stalled) state says that it is current.
enum DownloadFailureCode : int32_t {
    FAILURE_NETWORK = 1,     // network or transfer fault: connection, DNS, TLS, timeout, cut body
    FAILURE_HTTP_STATUS = 2, // the server answered with an error status (or an unusable answer)
    FAILURE_LOCAL_FILE = 3,  // the local file could not be opened or written (full disk, no dir)
    FAILURE_NONE = 4,        // a new download that never failed
    FAILURE_CONTENT_MISMATCH = 5, // not the size or SHA-256 its creator expected (file kept)
};

// A download's record as other processes see it. Plain value: copied member-wise.
// On the wire: the members in declaration order, text as an int32 byte count and the bytes,
// integers little-endian; nextAttemptTime and expectedSha256 were appended after the first ten.
class IDownload
{
public:
    IDownload();

    std::string clientID;
    std::string uniqueID;
    std::string name;
    std::string contentURL;
    int32_t state;
    int32_t failureCode; // a DownloadFailureCode
    int64_t totalSize;
    int64_t amountDownloaded;
    int64_t startTime;
    std::string filePath;
    // While Stalled: when the next attempt starts, ms since the Unix epoch; 0 when not known.
    int64_t nextAttemptTime;
    // The SHA-256 its creator expects, 64 lowercase hex digits; empty when none was given. A
    // Completed download that has one matched it.
    std::string expectedSha256;

    android::status_t writeToParcel(android::Parcel *parcel) const;
    android::status_t readFromParcel(const android::Parcel &parcel);
};

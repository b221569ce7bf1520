#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <utils/Errors.h>

namespace android {
class Parcel;
}

// Values of IDownload::state. Each is one bit, so a set of states fits in one mask.
enum DownloadState : int32_t {
    STATE_COMPLETED = 1, // the whole file is in filePath
    STATE_PROGRESSING = 2, // the server's answer was accepted and its body is being written
    STATE_PAUSED = 4, // stopped by a caller until resumed
    STATE_FAILED = 8, // stopped for good by failureCode's cause until resumed
    STATE_PENDING = 16, // waiting for a connection or for the server's answer
    STATE_STALLED = 32, // a passing fault: tried again at nextAttemptTime
};
// A state's name as operators read it ("Completed", ...); "Undefined" for any other value.
const char *downloadStateName(int32_t state);

// Values of IDownload::failureCode: why the download last failed. A code stays after a later
// success, so only a Failed (or Stalled) state says that it is current.
enum DownloadFailureCode : int32_t {
    FAILURE_NETWORK = 1, // network or transfer fault: connection, DNS, TLS, timeout, cut body
    FAILURE_HTTP_STATUS = 2, // the server answered with an error status (or an unusable answer)
    FAILURE_LOCAL_FILE = 3, // the local file could not be opened or written (full disk, no dir)
    FAILURE_NONE = 4, // a new download that never failed
    FAILURE_CONTENT_MISMATCH = 5, // not the size or SHA-256 its creator expected (file kept)
};

// A download's record as other processes see it. Plain value: copied member-wise.
// On the wire: the members up to nextAttemptTime in declaration order (text as an int32 byte
// count and the bytes, integers little-endian), then the tail: an int32 byte count and the
// members after nextAttemptTime. A reader takes the tail's members it knows and skips the rest;
// a record without a tail (from an older service) reads them as empty and 0. Where records
// follow each other (lists), all their first parts come first and then all their tails, so a
// reader built before the tail existed still finds every record.
class IDownload {
public:
    IDownload();

    // Longest failureReason the service sends, in bytes.
    static constexpr size_t kMaxReasonBytes = 512;

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
    // The tail.
    // Why the download last failed or stalled ("HTTP 404 Not Found", "No space left on
    // device"); stays after a later success, as failureCode does. Empty when it never failed.
    std::string failureReason;
    int32_t httpStatus; // status of the server's last answer; 0 when none came
    int64_t bytesPerSecond; // current rate while Progressing; 0 otherwise
    // The SHA-256 its creator expects, 64 lowercase hex digits; empty when none was given. A
    // Completed download that has one matched it.
    std::string expectedSha256;
    int64_t rateLimit; // its own limit in bytes per second; 0 when none
    int32_t priority; // among downloads waiting for a slot, higher first; 0 by default

    // One record: its first part and its tail.
    android::status_t writeToParcel(android::Parcel *parcel) const;
    android::status_t readFromParcel(const android::Parcel &parcel);
    // A list: the count, every record's first part, then every record's tail. A count larger
    // than the data could hold is refused (BAD_VALUE) before anything is allocated.
    static android::status_t writeList(android::Parcel *parcel, const std::vector<IDownload> &list);
    static android::status_t readList(const android::Parcel &parcel, std::vector<IDownload> *list);

private:
    android::status_t writeFirstPart(android::Parcel *parcel) const;
    android::status_t readFirstPart(const android::Parcel &parcel);
    android::status_t writeTail(android::Parcel *parcel) const;
    android::status_t readTail(const android::Parcel &parcel);
};

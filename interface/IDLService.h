#pragma once

#include "IDLClient.h"
#include "IDownload.h"

#include <binder/IInterface.h>

#include <cerrno>
#include <string>
#include <vector>

// The download service's interface for other processes. Every call is synchronous; results of
// the proxy are negative status codes when the call did not reach the service. All text (client
// ids, URLs, identifiers, names, paths, and the text members of IDownload) is UTF-8, both ways.
class IDLService : public android::IInterface {
public:
    DECLARE_META_INTERFACE(DLService);

    // The name the service is published under: defaultServiceManager()->getService(it).
    static constexpr char kServiceName[] = "com.velta.DLService";

    enum {
        CREATE_DOWNLOAD = android::IBinder::FIRST_CALL_TRANSACTION,
        ADD_CLIENT,
        REMOVE_CLIENT,
        REMOVE_DOWNLOAD,
        PAUSE_DOWNLOAD,
        RESUME_DOWNLOAD,
        GET_DOWNLOAD_LIST,
        GET_DOWNLOAD,
        CHECK_SPACE_AVAILABILITY,
        SET_DOWNLOAD_PATH,
        REQUEST_DOWNLOAD,
        LIST_DOWNLOADS_PAGE,
        REQUEST_PAUSE,
        REQUEST_RESUME,
        REQUEST_REMOVE,
        REQUEST_DOWNLOAD_CHECKED,
        SET_RATE_LIMIT,
        SET_PRIORITY,
        SET_OVERALL_RATE_LIMIT,
        SET_BACKGROUND_MODE,
        REQUEST_DOWNLOAD_ORDERED,
    };

    // Longest text each argument may carry, in bytes. A longer one is refused before anything is
    // done, queued or logged (never cut): the call's status, and what every method of the proxy
    // answers, is TEXT_TOO_LONG.
    static constexpr size_t kMaxIdBytes = 256; // identifiers and client ids
    static constexpr size_t kMaxUrlBytes = 8192;
    static constexpr size_t kMaxPathBytes = 4096;
    static constexpr size_t kMaxNameBytes = 1024;
    static constexpr android::status_t TEXT_TOO_LONG = -ENAMETOOLONG;
    // Bounds of rates (bytes per second, 0: none) and priorities (higher first, 0 by default).
    static constexpr int64_t kMaxRate = 10'000'000'000;
    static constexpr int32_t kMinPriority = -100, kMaxPriority = 100;

    // Status of requestDownload; negative values mean the call did not reach the service.
    enum DownloadRequestStatus : int32_t {
        REQUEST_CREATED = 0, // created; *uniqueIDOut holds its identifier
        REQUEST_BAD_URL = 1, // not an http or https URL
        REQUEST_ID_IN_USE = 2, // the given identifier belongs to another download
        REQUEST_BAD_ARGUMENT = 3, // an argument is unusable (see the service's log)
        REQUEST_REFUSED = 4, // not permitted or over a limit (the service's log says which)
    };
    // Status of setDownloadPath; negative values mean the call did not reach the service.
    enum DownloadPathStatus : int32_t {
        PATH_SET = 0,
        PATH_NOT_ABSOLUTE = 1, // empty or relative: refused, nothing changed
        PATH_NOT_A_DIRECTORY = 2, // missing, or not a directory: refused, nothing changed
        PATH_NOT_PERMITTED = 3, // the caller may not write there, or may not set this client
        PATH_NOT_WRITABLE = 4, // the service cannot write there now: a read-only file system,
                               // or outside what its sandbox lets it write (ReadWritePaths=)
    };
    // Answers of getDownload.
    enum DownloadLookup : int { DOWNLOAD_NOT_FOUND = 0, DOWNLOAD_FOUND = 1 };
    // Answers of checkSpaceAvailability.
    enum SpaceAnswer : int { SPACE_FITS = 0, SPACE_DOES_NOT_FIT = 1, SPACE_UNKNOWN = 2 };
    // Answers of requestPause, requestResume, requestRemove and the rate and order calls;
    // negative values mean the call did not reach the service.
    enum ControlStatus : int32_t {
        CONTROL_DONE = 0,
        CONTROL_NOT_FOUND = 1, // no download of the caller's has that identifier
        CONTROL_NOT_PERMITTED = 2, // its stored record is unusable: it is never run again;
                                   // overall limit and background mode: the caller is not root
        CONTROL_WRONG_STATE = 3, // pause: not Pending, Progressing or Stalled;
                                 // resume: not Paused or Failed
        CONTROL_BAD_VALUE = 4, // a rate or priority out of bounds: nothing changed
    };

    virtual void createDownload(const std::string &clientID, const std::string &url,
        const std::string &uniqueID, const std::string &name)
        = 0;
    virtual void addClient(const android::sp<IDLClient> &client) = 0;
    virtual void removeClient(const android::sp<IDLClient> &client) = 0;
    virtual void removeDownload(const std::string &uniqueID) = 0;
    virtual void pauseDownload(const std::string &uniqueID) = 0;
    virtual void resumeDownload(const std::string &uniqueID) = 0;
    // Every call is judged by the caller's uid: a caller other than root sees and controls only
    // the downloads it created ("all" means all of its own, another's is "not found"), and its
    // client directories are its own.
    // Kept for older clients; listDownloads() is simpler. Fills list with new'd records the
    // caller owns and must delete; the vector is cleared first WITHOUT deleting what it held.
    // 1 when any, 0 when none; fails (negative) when the records do not fit in one reply.
    virtual int getDownloadList(const std::string &clientID, std::vector<IDownload *> &list) = 0;
    // DOWNLOAD_FOUND and record filled, or DOWNLOAD_NOT_FOUND.
    virtual int getDownload(const std::string &uniqueID, IDownload *download) = 0;
    // A SpaceAnswer: SPACE_UNKNOWN when the directory is missing or its free space unknown. A
    // negative size is refused with BAD_VALUE.
    virtual int checkSpaceAvailability(const std::string &clientID, const long long &size) = 0;
    // The directory of the client's next downloads; a DownloadPathStatus.
    virtual int32_t setDownloadPath(const std::string &clientID, const std::string &downloadPath)
        = 0;
    // Creates a download at once and answers; the one-way createDownload stays for old clients.
    virtual int32_t requestDownload(const std::string &clientID, const std::string &url,
        const std::string &uniqueID, const std::string &name, std::string *uniqueIDOut)
        = 0;
    // One page of getDownloadList's records in identifier order: those whose identifier sorts
    // after `after` (all from the first when empty), as many as one reply holds. Returns how many
    // records `page` holds, 0 past the last one, negative when the call did not reach the service.
    virtual int listDownloadsPage(
        const std::string &clientID, const std::string &after, std::vector<IDownload> *page)
        = 0;
    // requestDownload for a known content: it ends Failed with FAILURE_CONTENT_MISMATCH unless
    // it has expectedSize bytes (-1: any) whose SHA-256 is sha256Hex (64 hex digits; empty: any).
    // A negative size or a digest of another form is REQUEST_BAD_ARGUMENT; nothing is made.
    virtual int32_t requestDownloadChecked(const std::string &clientID, const std::string &url,
        const std::string &uniqueID, const std::string &name, int64_t expectedSize,
        const std::string &sha256Hex, std::string *uniqueIDOut)
        = 0;
    // Pause, resume and remove that answer with a ControlStatus ("all": CONTROL_DONE); the
    // one-way calls above stay for older clients.
    virtual int32_t requestPause(const std::string &uniqueID) = 0;
    virtual int32_t requestResume(const std::string &uniqueID) = 0;
    virtual int32_t requestRemove(const std::string &uniqueID) = 0;
    // Rates and order, ControlStatus answers. A download's own limit ("all": the overall one)
    // and its priority, changed on a running download too (within a second); a caller other
    // than root changes its own downloads only. The overall limit and the background mode (its
    // own limit replaces the overall one while on; off at every start) are root's.
    virtual int32_t setRateLimit(const std::string &uniqueID, int64_t bytesPerSecond) = 0;
    virtual int32_t setPriority(const std::string &uniqueID, int32_t priority) = 0;
    virtual int32_t setOverallRateLimit(int64_t bytesPerSecond) = 0;
    virtual int32_t setBackgroundMode(bool on) = 0;
    // requestDownloadChecked with the download's own rate limit and priority from the start; one
    // out of bounds is REQUEST_BAD_ARGUMENT and nothing is made.
    virtual int32_t requestDownloadOrdered(const std::string &clientID, const std::string &url,
        const std::string &uniqueID, const std::string &name, int64_t expectedSize,
        const std::string &sha256Hex, int64_t rateLimit, int32_t priority, std::string *uniqueIDOut)
        = 0;

    // Every record getDownloadList names, by value, read page by page (so lists of any length);
    // the number of records, or negative when a call did not reach the service.
    int listDownloads(const std::string &clientID, std::vector<IDownload> *list);
};

// Server stub: unpacks each transaction and calls the matching operation.
class BnDLService : public android::BnInterface<IDLService> {
public:
    android::status_t onTransact(uint32_t code, const android::Parcel &data, android::Parcel *reply,
        uint32_t flags = 0) override;
};

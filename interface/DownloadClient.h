#pragma once

#include "IDownload.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

// An application's handle on the download service: plain C++ over the IPC interface
// (IDLService.h), for programs that need nothing more. Every download it creates belongs to its
// client identifier; the service judges every call by the calling process's user, who sees and
// controls only its own downloads.
//
// Results: a negative value means the call did not reach the service (not running, gone, or an
// argument over the service's length limits, -ENAMETOOLONG); otherwise the IDLService answer
// named at each method.
//
// Threads: every method may be called from any thread, also at the same time. The update
// callback runs on one of the IPC runtime's threads, never on the caller's, one update at a time
// and in the order the service sent them. Inside it, every method may be called (a call waits for
// the service as usual), onUpdate() too (it takes effect from the next update); destroying the
// DownloadClient there is not allowed. The destructor waits for a running callback to return.
class DownloadClient {
public:
    using UpdateCallback = std::function<void(const IDownload &)>;

    // Connects at once; connected() says whether the service was reached.
    explicit DownloadClient(const std::string &clientID);
    ~DownloadClient();
    DownloadClient(const DownloadClient &) = delete;
    DownloadClient &operator=(const DownloadClient &) = delete;

    bool connected() const;
    const std::string &clientID() const;

    // A DownloadRequestStatus; on REQUEST_CREATED *uniqueID (if given) holds the new download's
    // identifier. An empty id lets the service choose one.
    int32_t create(const std::string &url, std::string *uniqueID = nullptr,
        const std::string &id = std::string(), const std::string &name = std::string());
    // DOWNLOAD_FOUND with *record filled, or DOWNLOAD_NOT_FOUND.
    int get(const std::string &uniqueID, IDownload *record);
    // This client's downloads (every client's with allClients), by value, in identifier order;
    // the count.
    int list(std::vector<IDownload> *records, bool allClients = false);
    // ControlStatus answers; "all" names every download of the caller's.
    int32_t pause(const std::string &uniqueID);
    int32_t resume(const std::string &uniqueID);
    int32_t remove(const std::string &uniqueID);
    // ControlStatus answers: a download's own rate limit in bytes per second (0: none) and its
    // priority among the waiting (-100..100, higher first). The overall limit and the
    // background mode (its limit in place of the overall one) are root's to set.
    int32_t setRateLimit(const std::string &uniqueID, int64_t bytesPerSecond);
    int32_t setPriority(const std::string &uniqueID, int32_t priority);
    int32_t setOverallRateLimit(int64_t bytesPerSecond);
    int32_t setBackgroundMode(bool on);
    // A DownloadPathStatus: the directory of this client's next downloads.
    int32_t setDownloadPath(const std::string &directory);
    // Calls callback with every change of every download the caller may see (not only this
    // client's); an empty callback stops the updates. Negative when the service was not reached.
    int onUpdate(UpdateCallback callback);

private:
    struct Private;
    std::unique_ptr<Private> d;
};

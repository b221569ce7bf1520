#pragma once

#include "DownloadManager.h"
#include "EventClients.h"
#include "FrontEnd.h"
#include "IDLService.h"
#include "ManagerGate.h"

#include <binder/IBinder.h>
#include <binder/Parcel.h>

#include <functional>
#include <mutex>
#include <shared_mutex>
#include <vector>

namespace dlm {

// The service other processes reach as "com.velta.DLService". IPC calls arrive on pool threads
// and reach the manager only through one MainThreadQueue, in order of arrival: one-way requests
// are queued, queries and the download path run there while the pool thread waits, so they see
// a consistent state. Event
// clients get every change of the downloads their caller may see from the manager's thread as
// one-way callbacks; no lock is held while one is made. Every call is judged by the caller's uid
// as the IPC runtime reports it. Reference counted: the manager and the IPC runtime each hold a
// reference.
class DLBinderClient : public BnDLService,
                       public android::IBinder::DeathRecipient,
                       public FrontEnd {
public:
    explicit DLBinderClient(DownloadManager *manager);
    ~DLBinderClient() override;

    void createDownload(const std::string &clientID, const std::string &url,
        const std::string &uniqueID, const std::string &name) override;
    void addClient(const android::sp<IDLClient> &client) override;
    void removeClient(const android::sp<IDLClient> &client) override;
    void removeDownload(const std::string &uniqueID) override;
    void pauseDownload(const std::string &uniqueID) override;
    void resumeDownload(const std::string &uniqueID) override;
    int getDownloadList(const std::string &clientID, std::vector<IDownload *> &list) override;
    int getDownload(const std::string &uniqueID, IDownload *download) override;
    int checkSpaceAvailability(const std::string &clientID, const long long &size) override;
    int32_t setDownloadPath(const std::string &clientID, const std::string &downloadPath) override;
    int32_t requestDownload(const std::string &clientID, const std::string &url,
        const std::string &uniqueID, const std::string &name, std::string *uniqueIDOut) override;
    int listDownloadsPage(const std::string &clientID, const std::string &after,
        std::vector<IDownload> *page) override;
    int32_t requestDownloadChecked(const std::string &clientID, const std::string &url,
        const std::string &uniqueID, const std::string &name, int64_t expectedSize,
        const std::string &sha256Hex, std::string *uniqueIDOut) override;
    int32_t requestPause(const std::string &uniqueID) override;
    int32_t requestResume(const std::string &uniqueID) override;
    int32_t requestRemove(const std::string &uniqueID) override;
    int32_t setRateLimit(const std::string &uniqueID, int64_t bytesPerSecond) override;
    int32_t setPriority(const std::string &uniqueID, int32_t priority) override;
    int32_t setOverallRateLimit(int64_t bytesPerSecond) override;
    int32_t setBackgroundMode(bool on) override;
    int32_t requestDownloadOrdered(const std::string &clientID, const std::string &url,
        const std::string &uniqueID, const std::string &name, int64_t expectedSize,
        const std::string &sha256Hex, int64_t rateLimit, int32_t priority,
        std::string *uniqueIDOut) override;

    // Starts the pool and publishes the service; false when the name could not be registered.
    bool init();
    void help() override;
    void updateDownloadEntry(Download *download) override;
    void reportsStored() override;
    void binderDied(const android::wp<android::IBinder> &who) override;
    // Detaches from the manager and drops the manager's reference; late calls find no manager.
    void destroy() override;

private:
    // Runs a pause, resume or remove as the caller on the manager's thread; a ControlStatus.
    int32_t control(const char *what, const std::string &uniqueID,
        std::function<int(DownloadManager *, const QString &, uint)> action);

    EventClients eventClients;
    // Callbacks of changes not stored yet, in order: each parcel once, and who gets which.
    std::vector<android::Parcel> toldParcels;
    std::vector<std::pair<android::sp<android::IBinder>, size_t>> toldTo;
    ManagerGate gate; // the one way to the manager; closed by destroy()
};

} // namespace dlm

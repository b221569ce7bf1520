#pragma once

#include "DLBaseClient.h"
#include "IDLService.h"

#include <binder/IBinder.h>

#include <functional>
#include <mutex>
#include <shared_mutex>
#include <vector>

class MainThreadQueue;

// The service other processes reach as "com.velta.DLService". IPC calls arrive on pool threads:
// requests that change downloads are posted to the manager; queries and the download path run
// on the manager's thread while the pool thread waits, so they see a consistent state. Event
// clients get every change of the downloads their caller may see from the manager's thread as
// one-way callbacks; no lock is held while one is made. Every call is judged by the caller's uid
// as the IPC runtime reports it. Reference counted: the manager and the IPC runtime each hold a
// reference.
class DLBinderClient : public BnDLService,
                       public android::IBinder::DeathRecipient,
                       public DLBaseClient
{
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
                            const std::string &uniqueID, const std::string &name,
                            std::string *uniqueIDOut) override;
    int listDownloadsPage(const std::string &clientID, const std::string &after,
                          std::vector<IDownload> *page) override;
    int32_t requestDownloadChecked(const std::string &clientID, const std::string &url,
                                   const std::string &uniqueID, const std::string &name,
                                   int64_t expectedSize, const std::string &sha256Hex,
                                   std::string *uniqueIDOut) override;
    int32_t requestPause(const std::string &uniqueID) override;
    int32_t requestResume(const std::string &uniqueID) override;
    int32_t requestRemove(const std::string &uniqueID) override;

    // Starts the pool and publishes the service; false when the name could not be registered.
    bool init() override;
    void help() override;
    void updateDownloadEntry(Download *download) override;
    void binderDied(const android::wp<android::IBinder> &who) override;
    // Detaches from the manager and drops the manager's reference; late calls find no manager.
    void destroy() override;

    // Event clients are other processes' objects, each registered once; these bound how many
    // one connection, one uid other than root, and all together may register. The uids other
    // than root together leave a reserve that only root may use.
    static constexpr size_t kMaxEventClientsPerConnection = 16;
    static constexpr size_t kMaxEventClientsPerUid = 32;
    static constexpr size_t kMaxEventClients = 256;
    static constexpr size_t kEventClientsRootReserve = 32;

private:
    // Runs question on the manager's thread and waits; fallback once the manager is gone.
    template <typename R>
    R askManager(R fallback, std::function<R(DownloadManager *)> question);
    // Queues a request for the manager's thread unless the manager is gone; it stays counted
    // against the calling connection and uid until it has run.
    void post(std::function<void(DownloadManager *)> request);
    // Runs a pause, resume or remove as the caller on the manager's thread; a ControlStatus.
    int32_t control(const char *what, const std::string &uniqueID,
        std::function<int(DownloadManager *, const QString &, uint)> action);

    struct EventClient
    {
        android::sp<IDLClient> client;
        uint uid; // of the caller that registered it
    };
    std::vector<EventClient> eventClients;
    std::mutex eventClientsMutex;
    std::shared_mutex gate; // guards the manager pointer and the queue against quit()
    bool detached = false;
    MainThreadQueue *managerThread = nullptr; // created by init() on the manager's thread
};

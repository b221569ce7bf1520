// download-example URL [CLIENT]: has the download service fetch URL and follows the download to
// its end. Exit status: 0 completed, 1 failed or refused, 2 service not reachable, 64 usage.
#include <IDLService.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <unistd.h>

using namespace android;

enum { COMPLETED = 1, FAILED = 8 };

// Update callbacks arrive on the IPC runtime's threads; keep the newest record of our download.
class Updates : public BnDLClient
{
public:
    Updates(std::string url, std::string client) : url(std::move(url)), client(std::move(client)) {}

    void onDownloadUpdate(IDownload download) override
    {
        if (download.contentURL != url || download.clientID != client)
            return;
        std::lock_guard<std::mutex> lock(mutex);
        latest = download;
        fresh = true;
        arrived.notify_all();
    }

    // False when nothing new came within a second.
    bool next(IDownload *out)
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!arrived.wait_for(lock, std::chrono::seconds(1), [this] { return fresh; }))
            return false;
        fresh = false;
        *out = latest;
        return true;
    }

private:
    const std::string url, client;
    std::mutex mutex;
    std::condition_variable arrived;
    IDownload latest;
    bool fresh = false;
};

int run(int argc, char **argv)
{
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: download-example URL [CLIENT]\n");
        return 64;
    }
    const std::string url = argv[1], client = argc == 3 ? argv[2] : "download-example";

    ProcessState::self()->startThreadPool();
    sp<IBinder> binder = defaultServiceManager()->getService(String16("com.velta.DLService"));
    if (binder == nullptr) {
        fprintf(stderr, "download-example: the download service is not running\n");
        return 2;
    }
    sp<IDLService> service = interface_cast<IDLService>(binder);
    sp<Updates> updates = new Updates(url, client);
    service->addClient(updates); // before creating, so that no update is missed
    service->createDownload(client, url, "", "");

    IDownload record;
    std::string id;
    for (int quiet = 0; record.state != COMPLETED && record.state != FAILED;) {
        if (updates->next(&record)) {
            id = record.uniqueID;
            printf("%s %lld/%lld bytes\n", id.c_str(), (long long)record.amountDownloaded,
                   (long long)record.totalSize);
        } else if (id.empty() ? ++quiet == 10 : service->getDownload(id, &record) != 1) {
            // A failure is not announced as an update: ask for the state when things go quiet.
            fprintf(stderr, "download-example: no download for %s (see the service's log)\n",
                    url.c_str());
            return 1;
        }
    }
    service->removeClient(updates);
    printf("%s %s: %s\n", id.c_str(), record.state == COMPLETED ? "completed" : "failed",
           record.filePath.c_str());
    return record.state == COMPLETED ? 0 : 1;
}

int main(int argc, char **argv)
{
    const int status = run(argc, argv);
    // IPC threads may still be delivering callbacks: end without running static destructors.
    fflush(nullptr);
    _exit(status);
}

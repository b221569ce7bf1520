// download-example URL [CLIENT]: has the download service fetch URL and follows the download to
// its end. Exit status: 0 completed, 1 failed or refused, 2 service not reachable, 64 usage.
#include <IDLService.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <unistd.h>

using namespace android;

enum { COMPLETED = 1, FAILED = 8 };

// Update callbacks arrive on the IPC runtime's threads. The newest record of every download is
// kept: ours may report before requestDownload has answered with its identifier.
class Updates : public BnDLClient
{
public:
    void onDownloadUpdate(IDownload download) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        latest[download.uniqueID] = download;
        arrived.notify_all();
    }

    // The newest record of id not yet seen; false when none came within a second.
    bool next(const std::string &id, IDownload *out)
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!arrived.wait_for(lock, std::chrono::seconds(1), [&] { return latest.count(id) > 0; }))
            return false;
        *out = latest[id];
        latest.erase(id);
        return true;
    }

private:
    std::mutex mutex;
    std::condition_variable arrived;
    std::map<std::string, IDownload> latest;
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
    sp<Updates> updates = new Updates;
    service->addClient(updates); // before creating, so that no update is missed
    std::string id;
    const int32_t status = service->requestDownload(client, url, "", "", &id);
    if (status != IDLService::REQUEST_CREATED) {
        fprintf(stderr, "download-example: the service refused %s (status %d)\n", url.c_str(),
                status);
        return status < 0 ? 2 : 1;
    }

    IDownload record;
    while (record.state != COMPLETED && record.state != FAILED) {
        if (updates->next(id, &record)) {
            printf("%s %lld/%lld bytes\n", id.c_str(), (long long)record.amountDownloaded,
                   (long long)record.totalSize);
            continue;
        }
        // A failure is not announced as an update: ask for the state when things go quiet.
        const int found = service->getDownload(id, &record);
        if (found != 1) {
            fprintf(stderr, "download-example: download %s is gone\n", id.c_str());
            return found < 0 ? 2 : 1;
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

// download-example URL [CLIENT]: has the download service fetch URL and follows the download to
// its end. Exit status: 0 completed, 1 failed or refused, 2 service not reachable, 64 usage.
#include <DownloadClient.h>
#include <IDLService.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <unistd.h>

namespace {

bool finished(const IDownload &record)
{
    return record.state == STATE_COMPLETED || record.state == STATE_FAILED;
}

} // namespace

int run(int argc, char **argv)
{
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: download-example URL [CLIENT]\n");
        return 64;
    }
    const std::string url = argv[1];
    DownloadClient client(argc == 3 ? argv[2] : "download-example");
    if (!client.connected()) {
        fprintf(stderr, "download-example: the download service is not running\n");
        return 2;
    }
    // Updates arrive on the IPC runtime's threads, ours possibly before create() has answered
    // with its identifier: the newest record of every download is kept.
    std::mutex mutex;
    std::condition_variable arrived;
    std::map<std::string, IDownload> latest;
    client.onUpdate([&](const IDownload &record) {
        std::lock_guard<std::mutex> lock(mutex);
        latest[record.uniqueID] = record;
        arrived.notify_all();
    });
    std::string id;
    const int32_t status = client.create(url, &id);
    if (status != IDLService::REQUEST_CREATED) {
        fprintf(
            stderr, "download-example: the service refused %s (status %d)\n", url.c_str(), status);
        return status < 0 ? 2 : 1;
    }

    IDownload record;
    while (!finished(record)) {
        std::unique_lock<std::mutex> lock(mutex);
        if (!arrived.wait_for(
                lock, std::chrono::seconds(1), [&] { return latest.count(id) > 0; })) {
            lock.unlock();
            // Quiet for a second: ask, so that a service that went away is noticed.
            const int found = client.get(id, &record);
            if (found != IDLService::DOWNLOAD_FOUND) {
                fprintf(stderr, "download-example: download %s is gone\n", id.c_str());
                return found < 0 ? 2 : 1;
            }
            continue;
        }
        record = latest[id];
        latest.erase(id);
        printf("%s %lld/%lld bytes, %lld B/s\n", id.c_str(), (long long)record.amountDownloaded,
            (long long)record.totalSize, (long long)record.bytesPerSecond);
    }
    client.onUpdate(nullptr);
    if (record.state == STATE_COMPLETED)
        printf("%s completed: %s\n", id.c_str(), record.filePath.c_str());
    else
        printf("%s failed: %s\n", id.c_str(), record.failureReason.c_str());
    return record.state == STATE_COMPLETED ? 0 : 1;
}

int main(int argc, char **argv)
{
    const int status = run(argc, argv);
    // IPC threads may still be delivering callbacks: end without running static destructors.
    fflush(nullptr);
    _exit(status);
}

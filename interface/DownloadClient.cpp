#include "DownloadClient.h"

#include "IDLService.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <mutex>

using namespace android;

namespace {

// Hands each update to the current callback; the lock keeps them one at a time, and lets the
// callback replace itself.
class Listener : public BnDLClient {
public:
    void onDownloadUpdate(IDownload download) override
    {
        std::lock_guard<std::recursive_mutex> lock(mutex);
        if (callback)
            callback(download);
    }
    void set(DownloadClient::UpdateCallback f)
    {
        std::lock_guard<std::recursive_mutex> lock(mutex);
        callback = std::move(f);
    }

private:
    std::recursive_mutex mutex;
    DownloadClient::UpdateCallback callback;
};

} // namespace

struct DownloadClient::Private {
    std::string clientID;
    sp<IDLService> service;
    sp<Listener> listener;
    std::mutex registering;
    bool registered = false;
};

DownloadClient::DownloadClient(const std::string &clientID) : d(new Private)
{
    d->clientID = clientID;
    ProcessState::self()->startThreadPool();
    const sp<IBinder> binder
        = defaultServiceManager()->checkService(String16(IDLService::kServiceName));
    if (binder != nullptr)
        d->service = interface_cast<IDLService>(binder);
    d->listener = new Listener;
}

DownloadClient::~DownloadClient()
{
    onUpdate(nullptr);
}

bool DownloadClient::connected() const
{
    return d->service != nullptr;
}

const std::string &DownloadClient::clientID() const
{
    return d->clientID;
}

int32_t DownloadClient::create(
    const std::string &url, std::string *uniqueID, const std::string &id, const std::string &name)
{
    return d->service ? d->service->requestDownload(d->clientID, url, id, name, uniqueID)
                      : int32_t(DEAD_OBJECT);
}

int DownloadClient::get(const std::string &uniqueID, IDownload *record)
{
    return d->service ? d->service->getDownload(uniqueID, record) : int(DEAD_OBJECT);
}

int DownloadClient::list(std::vector<IDownload> *records, bool allClients)
{
    records->clear();
    return d->service ? d->service->listDownloads(allClients ? "*" : d->clientID, records)
                      : int(DEAD_OBJECT);
}

int32_t DownloadClient::pause(const std::string &uniqueID)
{
    return d->service ? d->service->requestPause(uniqueID) : int32_t(DEAD_OBJECT);
}

int32_t DownloadClient::resume(const std::string &uniqueID)
{
    return d->service ? d->service->requestResume(uniqueID) : int32_t(DEAD_OBJECT);
}

int32_t DownloadClient::remove(const std::string &uniqueID)
{
    return d->service ? d->service->requestRemove(uniqueID) : int32_t(DEAD_OBJECT);
}

int32_t DownloadClient::setRateLimit(const std::string &uniqueID, int64_t bytesPerSecond)
{
    return d->service ? d->service->setRateLimit(uniqueID, bytesPerSecond) : int32_t(DEAD_OBJECT);
}

int32_t DownloadClient::setPriority(const std::string &uniqueID, int32_t priority)
{
    return d->service ? d->service->setPriority(uniqueID, priority) : int32_t(DEAD_OBJECT);
}

int32_t DownloadClient::setOverallRateLimit(int64_t bytesPerSecond)
{
    return d->service ? d->service->setOverallRateLimit(bytesPerSecond) : int32_t(DEAD_OBJECT);
}

int32_t DownloadClient::setBackgroundMode(bool on)
{
    return d->service ? d->service->setBackgroundMode(on) : int32_t(DEAD_OBJECT);
}

int32_t DownloadClient::setDownloadPath(const std::string &directory)
{
    return d->service ? d->service->setDownloadPath(d->clientID, directory) : int32_t(DEAD_OBJECT);
}

int DownloadClient::onUpdate(UpdateCallback callback)
{
    const bool wanted = bool(callback);
    d->listener->set(std::move(callback)); // waits for a running callback
    std::lock_guard<std::mutex> lock(d->registering);
    if (!d->service)
        return wanted ? int(DEAD_OBJECT) : int(NO_ERROR);
    if (wanted != d->registered) {
        if (wanted)
            d->service->addClient(d->listener);
        else
            d->service->removeClient(d->listener);
        d->registered = wanted;
    }
    return NO_ERROR;
}

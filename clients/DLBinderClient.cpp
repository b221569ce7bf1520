#include "DLBinderClient.h"

#include "DlmLog.h"
#include "Download.h"
#include "DownloadManager.h"
#include "MainThreadQueue.h"

#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <QThread>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <unistd.h>

using namespace android;

#define BINDER_LOGD(...) __android_log_print(ANDROID_LOG_DEBUG, DLM_BINDER_TAG, __VA_ARGS__)
#define BINDER_LOGI(...) __android_log_print(ANDROID_LOG_INFO, DLM_BINDER_TAG, __VA_ARGS__)
#define BINDER_LOGW(...) __android_log_print(ANDROID_LOG_WARN, DLM_BINDER_TAG, __VA_ARGS__)
#define BINDER_LOGE(...) __android_log_print(ANDROID_LOG_ERROR, DLM_BINDER_TAG, __VA_ARGS__)

namespace {

// The interface carries UTF-8 both ways.
QString textIn(const std::string &text)
{
    return QString::fromUtf8(text.data(), qsizetype(text.size()));
}

std::string textOut(const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    return std::string(bytes.constData(), size_t(bytes.size()));
}

// Replies must stay below the IPC runtime's frame bound of 1 MiB. A page holds a few hundred
// records whatever the list's length, so no caller makes the service build a large reply.
constexpr size_t kListReplyBytes = 960 * 1024;
constexpr size_t kPageBytes = 256 * 1024;
constexpr int kPageRecords = 4096;

// Bytes a record takes in a reply: five texts (count and bytes, padded to 4) and five numbers.
size_t recordBytes(const IDownload &r)
{
    size_t bytes = 4 + 4 + 8 + 8 + 8;
    for (const std::string *text : {&r.clientID, &r.uniqueID, &r.name, &r.contentURL, &r.filePath})
        bytes += 4 + (text->size() + 3) / 4 * 4;
    return bytes;
}

// The caller of the call this pool thread serves, as the manager names callers: the service's
// own user acts as root.
uint callerUid()
{
    const uid_t uid = IPCThreadState::self()->getCallingUid();
    return uid == geteuid() ? 0 : uint(uid);
}

} // namespace

DLBinderClient::DLBinderClient(DownloadManager *manager) : DLBaseClient(manager) {}

DLBinderClient::~DLBinderClient() = default;

void DLBinderClient::fillRecord(IDownload *record, const Download *download)
{
    record->clientID = textOut(download->clientID);
    record->uniqueID = textOut(download->uniqueID);
    record->name = textOut(download->name);
    record->contentURL = textOut(download->contentURL);
    record->state = int32_t(download->state);
    record->failureCode = int32_t(download->failureCode);
    record->totalSize = download->totalSize;
    record->amountDownloaded = download->amountDownloaded;
    record->startTime = download->startTime;
    record->filePath = textOut(download->filePath);
    record->nextAttemptTime = download->nextAttemptTime();
}

template <typename R>
R DLBinderClient::askManager(R fallback, std::function<R(DownloadManager *)> question)
{
    struct Answer
    {
        std::mutex mutex;
        std::condition_variable ready;
        bool done = false;
        R value;
    };
    auto answer = std::make_shared<Answer>();
    {
        std::shared_lock<std::shared_mutex> lock(gate);
        if (detached || !manager)
            return fallback;
        DownloadManager *target = manager;
        if (QThread::currentThread() == target->thread())
            return question(target);
        // The answer lives in shared state: work that runs after we gave up writes there.
        const bool queued = managerThread && managerThread->post([target, answer, question] {
            R value = question(target);
            std::lock_guard<std::mutex> guard(answer->mutex);
            answer->value = std::move(value);
            answer->done = true;
            answer->ready.notify_all();
        });
        if (!queued)
            return fallback;
    }
    std::unique_lock<std::mutex> wait(answer->mutex);
    while (!answer->done) {
        if (answer->ready.wait_for(wait, std::chrono::milliseconds(50)) == std::cv_status::timeout) {
            // quit() drops queued work; do not wait for an answer that will never come.
            std::shared_lock<std::shared_mutex> lock(gate);
            if (detached)
                return fallback;
        }
    }
    return answer->value;
}

void DLBinderClient::post(const std::function<void(DownloadManager *)> &request)
{
    std::shared_lock<std::shared_mutex> lock(gate);
    if (!detached && manager)
        request(manager);
}

bool DLBinderClient::init()
{
    managerThread = new MainThreadQueue;
    ProcessState::self()->startThreadPool();
    const sp<IBinder> self = static_cast<BBinder *>(this);
    const status_t err =
        defaultServiceManager()->addService(String16("com.velta.DLService"), self);
    if (err != 0) {
        BINDER_LOGE("Unable to add DL service err %d", err);
        return false;
    }
    return true;
}

void DLBinderClient::help() {}

void DLBinderClient::destroy()
{
    MainThreadQueue *queue = nullptr;
    {
        std::unique_lock<std::shared_mutex> lock(gate);
        detached = true;
        manager = nullptr;
        std::swap(queue, managerThread);
    }
    delete queue; // no pool thread can be inside post() any more
    std::vector<EventClient> dropped;
    {
        std::lock_guard<std::mutex> lock(eventClientsMutex);
        dropped.swap(eventClients);
    }
    dropped.clear();
    decStrong(this);
}

void DLBinderClient::createDownload(const std::string &clientID, const std::string &url,
                                    const std::string &uniqueID, const std::string &name)
{
    BINDER_LOGD("Create download client id:%s url:%s unique id:%s name %s", clientID.c_str(),
                url.c_str(), uniqueID.c_str(), name.c_str());
    const QString client = textIn(clientID), address = textIn(url), id = textIn(uniqueID),
                  displayName = textIn(name);
    const uint uid = callerUid();
    post([&](DownloadManager *m) { m->createDownloadEvent(client, address, id, displayName, uid); });
}

void DLBinderClient::pauseDownload(const std::string &uniqueID)
{
    BINDER_LOGD("Pause download unique id:%s", uniqueID.c_str());
    const QString id = textIn(uniqueID);
    const uint uid = callerUid();
    post([&](DownloadManager *m) { m->actionDownloadEvent(id, 0, uid); });
}

void DLBinderClient::resumeDownload(const std::string &uniqueID)
{
    BINDER_LOGD("Resume download unique id:%s", uniqueID.c_str());
    const QString id = textIn(uniqueID);
    const uint uid = callerUid();
    post([&](DownloadManager *m) { m->actionDownloadEvent(id, 1, uid); });
}

void DLBinderClient::removeDownload(const std::string &uniqueID)
{
    BINDER_LOGD("Remove download unique id:%s", uniqueID.c_str());
    if (uniqueID.empty()) {
        BINDER_LOGE("uniqueID must be specified");
        return;
    }
    const QString id = textIn(uniqueID);
    const uint uid = callerUid();
    post([&](DownloadManager *m) { m->actionDownloadEvent(id, 2, uid); });
}

int DLBinderClient::getDownload(const std::string &uniqueID, IDownload *download)
{
    BINDER_LOGD("getDownload uniqueID:%s", uniqueID.c_str());
    const QString id = textIn(uniqueID);
    using Found = std::pair<bool, IDownload>;
    const uint uid = callerUid();
    const Found found = askManager<Found>(Found(false, IDownload()), [id, uid](DownloadManager *m) {
        Found result(false, IDownload());
        if (const Download *d = m->getDownload(id, uid)) {
            result.first = true;
            fillRecord(&result.second, d);
        }
        return result;
    });
    if (!found.first) {
        BINDER_LOGE(" getDownload download is null %s", uniqueID.c_str());
        return 0;
    }
    if (download)
        *download = found.second;
    return 1;
}

int DLBinderClient::getDownloadList(const std::string &clientID, std::vector<IDownload *> &list)
{
    BINDER_LOGD("getDownloadList client id:%s", clientID.c_str());
    list.clear();
    const QString client = textIn(clientID);
    // (records, false) or, when they would not fit in one reply, (nothing, true).
    using Answer = std::pair<std::vector<IDownload>, bool>;
    const uint uid = callerUid();
    const Answer answer = askManager<Answer>({}, [client, uid](DownloadManager *m) {
        Answer result;
        size_t bytes = 0;
        for (const Download *d : m->getDownloadList(client, uid)) {
            result.first.emplace_back();
            fillRecord(&result.first.back(), d);
            bytes += recordBytes(result.first.back());
            if (bytes > kListReplyBytes)
                return Answer({}, true);
        }
        return result;
    });
    if (answer.second) {
        BINDER_LOGE("getDownloadList client id %s: the records exceed one reply (%zu bytes); "
                    "refused, read them page by page", clientID.c_str(), kListReplyBytes);
        return android::FAILED_TRANSACTION;
    }
    const std::vector<IDownload> &records = answer.first;
    if (records.empty()) {
        BINDER_LOGE("getDownloadList No downloads!!! client id %s", clientID.c_str());
        return 0;
    }
    BINDER_LOGD("download list found:%d", int(records.size()));
    for (const IDownload &record : records)
        list.push_back(new IDownload(record));
    BINDER_LOGD("returned list size:%d", int(list.size()));
    return 1;
}

int DLBinderClient::listDownloadsPage(const std::string &clientID, const std::string &after,
                                      std::vector<IDownload> *page)
{
    BINDER_LOGD("listDownloadsPage client id:%s after:%s", clientID.c_str(), after.c_str());
    const QString client = textIn(clientID), cursor = textIn(after);
    const uint uid = callerUid();
    *page = askManager<std::vector<IDownload>>({}, [client, cursor, uid](DownloadManager *m) {
        // Identifier order keeps the pages consistent while downloads come and go.
        QList<Download *> downloads = m->getDownloadList(client, uid);
        const auto end = std::remove_if(downloads.begin(), downloads.end(), [&](const Download *d) {
            return !cursor.isEmpty() && d->uniqueID <= cursor;
        });
        const auto last = downloads.begin() + std::min<qsizetype>(kPageRecords, end - downloads.begin());
        std::partial_sort(downloads.begin(), last, end, [](const Download *a, const Download *b) {
            return a->uniqueID < b->uniqueID;
        });
        std::vector<IDownload> result;
        size_t bytes = 0;
        for (auto it = downloads.begin(); it != last; ++it) {
            IDownload record;
            fillRecord(&record, *it);
            bytes += recordBytes(record);
            if (!result.empty() && bytes > kPageBytes)
                break;
            result.push_back(std::move(record));
        }
        return result;
    });
    return int(page->size());
}

int DLBinderClient::checkSpaceAvailability(const std::string &clientID, const long long &size)
{
    BINDER_LOGD("checkSpaceAvailability client ID: %s size:%lld", clientID.c_str(), size);
    const QString client = textIn(clientID);
    const long long wanted = size;
    const uint uid = callerUid();
    return askManager<int>(2, [client, wanted, uid](DownloadManager *m) {
        return m->checkDownloadPossible(client, wanted, uid);
    });
}

int32_t DLBinderClient::setDownloadPath(const std::string &clientID,
                                        const std::string &downloadPath)
{
    BINDER_LOGD("setDownloadPath clientID:%s downloadPath %s", clientID.c_str(),
                downloadPath.c_str());
    static_assert(int(DownloadManager::PathStatus::NotADirectory) == PATH_NOT_A_DIRECTORY &&
                  int(DownloadManager::PathStatus::NotAbsolute) == PATH_NOT_ABSOLUTE &&
                  int(DownloadManager::PathStatus::NotPermitted) == PATH_NOT_PERMITTED);
    const QString client = textIn(clientID), path = textIn(downloadPath);
    const uint uid = callerUid();
    return askManager<int32_t>(DEAD_OBJECT, [client, path, uid](DownloadManager *m) {
        return int32_t(m->setDownloadPath(client, path, uid));
    });
}

int32_t DLBinderClient::requestDownload(const std::string &clientID, const std::string &url,
                                        const std::string &uniqueID, const std::string &name,
                                        std::string *uniqueIDOut)
{
    BINDER_LOGD("Request download client id:%s url:%s unique id:%s name %s", clientID.c_str(),
                url.c_str(), uniqueID.c_str(), name.c_str());
    static_assert(int(DownloadManager::CreateStatus::IdInUse) == REQUEST_ID_IN_USE &&
                  int(DownloadManager::CreateStatus::Refused) == REQUEST_REFUSED);
    const QString client = textIn(clientID), address = textIn(url), id = textIn(uniqueID),
                  displayName = textIn(name);
    using Answer = std::pair<int32_t, QString>;
    const uint uid = callerUid();
    const Answer answer = askManager<Answer>(
        Answer(DEAD_OBJECT, QString()), [client, address, id, displayName, uid](DownloadManager *m) {
            QString created;
            const auto status = m->createDownload(client, address, id, displayName, &created, uid);
            return Answer(int32_t(status), created);
        });
    if (uniqueIDOut)
        *uniqueIDOut = textOut(answer.second);
    return answer.first;
}

void DLBinderClient::addClient(const sp<IDLClient> &client)
{
    if (client == nullptr)
        return;
    const sp<IBinder> binder = IInterface::asBinder(client);
    // A local object would be the service calling itself and keeping itself alive.
    const BpBinder *remote = binder->remoteBinder();
    const char *refusal = remote == nullptr ? "not another process's object" : nullptr;
    if (!refusal) {
        std::lock_guard<std::mutex> lock(eventClientsMutex);
        size_t sameConnection = 0;
        for (size_t i = 0; i < eventClients.size() && !refusal; ++i) {
            const sp<IBinder> entry = IInterface::asBinder(eventClients[i].client);
            if (entry == binder)
                refusal = "already registered";
            else if (entry->remoteBinder()->connection() == remote->connection())
                ++sameConnection;
        }
        if (!refusal && sameConnection >= kMaxEventClientsPerConnection)
            refusal = "its connection's limit of event clients is reached";
        else if (!refusal && eventClients.size() >= kMaxEventClients)
            refusal = "the limit of event clients is reached";
        if (!refusal)
            eventClients.push_back({ client, callerUid() });
    }
    if (refusal) {
        BINDER_LOGW("Event client %p refused: %s", client.get(), refusal);
        return;
    }
    // Who listens is an operator's concern, as the refusal above is.
    BINDER_LOGI("Event client registered %p", client.get());
    // A client whose process is already gone would never be told dead: do not keep it.
    if (binder->linkToDeath(sp<IBinder::DeathRecipient>(this), nullptr, 0) != android::NO_ERROR)
        binderDied(binder);
}

void DLBinderClient::removeClient(const sp<IDLClient> &client)
{
    BINDER_LOGD("Trying to unregistered client %p", client.get());
    if (client == nullptr)
        return;
    const sp<IBinder> binder = IInterface::asBinder(client);
    sp<IDLClient> removed; // released after the lock
    {
        std::lock_guard<std::mutex> lock(eventClientsMutex);
        for (size_t i = 0; i < eventClients.size(); ++i) {
            if (IInterface::asBinder(eventClients[i].client).get() == binder.get()) {
                BINDER_LOGD("Removing client %p", client.get());
                removed = eventClients[i].client;
                eventClients.erase(eventClients.begin() + long(i));
                break;
            }
        }
    }
    binder->unlinkToDeath(wp<IBinder::DeathRecipient>(this), nullptr, 0);
}

void DLBinderClient::binderDied(const wp<IBinder> &who)
{
    const sp<IBinder> binder = who.unsafe_get();
    BINDER_LOGD("Binder event client %p died, trying to remove from clients list", binder.get());
    sp<IDLClient> removed;
    {
        std::lock_guard<std::mutex> lock(eventClientsMutex);
        for (size_t i = 0; i < eventClients.size(); ++i) {
            if (IInterface::asBinder(eventClients[i].client).get() == binder.get()) {
                BINDER_LOGI("Removing client %p from eventClients", eventClients[i].client.get());
                removed = eventClients[i].client;
                eventClients.erase(eventClients.begin() + long(i));
                break;
            }
        }
    }
}

void DLBinderClient::updateDownloadEntry(Download *download)
{
    BINDER_LOGD("DLBinderClient::notifyDownloadUpdate ");
    // The callback's parcel is built once per report and sent to every client as it is.
    Parcel update;
    for (size_t i = 0;; ++i) {
        sp<IDLClient> client;
        {
            std::lock_guard<std::mutex> lock(eventClientsMutex);
            if (i >= eventClients.size())
                break;
            // A caller sees only the downloads it may touch, in updates as in queries.
            if (!DownloadManager::mayTouch(eventClients[i].uid, download))
                continue;
            client = eventClients[i].client;
        }
        if (update.dataSize() == 0) {
            IDownload record;
            fillRecord(&record, download);
            update.writeInterfaceToken(IDLClient::descriptor);
            record.writeToParcel(&update);
        }
        IInterface::asBinder(client)->transact(
            IDLClient::ON_DOWNLOAD_UPDATE, update, nullptr, IBinder::FLAG_ONEWAY);
    }
}

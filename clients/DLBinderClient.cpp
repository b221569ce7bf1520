#include "DLBinderClient.h"

#include "CallerView.h"
#include "DlmLog.h"
#include "Download.h"
#include "DownloadManager.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>

#include <algorithm>
#include <memory>
#include <unistd.h>

namespace dlm {

using namespace android;

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

// Bytes a record takes in a reply: seven texts (count and bytes, padded to 4), ten numbers and
// the tail's count.
size_t recordBytes(const IDownload &r)
{
    size_t bytes = 4 + 4 + 8 + 8 + 8 + 8 + 4 + 4 + 8 + 8 + 4;
    for (const std::string *text : { &r.clientID, &r.uniqueID, &r.name, &r.contentURL, &r.filePath,
             &r.failureReason, &r.expectedSha256 })
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

// The stored identifier of the download the caller names; "all" and unknown names pass as they are.
QString storedIdOf(DownloadManager *manager, const QString &id, uint uid)
{
    const Download *d = id == QLatin1String("all") ? nullptr : CallerView::find(manager, id, uid);
    return d ? d->uniqueID() : id;
}

} // namespace

DLBinderClient::DLBinderClient(DownloadManager *manager) : gate(manager) { }

DLBinderClient::~DLBinderClient() = default;

bool DLBinderClient::init()
{
    gate.open();
    ProcessState::self()->startThreadPool();
    const sp<IBinder> self = static_cast<BBinder *>(this);
    const status_t err = defaultServiceManager()->addService(String16(kServiceName), self);
    if (err != 0) {
        BINDER_LOGE("Unable to add DL service err %d", err);
        return false;
    }
    return true;
}

void DLBinderClient::help() { }

void DLBinderClient::destroy()
{
    gate.close();
    eventClients.takeAll(); // released here, outside its lock
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
    if (textOut(CallerView::storedId(id, uid)).size() > kMaxIdBytes) {
        BINDER_LOGW("Create download refused: identifier %s too long", uniqueID.c_str());
        return;
    }
    gate.post([=](DownloadManager *m) {
        // A refusal is logged; the one-way caller has nobody to tell.
        if (uid == 0 || id.isEmpty() || !CallerView::find(m, id, uid))
            m->createDownload(
                client, address, CallerView::storedId(id, uid), displayName, nullptr, uid);
    });
}

void DLBinderClient::pauseDownload(const std::string &uniqueID)
{
    BINDER_LOGD("Pause download unique id:%s", uniqueID.c_str());
    const QString id = textIn(uniqueID);
    const uint uid = callerUid();
    gate.post([=](DownloadManager *m) { m->pauseDownload(storedIdOf(m, id, uid), uid); });
}

void DLBinderClient::resumeDownload(const std::string &uniqueID)
{
    BINDER_LOGD("Resume download unique id:%s", uniqueID.c_str());
    const QString id = textIn(uniqueID);
    const uint uid = callerUid();
    gate.post([=](DownloadManager *m) { m->resumeDownload(storedIdOf(m, id, uid), uid); });
}

void DLBinderClient::removeDownload(const std::string &uniqueID)
{
    BINDER_LOGD("Remove download unique id:%s", uniqueID.c_str());
    if (uniqueID.empty()) {
        BINDER_LOGW("uniqueID must be specified");
        return;
    }
    const QString id = textIn(uniqueID);
    const uint uid = callerUid();
    gate.post([=](DownloadManager *m) { m->removeDownload(storedIdOf(m, id, uid), uid); });
}

int32_t DLBinderClient::control(const char *what, const std::string &uniqueID,
    std::function<int(DownloadManager *, const QString &, uint)> action)
{
    BINDER_LOGD("%s download unique id:%s", what, uniqueID.c_str());
    static_assert(int(DownloadManager::ControlStatus::NotFound) == CONTROL_NOT_FOUND
        && int(DownloadManager::ControlStatus::WrongState) == CONTROL_WRONG_STATE
        && int(DownloadManager::ControlStatus::BadValue) == CONTROL_BAD_VALUE
        && RateLimits::kMaxRate == kMaxRate && RateLimits::kMaxPriority == kMaxPriority
        && RateLimits::kMinPriority == kMinPriority);
    const QString id = textIn(uniqueID);
    const uint uid = callerUid();
    return gate.ask<int32_t>(DEAD_OBJECT, [id, uid, action](DownloadManager *m) {
        return id.isEmpty() ? int32_t(CONTROL_NOT_FOUND)
                            : int32_t(action(m, storedIdOf(m, id, uid), uid));
    });
}

int32_t DLBinderClient::requestPause(const std::string &uniqueID)
{
    return control("Pause", uniqueID, [](DownloadManager *m, const QString &id, uint uid) {
        return int(m->pauseDownload(id, uid).status);
    });
}

int32_t DLBinderClient::requestResume(const std::string &uniqueID)
{
    return control("Resume", uniqueID, [](DownloadManager *m, const QString &id, uint uid) {
        return int(m->resumeDownload(id, uid).status);
    });
}

int32_t DLBinderClient::requestRemove(const std::string &uniqueID)
{
    return control("Remove", uniqueID, [](DownloadManager *m, const QString &id, uint uid) {
        return int(m->removeDownload(id, uid).status);
    });
}

int32_t DLBinderClient::setRateLimit(const std::string &uniqueID, int64_t bytesPerSecond)
{
    return control(
        "Rate", uniqueID, [bytesPerSecond](DownloadManager *m, const QString &id, uint uid) {
            return int(m->setRateLimit(id, bytesPerSecond, uid).status);
        });
}

int32_t DLBinderClient::setPriority(const std::string &uniqueID, int32_t priority)
{
    return control(
        "Priority", uniqueID, [priority](DownloadManager *m, const QString &id, uint uid) {
            return int(m->setPriority(id, priority, uid).status);
        });
}

int32_t DLBinderClient::setOverallRateLimit(int64_t bytesPerSecond)
{
    return control("Rate", "all", [bytesPerSecond](DownloadManager *m, const QString &, uint uid) {
        return int(m->setRateLimit(QStringLiteral("all"), bytesPerSecond, uid).status);
    });
}

int32_t DLBinderClient::setBackgroundMode(bool on)
{
    return control(on ? "Background on" : "Background off", "all",
        [on](DownloadManager *m, const QString &, uint uid) {
            return int(m->setBackgroundMode(on, uid).status);
        });
}

int DLBinderClient::getDownload(const std::string &uniqueID, IDownload *download)
{
    BINDER_LOGD("getDownload uniqueID:%s", uniqueID.c_str());
    const QString id = textIn(uniqueID);
    using Found = std::pair<bool, IDownload>;
    const uint uid = callerUid();
    const Found found = gate.ask<Found>(Found(false, IDownload()), [id, uid](DownloadManager *m) {
        Found result(false, IDownload());
        if (const Download *d = CallerView::find(m, id, uid)) {
            result.first = true;
            CallerView::fillRecord(&result.second, d, uid);
        }
        return result;
    });
    if (!found.first) {
        BINDER_LOGI(" getDownload download is null %s", uniqueID.c_str());
        return DOWNLOAD_NOT_FOUND;
    }
    *download = found.second; // the dispatch table's record, never null
    return DOWNLOAD_FOUND;
}

int DLBinderClient::getDownloadList(const std::string &clientID, std::vector<IDownload *> &list)
{
    BINDER_LOGD("getDownloadList client id:%s", clientID.c_str());
    list.clear();
    const QString client = textIn(clientID);
    // (records, false) or, when they would not fit in one reply, (nothing, true).
    using Answer = std::pair<std::vector<IDownload>, bool>;
    const uint uid = callerUid();
    const Answer answer = gate.ask<Answer>({}, [client, uid](DownloadManager *m) {
        Answer result;
        size_t bytes = 0;
        for (const Download *d : m->getDownloadList(client, uid)) {
            result.first.emplace_back();
            CallerView::fillRecord(&result.first.back(), d, uid);
            bytes += recordBytes(result.first.back());
            if (bytes > kListReplyBytes)
                return Answer({}, true);
        }
        return result;
    });
    if (answer.second) {
        BINDER_LOGW("getDownloadList client id %s: the records exceed one reply (%zu bytes); "
                    "refused, read them page by page",
            clientID.c_str(), kListReplyBytes);
        return android::FAILED_TRANSACTION;
    }
    const std::vector<IDownload> &records = answer.first;
    if (records.empty()) {
        BINDER_LOGI("getDownloadList No downloads!!! client id %s", clientID.c_str());
        return 0;
    }
    BINDER_LOGD("download list found:%d", int(records.size()));
    for (const IDownload &record : records)
        list.push_back(new IDownload(record));
    BINDER_LOGD("returned list size:%d", int(list.size()));
    return 1;
}

int DLBinderClient::listDownloadsPage(
    const std::string &clientID, const std::string &after, std::vector<IDownload> *page)
{
    BINDER_LOGD("listDownloadsPage client id:%s after:%s", clientID.c_str(), after.c_str());
    const QString client = textIn(clientID), cursor = textIn(after);
    const uint uid = callerUid();
    *page = gate.ask<std::vector<IDownload>>({}, [client, cursor, uid](DownloadManager *m) {
        // Identifier order, as the caller sees them, keeps the pages consistent while downloads
        // come and go.
        using Shown = std::pair<QString, const Download *>;
        std::vector<Shown> downloads;
        for (const Download *d : m->getDownloadList(client, uid)) {
            const QString shown = CallerView::shownId(d->uniqueID(), uid);
            if (cursor.isEmpty() || shown > cursor)
                downloads.emplace_back(shown, d);
        }
        const auto last
            = downloads.begin() + std::min<qsizetype>(kPageRecords, qsizetype(downloads.size()));
        std::partial_sort(downloads.begin(), last, downloads.end(),
            [](const Shown &a, const Shown &b) { return a.first < b.first; });
        std::vector<IDownload> result;
        size_t bytes = 0;
        for (auto it = downloads.begin(); it != last; ++it) {
            IDownload record;
            CallerView::fillRecord(&record, it->second, uid);
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
    return gate.ask<int>(SPACE_UNKNOWN, [client, wanted, uid](DownloadManager *m) {
        return int(m->checkDownloadPossible(client, wanted, uid).status);
    });
}

int32_t DLBinderClient::setDownloadPath(
    const std::string &clientID, const std::string &downloadPath)
{
    BINDER_LOGD(
        "setDownloadPath clientID:%s downloadPath %s", clientID.c_str(), downloadPath.c_str());
    static_assert(int(DownloadManager::PathStatus::NotADirectory) == PATH_NOT_A_DIRECTORY
        && int(DownloadManager::PathStatus::NotAbsolute) == PATH_NOT_ABSOLUTE
        && int(DownloadManager::PathStatus::NotPermitted) == PATH_NOT_PERMITTED
        && int(DownloadManager::PathStatus::NotWritable) == PATH_NOT_WRITABLE
        && int(DownloadManager::SpaceStatus::Unknown) == SPACE_UNKNOWN);
    const QString client = textIn(clientID), path = textIn(downloadPath);
    const uint uid = callerUid();
    return gate.ask<int32_t>(DEAD_OBJECT, [client, path, uid](DownloadManager *m) {
        return int32_t(m->setDownloadPath(client, path, uid).status);
    });
}

int32_t DLBinderClient::requestDownload(const std::string &clientID, const std::string &url,
    const std::string &uniqueID, const std::string &name, std::string *uniqueIDOut)
{
    return requestDownloadChecked(clientID, url, uniqueID, name, -1, std::string(), uniqueIDOut);
}

int32_t DLBinderClient::requestDownloadChecked(const std::string &clientID, const std::string &url,
    const std::string &uniqueID, const std::string &name, int64_t expectedSize,
    const std::string &sha256Hex, std::string *uniqueIDOut)
{
    return requestDownloadOrdered(
        clientID, url, uniqueID, name, expectedSize, sha256Hex, 0, 0, uniqueIDOut);
}

int32_t DLBinderClient::requestDownloadOrdered(const std::string &clientID, const std::string &url,
    const std::string &uniqueID, const std::string &name, int64_t expectedSize,
    const std::string &sha256Hex, int64_t rateLimit, int32_t priority, std::string *uniqueIDOut)
{
    BINDER_LOGD("Request download client id:%s url:%s unique id:%s name %s", clientID.c_str(),
        url.c_str(), uniqueID.c_str(), name.c_str());
    static_assert(int(DownloadManager::CreateStatus::IdInUse) == REQUEST_ID_IN_USE
        && int(DownloadManager::CreateStatus::Refused) == REQUEST_REFUSED);
    const QString client = textIn(clientID), address = textIn(url), id = textIn(uniqueID),
                  displayName = textIn(name), digest = textIn(sha256Hex);
    const uint uid = callerUid();
    // The stored form must stay within the limit that root's calls name it by.
    if (textOut(CallerView::storedId(id, uid)).size() > kMaxIdBytes)
        return TEXT_TOO_LONG;
    using Answer = std::pair<int32_t, QString>;
    const Answer answer = gate.ask<Answer>(Answer(DEAD_OBJECT, QString()), [=](DownloadManager *m) {
        // Its own identifiers only: another user's with the same name do not matter.
        if (uid != 0 && !id.isEmpty() && CallerView::find(m, id, uid))
            return Answer(REQUEST_ID_IN_USE, QString());
        QString created;
        const auto status = m->createDownload(client, address, CallerView::storedId(id, uid),
            displayName, &created, uid, { expectedSize, digest }, { rateLimit, priority });
        return Answer(int32_t(status.status), CallerView::shownId(created, uid));
    });
    *uniqueIDOut = textOut(answer.second); // the dispatch table's text, never null
    return answer.first;
}

void DLBinderClient::addClient(const sp<IDLClient> &client)
{
    if (client == nullptr)
        return;
    if (const char *refusal = eventClients.add(client, callerUid())) {
        BINDER_LOGW("Event client %p refused: %s", client.get(), refusal);
        return;
    }
    // Who listens is an operator's concern, as the refusal above is.
    BINDER_LOGI("Event client registered %p", client.get());
    // A client whose process is already gone would never be told dead: do not keep it.
    const sp<IBinder> binder = IInterface::asBinder(client);
    if (binder->linkToDeath(sp<IBinder::DeathRecipient>(this), nullptr, 0) != android::NO_ERROR)
        binderDied(binder);
}

void DLBinderClient::removeClient(const sp<IDLClient> &client)
{
    BINDER_LOGD("Trying to unregistered client %p", client.get());
    if (client == nullptr)
        return;
    const sp<IBinder> binder = IInterface::asBinder(client);
    if (eventClients.remove(binder.get()) != nullptr)
        BINDER_LOGD("Removing client %p", client.get());
    binder->unlinkToDeath(wp<IBinder::DeathRecipient>(this), nullptr, 0);
}

void DLBinderClient::binderDied(const wp<IBinder> &who)
{
    const sp<IBinder> binder = who.unsafe_get();
    BINDER_LOGD("Binder event client %p died, trying to remove from clients list", binder.get());
    if (const sp<IDLClient> removed = eventClients.remove(binder.get()))
        BINDER_LOGI("Removing client %p from eventClients", removed.get());
}

void DLBinderClient::updateDownloadEntry(Download *download)
{
    BINDER_LOGD("DLBinderClient::notifyDownloadUpdate ");
    // The callback's parcel is built now, once per view (root's, or the owner's), and sent to
    // every client of that view as it is once the change is stored.
    size_t views[2] = { SIZE_MAX, SIZE_MAX };
    for (size_t i = 0;; ++i) {
        sp<IDLClient> client;
        uint uid = 0;
        if (!eventClients.at(i, &client, &uid))
            break;
        // A caller sees only the downloads it may touch, in updates as in queries.
        if (!AccessPolicy::mayTouch(uid, download))
            continue;
        size_t &view = views[uid != 0];
        if (view == SIZE_MAX) {
            IDownload record;
            CallerView::fillRecord(&record, download, uid);
            view = toldParcels.size();
            Parcel &update = toldParcels.emplace_back();
            update.writeInterfaceToken(IDLClient::descriptor);
            record.writeToParcel(&update);
        }
        toldTo.emplace_back(IInterface::asBinder(client), view);
    }
}

void DLBinderClient::reportsStored()
{
    for (const auto &[binder, view] : toldTo)
        binder->transact(IDLClient::ON_DOWNLOAD_UPDATE, toldParcels[view], nullptr,
            IBinder::FLAG_ONEWAY);
    toldTo.clear();
    toldParcels.clear();
}

} // namespace dlm

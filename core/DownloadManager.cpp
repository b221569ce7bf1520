#include "DownloadManager.h"

#include "CurlEngine.h"
#include "DiskSpace.h"
#include "DlmLog.h"
#include "Download.h"
#include "DownloadDataBase.h"
#include "DownloadRules.h"
#include "NetworkWatch.h"
#include "OwnedFile.h"
#include "RateGovernor.h"
#include "RequestQueue.h"
#include "RetrySchedule.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QUrl>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace dlm {

namespace {
const QString kDefaultPath = QStringLiteral("/tmp/");
const QString kAll = QStringLiteral("all");
constexpr int kDefaultMaxDownloadsPerUser = 256;

} // namespace

DownloadManager::DownloadManager(const FrontEndFactory &frontEnds)
    : DownloadManager(ServiceSettings::defaultPath(), frontEnds)
{
}

DownloadManager::DownloadManager(const QString &settingsPath, const FrontEndFactory &frontEnds)
    : QObject(nullptr),
      engine(nullptr),
      governor(new RateGovernor(this)),
      database(nullptr),
      settings(settingsPath),
      access(settings.count(QStringLiteral("max_downloads_per_user"), kDefaultMaxDownloadsPerUser)),
      rates(settings, governor)
{
    idleTimer.setSingleShot(true);
    idleTimer.setInterval(500);
    connect(&idleTimer, &QTimer::timeout, this, &DownloadManager::releaseIdleMemory);
    RequestQueue::instance().setPerOrigin(settings.count(
        QStringLiteral("max_connections_per_host"), RequestQueue::kDefaultPerOrigin));
    RequestQueue::instance().setActiveLimit(
        settings.count(QStringLiteral("max_active_downloads"), 0));
    engine = new CurlEngine(RequestQueue::instance().perOrigin(), this);
    network = std::make_unique<NetworkWatch>();
    connect(network.get(), &NetworkWatch::changed, this, &DownloadManager::networkChanged);
    context.reportChange = [this](Download *d) { updateDownload(d); };
    context.engine = engine;
    context.governor = governor;
    // Without the watch no change would ever end a wait: faults then count as before.
    if (network->isWatching())
        context.hasRoute = &NetworkWatch::hasRouteFor;
    context.maxRetries
        = settings.count(QStringLiteral("max_retries"), RetrySchedule::kDefaultMaxRetries);
    // Checked before anything is published, read or launched.
    database
        = databaseHome.open(settings.text(QStringLiteral("download_database_path"), kDefaultPath),
            &DownloadManager::storedRecord, &refused);
    if (refused)
        return;
    // Directories come first: the console keeps a stored directory of its own.
    loadDownloadPaths();
    if (frontEnds)
        clients = frontEnds(this);
    if (database)
        database->forEachStored([this](const StoredRecord &record) { restoreDownload(record); });
}

void DownloadManager::loadDownloadPaths()
{
    if (database) {
        for (const DownloadDataBase::StoredPath &stored : database->downloadPaths())
            directories.restore(stored.ownerUid, stored.clientID, stored.path);
    }
    directories.ensure(DownloadDirectories::kDefaultClientID, kDefaultPath);
}

DownloadManager::~DownloadManager() = default; // quit() destroyed clients, downloads, database

void DownloadManager::addClient(FrontEnd *client)
{
    clients.append(client);
}

void DownloadManager::execute()
{
    for (FrontEnd *client : qAsConst(clients))
        client->help();
}

void DownloadManager::quit()
{
    DLM_LOGD("!!!!QUIT!!!!!!");
    quitting = true;
    const QList<FrontEnd *> oldClients = clients;
    clients.clear();
    for (FrontEnd *client : oldClients)
        client->destroy();

    // Rows still behind are written while their downloads exist.
    if (database)
        database->flush();
    const QList<Download *> oldDownloads = downloads;
    downloads.clear();
    qDeleteAll(oldDownloads);

    database.reset();
    QCoreApplication::quit();
}

// ---- Creation, paths and space ----

DownloadManager::CreateStatus DownloadManager::createDownload(const QString &clientID,
    const QString &url, const QString &uniqueID, const QString &name, QString *createdID,
    uint ownerUid, const ExpectedContent &expected, const RateAndPriority &order)
{
    if (!rules::isHttpUrl(url)) {
        DLM_LOGW("Download refused: not an http or https URL. URL=%s", qUtf8Printable(url));
        return CreateStatus::BadUrl;
    }
    if (const QString why = ContentCheck::refusal(expected.size, expected.sha256); !why.isEmpty()) {
        DLM_LOGW("Download refused: %s. URL=%s", qUtf8Printable(why), qUtf8Printable(url));
        return CreateStatus::BadArgument;
    }
    if (!RateLimits::validRate(order.rateLimit) || !RateLimits::validPriority(order.priority)) {
        DLM_LOGW("Download refused: rate %lld or priority %d out of bounds. URL=%s",
            order.rateLimit, order.priority, qUtf8Printable(url));
        return CreateStatus::BadArgument;
    }
    if (const int owned = access.capReached(ownerUid, downloads); owned >= 0) {
        DLM_LOGW("Download refused: uid %u has %d downloads, its limit. URL=%s", ownerUid, owned,
            qUtf8Printable(url));
        return CreateStatus::Refused;
    }
    if (!uniqueID.isEmpty() && identifierInUse(uniqueID)) {
        DLM_LOGW("Download refused: the identifier %s is in use. URL=%s", qUtf8Printable(uniqueID),
            qUtf8Printable(url));
        return CreateStatus::IdInUse;
    }
    QString id = uniqueID;
    if (id.isEmpty()) {
        do
            id = rules::newUniqueID(url);
        while (identifierInUse(id));
    }
    // Reserved now, before the download has written anything.
    const QString filePath = directories.reserveFileName(clientID, url, ownerUid);

    Download *download = new Download(context, id, clientID, url, name.isEmpty() ? filePath : name);
    download->filePath = filePath;
    download->ownerUid = ownerUid;
    download->privateFile = !directories.isChosen(ownerUid, clientID, filePath);
    download->content = ContentCheck(expected.size, expected.sha256.toLatin1());
    download->rateLimit = order.rateLimit;
    download->priority = order.priority;
    download->launch();
    DLM_LOGI("Download launched with uniqueID:%s url: %s", qUtf8Printable(download->uniqueID),
        qUtf8Printable(download->contentURL));
    downloads.append(download);
    if (createdID)
        *createdID = id;
    return CreateStatus::Created;
}

void DownloadManager::restoreDownload(const StoredRecord &r)
{
    // Reserved by its canonical form, as new paths are.
    const QString canonical
        = QDir::isAbsolutePath(r.filePath) ? QDir::cleanPath(r.filePath) : r.filePath;
    Download *download = new Download(context, r.uniqueID, r.clientID, r.name, r.contentURL,
        canonical, r.state, r.failureCode, r.totalSize, r.amountDownloaded, r.startTime);
    download->ownerUid = r.ownerUid;
    download->fileIdentity = r.fileIdentity;
    download->content = ContentCheck(r.expectedSize, r.expectedSha256);
    download->validator = r.validator;
    download->failureReason = r.failureReason;
    download->httpStatus = r.httpStatus;
    download->rateLimit = r.rateLimit;
    download->priority = r.priority;
    download->privateFile = !directories.isChosen(r.ownerUid, r.clientID, canonical);
    directories.reserve(canonical);
    downloads.append(download);
    const QString fault = rules::storedRowFault(download);
    if (!fault.isEmpty()) {
        DLM_LOGE("Stored download %s stays Failed, never launched: %s. URL=%s file=%s",
            qUtf8Printable(r.uniqueID), qUtf8Printable(fault), qUtf8Printable(r.contentURL),
            qUtf8Printable(r.filePath));
        download->state = Download::Failed;
        return;
    }
    // A failed download waits for a resume; a stalled one tries again at once. Only a launch is
    // logged: a line for every stored row was most of the start-up time with a long history.
    if (download->state == Download::Paused || download->state == Download::Failed
        || download->state == Download::Completed)
        return;
    download->launch();
    DLM_LOGI("Download launched with uniqueID:%s url: %s", qUtf8Printable(download->uniqueID),
        qUtf8Printable(download->contentURL));
}

DownloadManager::PathStatus DownloadManager::setDownloadPath(
    const QString &clientID, const QString &path, uint ownerUid)
{
    QString stored;
    const PathStatus status = directories.choose(clientID, path, ownerUid, &stored);
    if (status == PathStatus::Set && database)
        database->storeDownloadPath(ownerUid, clientID, stored);
    return status;
}

void DownloadManager::ensureDownloadPath(
    const QString &clientID, const QString &path, uint ownerUid)
{
    directories.ensure(clientID, path, ownerUid);
}

QString DownloadManager::getDownloadPath(const QString &clientID, uint ownerUid)
{
    return directories.of(clientID, ownerUid);
}

int DownloadManager::checkDownloadPossible(const QString &clientID, long long size, uint callerUid)
{
    const QString directory = getDownloadPath(clientID, callerUid);
    if (!QDir(directory).exists())
        return 2;
    const long long available = disk::availableBytes(directory);
    DLM_LOGD("checkDownloadPossible sizeAvailable: %lld in path %s\n", available,
        qUtf8Printable(directory));
    if (available == -1)
        return 2;
    // What downloads on other file systems still need takes nothing from this one.
    const long long device = disk::deviceOf(directory);
    long long reserved = 0;
    for (const Download *download : qAsConst(downloads)) {
        if (download->state == Download::Progressing
            && disk::deviceOf(QFileInfo(download->filePath).absolutePath()) == device)
            reserved += download->totalSize - download->amountDownloaded;
    }
    const long long remaining = available - reserved;
    return (remaining == 0 || remaining < size) ? 1 : 0;
}

// ---- Control, removal and queries ----

DownloadManager::ControlStatus DownloadManager::pauseDownload(
    const QString &uniqueID, uint callerUid)
{
    ControlStatus status = uniqueID == kAll ? ControlStatus::Done : ControlStatus::NotFound;
    for (Download *download : qAsConst(downloads)) {
        if ((download->uniqueID == uniqueID || uniqueID == kAll)
            && AccessPolicy::mayTouch(callerUid, download)) {
            const bool paused = download->pause();
            if (uniqueID != kAll) {
                status = paused ? ControlStatus::Done : ControlStatus::WrongState;
                if (paused)
                    DLM_LOGI("%s has been paused.", qUtf8Printable(uniqueID));
            }
        }
    }
    // One line for the command, not one identical line per download.
    if (uniqueID == kAll && !downloads.isEmpty())
        DLM_LOGI("all has been paused.");
    return status;
}

DownloadManager::ControlStatus DownloadManager::resumeDownload(
    const QString &uniqueID, uint callerUid)
{
    ControlStatus status = uniqueID == kAll ? ControlStatus::Done : ControlStatus::NotFound;
    for (Download *download : qAsConst(downloads)) {
        if ((download->uniqueID == uniqueID || uniqueID == kAll)
            && AccessPolicy::mayTouch(callerUid, download)) {
            const QString fault = rules::storedRowFault(download);
            if (!fault.isEmpty()) {
                DLM_LOGW("%s is not resumed: %s", qUtf8Printable(download->uniqueID),
                    qUtf8Printable(fault));
                if (uniqueID != kAll)
                    status = ControlStatus::NotPermitted;
                continue;
            }
            const bool resumed = download->resume();
            if (uniqueID != kAll) {
                status = resumed ? ControlStatus::Done : ControlStatus::WrongState;
                if (resumed)
                    DLM_LOGI("%s has been resumed.", qUtf8Printable(uniqueID));
            }
        }
    }
    if (uniqueID == kAll && !downloads.isEmpty())
        DLM_LOGI("all has been resumed.");
    return status;
}

void DownloadManager::restartDownload(const QString &uniqueID)
{
    for (Download *download : qAsConst(downloads)) {
        if (download->uniqueID == uniqueID || uniqueID == kAll) {
            download->restart();
            DLM_LOGI("%s has been restarted.", qUtf8Printable(uniqueID));
        }
    }
}

DownloadManager::ControlStatus DownloadManager::setRateLimit(
    const QString &uniqueID, qint64 bytesPerSecond, uint callerUid)
{
    Download *download = uniqueID == kAll ? nullptr : getDownload(uniqueID, callerUid);
    if (uniqueID == kAll && callerUid != 0)
        return ControlStatus::NotPermitted;
    if (uniqueID != kAll && !download)
        return ControlStatus::NotFound;
    if (!RateLimits::validRate(bytesPerSecond))
        return ControlStatus::BadValue;
    DLM_LOGI("%s limited to %lld bytes/s.", qUtf8Printable(uniqueID), bytesPerSecond);
    if (!download) {
        rates.setOverall(bytesPerSecond);
        return ControlStatus::Done;
    }
    download->rateLimit = bytesPerSecond;
    governor->setOwnLimit(download, bytesPerSecond);
    updateDownload(download);
    return ControlStatus::Done;
}

DownloadManager::ControlStatus DownloadManager::setPriority(
    const QString &uniqueID, int priority, uint callerUid)
{
    Download *download = getDownload(uniqueID, callerUid);
    if (!download)
        return ControlStatus::NotFound;
    if (!RateLimits::validPriority(priority))
        return ControlStatus::BadValue;
    DLM_LOGI("%s has priority %d.", qUtf8Printable(uniqueID), priority);
    download->priority = priority;
    RequestQueue::instance().setPriority(download, priority);
    updateDownload(download);
    return ControlStatus::Done;
}

DownloadManager::ControlStatus DownloadManager::setBackgroundMode(bool on, uint callerUid)
{
    if (callerUid != 0)
        return ControlStatus::NotPermitted;
    DLM_LOGI("Background mode %s.", on ? "on" : "off");
    rates.setBackground(on);
    return ControlStatus::Done;
}

void DownloadManager::updateDownload(Download *download)
{
    if (database)
        database->store(download);
    if (download->state != Download::Progressing && download->state != Download::Pending)
        idleTimer.start();
    for (FrontEnd *client : qAsConst(clients))
        client->updateDownloadEntry(download);
}

void DownloadManager::networkChanged()
{
    if (quitting)
        return;
    const QList<Download *> all = downloads; // a launch reports, and a client may act on it
    for (Download *download : all) {
        if (download->waitsForNetwork() && downloads.contains(download))
            download->networkChanged();
    }
}

void DownloadManager::releaseIdleMemory()
{
    for (const Download *download : qAsConst(downloads)) {
        if (download->state == Download::Progressing || download->state == Download::Pending)
            return;
    }
    engine->dropIdleConnections();
    if (database)
        database->releaseMemory();
#ifdef __GLIBC__
    // glibc keeps freed memory of a burst mapped; nothing else returns it while the service idles.
    malloc_trim(0);
#endif
}

Download *DownloadManager::getDownload(const QString &uniqueID, uint callerUid)
{
    DLM_LOGD("unique id: %s", qUtf8Printable(uniqueID));
    Download *download = find(uniqueID);
    return download && AccessPolicy::mayTouch(callerUid, download) ? download : nullptr;
}

Download *DownloadManager::find(const QString &uniqueID) const
{
    for (Download *download : downloads) {
        if (download->uniqueID == uniqueID)
            return download;
    }
    return nullptr;
}

bool DownloadManager::identifierInUse(const QString &uniqueID) const
{
    return find(uniqueID) || (database && database->isDBEntryAvailable(uniqueID));
}

QList<Download *> DownloadManager::getDownloadList(const QString &clientID, uint callerUid)
{
    DLM_LOGD("client id: %s", qUtf8Printable(clientID));
    const bool everyClient = clientID == QLatin1String("*");
    if (everyClient && callerUid == 0)
        return downloads;
    QList<Download *> result;
    for (Download *download : qAsConst(downloads)) {
        if ((everyClient || download->clientID == clientID)
            && AccessPolicy::mayTouch(callerUid, download))
            result.append(download);
    }
    return result;
}

bool DownloadManager::removeDownload(const QString &uniqueID, uint callerUid)
{
    Download *download = getDownload(uniqueID, callerUid);
    if (!download) {
        DLM_LOGI("%s not found. Unable to delete.", qUtf8Printable(uniqueID));
        return false;
    }
    downloads.removeOne(download);
    discard(download);
    DLM_LOGD("Download successfully deleted.");
    return true;
}

void DownloadManager::removeAllDownloads()
{
    DLM_LOGD("Remove all downloads");
    const QList<Download *> oldDownloads = downloads;
    downloads.clear();
    for (Download *download : oldDownloads)
        discard(download);
}

void DownloadManager::discard(Download *download)
{
    download->abort();
    // A database that keeps the row must not keep the download alive: it would stay
    // unremovable. The row brings it back at the next start.
    if (database && !database->deleteEntry(download, download->uniqueID)
        && database->isDBEntryAvailable(download->uniqueID))
        DLM_LOGE("Unable to delete %s from the database; removed from memory only",
            qUtf8Printable(download->uniqueID));
    const QString path = download->filePath;
    const uint owner = download->ownerUid;
    const FileIdentity identity = download->fileIdentity;
    // A completed file is the user's content; anything else is litter.
    const bool keepFile = download->state == Download::Completed;
    delete download;
    for (const Download *other : qAsConst(downloads)) {
        if (other->filePath == path)
            return; // a restored twin still writes there
    }
    directories.release(path);
    // As the owner: a name the owner could not remove stays.
    if (!keepFile)
        OwnedFile::removeAs(path, owner, identity);
}

StoredRecord DownloadManager::storedRecord(DownloadDataBase::RowKey row)
{
    const auto *d = static_cast<const Download *>(row);
    return { d->uniqueID, d->clientID, d->name, d->contentURL, d->filePath, d->state,
        d->failureCode, d->totalSize, d->amountDownloaded, d->startTime, d->ownerUid,
        d->fileIdentity, d->content.expectedSize(), d->content.expectedSha256(), d->validator,
        d->failureReason, d->httpStatus, d->rateLimit, d->priority };
}

} // namespace dlm

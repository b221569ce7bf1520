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
#include "StoredDownloads.h"

#include <QCoreApplication>
#include <QDir>

#ifdef __GLIBC__
#include <malloc.h>
#endif

namespace dlm {

namespace {
const QString kDefaultPath = QStringLiteral("/tmp/");
const QString kAll = QStringLiteral("all");
constexpr int kDefaultMaxDownloadsPerUser = 256;

// An absolute path as QDir::cleanPath gives it. Stored paths were written clean: those are
// taken as they are, without a trip through UTF-16.
QByteArray canonicalPath(const QByteArray &path)
{
    const bool clean = !path.contains("//") && !path.contains("/./") && !path.contains("/../")
        && !path.endsWith("/.") && !path.endsWith("/..") && (path == "/" || !path.endsWith('/'));
    if (!path.startsWith('/') || clean)
        return path;
    return QDir::cleanPath(QString::fromUtf8(path)).toUtf8();
}

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
    settleTimer.setSingleShot(true);
    settleTimer.setInterval(0);
    connect(&settleTimer, &QTimer::timeout, this, &DownloadManager::settleReports);
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
            &stored::recordOf, &refused);
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
    settleReports();
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

Outcome<DownloadManager::CreateStatus> DownloadManager::createDownload(const QString &clientID,
    const QString &url, const QString &uniqueID, const QString &name, QString *createdID,
    uint ownerUid, const ExpectedContent &expected, const RateAndPriority &order)
{
    Outcome<CreateStatus> refused = rules::creationRefusal(url, expected, order);
    const int owned = refused.done() ? access.capReached(ownerUid, downloads) : -1;
    if (owned >= 0)
        refused = { CreateStatus::Refused,
            QStringLiteral("uid %1 has %2 downloads, its limit").arg(ownerUid).arg(owned) };
    else if (refused.done() && !uniqueID.isEmpty() && identifierInUse(uniqueID))
        refused = { CreateStatus::IdInUse,
            QStringLiteral("the identifier %1 is in use").arg(uniqueID) };
    if (!refused.done()) {
        DLM_LOGW(
            "Download refused: %s. URL=%s", qUtf8Printable(refused.reason), qUtf8Printable(url));
        return refused;
    }
    QString id = uniqueID;
    if (id.isEmpty()) {
        do
            id = rules::newUniqueID(url);
        while (identifierInUse(id));
    }
    // Reserved now, before the download has written anything.
    reserveStoredPaths();
    const QString filePath = directories.reserveFileName(clientID, url, ownerUid);

    Download *download
        = new Download(context, id, clientID, url, name.isEmpty() ? filePath : name, filePath);
    download->ownerUid = ownerUid;
    download->privateFile = !directories.isChosen(ownerUid, clientID, filePath.toUtf8());
    Download::Details &details = download->editDetails(); // it runs: it will have some
    details.content = ContentCheck(expected.size, expected.sha256.toLatin1());
    details.rateLimit = order.rateLimit;
    details.priority = order.priority;
    download->launch();
    DLM_LOGI("Download launched with uniqueID:%s url: %s", qUtf8Printable(download->uniqueID()),
        qUtf8Printable(download->contentURL()));
    downloads.append(download);
    if (createdID)
        *createdID = id;
    return {};
}

void DownloadManager::restoreDownload(const StoredRecord &r)
{
    // Kept (and later reserved) in its canonical form, as new paths are.
    const QByteArray canonical = canonicalPath(r.filePath);
    Download *download = stored::downloadOf(context, r, canonical);
    download->privateFile = !directories.isChosen(r.ownerUid, r.clientID, canonical);
    downloads.append(download);
    const QString fault = rules::storedRowFault(download);
    if (!fault.isEmpty()) {
        DLM_LOGE("Stored download %s stays Failed, never launched: %s. URL=%s file=%s",
            r.uniqueID.constData(), qUtf8Printable(fault), r.contentURL.constData(),
            r.filePath.constData());
        download->state = Download::Failed;
        return;
    }
    // A failed download waits for a resume; a stalled one tries again at once. Only a launch is
    // logged: a line for every stored row was most of the start-up time with a long history.
    if (download->state == Download::Paused || download->state == Download::Failed
        || download->state == Download::Completed)
        return;
    download->launch();
    DLM_LOGI("Download launched with uniqueID:%s url: %s", qUtf8Printable(download->uniqueID()),
        qUtf8Printable(download->contentURL()));
}

Outcome<DownloadManager::PathStatus> DownloadManager::setDownloadPath(
    const QString &clientID, const QString &path, uint ownerUid)
{
    QString stored;
    const Outcome<PathStatus> outcome = directories.choose(clientID, path, ownerUid, &stored);
    if (outcome.done() && database)
        database->storeDownloadPath(ownerUid, clientID, stored);
    return outcome;
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

Outcome<DownloadManager::SpaceStatus> DownloadManager::checkDownloadPossible(
    const QString &clientID, long long size, uint callerUid)
{
    const std::optional<long long> free
        = disk::freeBeside(getDownloadPath(clientID, callerUid), downloads);
    if (!free)
        return { SpaceStatus::Unknown, QStringLiteral("the free space cannot be read") };
    const long long remaining = *free;
    if (remaining == 0 || remaining < size)
        return { SpaceStatus::DoesNotFit,
            QStringLiteral("%1 bytes free beside the running downloads").arg(remaining) };
    return {};
}

// ---- Control, removal and queries ----

Outcome<DownloadManager::ControlStatus> DownloadManager::control(const QString &uniqueID,
    uint callerUid, const char *what, const std::function<Outcome<ControlStatus>(Download *)> &act)
{
    if (uniqueID == kAll) {
        for (Download *download : qAsConst(downloads)) {
            if (AccessPolicy::mayTouch(callerUid, download))
                act(download);
        }
        // One line for the command, not one identical line per download.
        if (!downloads.isEmpty())
            DLM_LOGI("all has been %s.", what);
        return {};
    }
    Download *download = getDownload(uniqueID, callerUid);
    const Outcome<ControlStatus> outcome = download
        ? act(download)
        : Outcome<ControlStatus> { ControlStatus::NotFound, QStringLiteral("no download found") };
    if (outcome.done())
        DLM_LOGI("%s has been %s.", qUtf8Printable(uniqueID), what);
    else if (outcome.status == ControlStatus::NotFound)
        DLM_LOGI("%s not %s: %s", qUtf8Printable(uniqueID), what, qUtf8Printable(outcome.reason));
    else
        DLM_LOGW("%s not %s: %s", qUtf8Printable(uniqueID), what, qUtf8Printable(outcome.reason));
    return outcome;
}

Outcome<DownloadManager::ControlStatus> DownloadManager::pauseDownload(
    const QString &uniqueID, uint callerUid)
{
    return control(uniqueID, callerUid, "paused", [](Download *download) {
        return download->pause() ? Outcome<ControlStatus> {}
                                 : Outcome<ControlStatus> { ControlStatus::WrongState,
                                       QStringLiteral("not Pending, Progressing or Stalled") };
    });
}

Outcome<DownloadManager::ControlStatus> DownloadManager::resumeDownload(
    const QString &uniqueID, uint callerUid)
{
    return control(uniqueID, callerUid, "resumed", [](Download *download) {
        if (const QString fault = rules::storedRowFault(download); !fault.isEmpty())
            return Outcome<ControlStatus> { ControlStatus::NotPermitted, fault };
        return download->resume() ? Outcome<ControlStatus> {}
                                  : Outcome<ControlStatus> { ControlStatus::WrongState,
                                        QStringLiteral("not Paused or Failed") };
    });
}

void DownloadManager::restartDownload(const QString &uniqueID)
{
    const QByteArray id = uniqueID.toUtf8();
    for (Download *download : qAsConst(downloads)) {
        if (uniqueID == kAll || download->has(RecordText::Id, id)) {
            download->restart();
            DLM_LOGI("%s has been restarted.", qUtf8Printable(uniqueID));
        }
    }
}

Outcome<DownloadManager::ControlStatus> DownloadManager::setRateLimit(
    const QString &uniqueID, qint64 bytesPerSecond, uint callerUid)
{
    if (uniqueID == kAll)
        return rates.setOverall(bytesPerSecond, callerUid);
    const QByteArray what = "limited to " + QByteArray::number(bytesPerSecond) + " bytes/s";
    return control(uniqueID, callerUid, what.constData(), [&](Download *download) {
        const Outcome<ControlStatus> outcome = RateLimits::checkRate(bytesPerSecond);
        if (outcome.done())
            download->setRateLimit(bytesPerSecond);
        return outcome;
    });
}

Outcome<DownloadManager::ControlStatus> DownloadManager::setPriority(
    const QString &uniqueID, int priority, uint callerUid)
{
    // Priority orders downloads among themselves: giving all one would change nothing.
    if (uniqueID == kAll)
        return { ControlStatus::NotFound, QStringLiteral("\"all\" has no priority") };
    const QByteArray what = "given priority " + QByteArray::number(priority);
    return control(uniqueID, callerUid, what.constData(), [&](Download *download) {
        const Outcome<ControlStatus> outcome = RateLimits::checkPriority(priority);
        if (outcome.done())
            download->setPriority(priority);
        return outcome;
    });
}

Outcome<DownloadManager::ControlStatus> DownloadManager::setBackgroundMode(bool on, uint callerUid)
{
    return rates.setBackground(on, callerUid);
}

void DownloadManager::updateDownload(Download *download)
{
    // A change that must be stored before it is told waits for the one commit of this turn,
    // with every report after it.
    const bool mustStore = database && database->store(download);
    if (download->state != Download::Progressing && download->state != Download::Pending)
        idleTimer.start();
    for (FrontEnd *client : qAsConst(clients))
        client->updateDownloadEntry(download);
    if (mustStore)
        settleTimer.start();
    else if (!settleTimer.isActive())
        releaseReports(); // nothing waits for a commit: progress alone is written behind
}

void DownloadManager::settleReports()
{
    settleTimer.stop();
    if (database)
        database->flush();
    releaseReports();
}

void DownloadManager::releaseReports()
{
    for (FrontEnd *client : qAsConst(clients))
        client->reportsStored();
}

void DownloadManager::networkChanged()
{
    // A launch reports, and a client hearing it may remove downloads: then the walk starts again
    // over those left (the launched ones no longer wait).
    for (bool again = true; again && !quitting;) {
        const quint64 before = discards;
        const QList<Download *> all = downloads;
        again = false;
        for (Download *download : all) {
            if ((again = discards != before) || quitting)
                break;
            if (download->waitsForNetwork())
                download->networkChanged();
        }
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
    const QByteArray id = uniqueID.toUtf8();
    for (Download *download : downloads) {
        if (download->has(RecordText::Id, id))
            return download;
    }
    return nullptr;
}

void DownloadManager::reserveStoredPaths()
{
    if (std::exchange(storedPathsReserved, true))
        return;
    for (const Download *download : qAsConst(downloads))
        directories.reserve(download->utf8(RecordText::Path));
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

Outcome<DownloadManager::ControlStatus> DownloadManager::removeDownload(
    const QString &uniqueID, uint callerUid)
{
    Download *download = getDownload(uniqueID, callerUid);
    if (!download) {
        DLM_LOGI("%s not found. Unable to delete.", qUtf8Printable(uniqueID));
        return { ControlStatus::NotFound, QStringLiteral("no download found") };
    }
    downloads.removeOne(download);
    discard(download);
    DLM_LOGD("Download successfully deleted.");
    return {};
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
    ++discards;
    download->abort();
    // What was told of it is stored before its row goes.
    settleReports();
    // A database that keeps the row must not keep the download alive: it would stay
    // unremovable. The row brings it back at the next start.
    if (database && !database->deleteEntry(download, download->uniqueID())
        && database->isDBEntryAvailable(download->uniqueID()))
        DLM_LOGE("Unable to delete %s from the database; removed from memory only",
            qUtf8Printable(download->uniqueID()));
    const QString path = download->filePath();
    const QByteArray pathBytes = path.toUtf8();
    const uint owner = download->ownerUid;
    const FileIdentity identity = download->fileIdentity;
    // A completed file is the user's content; anything else is litter.
    const bool keepFile = download->state == Download::Completed;
    delete download;
    for (const Download *other : qAsConst(downloads)) {
        if (other->has(RecordText::Path, pathBytes))
            return; // a restored twin still writes there
    }
    directories.release(pathBytes);
    // As the owner: a name the owner could not remove stays.
    if (!keepFile)
        OwnedFile::removeAs(path, owner, identity);
}

} // namespace dlm

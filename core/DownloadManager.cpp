#include "DownloadManager.h"

#include "DLMEvents.h"
#include "DLTools.h"
#include "DlmLog.h"
#include "Download.h"
#include "DownloadDataBase.h"
#include "FileNames.h"
#include "FileTrust.h"
#include "FsIdentity.h"
#include "OwnedFile.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QSettings>
#include <QUrl>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fcntl.h>
#ifdef __GLIBC__
#include <malloc.h>
#endif
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace {
const QString kDefaultClientID = QStringLiteral("DEFAULT_CLIENT_ID");
const QString kDefaultPath = QStringLiteral("/tmp/");
const QString kAll = QStringLiteral("all");
constexpr int kDefaultMaxDownloadsPerUser = 256;

// Only http and https, as the URL's own scheme says: neither "httpfoo:" nor "HTTP:".
bool isHttpUrl(const QString &url)
{
    const QUrl parsed(url);
    const QString scheme = url.section(QLatin1Char(':'), 0, 0);
    return parsed.isValid() && !parsed.host().isEmpty()
        && (scheme == QLatin1String("http") || scheme == QLatin1String("https"));
}

// Why a stored row may not be carried out: it must look like a request this service accepts.
QString storedRowFault(const Download *download)
{
    if (!isHttpUrl(download->contentURL))
        return QStringLiteral("not an http or https URL");
    if (!QDir::isAbsolutePath(download->filePath)
        || !filenames::isPlainName(download->filePath.section(QLatin1Char('/'), -1)))
        return QStringLiteral("not an absolute path to a plain file name");
    return QString();
}

// Whether the service itself (root) can write into dir now: not on a read-only mount (which is
// also how its sandbox hides and protects paths) and not refused by access().
bool serviceMayWrite(const QByteArray &dir)
{
    struct statvfs fs { };
    return ::statvfs(dir.constData(), &fs) == 0 && !(fs.f_flag & ST_RDONLY)
        && ::access(dir.constData(), W_OK) == 0;
}

// The deepest directory of path that exists, as the calling thread's identity sees it.
QByteArray existingAncestor(QString path)
{
    struct stat st { };
    while (path.size() > 1 && ::stat(QFile::encodeName(path).constData(), &st) != 0)
        path = QFileInfo(path).path();
    return QFile::encodeName(path);
}

// The directory path names, resolved to its canonical form as uid: what the uid could not
// search stays hidden (NotPermitted whether it exists or not), and the uid must be able to
// write and search the directory itself (with AT_EACCESS the kernel judges the file-system
// identity). Root's directory may lie under another user's: every file is reached without links.
// A directory below a read-only mount (the sandbox's hidden paths too) is NotWritable.
DownloadManager::PathStatus resolveDirectory(uint uid, const QString &path, QString *canonical)
{
    using PathStatus = DownloadManager::PathStatus;
    char *real = nullptr;
    bool directory = false, writable = false;
    {
        const FsIdentity identity(uid);
        if (!identity.active())
            return PathStatus::NotPermitted;
        if (!(real = ::realpath(QFile::encodeName(path).constData(), nullptr))) {
            // What the uid sees of the path: a read-only part hides it from the service too.
            const PathStatus missing
                = errno == EACCES ? PathStatus::NotPermitted : PathStatus::NotADirectory;
            return serviceMayWrite(existingAncestor(path)) ? missing : PathStatus::NotWritable;
        }
        struct stat st { };
        directory = ::stat(real, &st) == 0 && S_ISDIR(st.st_mode);
        writable = uid == 0 || faccessat(AT_FDCWD, real, W_OK | X_OK, AT_EACCESS) == 0;
    }
    *canonical = QFile::decodeName(real);
    const bool serviceWrites = serviceMayWrite(real);
    free(real);
    if (!directory)
        return PathStatus::NotADirectory;
    if (!writable)
        return PathStatus::NotPermitted;
    return serviceWrites ? PathStatus::Set : PathStatus::NotWritable;
}

// An installed service is told where its settings are (the unit names the file under /etc);
// a service run from its build tree reads the file beside the executable.
QString defaultSettingsPath()
{
    const QString named = qEnvironmentVariable("DLM_SETTINGS");
    if (!named.isEmpty())
        return named;
    return QCoreApplication::applicationDirPath() + QLatin1Char('/') +
           QStringLiteral("downloadmanager.ini");
}
} // namespace

DownloadManager::DownloadManager(const FrontEndFactory &frontEnds)
    : DownloadManager(defaultSettingsPath(), frontEnds)
{
}

DownloadManager::DownloadManager(const QString &settingsPath, const FrontEndFactory &frontEnds)
    : QObject(nullptr),
      networkManager(nullptr),
      database(nullptr),
      settings(nullptr),
      settingsPath(settingsPath)
{
    networkManager = new QNetworkAccessManager(this);
    idleTimer.setSingleShot(true);
    idleTimer.setInterval(500);
    connect(&idleTimer, &QTimer::timeout, this, &DownloadManager::releaseIdleMemory);
    loadSettings();
    maxRetries = countSetting(QStringLiteral("max_retries"), RetrySchedule::kDefaultMaxRetries);
    maxDownloadsPerUser =
        countSetting(QStringLiteral("max_downloads_per_user"), kDefaultMaxDownloadsPerUser);
    // Checked before anything is published, read or launched.
    if (!openDatabase(getSettingsValue(QStringLiteral("download_database_path"), kDefaultPath))) {
        refused = true;
        return;
    }
    // Directories come first: the console keeps a stored directory of its own.
    loadDownloadPaths();
    if (frontEnds)
        clients = frontEnds(this);
    if (database)
        database->forEachStored([this](const StoredRecord &record) { restoreDownload(record); });
}

bool DownloadManager::openDatabase(const QString &directory)
{
    const QString file = filenames::join(directory, QStringLiteral("dlm_download.db"));
    // Whoever can change these could make the service carry out their rows.
    for (const QString &path : { directory, file, file + QStringLiteral("-wal"),
             file + QStringLiteral("-shm"), file + QStringLiteral("-journal") }) {
        const QString why = filetrust::distrust(path);
        if (!why.isEmpty()) {
            DLM_LOGE("Database %s not used, running without persistence: %s is %s",
                     file.toLocal8Bit().constData(), path.toLocal8Bit().constData(),
                     why.toLocal8Bit().constData());
            return true;
        }
    }
    switch (databaseLock.lock(directory)) {
    case DirectoryLock::Locked:
        break;
    case DirectoryLock::Busy:
        DLM_LOGE("Another download service uses the database directory %s: not starting",
                 directory.toLocal8Bit().constData());
        return false;
    case DirectoryLock::Unavailable:
        DLM_LOGW("Cannot lock the database directory %s: %s",
                 directory.toLocal8Bit().constData(),
                 databaseLock.errorText().toLocal8Bit().constData());
        break;
    }
    database = new DownloadDataBase(file, &DownloadManager::storedRecord);
    return true;
}

void DownloadManager::loadDownloadPaths()
{
    if (database) {
        for (const DownloadDataBase::StoredPath &stored : database->downloadPaths()) {
            // Stored canonical; cleaned, never resolved again: a link that appeared since is
            // not followed, and the download's open refuses it.
            const PathKey key(stored.ownerUid, stored.clientID);
            downloadPaths.insert(key, QDir::cleanPath(stored.path));
            chosenPaths.insert(key);
        }
    }
    ensureDownloadPath(kDefaultClientID, kDefaultPath);
}

DownloadManager::~DownloadManager()
{
    // Clients, downloads and the database are destroyed by quit(), never here.
    delete settings;
}

void DownloadManager::loadSettings()
{
    DLM_LOGI("settings file : %s", settingsPath.toLocal8Bit().constData());
    for (const QString &path : { QFileInfo(settingsPath).absolutePath(), settingsPath }) {
        const QString why = filetrust::distrust(path);
        if (!why.isEmpty()) {
            DLM_LOGE("Settings file %s not used, defaults apply: %s is %s",
                     settingsPath.toLocal8Bit().constData(), path.toLocal8Bit().constData(),
                     why.toLocal8Bit().constData());
            return;
        }
    }
    settings = new QSettings(settingsPath, QSettings::NativeFormat);
}

int DownloadManager::countSetting(const QString &key, int defaultValue)
{
    bool numeric = false;
    const int value = getSettingsValue(key, QString::number(defaultValue)).toInt(&numeric, 10);
    return (numeric && value >= 0) ? value : defaultValue;
}

QString DownloadManager::getSettingsValue(const QString &key, const QString &defaultValue)
{
    const QString value = settings ? settings->value(key, defaultValue).toString() : defaultValue;
    DLM_LOGI("entry %s value %s ", key.toLocal8Bit().constData(), value.toLocal8Bit().constData());
    return value;
}

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

    delete database;
    database = nullptr;
    QCoreApplication::quit();
}

// ---- Creation, paths and space ----

DownloadManager::CreateStatus DownloadManager::createDownload(const QString &clientID,
                                                             const QString &url,
                                                             const QString &uniqueID,
                                                             const QString &name,
                                                             QString *createdID, uint ownerUid,
                                                             const ExpectedContent &expected)
{
    if (!isHttpUrl(url)) {
        DLM_LOGE("Error: The download url must contains http://. URL=%s",
                 url.toLocal8Bit().constData());
        return CreateStatus::BadUrl;
    }
    if (const QString why = ContentCheck::refusal(expected.size, expected.sha256); !why.isEmpty()) {
        DLM_LOGE("Download refused: %s. URL=%s", why.toLocal8Bit().constData(),
                 url.toLocal8Bit().constData());
        return CreateStatus::BadArgument;
    }
    if (ownerUid != 0) {
        const auto owned = std::count_if(downloads.cbegin(), downloads.cend(),
            [ownerUid](const Download *d) { return d->ownerUid == ownerUid; });
        if (owned >= maxDownloadsPerUser) {
            DLM_LOGE("Download refused: uid %u has %d downloads, its limit. URL=%s", ownerUid,
                     int(owned), url.toLocal8Bit().constData());
            return CreateStatus::Refused;
        }
    }
    if (!uniqueID.isEmpty() && identifierInUse(uniqueID)) {
        DLM_LOGE("Error: The download identifier %s is in use. URL=%s",
                 uniqueID.toLocal8Bit().constData(), url.toLocal8Bit().constData());
        return CreateStatus::IdInUse;
    }
    QString id = uniqueID;
    if (id.isEmpty()) {
        do
            id = getUniqueID(url);
        while (identifierInUse(id));
    }
    // Reserved now, before the download has written anything.
    const QString filePath = getFileName(clientID, url, ownerUid);
    reservedPaths.insert(filePath);

    Download *download = new Download([this](Download *d) { updateDownload(d); }, networkManager,
        id, clientID, url, name.isEmpty() ? filePath : name);
    download->setMaxRetries(maxRetries);
    download->filePath = filePath;
    download->ownerUid = ownerUid;
    download->privateFile = !inChosenDirectory(ownerUid, clientID, filePath);
    download->content = ContentCheck(expected.size, expected.sha256.toLatin1());
    download->launch();
    DLM_LOGI("Download launched with uniqueID:%s url: %s",
             download->uniqueID.toLocal8Bit().constData(),
             download->contentURL.toLocal8Bit().constData());
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
    Download *download = new Download([this](Download *d) { updateDownload(d); }, networkManager,
        r.uniqueID, r.clientID, r.name, r.contentURL, canonical, r.state, r.failureCode,
        r.totalSize, r.amountDownloaded, r.startTime);
    download->setMaxRetries(maxRetries);
    download->ownerUid = r.ownerUid;
    download->fileIdentity = r.fileIdentity;
    download->content = ContentCheck(r.expectedSize, r.expectedSha256);
    download->validator = r.validator;
    download->failureReason = r.failureReason;
    download->httpStatus = r.httpStatus;
    download->privateFile = !inChosenDirectory(r.ownerUid, r.clientID, canonical);
    reservedPaths.insert(canonical);
    downloads.append(download);
    const QString fault = storedRowFault(download);
    if (!fault.isEmpty()) {
        DLM_LOGE("Stored download %s stays Failed, never launched: %s. URL=%s file=%s",
            r.uniqueID.toLocal8Bit().constData(), fault.toLocal8Bit().constData(),
            r.contentURL.toLocal8Bit().constData(), r.filePath.toLocal8Bit().constData());
        download->state = Download::Failed;
        return;
    }
    // A failed download waits for a resume; a stalled one tries again at once. Only a launch is
    // logged: a line for every stored row was most of the start-up time with a long history.
    if (download->state == Download::Paused || download->state == Download::Failed ||
        download->state == Download::Completed)
        return;
    download->launch();
    DLM_LOGI("Download launched with uniqueID:%s url: %s",
             download->uniqueID.toLocal8Bit().constData(),
             download->contentURL.toLocal8Bit().constData());
}

QString DownloadManager::getUniqueID(const QString &url)
{
    // The counter tells apart calls within one clock tick, the time tells apart runs.
    static std::atomic<quint64> counter{0};
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    QCryptographicHash hash(QCryptographicHash::Md5);
    hash.addData(url.toUtf8());
    hash.addData(QByteArray::number(++counter) + ' ' +
                 QByteArray::number(qint64(
                     std::chrono::duration_cast<std::chrono::microseconds>(now).count())));
    return QString::fromLatin1(hash.result().toHex());
}

QString DownloadManager::getFileName(const QString &clientID, const QString &url, uint ownerUid)
{
    const QString directory = getDownloadPath(clientID, ownerUid);
    const QString name = filenames::fromUrl(url);
    for (qint64 n = -1;; ++n) {
        const QString candidate = filenames::join(
            directory, filenames::fit(name, n < 0 ? QString()
                                                   : QLatin1Char('.') + QString::number(n)));
        // A dangling symbolic link is a name in use too.
        const QFileInfo onDisk(candidate);
        if (!reservedPaths.contains(candidate) && !onDisk.exists() && !onDisk.isSymLink())
            return candidate;
    }
}

DownloadManager::PathStatus DownloadManager::setDownloadPath(const QString &clientID,
                                                             const QString &path, uint ownerUid)
{
    // The default directory is every user's fallback: only root chooses it.
    if (ownerUid != 0 && clientID == kDefaultClientID) {
        DLM_LOGE("Download path of %s refused: uid %u is not root", clientID.toLocal8Bit().constData(),
                 ownerUid);
        return PathStatus::NotPermitted;
    }
    QString given = path;
    if (given.startsWith(QLatin1String("~/")))
        given.replace(QLatin1Char('~'), QDir::homePath());
    // Relative paths would land in whatever the service's working directory is.
    if (!QDir::isAbsolutePath(given)) {
        DLM_LOGE("Download path \"%s\" of %s refused: not an absolute path",
            given.toLocal8Bit().constData(), clientID.toLocal8Bit().constData());
        return PathStatus::NotAbsolute;
    }
    // Canonical, so that no two spellings of one directory give one file to two downloads.
    QString stored;
    const PathStatus status = resolveDirectory(ownerUid, given, &stored);
    if (status != PathStatus::Set) {
        DLM_LOGE("Download path \"%s\" of %s refused for uid %u: %s",
            given.toLocal8Bit().constData(), clientID.toLocal8Bit().constData(), ownerUid,
            status == PathStatus::NotPermitted ? "not permitted"
                : status == PathStatus::NotWritable
                ? "the service cannot write there (read-only file system, or outside its "
                  "ReadWritePaths=)"
                : "no such directory");
        return status;
    }
    DLM_LOGD("clientID = %s Download path=%s", clientID.toLocal8Bit().constData(),
             stored.toLocal8Bit().constData());
    downloadPaths.insert(PathKey(ownerUid, clientID), stored);
    chosenPaths.insert(PathKey(ownerUid, clientID));
    if (database)
        database->storeDownloadPath(ownerUid, clientID, stored);
    return PathStatus::Set;
}

void DownloadManager::ensureDownloadPath(const QString &clientID, const QString &path,
                                         uint ownerUid)
{
    const PathKey key(ownerUid, clientID);
    if (!downloadPaths.contains(key))
        downloadPaths.insert(key, QDir::cleanPath(path));
}

QString DownloadManager::getDownloadPath(const QString &clientID, uint ownerUid)
{
    const auto it = downloadPaths.constFind(PathKey(ownerUid, clientID));
    if (it != downloadPaths.constEnd())
        return it.value();
    return downloadPaths.value(PathKey(0, kDefaultClientID));
}

int DownloadManager::checkDownloadPossible(const QString &clientID, long long size,
                                           uint callerUid)
{
    const QString directory = getDownloadPath(clientID, callerUid);
    if (!QDir(directory).exists())
        return 2;
    const long long available = DLTools().getAvailableSize(directory);
    DLM_LOGD("checkDownloadPossible sizeAvailable: %lld in path %s\n", available,
             directory.toLocal8Bit().constData());
    if (available == -1)
        return 2;
    // What downloads on other file systems still need takes nothing from this one.
    DLTools tools;
    const long long device = tools.getDeviceID(directory);
    long long reserved = 0;
    for (const Download *download : qAsConst(downloads)) {
        if (download->state == Download::Progressing &&
            tools.getDeviceID(QFileInfo(download->filePath).absolutePath()) == device)
            reserved += download->totalSize - download->amountDownloaded;
    }
    const long long remaining = available - reserved;
    return (remaining == 0 || remaining < size) ? 1 : 0;
}

// ---- Control, removal and queries ----

DownloadManager::ControlStatus DownloadManager::pauseDownload(const QString &uniqueID,
                                                             uint callerUid)
{
    ControlStatus status = uniqueID == kAll ? ControlStatus::Done : ControlStatus::NotFound;
    for (Download *download : qAsConst(downloads)) {
        if ((download->uniqueID == uniqueID || uniqueID == kAll) && mayTouch(callerUid, download)) {
            const bool paused = download->pause();
            if (uniqueID != kAll) {
                status = paused ? ControlStatus::Done : ControlStatus::WrongState;
                if (paused)
                    DLM_LOGI("%s has been paused.", uniqueID.toLocal8Bit().constData());
            }
        }
    }
    // One line for the command, not one identical line per download.
    if (uniqueID == kAll && !downloads.isEmpty())
        DLM_LOGI("all has been paused.");
    return status;
}

DownloadManager::ControlStatus DownloadManager::resumeDownload(const QString &uniqueID,
                                                              uint callerUid)
{
    ControlStatus status = uniqueID == kAll ? ControlStatus::Done : ControlStatus::NotFound;
    for (Download *download : qAsConst(downloads)) {
        if ((download->uniqueID == uniqueID || uniqueID == kAll) && mayTouch(callerUid, download)) {
            const QString fault = storedRowFault(download);
            if (!fault.isEmpty()) {
                DLM_LOGE("%s is not resumed: %s", download->uniqueID.toLocal8Bit().constData(),
                         fault.toLocal8Bit().constData());
                if (uniqueID != kAll)
                    status = ControlStatus::NotPermitted;
                continue;
            }
            const bool resumed = download->resume();
            if (uniqueID != kAll) {
                status = resumed ? ControlStatus::Done : ControlStatus::WrongState;
                if (resumed)
                    DLM_LOGI("%s has been resumed.", uniqueID.toLocal8Bit().constData());
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
            DLM_LOGI("%s has been restarted.", uniqueID.toLocal8Bit().constData());
        }
    }
}

void DownloadManager::abortDownload(const QString &uniqueID)
{
    for (Download *download : qAsConst(downloads)) {
        if (download->uniqueID == uniqueID) {
            download->abort();
            DLM_LOGI("%s has been aborted.", uniqueID.toLocal8Bit().constData());
        }
    }
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

void DownloadManager::releaseIdleMemory()
{
    for (const Download *download : qAsConst(downloads)) {
        if (download->state == Download::Progressing || download->state == Download::Pending)
            return;
    }
    networkManager->clearConnectionCache();
    if (database)
        database->releaseMemory();
#ifdef __GLIBC__
    // glibc keeps freed memory of a burst mapped; nothing else returns it while the service idles.
    malloc_trim(0);
#endif
}

Download *DownloadManager::getDownload(const QString &uniqueID, uint callerUid)
{
    DLM_LOGD("unique id: %s", uniqueID.toLocal8Bit().constData());
    Download *download = find(uniqueID);
    return download && mayTouch(callerUid, download) ? download : nullptr;
}

bool DownloadManager::mayTouch(uint callerUid, const Download *download)
{
    return callerUid == 0 || download->ownerUid == callerUid;
}

bool DownloadManager::inChosenDirectory(
    uint ownerUid, const QString &clientID, const QString &filePath) const
{
    const PathKey key(ownerUid, clientID);
    return chosenPaths.contains(key) && QFileInfo(filePath).path() == downloadPaths.value(key);
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
    DLM_LOGD("client id: %s", clientID.toLocal8Bit().constData());
    const bool everyClient = clientID == QLatin1String("*");
    if (everyClient && callerUid == 0)
        return downloads;
    QList<Download *> result;
    for (Download *download : qAsConst(downloads)) {
        if ((everyClient || download->clientID == clientID) && mayTouch(callerUid, download))
            result.append(download);
    }
    return result;
}

bool DownloadManager::removeDownload(const QString &uniqueID, uint callerUid)
{
    Download *download = getDownload(uniqueID, callerUid);
    if (!download) {
        DLM_LOGE("%s not found. Unable to delete.", uniqueID.toLocal8Bit().constData());
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
                 download->uniqueID.toLocal8Bit().constData());
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
    reservedPaths.remove(path);
    // As the owner: a name the owner could not remove stays.
    if (!keepFile)
        OwnedFile::removeAs(path, owner, identity);
}

// ---- Requests from other threads ----

void DownloadManager::createDownloadEvent(const QString &clientID, const QString &url,
                                          const QString &uniqueID, const QString &name,
                                          uint callerUid)
{
    QCoreApplication::postEvent(this,
                                new DLMCreateDLEvent(clientID, url, uniqueID, name, callerUid));
}

void DownloadManager::actionDownloadEvent(const QString &uniqueID, int action, uint callerUid)
{
    QCoreApplication::postEvent(this, new DLMActionDLEvent(uniqueID, action, callerUid));
}

void DownloadManager::customEvent(QEvent *event)
{
    // Requests still queued when quit() ran must not reach destroyed downloads.
    if (quitting)
        return;
    if (event->type() == DLMCreateDLEvent::EventType) {
        const auto *create = static_cast<DLMCreateDLEvent *>(event);
        // A refusal is logged; the one-way caller has nobody to tell.
        createDownload(create->clientID, create->url, create->uniqueID, create->name, nullptr,
                       create->callerUid);
    } else if (event->type() == DLMActionDLEvent::EventType) {
        const auto *action = static_cast<DLMActionDLEvent *>(event);
        switch (action->action) {
        case DLMActionDLEvent::Pause:
            pauseDownload(action->uniqueID, action->callerUid);
            break;
        case DLMActionDLEvent::Resume:
            resumeDownload(action->uniqueID, action->callerUid);
            break;
        case DLMActionDLEvent::Remove:
            removeDownload(action->uniqueID, action->callerUid);
            break;
        default:
            DLM_LOGW("Action %d not supported", action->action);
            break;
        }
    }
}

StoredRecord DownloadManager::storedRecord(DownloadDataBase::RowKey row)
{
    const auto *d = static_cast<const Download *>(row);
    return { d->uniqueID, d->clientID, d->name, d->contentURL, d->filePath, d->state,
        d->failureCode, d->totalSize, d->amountDownloaded, d->startTime, d->ownerUid,
        d->fileIdentity, d->content.expectedSize(), d->content.expectedSha256(), d->validator,
        d->failureReason, d->httpStatus };
}

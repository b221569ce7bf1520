#include "DownloadManager.h"

#include "DLBaseClient.h"
#include "DLBinderClient.h"
#include "DLConsoleReaderClient.h"
#include "DLMEvents.h"
#include "DLTools.h"
#include "DlmLog.h"
#include "Download.h"
#include "DownloadDataBase.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QSettings>

namespace {
const QString kDefaultClientID = QStringLiteral("DEFAULT_CLIENT_ID");
const QString kDefaultPath = QStringLiteral("/tmp/");
const QString kAll = QStringLiteral("all");
} // namespace

DownloadManager::DownloadManager()
    : DownloadManager(QCoreApplication::applicationDirPath() + QLatin1Char('/') +
                      QStringLiteral("downloadmanager.ini"))
{
}

DownloadManager::DownloadManager(const QString &settingsPath)
    : QObject(nullptr), networkManager(nullptr), database(nullptr), settings(nullptr),
      settingsPath(settingsPath)
{
    networkManager = new QNetworkAccessManager(this);
    loadSettings();
    bool numeric = false;
    const int retries = getSettingsValue(QStringLiteral("max_retries"),
                                         QString::number(RetrySchedule::kDefaultMaxRetries))
                            .toInt(&numeric, 10);
    maxRetries = (numeric && retries >= 0) ? retries : RetrySchedule::kDefaultMaxRetries;
    createClients();

    const QString dbDirectory =
        getSettingsValue(QStringLiteral("download_database_path"), kDefaultPath);
    database = new DownloadDataBase(this, dbDirectory + QLatin1Char('/') +
                                              QStringLiteral("dlm_download.db"));
    database->getDownloadList();

    downloadPaths.insert(kDefaultClientID, kDefaultPath);
}

DownloadManager::~DownloadManager()
{
    // Clients, downloads and the database are destroyed by quit(), never here.
    delete settings;
}

void DownloadManager::loadSettings()
{
    DLM_LOGI("settings file : %s", settingsPath.toLocal8Bit().constData());
    settings = new QSettings(settingsPath, QSettings::NativeFormat);
}

QString DownloadManager::getSettingsValue(const QString &key, const QString &defaultValue)
{
    const QString value = settings ? settings->value(key, defaultValue).toString() : defaultValue;
    DLM_LOGI("entry %s value %s ", key.toLocal8Bit().constData(), value.toLocal8Bit().constData());
    return value;
}

void DownloadManager::createClients()
{
    bool numeric = false;
    const int consoleSwitch = qEnvironmentVariable("DL_CONSOLE_READER_ENABLE").toInt(&numeric, 10);
    if (numeric && consoleSwitch != 0)
        clients.append(new DLConsoleReaderClient(this));

    DLBaseClient *binderClient = createBinderClient();
    if (binderClient) {
        if (binderClient->init()) {
            clients.append(binderClient);
        } else {
            DLM_LOGE("Error: Unable to init Binder client");
            binderClient->destroy();
        }
    }
}

void DownloadManager::addClient(DLBaseClient *client)
{
    clients.append(client);
}

void DownloadManager::execute()
{
    for (DLBaseClient *client : qAsConst(clients))
        client->help();
}

void DownloadManager::quit()
{
    DLM_LOGD("!!!!QUIT!!!!!!");
    quitting = true;
    const QList<DLBaseClient *> oldClients = clients;
    clients.clear();
    for (DLBaseClient *client : oldClients)
        client->destroy();

    const QList<Download *> oldDownloads = downloads;
    downloads.clear();
    qDeleteAll(oldDownloads);

    delete database;
    database = nullptr;
    QCoreApplication::quit();
}

// ---- Creation, paths and space ----

void DownloadManager::createDownload(const QString &clientID, const QString &url,
                                     const QString &uniqueID, const QString &name)
{
    if (!url.startsWith(QLatin1String("http"))) {
        DLM_LOGE("Error: The download url must contains http://. URL=%s",
                 url.toLocal8Bit().constData());
        return;
    }
    const QString id = uniqueID.isEmpty() ? getUniqueID(url) : uniqueID;
    const QString displayName = name.isEmpty() ? getFileName(clientID, url) : name;

    Download *download = new Download(this, networkManager, id, clientID, url, displayName);
    download->setMaxRetries(maxRetries);
    download->filePath = getFileName(clientID, url);
    download->launch();
    DLM_LOGI("Download launched with uniqueID:%s url: %s",
             download->uniqueID.toLocal8Bit().constData(),
             download->contentURL.toLocal8Bit().constData());
    downloads.append(download);
}

void DownloadManager::createDownload(const QString &uniqueID, const QString &clientID,
                                     const QString &name, const QString &contentURL,
                                     const QString &filePath, unsigned int state,
                                     unsigned int failureCode, long long totalSize,
                                     long long amountDownloaded, long long startTime)
{
    Download *download =
        new Download(this, networkManager, uniqueID, clientID, name, contentURL, filePath, state,
                     failureCode, totalSize, amountDownloaded, startTime);
    download->setMaxRetries(maxRetries);
    // A failed download waits for a resume; a stalled one tries again at once.
    if (download->state != Download::Paused && download->state != Download::Failed)
        download->launch();
    DLM_LOGI("Download launched with uniqueID:%s url: %s",
             download->uniqueID.toLocal8Bit().constData(),
             download->contentURL.toLocal8Bit().constData());
    downloads.append(download);
}

QString DownloadManager::getUniqueID(const QString &url)
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    hash.addData(url.toLatin1());
    hash.addData(QDateTime::currentDateTime().toString(Qt::TextDate).toLatin1());
    return QString::fromLatin1(hash.result().toHex());
}

QString DownloadManager::getFileName(const QString &clientID, const QString &url)
{
    QString baseName = QFileInfo(url).fileName();
    if (baseName.isEmpty())
        baseName = QStringLiteral("download");
    const QString directory = getDownloadPath(clientID);
    if (QFile::exists(directory + baseName)) {
        for (qint64 n = 0;; ++n) {
            const QString candidate = baseName + QLatin1Char('.') + QString::number(n);
            if (!QFile::exists(directory + candidate)) {
                baseName = candidate;
                break;
            }
        }
    }
    return directory + baseName;
}

void DownloadManager::setDownloadPath(const QString &clientID, const QString &path)
{
    QString stored = path;
    if (stored.startsWith(QLatin1String("~/")))
        stored.replace(QLatin1Char('~'), QDir::homePath());
    DLM_LOGD("clientID = %s Download path=%s", clientID.toLocal8Bit().constData(),
             stored.toLocal8Bit().constData());
    downloadPaths.insert(clientID, stored);
}

QString DownloadManager::getDownloadPath(const QString &clientID)
{
    const auto it = downloadPaths.constFind(clientID);
    if (it != downloadPaths.constEnd())
        return it.value();
    return downloadPaths.value(kDefaultClientID);
}

int DownloadManager::checkDownloadPossible(const QString &clientID, long long size)
{
    const QString directory = getDownloadPath(clientID);
    if (!QDir(directory).exists())
        return 2;
    const long long available =
        freeSpaceProbe ? freeSpaceProbe(directory) : DLTools().getAvailableSize(directory);
    DLM_LOGD("checkDownloadPossible sizeAvailable: %lld in path %s\n", available,
             directory.toLocal8Bit().constData());
    if (available == -1)
        return 2;
    long long reserved = 0;
    for (const Download *download : qAsConst(downloads)) {
        if (download->state == Download::Progressing)
            reserved += download->totalSize - download->amountDownloaded;
    }
    const long long remaining = available - reserved;
    return (remaining == 0 || remaining < size) ? 1 : 0;
}

// ---- Control, removal and queries ----

void DownloadManager::pauseDownload(const QString &uniqueID)
{
    for (Download *download : qAsConst(downloads)) {
        if (download->uniqueID == uniqueID || uniqueID == kAll) {
            download->pause();
            if (uniqueID != kAll)
                DLM_LOGI("%s has been paused.", uniqueID.toLocal8Bit().constData());
        }
    }
    // One line for the command, not one identical line per download.
    if (uniqueID == kAll && !downloads.isEmpty())
        DLM_LOGI("all has been paused.");
}

void DownloadManager::resumeDownload(const QString &uniqueID)
{
    for (Download *download : qAsConst(downloads)) {
        if (download->uniqueID == uniqueID || uniqueID == kAll) {
            download->resume();
            if (uniqueID != kAll)
                DLM_LOGI("%s has been resumed.", uniqueID.toLocal8Bit().constData());
        }
    }
    if (uniqueID == kAll && !downloads.isEmpty())
        DLM_LOGI("all has been resumed.");
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
    if (database) {
        if (database->isDBEntryAvailable(download->uniqueID))
            database->updateEntry(download);
        else
            database->addEntry(download);
    }
    for (DLBaseClient *client : qAsConst(clients))
        client->updateDownloadEntry(download);
}

Download *DownloadManager::getDownload(const QString &uniqueID)
{
    DLM_LOGD("unique id: %s", uniqueID.toLocal8Bit().constData());
    for (Download *download : qAsConst(downloads)) {
        if (download->uniqueID == uniqueID)
            return download;
    }
    return nullptr;
}

QList<Download *> DownloadManager::getDownloadList(const QString &clientID)
{
    DLM_LOGD("client id: %s", clientID.toLocal8Bit().constData());
    if (clientID == QLatin1String("*"))
        return downloads;
    QList<Download *> result;
    for (Download *download : qAsConst(downloads)) {
        if (download->clientID == clientID)
            result.append(download);
    }
    return result;
}

bool DownloadManager::removeDownload(const QString &uniqueID)
{
    for (int i = 0; i < downloads.size(); ++i) {
        Download *download = downloads.at(i);
        if (download->uniqueID != uniqueID)
            continue;
        if (database && database->deleteEntry(download)) {
            download->abort();
            downloads.removeAt(i);
            delete download;
            DLM_LOGD("Download successfully deleted.");
            return true;
        }
        DLM_LOGE("Unable to delete %s", uniqueID.toLocal8Bit().constData());
    }
    DLM_LOGE("%s not found. Unable to delete.", uniqueID.toLocal8Bit().constData());
    return false;
}

void DownloadManager::removeAllDownloads()
{
    DLM_LOGD("Remove all downloads");
    const QList<Download *> oldDownloads = downloads;
    downloads.clear();
    for (Download *download : oldDownloads) {
        download->abort();
        if (database)
            database->deleteEntry(download);
        delete download;
    }
}

// ---- Requests from other threads ----

void DownloadManager::createDownloadEvent(const QString &clientID, const QString &url,
                                          const QString &uniqueID, const QString &name)
{
    QCoreApplication::postEvent(this, new DLMCreateDLEvent(clientID, url, uniqueID, name));
}

void DownloadManager::actionDownloadEvent(const QString &uniqueID, int action)
{
    QCoreApplication::postEvent(this, new DLMActionDLEvent(uniqueID, action));
}

void DownloadManager::customEvent(QEvent *event)
{
    // Requests still queued when quit() ran must not reach destroyed downloads.
    if (quitting)
        return;
    if (event->type() == DLMCreateDLEvent::EventType) {
        const auto *create = static_cast<DLMCreateDLEvent *>(event);
        createDownload(create->clientID, create->url, create->uniqueID, create->name);
    } else if (event->type() == DLMActionDLEvent::EventType) {
        const auto *action = static_cast<DLMActionDLEvent *>(event);
        switch (action->action) {
        case DLMActionDLEvent::Pause:
            pauseDownload(action->uniqueID);
            break;
        case DLMActionDLEvent::Resume:
            resumeDownload(action->uniqueID);
            break;
        case DLMActionDLEvent::Remove:
            removeDownload(action->uniqueID);
            break;
        default:
            DLM_LOGW("Action %d not supported", action->action);
            break;
        }
    }
}

DLBaseClient *DownloadManager::createBinderClient()
{
    auto *client = new DLBinderClient(this);
    // The manager's own reference; DLBinderClient::destroy() drops it.
    client->incStrong(client);
    return client;
}

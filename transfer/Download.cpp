#include "Download.h"

#include "DownloadManager.h"

#include <QNetworkReply>

// Placeholder bodies; the transfer is implemented in its own change.
Download::Download(DownloadManager *manager, QNetworkAccessManager *networkManager, QString uniqueID,
                   QString clientID, QString contentURL, QString name)
    : QObject(nullptr), manager(manager), networkManager(networkManager), reply(nullptr),
      uniqueID(uniqueID), clientID(clientID), name(name), contentURL(contentURL), state(0),
      failureCode(4), totalSize(0), amountDownloaded(0), startTime(0), packetCount(0)
{
}

Download::Download(DownloadManager *manager, QNetworkAccessManager *networkManager, QString uniqueID,
                   QString clientID, QString name, QString contentURL, QString filePath,
                   unsigned state, unsigned failureCode, qint64 totalSize, qint64 amountDownloaded,
                   qint64 startTime)
    : QObject(nullptr), manager(manager), networkManager(networkManager), reply(nullptr),
      uniqueID(uniqueID), clientID(clientID), name(name), contentURL(contentURL),
      filePath(filePath), state(state), failureCode(failureCode), totalSize(totalSize),
      amountDownloaded(amountDownloaded), startTime(startTime), packetCount(0)
{
}

Download::~Download() = default;
QString Download::stateAsString() const { return QString(); }
void Download::pause() {}
void Download::resume() {}
void Download::restart() {}
void Download::launch() {}
void Download::abort() {}
bool Download::prepareFile(qint64) { return false; }
bool Download::saveToDisk(QByteArray) { return false; }
bool Download::commitData() { return false; }
void Download::sslErrors(const QList<QSslError> &) {}
void Download::downloadFinished(QNetworkReply *) {}
void Download::downloadProgress(qint64, qint64) {}
void Download::dataReadyRead() {}
void Download::report() { manager->updateDownload(this); }

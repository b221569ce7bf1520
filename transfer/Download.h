#pragma once

#include <QFile>
#include <QList>
#include <QObject>
#include <QSslError>
#include <QString>

class DownloadManager;
class QNetworkAccessManager;
class QNetworkReply;

// One file fetched over HTTP for a client: the persisted record, the state machine and the
// transfer that writes the content into filePath. Lives on the main thread; every change worth
// storing or announcing is reported through DownloadManager::updateDownload(this).
class Download : public QObject
{
    Q_OBJECT

public:
    enum State : unsigned {
        Undefined = 0,
        Completed = 1,
        Progressing = 2,
        Paused = 4,
        Failed = 8,
        Pending = 16,
        Stalled = 32,
    };

    // A new download, not launched yet (state 0, failure code 4). Note: the URL comes before the name.
    Download(DownloadManager *manager, QNetworkAccessManager *networkManager, QString uniqueID,
             QString clientID, QString contentURL, QString name);
    // A download restored from its stored record, values taken as they are.
    Download(DownloadManager *manager, QNetworkAccessManager *networkManager, QString uniqueID,
             QString clientID, QString name, QString contentURL, QString filePath, unsigned state,
             unsigned failureCode, qint64 totalSize, qint64 amountDownloaded, qint64 startTime);
    ~Download() override;

    QString stateAsString() const;

    void pause();
    void resume();
    void restart();

    // Start or continue the transfer from amountDownloaded; ignored once Completed.
    void launch();
    // Stop the current transfer; the download keeps its record and can be resumed.
    void abort();

    bool prepareFile(qint64 offset);
    bool saveToDisk(QByteArray data);
    // Write everything the reply has buffered, count it and report.
    bool commitData();

    DownloadManager *manager;
    QNetworkAccessManager *networkManager;
    QNetworkReply *reply;

    QString uniqueID;
    QString clientID;
    QString name;
    QString contentURL;
    QString filePath;
    unsigned state;
    unsigned failureCode;
    qint64 totalSize;
    qint64 amountDownloaded;
    qint64 startTime;

    QFile file;
    int packetCount;

public slots:
    void sslErrors(const QList<QSslError> &errors);
    void downloadFinished(QNetworkReply *reply);
    void downloadProgress(qint64 bytesReceived, qint64 bytesTotal);
    void dataReadyRead();

private slots:
    void replyMetaDataChanged();

private:
    // How the current reply's HTTP status was judged; decided once, before any byte is written.
    enum class ReplyVerdict { Unchecked, Accepted, Rejected, Settled };

    void report();
    ReplyVerdict checkReply(bool redirectMayFollow);
    void rejectReply();
    void completeFromRangeAnswer(qint64 completeLength);
    void startOverWithoutRange(bool contentChanged);
    void restartInPlace(qint64 newTotal);

    ReplyVerdict verdict = ReplyVerdict::Unchecked;
    // Offset named by the Range header of the current request; 0 when none was sent.
    qint64 requestOffset = 0;
    // Complete length from a 206 answer's Content-Range; -1 when not known.
    qint64 rangeTotal = -1;
    // Set while abort() runs: the notifications it triggers are not progress.
    bool aborting = false;
    // Carries committed bytes from the reply to the file; kept for the length of a transfer.
    QByteArray scratch;
};

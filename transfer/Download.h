#pragma once

#include "ContentCheck.h"
#include "IDownload.h"
#include "OwnedFile.h"
#include "RetrySchedule.h"

#include <QElapsedTimer>
#include <QList>
#include <QObject>
#include <QSslError>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>

class QNetworkAccessManager;
class QNetworkReply;
class QNetworkRequest;

// One file fetched over HTTP for a client: the persisted record, the state machine and the
// transfer that writes the content into filePath. Lives on the main thread; every change worth
// storing or announcing is reported through the reportChange callback it is given. Every
// transfer ends by itself: Completed, Failed (reported, with its reason in the log), or Stalled
// while it waits to try a passing fault again.
class Download : public QObject {
    Q_OBJECT

public:
    // The interface's DownloadState, as the service's own names.
    enum State : unsigned {
        Undefined = 0,
        Completed = STATE_COMPLETED,
        Progressing = STATE_PROGRESSING,
        Paused = STATE_PAUSED,
        Failed = STATE_FAILED,
        Pending = STATE_PENDING,
        Stalled = STATE_STALLED,
    };

    // A new download, not launched yet (state 0, failure code 4). Note: the URL comes before the
    // name.
    Download(std::function<void(Download *)> reportChange, QNetworkAccessManager *networkManager,
        QString uniqueID, QString clientID, QString contentURL, QString name);
    // A download restored from its stored record, values taken as they are.
    Download(std::function<void(Download *)> reportChange, QNetworkAccessManager *networkManager,
        QString uniqueID, QString clientID, QString name, QString contentURL, QString filePath,
        unsigned state, unsigned failureCode, qint64 totalSize, qint64 amountDownloaded,
        qint64 startTime);
    ~Download() override;

    QString stateAsString() const;

    // Pending, Progressing and Stalled downloads pause; their request or retry is dropped.
    // Paused and Failed ones resume. False when the state does not allow it.
    bool pause();
    bool resume();
    void restart();

    // Start or continue the transfer from amountDownloaded; ignored once Completed.
    void launch();
    // Stop the current transfer and any pending retry; the download keeps its record.
    void abort();

    // Consecutive attempts without new bytes after which a passing fault fails the download.
    void setMaxRetries(int count);
    // While Stalled: the next attempt's time in ms since the epoch; otherwise 0.
    qint64 nextAttemptTime() const;
    // While Progressing: bytes per second over the last second or more of reports; otherwise 0.
    qint64 bytesPerSecond() const { return state == Progressing ? rate : 0; }

    bool prepareFile(qint64 offset);
    bool saveToDisk(QByteArray data);
    // Write everything the reply has buffered, count it and report.
    bool commitData();

    std::function<void(Download *)> reportChange; // may be empty
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
    // Why the last attempt failed or stalled (the text of its log line); stays, as failureCode.
    QString failureReason;
    // Status of the last HTTP answer; 0 when none came.
    int httpStatus = 0;
    // Who created it (root for the console and for rows stored before owners were kept): its
    // file is opened and removed with this user's file-system identity.
    uint ownerUid = 0;
    // The file this download created; only that file is opened again, emptied or removed.
    FileIdentity fileIdentity;
    // Created 0600 rather than by the umask: it is not in a directory its owner chose.
    bool privateFile = false;
    // The size and SHA-256 its creator expects, checked as the bytes are written and at the end.
    ContentCheck content;
    // Sent as If-Range with every Range (see ResumeValidator); empty when the answer had none.
    QByteArray validator;

    int packetCount;

public slots:
    void sslErrors(const QList<QSslError> &errors);
    void downloadFinished(QNetworkReply *reply);
    void downloadProgress(qint64 bytesReceived, qint64 bytesTotal);
    void dataReadyRead();

private slots:
    void replyMetaDataChanged();
    void restartStallTimer();
    void transferStalled();
    void flushBatch();

private:
    // How the current reply's HTTP status was judged; decided once, before any byte is written.
    enum class ReplyVerdict { Unchecked, Accepted, Rejected, Settled };

    void report();
    // Puts the request on the wire once the request queue lets it go.
    void sendRequest(const QNetworkRequest &request);
    // Moves what the reply holds into the file and counts it, without reporting.
    bool writeBuffered();
    // Stops the reply (if any) without touching the state; its notifications change nothing.
    void stopTransfer();
    // Hands the reply (if any) to deleteLater() after cutting it off; gives back its place in
    // the request queue and its share of the read-buffer budget.
    void releaseReply();
    // Joins or leaves the transfers that share the read-buffer budget.
    void setReceiving(bool on);
    // The attempt failed: Stalled until the retry when the fault may pass, else Failed.
    void endAttempt(unsigned code, const QString &reason, bool passing, qint64 retryAfterMs = -1);
    // A write failed, or the body ran past the expected size.
    void failLocalFile();
    // Failed with FAILURE_CONTENT_MISMATCH; the file stays for inspection.
    void failContent(const QString &reason);
    ReplyVerdict checkReply(bool redirectMayFollow);
    void acceptReply(int status);
    void rejectReply(int status);
    void completeFromRangeAnswer(qint64 completeLength);
    void startOverWithoutRange(bool contentChanged);
    void restartInPlace(qint64 newTotal);

    ReplyVerdict verdict = ReplyVerdict::Unchecked;
    // Offset named by the Range header of the current request; 0 when none was sent.
    qint64 requestOffset = 0;
    // Complete length from a 206 answer's Content-Range; -1 when not known.
    qint64 rangeTotal = -1;
    // Set once this attempt's outcome is decided (or it was stopped): later notifications of
    // its reply change nothing.
    bool attemptSettled = false;
    // The last write stopped at the expected size with more of the body left.
    bool bodyTooLong = false;
    // What only a download that runs needs, made at its first launch: most stored downloads
    // never run again in a session and then cost their record and little more.
    struct Transfer {
        OwnedFile file;
        // Runs while the request is on the wire; the attempt stalls once the reply has been
        // quiet for stallTimeoutMs since lastActivity, its last notification.
        QTimer stallTimer;
        // Commits a batch that waits for more notifications than the link sends.
        QTimer flushTimer;
        RetrySchedule retry;
    };
    Transfer &transfer();
    std::unique_ptr<Transfer> running;
    int maxRetries = -1;
    QElapsedTimer lastActivity;
    int stallTimeoutMs = 0;
    // Counted among the transfers sharing the read-buffer budget.
    bool sharesBudget = false;
    // Since the last report: a batch waits for reportInterval ms ("DLM_REPORT_INTERVAL_MS").
    QElapsedTimer sinceReport;
    int reportInterval = 0;
    qint64 reportedAmount = 0;
    // The rate: bytes since rateClock started at rateBase, measured at reports.
    QElapsedTimer rateClock;
    qint64 rateBase = 0;
    qint64 rate = 0;
};

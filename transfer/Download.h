#pragma once

#include "ContentCheck.h"
#include "IDownload.h"
#include "CurlEngine.h"
#include "HttpAnswer.h"
#include "OwnedFile.h"
#include "RateGovernor.h"
#include "RetrySchedule.h"

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>


// One file fetched over HTTP for a client: the persisted record, the state machine and the
// transfer that writes the content into filePath. Lives on the main thread; every change worth
// storing or announcing is reported through the reportChange callback it is given. Every
// transfer ends by itself: Completed, Failed (reported, with its reason in the log), or Stalled
// while it waits to try a passing fault again.
class Download : public QObject, private CurlEngine::Transfer {
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
    Download(std::function<void(Download *)> reportChange, CurlEngine *engine,
        QString uniqueID, QString clientID, QString contentURL, QString name);
    // A download restored from its stored record, values taken as they are.
    Download(std::function<void(Download *)> reportChange, CurlEngine *engine,
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
    // Writes size bytes at the file's position (creating the file first); false unless all are
    // written.
    bool saveToDisk(const char *data, qint64 size);
    // Whether a request of this download is on the wire or waits for a connection.
    bool onTheWire() const { return running && running->easy; }

    std::function<void(Download *)> reportChange; // may be empty
    CurlEngine *engine;
    // Holds the request to its rate while on the wire; set by the owner, may stay null.
    RateGovernor *governor = nullptr;

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
    // Its own limit in bytes per second (0: none) and its place among waiting requests (higher
    // first); both stored, both set by the owner, which tells the governor and the queue.
    qint64 rateLimit = 0;
    int priority = 0;

    int packetCount;
    // Blocks of body received in this process, counted as MAX_PACKET_COUNT counts them.
    qint64 dataArrivals = 0;

private slots:
    void transferStalled();
    void flushBatch();

private:
    // How the current answer was judged; decided once, at the end of its head, before any byte
    // of its body is written. The states after Accepted end the request; requestDone acts.
    enum class AnswerVerdict {
        Unchecked, Accepted, Rejected, StartOver, RangeComplete, FileFault, HeadTooLong };

    // CurlEngine::Transfer: where the request goes out, answer headers are seen and bytes are
    // written.
    void requestSent() override;
    bool headerLine(const char *data, size_t size) override;
    bool bodyData(const char *data, size_t size) override;
    void requestDone(CURLcode result, const QString &detail) override;

    void report();
    // The request's own header lines.
    curl_slist *requestHeaders() const;
    // Puts the request on the wire once the request queue lets it go.
    void sendRequest();
    // Judges an answer whose head has ended; false ends the request.
    bool judgeAnswer();
    // Commits (reports) what is written when the batch is due.
    void batchArrival();
    // Stops the request (if any) without touching the state: nothing it says counts any more.
    void stopTransfer();
    // Gives the request (if any) back to the engine, its place in the request queue and its
    // share of the read-buffer budget.
    void releaseRequest();
    // Joins or leaves the transfers that share the read-buffer budget.
    void setReceiving(bool on);
    // The attempt failed: Stalled until the retry when the fault may pass, else Failed.
    void endAttempt(unsigned code, const QString &reason, bool passing, qint64 retryAfterMs = -1);
    // A write failed, or the body ran past the expected size.
    void failLocalFile();
    // Failed with FAILURE_CONTENT_MISMATCH; the file stays for inspection.
    void failContent(const QString &reason);
    void acceptAnswer(qint64 total);
    void rejectAnswer();
    void completeFromRangeAnswer(qint64 completeLength);
    // The file holds the whole content at length bytes: cut it there, check it, Completed.
    void completeAt(qint64 length);
    void startOverWithoutRange(bool contentChanged);
    void restartInPlace(qint64 newTotal);
    void restartStallClock();
    // The governor rests the request: its stall clock does not run meanwhile.
    void pauseForRate(bool paused);

    AnswerVerdict verdict = AnswerVerdict::Unchecked;
    // The head of the answer being read (the last one of a redirect chain counts).
    struct Answer {
        int status = 0;
        QByteArray reason, contentRange, retryAfter, etag, lastModified;
        qint64 contentLength = -1;
        bool hasLocation = false;
    } answer;
    // Bytes of every head of this request, redirects included: a server that never ends its
    // head is cut at a bound, not read for ever.
    qint64 headBytes = 0;
    // Offset named by the Range header of the current request; 0 when none was sent.
    qint64 requestOffset = 0;
    // A partial answer elsewhere told of a changed length (StartOver); the 416's length.
    bool rangeChanged = false;
    qint64 rangeTotal = -1;
    // Set once this attempt's outcome is decided (or it was stopped): later calls of its
    // request change nothing.
    bool attemptSettled = false;
    // Why the answer is not the content its creator expects (too long), found before or while
    // its bytes were written; ends the attempt as a FileFault does, with failure code 5.
    QString contentFault;
    // What only a download that runs needs, made at its first launch: most stored downloads
    // never run again in a session and then cost their record and little more.
    struct Transfer {
        OwnedFile file;
        // The request on the wire (or queued by curl for a connection); null between attempts.
        CURL *easy = nullptr;
        // Runs from the moment the request goes out; the attempt stalls once the answer has
        // been quiet for stallTimeoutMs since lastActivity (an answer's end of head, a block).
        QTimer stallTimer;
        // Commits a batch that waits for more notifications than the link sends.
        QTimer flushTimer;
        RetrySchedule retry;
    };
    Transfer &transfer();
    std::unique_ptr<Transfer> running;
    int maxRetries = -1;
    // Place among the downloads of this process, in order of creation (or restore).
    quint64 creationOrder = 0;
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

#pragma once

#include "CommitBatch.h"
#include "CurlEngine.h"
#include "HttpAnswer.h"
#include "ReadBudget.h"
#include "RetrySchedule.h"
#include "TransferFile.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

namespace dlm {

class Download;
class RateGovernor;

// The running life of a download: its attempts at the content, one request at a time, from the
// request queue to the file. It judges each answer before a byte of its body is written, writes
// the body straight into the download's file, commits (reports) what is written in batches, and
// ends each attempt: the whole file (Completed), a passing fault (Stalled until its retry), or
// Failed. It changes its download's record and reports through it; the download owns it.
class HttpTransfer : public QObject, private CurlEngine::Transfer {
    Q_OBJECT

public:
    HttpTransfer(Download &download, CurlEngine *engine);
    ~HttpTransfer() override;

    // A new attempt from the download's amountDownloaded: Pending until the request queue lets
    // it go.
    void start();
    // The first attempt of a download that has nothing on disk yet, its slot in the request
    // queue granted to the download already: the request goes out now.
    void startGranted();
    // Ends the attempt and any pending retry; nothing the request says counts any more.
    void stop();
    // A person asked again: the failures counted so far are forgotten.
    void resetRetries() { retry.reset(); }

    qint64 nextAttemptTime() const { return retry.nextAttemptTime(); }
    qint64 rate() const { return batch.rate(); }
    bool onTheWire() const { return easy != nullptr; }

private:
    // How the current answer was judged; decided once, at the end of its head, before any byte
    // of its body is written. The states after Accepted end the request; requestDone acts.
    enum class AnswerVerdict {
        Unchecked,
        Accepted,
        Rejected,
        StartOver,
        RangeComplete,
        FileFault,
        HeadTooLong
    };

    // CurlEngine::Transfer: where the request goes out, answer headers are seen and bytes are
    // written.
    void requestSent() override;
    bool headerLine(const char *data, size_t size) override;
    bool bodyData(const char *data, size_t size) override;
    void requestDone(CURLcode result, const QString &detail) override;

    void report();
    // Puts the request on the wire once the request queue lets it go.
    void sendRequest();
    // Judges an answer whose head has ended; false ends the request.
    bool judgeAnswer();
    // Commits (reports) what is written when the batch is due. Both are false when what waited
    // could not be written: the verdict is FileFault, and the caller ends the attempt.
    bool batchArrival();
    bool flushBatch();
    void transferStalled();
    // Stops the request (if any) without touching the state: nothing it says counts any more.
    void stopRequest();
    // Gives the request (if any) back to the engine, its place in the request queue and its
    // share of the read-buffer budget.
    void releaseRequest();
    // The governor rests the request: its stall clock does not run meanwhile.
    void pauseForRate(bool paused);
    // The attempt failed: Stalled until the retry when the fault may pass, else Failed.
    void endAttempt(unsigned code, const QString &reason, bool passing, qint64 retryAfterMs = -1);
    // A network fault with no route to the host: Stalled, waiting for the network; false when
    // the fault is another or a route exists (the retry schedule then decides).
    bool waitForNetwork(unsigned code, bool passing, const QString &reason);
    // A write failed, or the body ran past the expected size.
    void failLocalFile();
    // Failed with FAILURE_CONTENT_MISMATCH; the file stays for inspection.
    void failContent(const QString &reason);
    void acceptAnswer(qint64 total);
    void rejectAnswer();
    // The file holds the whole content at length bytes: cut it there, check it, Completed.
    void completeAt(qint64 length);
    void startOverWithoutRange(bool contentChanged);
    // Everything an attempt starts from but its place in the request queue.
    void prepareAttempt();
    void restartInPlace(qint64 newTotal);

    Download &d;
    CurlEngine *engine;
    RateGovernor *governor;
    // In the request queue, or held to a rate by the governor, under the download's address: a
    // transfer that outlives its download by a turn of the event loop leaves neither again.
    bool queued = false;
    bool governed = false;
    // Bytes waiting there are written before a report and when the attempt ends.
    TransferFile file;
    // The request on the wire (or queued by curl for a connection); null between attempts.
    CURL *easy = nullptr;
    // Runs from the moment the request goes out; the attempt stalls once the answer has been
    // quiet for stallTimeoutMs since lastActivity (an answer's end of head, a block).
    QTimer stallTimer;
    QElapsedTimer lastActivity;
    int stallTimeoutMs = 0;
    CommitBatch batch;
    RetrySchedule retry;

    AnswerVerdict verdict = AnswerVerdict::Unchecked;
    // The head of the answer being read (the last one of a redirect chain counts).
    http::Head answer;
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
    // Counted among the transfers sharing the read-buffer budget while on the wire.
    ReadBudget budget;
};

} // namespace dlm

#include "HttpTransfer.h"

#include "DlmLog.h"
#include "Download.h"
#include "HttpAnswer.h"
#include "IDownload.h"
#include "RateGovernor.h"
#include "RequestQueue.h"
#include "ResumeValidator.h"

#include <QDateTime>
#include <QUrl>

namespace dlm {

namespace {
constexpr int kDefaultTransferTimeoutMs = 60000;
constexpr qint64 kMaxHeadBytes = 64 * 1024;

int transferTimeoutMs()
{
    bool ok = false;
    const int value = qgetenv("DLM_TRANSFER_TIMEOUT_MS").toInt(&ok, 10);
    return (ok && value > 0) ? value : kDefaultTransferTimeoutMs;
}

} // namespace

void HttpTransfer::sendRequest()
{
    // curl takes the URL as it goes on the wire: non-ASCII characters percent-encoded.
    // The headers travel with a redirected request too.
    easy = engine->open(this, QUrl(d.contentURL()).toEncoded(),
        http::requestHeaders(requestOffset, d.details().validator));
    budget.setReceiving(true);
    const ReadBudget::Buffers buffers = ReadBudget::buffers(d.details().rateLimit);
    file.gatherUpTo(buffers.gather);
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, long(buffers.read));
    // A connection that cannot be made in the stall time-out is a stall as well.
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, long(stallTimeoutMs));
    if (!engine->start(easy)) {
        easy = nullptr;
        endAttempt(FAILURE_NETWORK, QStringLiteral("the request could not be started"), true);
    } else if (governor) {
        governed = true;
        governor->join(&d, d.details().rateLimit, [this](bool paused) { pauseForRate(paused); });
    }
}

void HttpTransfer::pauseForRate(bool paused)
{
    if (!onTheWire())
        return;
    // The clock first: curl may hand over bytes inside the call, and the governor rest us again.
    if (paused) {
        stallTimer.stop();
        // What the last read gathered goes to the file now, not after the rest; a failure ends
        // the attempt at the next piece curl hands over.
        if (verdict == AnswerVerdict::Accepted && !file.writePending())
            verdict = AnswerVerdict::FileFault;
    } else if (!attemptSettled) {
        lastActivity.start();
        stallTimer.start(stallTimeoutMs);
    }
    // Both ways: curl 7.88 makes a handle paused one way read at once, paused or not.
    curl_easy_pause(easy, paused ? CURLPAUSE_ALL : CURLPAUSE_CONT);
}

void HttpTransfer::releaseRequest()
{
    budget.setReceiving(false);
    if (std::exchange(governed, false))
        governor->leave(&d);
    if (std::exchange(queued, false))
        RequestQueue::instance().leave(&d);
    if (easy) {
        engine->release(easy);
        easy = nullptr;
    }
}

void HttpTransfer::endAttempt(
    unsigned code, const QString &reason, bool passing, qint64 retryAfterMs)
{
    stopRequest();
    file.writePending(); // what came before the fault stays; a write that fails leaves it uncounted
    file.close();
    d.failureCode = code;
    d.editDetails().failureReason = reason.left(int(IDownload::kMaxReasonBytes));
    if (waitForNetwork(code, passing, reason))
        return;
    const qint64 delay = passing ? retry.schedule(d.amountDownloaded, retryAfterMs) : -1;
    if (delay >= 0) {
        d.state = Download::Stalled;
        DLM_LOGI("Download %s stalled, next attempt in %lld ms: %s",
            d.uniqueID().toUtf8().constData(), delay, reason.toUtf8().constData());
    } else {
        d.state = Download::Failed;
        DLM_LOGW("Download %s failed: %s", d.uniqueID().toUtf8().constData(),
            reason.toUtf8().constData());
        d.endTransfer();
        d.report();
        return;
    }
    report();
}

bool HttpTransfer::waitForNetwork(unsigned code, bool passing, const QString &reason)
{
    // Without a route the attempt never reached the server: no reason to count it.
    if (code != FAILURE_NETWORK || !passing || !d.context->hasRoute
        || d.context->hasRoute(QUrl(d.contentURL()).host()))
        return false;
    d.waitingForNetwork = true;
    d.state = Download::Stalled;
    d.editDetails().failureReason = QStringLiteral("waiting for network");
    DLM_LOGI("Download %s waits for the network: %s", d.uniqueID().toUtf8().constData(),
        reason.toUtf8().constData());
    report();
    return true;
}

void HttpTransfer::failLocalFile()
{
    if (!contentFault.isEmpty()) {
        failContent(std::exchange(contentFault, QString()));
        return;
    }
    endAttempt(FAILURE_LOCAL_FILE,
        QStringLiteral("cannot write %1: %2").arg(d.filePath(), file.errorString()), false);
}

void HttpTransfer::failContent(const QString &reason)
{
    endAttempt(
        FAILURE_CONTENT_MISMATCH, QStringLiteral("content does not match: ") + reason, false);
}

void HttpTransfer::requestSent()
{
    // Out on a connection now, and silent until its head has ended: a head that never ends
    // stalls like a silent server. Each redirected request starts the clock again.
    if (attemptSettled)
        return;
    lastActivity.start();
    stallTimer.start(stallTimeoutMs);
}

bool HttpTransfer::headerLine(const char *data, size_t size)
{
    if (attemptSettled)
        return false;
    if ((headBytes += qint64(size)) > kMaxHeadBytes) {
        verdict = AnswerVerdict::HeadTooLong;
        return false;
    }
    if (!answer.addLine(QByteArray::fromRawData(data, qsizetype(size))))
        return true;
    lastActivity.start();
    if (!answer.isFinal())
        return true; // curl follows a redirect itself; one it cannot follow ends with its error
    return judgeAnswer();
}

bool HttpTransfer::judgeAnswer()
{
    d.editDetails().httpStatus = answer.status;
    const http::Judgement j = http::judge(
        answer.status, requestOffset, d.totalSize, answer.contentRange, answer.contentLength);
    const bool accepted
        = j.verdict == http::Verdict::Accept || j.verdict == http::Verdict::AcceptFromZero;
    if (accepted && !(contentFault = d.editDetails().content.tooLong(j.total)).isEmpty()) {
        verdict = AnswerVerdict::FileFault; // before any byte is written
        return false;
    }
    switch (j.verdict) {
    case http::Verdict::AcceptFromZero:
        restartInPlace(j.total);
        acceptAnswer(j.total);
        return true;
    case http::Verdict::Accept:
        acceptAnswer(j.total);
        return true;
    case http::Verdict::StartOver:
    case http::Verdict::StartOverChanged:
        verdict = AnswerVerdict::StartOver;
        rangeChanged = j.verdict == http::Verdict::StartOverChanged;
        return false;
    case http::Verdict::Complete:
        verdict = AnswerVerdict::RangeComplete;
        rangeTotal = j.total;
        return false;
    case http::Verdict::Reject:
        break;
    }
    // Neither an error page nor an unusable body may reach the file.
    verdict = AnswerVerdict::Rejected;
    return false;
}

void HttpTransfer::acceptAnswer(qint64 total)
{
    // Bytes of an accepted answer are on their way: Progressing, with the total known now.
    verdict = AnswerVerdict::Accepted;
    // The answer the file's bytes start with names their version.
    if (requestOffset == 0)
        d.editDetails().validator = ResumeValidator::fromAnswer(answer.etag, answer.lastModified);
    d.state = Download::Progressing;
    if (d.totalSize == 0 && total > 0)
        d.totalSize = total;
    report();
}

void HttpTransfer::rejectAnswer()
{
    QString reason
        = QStringLiteral("HTTP %1 %2").arg(answer.status).arg(QString::fromUtf8(answer.reason));
    if (answer.status < 400)
        reason += QStringLiteral(" is not a usable answer");
    endAttempt(FAILURE_HTTP_STATUS, reason, http::isPassingStatus(answer.status),
        RetrySchedule::retryAfterMs(answer.retryAfter, QDateTime::currentDateTimeUtc()));
}

bool HttpTransfer::bodyData(const char *data, size_t size)
{
    if (attemptSettled || verdict != AnswerVerdict::Accepted)
        return false;
    // Re-arming a timer at every block costs more than the block itself on a slow link: the
    // running stall timer is left alone and checks the time of the last activity.
    lastActivity.start();
    // Never a byte past the expected size, and every byte written feeds the digest.
    const qint64 fits = d.editDetails().content.room(file.received(), qint64(size));
    if (!file.take(data, fits, fits < qint64(size))) {
        verdict = AnswerVerdict::FileFault;
        return false;
    }
    if (fits < qint64(size)) {
        contentFault = d.editDetails().content.tooLong(d.editDetails().content.expectedSize() + 1);
        verdict = AnswerVerdict::FileFault;
        return false;
    }
    ++d.editDetails().dataArrivals;
    if (!batchArrival() || verdict != AnswerVerdict::Accepted)
        return false; // curl ends the request, and requestDone the attempt
    if (governed)
        governor->arrived(&d, fits);
    return true;
}

bool HttpTransfer::batchArrival()
{
    return !batch.arrived(d.amountDownloaded, ReadBudget::reportBound()) || flushBatch();
}

bool HttpTransfer::flushBatch()
{
    batch.stop();
    if (attemptSettled || verdict != AnswerVerdict::Accepted)
        return true;
    // What is reported is written first.
    if (!file.writePending()) {
        verdict = AnswerVerdict::FileFault;
        return false;
    }
    if (batch.isBehind(d.amountDownloaded))
        report();
    return true;
}

void HttpTransfer::requestDone(CURLcode result, const QString &detail)
{
    stallTimer.stop();
    batch.stop();
    releaseRequest();
    // Bytes received before a fault are good: the next attempt goes on after them.
    if (!attemptSettled && verdict == AnswerVerdict::Accepted && !file.writePending())
        verdict = AnswerVerdict::FileFault;
    if (attemptSettled || d.state == Download::Completed || d.state == Download::Paused) {
        file.close();
        return;
    }
    switch (verdict) {
    case AnswerVerdict::FileFault:
        failLocalFile();
        return;
    case AnswerVerdict::Rejected:
        rejectAnswer();
        return;
    case AnswerVerdict::StartOver:
        startOverWithoutRange(rangeChanged);
        return;
    case AnswerVerdict::RangeComplete:
        // The server has nothing past the bytes already on disk: the file is whole.
        attemptSettled = true;
        completeAt(rangeTotal);
        return;
    case AnswerVerdict::Accepted:
        if (result != CURLE_OK)
            break; // what arrived before the fault is in the file: the next attempt goes on
        attemptSettled = true;
        // Also a body without a length ends here: its total is what it held. An empty body
        // still leaves its (empty) file.
        if (d.totalSize == 0)
            d.totalSize = d.amountDownloaded;
        if (!file.create()) {
            failLocalFile();
            return;
        }
        completeAt(d.amountDownloaded);
        return;
    case AnswerVerdict::HeadTooLong:
        endAttempt(FAILURE_NETWORK,
            QStringLiteral("answer headers longer than %1 bytes").arg(kMaxHeadBytes), true);
        return;
    case AnswerVerdict::Unchecked:
        break;
    }
    bool passing = false;
    const QString reason = CurlEngine::failureText(result, detail, &passing);
    endAttempt(FAILURE_NETWORK, reason, passing);
}

void HttpTransfer::transferStalled()
{
    if (attemptSettled || !onTheWire())
        return;
    const qint64 quiet = lastActivity.elapsed();
    if (quiet < stallTimeoutMs) {
        stallTimer.start(int(stallTimeoutMs - quiet));
        return;
    }
    endAttempt(
        FAILURE_NETWORK, QStringLiteral("nothing received for %1 ms").arg(stallTimeoutMs), true);
}

void HttpTransfer::report()
{
    batch.committed(d.amountDownloaded, d.state == Download::Progressing);
    d.report();
}

void HttpTransfer::completeAt(qint64 length)
{
    if (const QString wrong = file.endAt(length); !wrong.isEmpty()) {
        failContent(wrong);
        return;
    }
    file.close();
    d.totalSize = length;
    d.state = Download::Completed;
    d.endTransfer();
    d.report();
}

void HttpTransfer::startOverWithoutRange(bool contentChanged)
{
    // The partial answer does not continue our bytes; fetch the whole resource anew.
    releaseRequest();
    file.close();
    d.amountDownloaded = 0;
    if (contentChanged)
        d.totalSize = 0;
    start();
}

void HttpTransfer::restartInPlace(qint64 newTotal)
{
    // The server ignored the range and sends everything: write it from byte 0.
    d.amountDownloaded = 0;
    requestOffset = 0;
    file.rewind();
    if (newTotal > 0 && d.totalSize != 0 && newTotal != d.totalSize)
        d.totalSize = 0;
}

HttpTransfer::HttpTransfer(Download &download, CurlEngine *engine)
    : d(download),
      engine(engine),
      governor(download.context->governor),
      file(download),
      batch([this] {
          if (!flushBatch())
              failLocalFile();
      })
{
    stallTimer.setSingleShot(true);
    connect(&stallTimer, &QTimer::timeout, this, &HttpTransfer::transferStalled);
    connect(&retry, &RetrySchedule::due, this, &HttpTransfer::start);
    if (d.context->maxRetries >= 0)
        retry.setMaxRetries(d.context->maxRetries);
}

// Touches no record: a transfer may outlive its download by a turn of the event loop.
HttpTransfer::~HttpTransfer()
{
    releaseRequest();
}

void HttpTransfer::stop()
{
    retry.cancel();
    stopRequest();
    file.writePending(); // a pause keeps every received byte
    file.close();
}

void HttpTransfer::start()
{
    prepareAttempt();
    queued = true;
    d.waitForSlot([this] { sendRequest(); });
    d.state = Download::Pending;
    report();
}

void HttpTransfer::startGranted()
{
    prepareAttempt();
    queued = true;
    sendRequest();
}

void HttpTransfer::prepareAttempt()
{
    retry.cancel();
    d.waitingForNetwork = false;
    if (d.startTime == 0)
        d.startTime = QDateTime::currentMSecsSinceEpoch();
    // Our own stall clock, started when the request goes out: the wait for one of the few
    // connections per host does not count.
    stallTimer.stop();
    stallTimeoutMs = transferTimeoutMs();
    requestOffset = 0;
    if (d.amountDownloaded != 0) {
        if (file.openAt(d.amountDownloaded))
            requestOffset = d.amountDownloaded;
        else
            d.amountDownloaded = 0;
    }

    releaseRequest();
    batch.begin();
    verdict = AnswerVerdict::Unchecked;
    answer = http::Head();
    headBytes = 0;
    attemptSettled = false;
    contentFault.clear();
}

void HttpTransfer::stopRequest()
{
    stallTimer.stop();
    batch.stop();
    attemptSettled = true;
    releaseRequest();
}

} // namespace dlm

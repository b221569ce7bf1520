#include "Download.h"

#include "DlmLog.h"
#include "IDownload.h"
#include "RequestQueue.h"
#include "ResumeValidator.h"

#include <QDateTime>
#include <QUrl>

namespace {
// What the receive buffers of all transfers on the wire may take together (curl's buffer per
// request, CURLOPT_BUFFERSIZE, chosen at launch). Each gets an equal share within curl's bounds,
// so the peak stays bounded at any concurrency while a single large file reads in large blocks.
constexpr qint64 kReadBudget = 32 * 1024 * 1024;
constexpr qint64 kMinReadBufferSize = 16 * 1024;
constexpr qint64 kMaxReadBufferSize = CURL_MAX_READ_SIZE;
constexpr int kDefaultPacketLimit = 10;
constexpr int kDefaultTransferTimeoutMs = 60000;
constexpr int kDefaultReportIntervalMs = 500;
// On a slow link a batch also waits for this much content, or for this many intervals, so a
// download costs a few reports per MiB at any rate.
constexpr qint64 kReportBytes = 512 * 1024;
// Written bytes not reported yet that make a report due whatever the batch count or the time:
// half a share of the same budget, never below the slow link's batch (a lower bound only added
// reports there: 4.5 per MiB on 50 links instead of 4).
constexpr qint64 kMinReportBound = kReportBytes;
constexpr qint64 kMaxReportBound = 4 * 1024 * 1024;
constexpr int kMaxQuietIntervals = 6;
constexpr qint64 kMaxHeadBytes = 64 * 1024;

// Transfers with a request on the wire; main thread only.
int receivingTransfers = 0;

qint64 readBufferShare()
{
    return qBound(
        kMinReadBufferSize, kReadBudget / qMax(1, receivingTransfers), kMaxReadBufferSize);
}

qint64 reportBound()
{
    return qBound(kMinReportBound, kReadBudget / 2 / qMax(1, receivingTransfers), kMaxReportBound);
}

int packetLimit()
{
    bool ok = false;
    const int value = qgetenv("MAX_PACKET_COUNT").toInt(&ok, 10);
    return (ok && value != 0) ? value : kDefaultPacketLimit;
}

int transferTimeoutMs()
{
    bool ok = false;
    const int value = qgetenv("DLM_TRANSFER_TIMEOUT_MS").toInt(&ok, 10);
    return (ok && value > 0) ? value : kDefaultTransferTimeoutMs;
}

int reportIntervalMs()
{
    bool ok = false;
    const int value = qgetenv("DLM_REPORT_INTERVAL_MS").toInt(&ok, 10);
    return (ok && value >= 0) ? value : kDefaultReportIntervalMs;
}

bool isRedirectStatus(int status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}
} // namespace

// A new download is a stored one that has no file, no state and failure code 4 yet.
Download::Download(std::function<void(Download *)> reportChange,
    CurlEngine *engine, QString uniqueID, QString clientID, QString contentURL,
    QString name)
    : Download(std::move(reportChange), engine, uniqueID, clientID, name, contentURL,
        QString(), Undefined, 4, 0, 0, 0)
{
}

Download::Download(std::function<void(Download *)> reportChange,
    CurlEngine *engine, QString uniqueID, QString clientID, QString name,
    QString contentURL, QString filePath, unsigned state, unsigned failureCode, qint64 totalSize,
    qint64 amountDownloaded, qint64 startTime)
    : QObject(nullptr),
      reportChange(std::move(reportChange)),
      engine(engine),
      uniqueID(uniqueID),
      clientID(clientID),
      name(name),
      contentURL(contentURL),
      filePath(filePath),
      state(state),
      failureCode(failureCode),
      totalSize(totalSize),
      amountDownloaded(amountDownloaded),
      startTime(startTime),
      packetCount(0)
{
    static quint64 created = 0;
    creationOrder = ++created;
}

Download::Transfer &Download::transfer()
{
    if (!running) {
        running = std::make_unique<Transfer>();
        running->stallTimer.setSingleShot(true);
        connect(&running->stallTimer, &QTimer::timeout, this, &Download::transferStalled);
        running->flushTimer.setSingleShot(true);
        connect(&running->flushTimer, &QTimer::timeout, this, &Download::flushBatch);
        connect(&running->retry, &RetrySchedule::due, this, &Download::launch);
        if (maxRetries >= 0)
            running->retry.setMaxRetries(maxRetries);
    }
    return *running;
}

void Download::setMaxRetries(int count)
{
    maxRetries = count;
    if (running)
        running->retry.setMaxRetries(count);
}

Download::~Download()
{
    releaseRequest();
}

QString Download::stateAsString() const
{
    switch (state) {
    case Completed:
        return QStringLiteral("Completed");
    case Progressing:
        return QStringLiteral("Progressing");
    case Paused:
        return QStringLiteral("Paused");
    case Failed:
        return QStringLiteral("Failed");
    case Pending:
        return QStringLiteral("Pending");
    case Stalled:
        return QStringLiteral("Stalled");
    default:
        return QStringLiteral("Undefined");
    }
}

bool Download::pause()
{
    if (state != Progressing && state != Pending && state != Stalled)
        return false;
    // Every received byte is in the file already; the request ends (no connection is held).
    state = Paused;
    transfer().retry.cancel();
    stopTransfer();
    transfer().file.close();
    report();
    return true;
}

bool Download::resume()
{
    if (state != Paused && state != Failed)
        return false;
    transfer().retry.reset();
    launch();
    return true;
}

void Download::restart()
{
    if (state != Completed && state != Failed)
        return;
    abort();
    totalSize = 0;
    state = Pending;
    amountDownloaded = 0;
    transfer().retry.reset();
    launch();
}

qint64 Download::nextAttemptTime() const
{
    return state == Stalled && running ? running->retry.nextAttemptTime() : 0;
}

void Download::launch()
{
    if (state == Completed)
        return;
    transfer().retry.cancel();
    packetCount = 0;
    if (startTime == 0)
        startTime = QDateTime::currentMSecsSinceEpoch();
    // Our own stall clock, started when the request goes out: the wait for one of the few
    // connections per host does not count.
    transfer().stallTimer.stop();
    stallTimeoutMs = transferTimeoutMs();
    requestOffset = 0;
    if (amountDownloaded != 0) {
        if (prepareFile(amountDownloaded))
            requestOffset = amountDownloaded;
        else
            amountDownloaded = 0;
    }

    releaseRequest();
    reportInterval = reportIntervalMs();
    verdict = AnswerVerdict::Unchecked;
    answer = Answer();
    headBytes = 0;
    attemptSettled = false;
    contentFault.clear();
    RequestQueue::instance().enter(this, ownerUid, RequestQueue::originOf(contentURL),
        creationOrder, [this] { sendRequest(); }, priority);
    state = Pending;
    report();
}

curl_slist *Download::requestHeaders() const
{
    // Offsets and sizes must count the resource's own bytes, never a compressed form. Both
    // travel with a redirected request too.
    curl_slist *headers = curl_slist_append(nullptr, "Accept-Encoding: identity");
    if (requestOffset > 0) {
        const QByteArray range = "Range: bytes=" + QByteArray::number(requestOffset) + '-';
        headers = curl_slist_append(headers, range.constData());
        // Only the version our bytes came from may continue them; another one comes whole.
        if (!validator.isEmpty())
            headers = curl_slist_append(headers, ("If-Range: " + validator).constData());
    }
    return headers;
}

void Download::sendRequest()
{
    Transfer &t = transfer();
    // curl takes the URL as it goes on the wire: non-ASCII characters percent-encoded.
    t.easy = engine->open(this, QUrl(contentURL).toEncoded(), requestHeaders());
    setReceiving(true);
    curl_easy_setopt(t.easy, CURLOPT_BUFFERSIZE, long(readBufferShare()));
    // A connection that cannot be made in the stall time-out is a stall as well.
    curl_easy_setopt(t.easy, CURLOPT_CONNECTTIMEOUT_MS, long(stallTimeoutMs));
    if (!engine->start(t.easy)) {
        t.easy = nullptr;
        endAttempt(FAILURE_NETWORK, QStringLiteral("the request could not be started"), true);
    } else if (governor) {
        governor->join(this, rateLimit, [this](bool paused) { pauseForRate(paused); });
    }
}

void Download::pauseForRate(bool paused)
{
    if (!onTheWire())
        return;
    // The clock first: curl may hand over bytes inside the call, and the governor rest us again.
    if (paused) {
        running->stallTimer.stop();
    } else if (!attemptSettled) {
        restartStallClock();
        running->stallTimer.start(stallTimeoutMs);
    }
    // Both ways: curl 7.88 makes a handle paused one way read at once, paused or not.
    curl_easy_pause(running->easy, paused ? CURLPAUSE_ALL : CURLPAUSE_CONT);
}

void Download::abort()
{
    if (!running)
        return; // never ran in this process: nothing to stop
    transfer().retry.cancel();
    stopTransfer();
    transfer().file.close();
}

void Download::stopTransfer()
{
    transfer().stallTimer.stop();
    transfer().flushTimer.stop();
    attemptSettled = true;
    releaseRequest();
}

void Download::releaseRequest()
{
    setReceiving(false);
    if (governor)
        governor->leave(this);
    RequestQueue::instance().leave(this);
    if (running && running->easy) {
        engine->release(running->easy);
        running->easy = nullptr;
    }
}

void Download::setReceiving(bool on)
{
    if (sharesBudget == on)
        return;
    sharesBudget = on;
    receivingTransfers += on ? 1 : -1;
}

void Download::endAttempt(unsigned code, const QString &reason, bool passing, qint64 retryAfterMs)
{
    stopTransfer();
    transfer().file.close();
    failureCode = code;
    failureReason = reason.left(int(IDownload::kMaxReasonBytes));
    const qint64 delay = passing ? transfer().retry.schedule(amountDownloaded, retryAfterMs) : -1;
    if (delay >= 0) {
        state = Stalled;
        DLM_LOGI("Download %s stalled, next attempt in %lld ms: %s", uniqueID.toUtf8().constData(),
            delay, reason.toUtf8().constData());
    } else {
        state = Failed;
        DLM_LOGW(
            "Download %s failed: %s", uniqueID.toUtf8().constData(), reason.toUtf8().constData());
    }
    report();
}

void Download::failLocalFile()
{
    if (!contentFault.isEmpty()) {
        failContent(std::exchange(contentFault, QString()));
        return;
    }
    endAttempt(FAILURE_LOCAL_FILE,
        QStringLiteral("cannot write %1: %2").arg(filePath, transfer().file.errorString()), false);
}

void Download::failContent(const QString &reason)
{
    endAttempt(
        FAILURE_CONTENT_MISMATCH, QStringLiteral("content does not match: ") + reason, false);
}

bool Download::prepareFile(qint64 offset)
{
    // Unbuffered: a committed byte is in the file before it is counted and stored.
    if (!transfer().file.isOpen()
        && !transfer().file.openExisting(filePath, ownerUid, &fileIdentity))
        return false;
    if (transfer().file.size() < offset)
        return false;
    return transfer().file.seek(offset);
}

bool Download::saveToDisk(const char *data, qint64 size)
{
    OwnedFile &file = transfer().file;
    if (!file.isOpen()
        && !file.openFresh(filePath, ownerUid, &fileIdentity, privateFile ? 0600 : 0666))
        return false;
    qint64 written = size == 0 ? 0 : file.write(data, size);
    // A short write sets no error; writing the rest fails with the reason (a full disk, EFBIG).
    if (written >= 0 && written < size)
        written += qMax<qint64>(0, file.write(data + written, size - written));
    return written == size;
}

void Download::requestSent()
{
    // Out on a connection now, and silent until its head has ended: a head that never ends
    // stalls like a silent server. Each redirected request starts the clock again.
    if (attemptSettled)
        return;
    lastActivity.start();
    transfer().stallTimer.start(stallTimeoutMs);
}

bool Download::headerLine(const char *data, size_t size)
{
    if (attemptSettled)
        return false;
    if ((headBytes += qint64(size)) > kMaxHeadBytes) {
        verdict = AnswerVerdict::HeadTooLong;
        return false;
    }
    const QByteArray line = QByteArray::fromRawData(data, qsizetype(size));
    QByteArray phrase;
    if (const int status = http::parseStatusLine(line, &phrase)) {
        answer = Answer();
        answer.status = status;
        answer.reason = phrase;
        return true;
    }
    const int colon = line.indexOf(':');
    if (colon > 0) {
        // Where an answer's headers are seen: only these decide what happens to the body.
        const QByteArray name = line.left(colon).trimmed().toLower();
        const QByteArray value = line.mid(colon + 1).trimmed();
        if (name == "content-range")
            answer.contentRange = value;
        else if (name == "content-length")
            answer.contentLength = value.toLongLong();
        else if (name == "retry-after")
            answer.retryAfter = value;
        else if (name == "location")
            answer.hasLocation = true;
        else if (name == "etag")
            answer.etag = value;
        else if (name == "last-modified")
            answer.lastModified = value;
        return true;
    }
    if (!line.trimmed().isEmpty())
        return true;
    restartStallClock();
    // The end of a head: an informational one (100) precedes the real answer, and curl follows
    // a redirect itself; one it cannot follow ends with curl's error.
    if (answer.status < 200 || (isRedirectStatus(answer.status) && answer.hasLocation))
        return true;
    return judgeAnswer();
}

bool Download::judgeAnswer()
{
    httpStatus = answer.status;
    const http::Judgement j = http::judge(
        answer.status, requestOffset, totalSize, answer.contentRange, answer.contentLength);
    const bool accepted = j.verdict == http::Verdict::Accept || j.verdict == http::Verdict::AcceptFromZero;
    if (accepted && !(contentFault = content.tooLong(j.total)).isEmpty()) {
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

void Download::acceptAnswer(qint64 total)
{
    // Bytes of an accepted answer are on their way: Progressing, with the total known now.
    verdict = AnswerVerdict::Accepted;
    // The answer the file's bytes start with names their version.
    if (requestOffset == 0)
        validator = ResumeValidator::fromAnswer(answer.etag, answer.lastModified);
    state = Progressing;
    if (totalSize == 0 && total > 0)
        totalSize = total;
    report();
}

void Download::rejectAnswer()
{
    QString reason
        = QStringLiteral("HTTP %1 %2").arg(answer.status).arg(QString::fromUtf8(answer.reason));
    if (answer.status < 400)
        reason += QStringLiteral(" is not a usable answer");
    endAttempt(FAILURE_HTTP_STATUS, reason, http::isPassingStatus(answer.status),
        RetrySchedule::retryAfterMs(answer.retryAfter, QDateTime::currentDateTimeUtc()));
}

bool Download::bodyData(const char *data, size_t size)
{
    if (attemptSettled || verdict != AnswerVerdict::Accepted)
        return false;
    restartStallClock();
    // Where bytes are written: straight from curl's buffer into the file, counted once there;
    // never a byte past the expected size, and every byte written feeds the digest.
    const qint64 at = amountDownloaded, fits = content.room(at, qint64(size));
    if (!saveToDisk(data, fits) || !content.add(transfer().file.handle(), at, data, fits)) {
        verdict = AnswerVerdict::FileFault;
        return false;
    }
    amountDownloaded += fits;
    if (fits < qint64(size)) {
        contentFault = content.tooLong(content.expectedSize() + 1);
        verdict = AnswerVerdict::FileFault;
        return false;
    }
    ++dataArrivals;
    batchArrival();
    if (governor)
        governor->arrived(this, fits);
    return true;
}

void Download::batchArrival()
{
    const qint64 fresh = amountDownloaded - reportedAmount;
    if (fresh < reportBound()) {
        const qint64 quiet = sinceReport.elapsed();
        const qint64 longest = qint64(reportInterval) * kMaxQuietIntervals;
        if (packetLimit() > packetCount++ || quiet < reportInterval
            || (fresh < kReportBytes && quiet < longest)) {
            // Bytes received just before the link goes quiet are still reported in time.
            if (reportInterval > 0 && !transfer().flushTimer.isActive())
                transfer().flushTimer.start(int(qMax<qint64>(longest - quiet, 0)));
            return;
        }
    }
    flushBatch();
}

void Download::flushBatch()
{
    transfer().flushTimer.stop();
    packetCount = 0;
    if (!attemptSettled && verdict == AnswerVerdict::Accepted && amountDownloaded != reportedAmount)
        report();
}

void Download::requestDone(CURLcode result, const QString &detail)
{
    transfer().stallTimer.stop();
    transfer().flushTimer.stop();
    releaseRequest();
    if (attemptSettled || state == Completed || state == Paused) {
        transfer().file.close();
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
        completeFromRangeAnswer(rangeTotal);
        return;
    case AnswerVerdict::Accepted:
        if (result != CURLE_OK)
            break; // what arrived before the fault is in the file: the next attempt goes on
        attemptSettled = true;
        // Also a body without a length ends here: its total is what it held. An empty body
        // still leaves its (empty) file.
        if (totalSize == 0)
            totalSize = amountDownloaded;
        if (!saveToDisk(nullptr, 0)) {
            failLocalFile();
            return;
        }
        completeAt(amountDownloaded);
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

void Download::restartStallClock()
{
    // Re-arming a timer at every block costs more than the block itself on a slow link: the
    // running timer is left alone and checks the time of the last activity.
    lastActivity.start();
}

void Download::transferStalled()
{
    if (attemptSettled || !onTheWire())
        return;
    const qint64 quiet = lastActivity.elapsed();
    if (quiet < stallTimeoutMs) {
        transfer().stallTimer.start(int(stallTimeoutMs - quiet));
        return;
    }
    endAttempt(
        FAILURE_NETWORK, QStringLiteral("nothing received for %1 ms").arg(stallTimeoutMs), true);
}

void Download::report()
{
    sinceReport.start();
    reportedAmount = amountDownloaded;
    if (state != Progressing) {
        rateClock.invalidate();
        rate = 0;
    } else if (!rateClock.isValid()) {
        rateClock.start();
        rateBase = amountDownloaded;
    } else if (const qint64 ms = rateClock.elapsed(); ms >= 1000) {
        rate = qMax<qint64>(0, amountDownloaded - rateBase) * 1000 / ms;
        rateClock.start();
        rateBase = amountDownloaded;
    }
    if (reportChange)
        reportChange(this);
}

void Download::completeFromRangeAnswer(qint64 completeLength)
{
    // The server has nothing past the bytes already on disk: the file is whole.
    stopTransfer();
    completeAt(completeLength);
}

void Download::completeAt(qint64 length)
{
    // A resumed file may hold stale bytes past the end of the content.
    if (transfer().file.isOpen() && transfer().file.size() > length)
        transfer().file.resize(length);
    if (const QString wrong = content.mismatch(transfer().file.handle(), length);
        !wrong.isEmpty()) {
        failContent(wrong);
        return;
    }
    transfer().file.close();
    totalSize = length;
    state = Completed;
    report();
}

void Download::startOverWithoutRange(bool contentChanged)
{
    // The partial answer does not continue our bytes; fetch the whole resource anew.
    releaseRequest();
    transfer().file.close();
    amountDownloaded = 0;
    if (contentChanged)
        totalSize = 0;
    launch();
}

void Download::restartInPlace(qint64 newTotal)
{
    // The server ignored the range and sends everything: write it from byte 0.
    amountDownloaded = 0;
    requestOffset = 0;
    if (transfer().file.isOpen() && !(transfer().file.resize(0) && transfer().file.seek(0)))
        transfer().file.close(); // the first commit then truncates it
    if (newTotal > 0 && totalSize != 0 && newTotal != totalSize)
        totalSize = 0;
}

#include "Download.h"

#include "DlmLog.h"
#include "IDownload.h"
#include "RequestQueue.h"
#include "ResumeValidator.h"

#include <QDateTime>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

namespace {
// What the replies of all transfers that receive a body may buffer together. Each gets an equal
// share within these bounds, so the peak stays bounded at any concurrency while a single large
// file still reads in large blocks.
constexpr qint64 kReadBudget = 32 * 1024 * 1024;
constexpr qint64 kMinReadBufferSize = 64 * 1024;
constexpr qint64 kMaxReadBufferSize = 8 * 1024 * 1024;
// Size of the buffer that carries a batch from a reply to its file.
constexpr int kScratchSize = 256 * 1024;
constexpr int kDefaultPacketLimit = 10;
constexpr int kDefaultTransferTimeoutMs = 60000;
constexpr int kDefaultReportIntervalMs = 500;
// On a slow link a batch also waits for this much content, or for this many intervals, so a
// download costs a few reports per MiB at any rate.
constexpr qint64 kReportBytes = 512 * 1024;
constexpr int kMaxQuietIntervals = 6;

// Transfers between their accepted answer and their end; main thread only.
int receivingTransfers = 0;

qint64 readBufferShare()
{
    return qBound(
        kMinReadBufferSize, kReadBudget / qMax(1, receivingTransfers), kMaxReadBufferSize);
}

// Commits run one at a time on the main thread, so one buffer serves every transfer. It is
// kept while any transfer receives: a fresh one per batch would fault in every page again.
QByteArray &scratchBuffer()
{
    static QByteArray buffer;
    return buffer;
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

// "bytes 100-199/200", "bytes 100-199/*" or "bytes */200"; first is -1 for the last form.
struct ContentRange {
    qint64 first = -1;
    qint64 total = -1;
};

bool parseContentRange(const QByteArray &header, ContentRange *range)
{
    const QByteArray value = header.trimmed();
    if (!value.startsWith("bytes "))
        return false;
    const QByteArray rangeText = value.mid(6).trimmed();
    const int slash = rangeText.indexOf('/');
    if (slash < 0)
        return false;
    const QByteArray span = rangeText.left(slash).trimmed();
    const QByteArray total = rangeText.mid(slash + 1).trimmed();
    bool ok = true;
    range->total = total == "*" ? -1 : total.toLongLong(&ok, 10);
    if (!ok || (total != "*" && range->total < 0))
        return false;
    if (span == "*") {
        range->first = -1;
        return range->total >= 0;
    }
    const int dash = span.indexOf('-');
    if (dash <= 0)
        return false;
    range->first = span.left(dash).toLongLong(&ok, 10);
    if (!ok || range->first < 0)
        return false;
    span.mid(dash + 1).toLongLong(&ok, 10);
    return ok;
}

// Answers worth asking again: the server is busy, overloaded or timed out.
bool isPassingStatus(int status)
{
    return status == 408 || status == 429 || status == 500 || status == 502 || status == 503
        || status == 504;
}

// Faults of the way, not of the address or the peer's identity: they may pass.
bool isPassingNetworkError(QNetworkReply::NetworkError error)
{
    switch (error) {
    case QNetworkReply::ConnectionRefusedError:
    case QNetworkReply::RemoteHostClosedError:
    case QNetworkReply::HostNotFoundError:
    case QNetworkReply::TimeoutError:
    case QNetworkReply::TemporaryNetworkFailureError:
    case QNetworkReply::NetworkSessionFailedError:
    case QNetworkReply::UnknownNetworkError:
    case QNetworkReply::ProxyConnectionRefusedError:
    case QNetworkReply::ProxyConnectionClosedError:
    case QNetworkReply::ProxyNotFoundError:
    case QNetworkReply::ProxyTimeoutError:
        return true;
    default:
        return false;
    }
}

bool isRedirectStatus(int status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}
} // namespace

// A new download is a stored one that has no file, no state and failure code 4 yet.
Download::Download(std::function<void(Download *)> reportChange,
    QNetworkAccessManager *networkManager, QString uniqueID, QString clientID, QString contentURL,
    QString name)
    : Download(std::move(reportChange), networkManager, uniqueID, clientID, name, contentURL,
        QString(), Undefined, 4, 0, 0, 0)
{
}

Download::Download(std::function<void(Download *)> reportChange,
    QNetworkAccessManager *networkManager, QString uniqueID, QString clientID, QString name,
    QString contentURL, QString filePath, unsigned state, unsigned failureCode, qint64 totalSize,
    qint64 amountDownloaded, qint64 startTime)
    : QObject(nullptr),
      reportChange(std::move(reportChange)),
      networkManager(networkManager),
      reply(nullptr),
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
    releaseReply();
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
    const bool receiving = state == Progressing;
    state = Paused;
    transfer().retry.cancel();
    if (receiving && !writeBuffered()) {
        failLocalFile();
        return true;
    }
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

    QNetworkRequest request { QUrl(contentURL) };
    // Offsets and sizes must count the resource's own bytes, never a compressed form.
    request.setRawHeader("Accept-Encoding", "identity");
    request.setAttribute(
        QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    // Our own stall timer, not the request's transfer timeout: that one also counts the time a
    // request waits for one of the few connections per host.
    transfer().stallTimer.stop();
    stallTimeoutMs = transferTimeoutMs();
    requestOffset = 0;
    if (amountDownloaded != 0) {
        if (prepareFile(amountDownloaded)) {
            request.setRawHeader("Range", "bytes=" + QByteArray::number(amountDownloaded) + '-');
            // Only the version our bytes came from may continue them; another one comes whole.
            if (!validator.isEmpty())
                request.setRawHeader("If-Range", validator);
            requestOffset = amountDownloaded;
        } else {
            amountDownloaded = 0;
        }
    }

    releaseReply();
    reportInterval = reportIntervalMs();
    verdict = ReplyVerdict::Unchecked;
    rangeTotal = -1;
    attemptSettled = false;
    bodyTooLong = false;
    RequestQueue::instance().enter(this, ownerUid, RequestQueue::originOf(contentURL),
        [this, request] { sendRequest(request); });
    state = Pending;
    report();
}

void Download::sendRequest(const QNetworkRequest &request)
{
    reply = networkManager->get(request);
    reply->setReadBufferSize(readBufferShare());
    // The reply's own signal: the shared manager's would call every download for every reply.
    connect(reply, &QNetworkReply::finished, this, [this, r = reply] { downloadFinished(r); });
    connect(reply, &QNetworkReply::sslErrors, this, &Download::sslErrors);
    connect(reply, &QNetworkReply::downloadProgress, this, &Download::downloadProgress);
    connect(reply, &QNetworkReply::readyRead, this, &Download::dataReadyRead);
    connect(reply, &QNetworkReply::metaDataChanged, this, &Download::replyMetaDataChanged);
    // On the wire from now (the queue hands over no more than the library has connections), and
    // silent until its whole header is in: a header that never ends, or a library too busy
    // reading it to say anything, stalls like a silent server. A redirect may queue again.
    restartStallTimer();
    connect(reply, &QNetworkReply::socketStartedConnecting, this, &Download::restartStallTimer);
    connect(reply, &QNetworkReply::requestSent, this, &Download::restartStallTimer);
    connect(reply, &QNetworkReply::redirected, &transfer().stallTimer, &QTimer::stop);
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
    attemptSettled = true;
    releaseReply();
}

void Download::releaseReply()
{
    setReceiving(false);
    RequestQueue::instance().leave(this);
    if (!reply)
        return;
    // Cut off first: the notifications abort() delivers at once are no news, and the reply must
    // never speak for this download again.
    QNetworkReply *old = reply;
    reply = nullptr;
    old->disconnect(this);
    if (old->isRunning())
        old->abort();
    old->deleteLater();
}

void Download::setReceiving(bool on)
{
    if (sharesBudget == on)
        return;
    sharesBudget = on;
    receivingTransfers += on ? 1 : -1;
    if (receivingTransfers == 0)
        scratchBuffer() = QByteArray();
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
    if (std::exchange(bodyTooLong, false)) {
        failContent(content.tooLong(content.expectedSize() + 1));
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

bool Download::saveToDisk(QByteArray data)
{
    OwnedFile &file = transfer().file;
    if (!file.isOpen()
        && !file.openFresh(filePath, ownerUid, &fileIdentity, privateFile ? 0600 : 0666))
        return false;
    if (data.isEmpty())
        return true;
    qint64 written = file.write(data);
    // A short write sets no error; writing the rest fails with the reason (a full disk, EFBIG).
    if (written >= 0 && written < data.size())
        written += qMax<qint64>(0, file.write(data.constData() + written, data.size() - written));
    return written == data.size();
}

bool Download::commitData()
{
    if (!writeBuffered())
        return false;
    report();
    return true;
}

bool Download::writeBuffered()
{
    // Copied through one reused buffer: a fresh array per batch would fault in every page again.
    qint64 committed = 0;
    if (reply) {
        // The reply takes up its share of the budget as transfers start and end, changed only
        // here: Qt learns a new bound before the reads that follow free the buffer, so it never
        // stops short under a bound the notifications no longer compare with.
        const qint64 share = readBufferShare();
        if (reply->readBufferSize() != share)
            reply->setReadBufferSize(share);
        QByteArray &scratch = scratchBuffer();
        if (scratch.size() != kScratchSize)
            scratch.resize(kScratchSize);
        qint64 n = 0;
        while ((n = reply->read(scratch.data(), scratch.size())) > 0) {
            // Never a byte past the expected size; every byte written feeds the digest.
            const qint64 at = amountDownloaded + committed, fits = content.room(at, n);
            if (!saveToDisk(QByteArray::fromRawData(scratch.constData(), fits))
                || !content.add(transfer().file.handle(), at, scratch.constData(), fits))
                return false;
            committed += fits;
            if (fits < n) {
                amountDownloaded += committed;
                bodyTooLong = true;
                return false;
            }
        }
    }
    if (committed == 0 && !saveToDisk(QByteArray()))
        return false;
    amountDownloaded += committed;
    return true;
}

void Download::sslErrors(const QList<QSslError> &errors)
{
    Q_UNUSED(errors);
}

void Download::downloadFinished(QNetworkReply *finished)
{
    if (!finished || finished != reply)
        return;
    transfer().stallTimer.stop();
    if (attemptSettled || state == Completed || state == Paused) {
        transfer().file.close();
        return;
    }
    const ReplyVerdict judged = checkReply(false);
    if (reply != finished || attemptSettled)
        return; // started over, rejected or settled by a range answer

    attemptSettled = true;
    if (judged != ReplyVerdict::Rejected && finished->error() == QNetworkReply::NoError) {
        // Also a body without a length ends here: its total is what it held.
        if (totalSize == 0)
            totalSize = amountDownloaded + finished->bytesAvailable();
        if (!writeBuffered()) {
            failLocalFile();
            return;
        }
        // A resumed file may hold stale bytes past the end of the content.
        if (transfer().file.size() > amountDownloaded)
            transfer().file.resize(amountDownloaded);
        if (const QString wrong = content.mismatch(transfer().file.handle(), amountDownloaded);
            !wrong.isEmpty()) {
            failContent(wrong);
            return;
        }
        transfer().file.close();
        releaseReply();
        state = Completed;
        report();
        return;
    }
    // What arrived before the fault is content: keep it, so the next attempt goes on from there.
    if (judged == ReplyVerdict::Accepted && !writeBuffered()) {
        failLocalFile();
        return;
    }
    endAttempt(FAILURE_NETWORK, finished->errorString(), isPassingNetworkError(finished->error()));
}

void Download::downloadProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    Q_UNUSED(bytesReceived);
    Q_UNUSED(bytesTotal);
    // The total comes from the accepted answer's header; the counts here may be a redirect's,
    // an error page's, or made up by the library when a reply without a length ends.
    if (attemptSettled || !reply || sender() != reply)
        return;
    restartStallTimer();
    checkReply(true);
}

void Download::dataReadyRead()
{
    if (attemptSettled || !reply || (sender() && sender() != reply))
        return;
    restartStallTimer();
    QNetworkReply *handled = reply;
    const ReplyVerdict judged = checkReply(true);
    if (reply != handled || attemptSettled || judged != ReplyVerdict::Accepted)
        return;

    // Qt stops filling the read buffer once the last block it handed over is at least as large
    // as the room left, so a buffer of small blocks may stop anywhere past its half, and no
    // notification follows until we read: from the half on, the batch is committed at once.
    if (reply->bytesAvailable() < reply->readBufferSize() / 2) {
        const qint64 quiet = sinceReport.elapsed();
        const qint64 fresh = amountDownloaded + reply->bytesAvailable() - reportedAmount;
        const qint64 longest = qint64(reportInterval) * kMaxQuietIntervals;
        if (packetLimit() > packetCount++ || quiet < reportInterval
            || (fresh < kReportBytes && quiet < longest)) {
            // Bytes received just before the link goes quiet are still counted in time.
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
    if (attemptSettled || !reply || verdict != ReplyVerdict::Accepted
        || reply->bytesAvailable() == 0)
        return;
    packetCount = 0;
    if (!commitData())
        failLocalFile();
}

void Download::replyMetaDataChanged()
{
    if (attemptSettled || !reply || sender() != reply)
        return;
    restartStallTimer();
    checkReply(true);
}

void Download::restartStallTimer()
{
    if (attemptSettled)
        return;
    // Re-arming a timer at every notification costs more than the notification itself on a slow
    // link: the running timer is left alone and checks the time of the last notification.
    lastActivity.start();
    if (!transfer().stallTimer.isActive())
        transfer().stallTimer.start(stallTimeoutMs);
}

void Download::transferStalled()
{
    if (attemptSettled || !reply)
        return;
    const qint64 quiet = lastActivity.elapsed();
    if (quiet < stallTimeoutMs) {
        transfer().stallTimer.start(int(stallTimeoutMs - quiet));
        return;
    }
    if (verdict == ReplyVerdict::Accepted && !writeBuffered()) {
        failLocalFile();
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

Download::ReplyVerdict Download::checkReply(bool redirectMayFollow)
{
    if (verdict != ReplyVerdict::Unchecked || !reply)
        return verdict;
    const QVariant attribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!attribute.isValid())
        return verdict; // no answer yet, or none at all: the network error decides
    const int status = attribute.toInt();
    httpStatus = status;
    // The network library follows it; judge the answer it ends on. One it could not follow
    // ends with the network error of the way there (a refused connection, say).
    if (isRedirectStatus(status)
        && (reply->error() != QNetworkReply::NoError
            || (redirectMayFollow && reply->hasRawHeader("Location"))))
        return verdict;

    ContentRange range;
    const bool hasRange = parseContentRange(reply->rawHeader("Content-Range"), &range);
    if (status == 206) {
        const bool sameContent = range.total < 0 || totalSize == 0 || range.total == totalSize;
        if (hasRange && range.first == requestOffset && sameContent) {
            rangeTotal = range.total;
            acceptReply(status);
        } else if (requestOffset > 0) {
            startOverWithoutRange(!sameContent);
        } else {
            rejectReply(status);
        }
        return verdict;
    }
    if (status >= 200 && status < 300) {
        if (requestOffset > 0) {
            const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
            restartInPlace(length.isValid() ? length.toLongLong() : -1);
        }
        acceptReply(status);
        return verdict;
    }
    if (status == 416 && requestOffset > 0 && hasRange && range.first < 0
        && range.total == requestOffset) {
        completeFromRangeAnswer(range.total);
        return verdict;
    }
    rejectReply(status);
    return verdict;
}

void Download::acceptReply(int status)
{
    // Bytes of an accepted answer are on their way: Progressing, with the total known now.
    verdict = ReplyVerdict::Accepted;
    const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
    const qint64 total = status == 206 ? rangeTotal : (length.isValid() ? length.toLongLong() : -1);
    if (const QString why = content.tooLong(total); !why.isEmpty()) {
        failContent(why);
        return;
    }
    // The answer the file's bytes start with names their version.
    if (requestOffset == 0)
        validator = ResumeValidator::fromAnswer(
            reply->rawHeader("ETag"), reply->rawHeader("Last-Modified"));
    state = Progressing;
    setReceiving(true);
    if (totalSize == 0 && total > 0) {
        totalSize = total;
        report();
    }
}

void Download::rejectReply(int status)
{
    // Neither an error page nor an unusable body may reach the file.
    verdict = ReplyVerdict::Rejected;
    const QString phrase = reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toString();
    QString reason = QStringLiteral("HTTP %1 %2").arg(status).arg(phrase);
    if (status < 400)
        reason += QStringLiteral(" is not a usable answer");
    endAttempt(FAILURE_HTTP_STATUS, reason, isPassingStatus(status),
        RetrySchedule::retryAfterMs(
            reply->rawHeader("Retry-After"), QDateTime::currentDateTimeUtc()));
}

void Download::completeFromRangeAnswer(qint64 completeLength)
{
    // The server has nothing past the bytes already on disk: the file is whole.
    verdict = ReplyVerdict::Settled;
    stopTransfer();
    if (transfer().file.isOpen() && transfer().file.size() > completeLength)
        transfer().file.resize(completeLength);
    if (const QString wrong = content.mismatch(transfer().file.handle(), completeLength);
        !wrong.isEmpty()) {
        failContent(wrong);
        return;
    }
    transfer().file.close();
    totalSize = completeLength;
    state = Completed;
    report();
}

void Download::startOverWithoutRange(bool contentChanged)
{
    // The partial answer does not continue our bytes; fetch the whole resource anew.
    releaseReply();
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

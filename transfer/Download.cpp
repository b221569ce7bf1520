#include "Download.h"

#include "DownloadManager.h"

#include <QDateTime>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QUrl>

namespace {
// Bounds the bytes a reply holds in memory; a full buffer is committed at once.
constexpr qint64 kReadBufferSize = 2 * 1024 * 1024;
// Size of the buffer that carries a batch from the reply to the file.
constexpr int kScratchSize = 256 * 1024;
constexpr int kDefaultPacketLimit = 10;
constexpr int kDefaultTransferTimeoutMs = 60000;

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

bool endsWithLibraryError(QNetworkReply *reply)
{
    return reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt() >= 400;
}

bool isRedirectStatus(int status)
{
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}
} // namespace

// A new download is a stored one that has no file, no state and failure code 4 yet.
Download::Download(DownloadManager *manager, QNetworkAccessManager *networkManager,
    QString uniqueID, QString clientID, QString contentURL, QString name)
    : Download(manager, networkManager, uniqueID, clientID, name, contentURL, QString(), Undefined,
        4, 0, 0, 0)
{
}

Download::Download(DownloadManager *manager, QNetworkAccessManager *networkManager,
    QString uniqueID, QString clientID, QString name, QString contentURL, QString filePath,
    unsigned state, unsigned failureCode, qint64 totalSize, qint64 amountDownloaded,
    qint64 startTime)
    : QObject(nullptr),
      manager(manager),
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

Download::~Download()
{
    if (reply)
        reply->deleteLater();
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

void Download::pause()
{
    if (state != Progressing)
        return;
    state = Paused;
    if (!commitData())
        state = Failed;
    abort();
}

void Download::resume()
{
    if (state == Paused || state == Failed)
        launch();
}

void Download::restart()
{
    if (state != Completed)
        return;
    abort();
    totalSize = 0;
    state = Pending;
    amountDownloaded = 0;
    launch();
}

void Download::launch()
{
    if (state == Completed)
        return;
    packetCount = 0;
    if (startTime == 0)
        startTime = QDateTime::currentMSecsSinceEpoch();

    QNetworkRequest request { QUrl(contentURL) };
    // Offsets and sizes must count the resource's own bytes, never a compressed form.
    request.setRawHeader("Accept-Encoding", "identity");
    request.setAttribute(
        QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setTransferTimeout(transferTimeoutMs());
    requestOffset = 0;
    if (amountDownloaded != 0) {
        if (prepareFile(amountDownloaded)) {
            request.setRawHeader("Range", "bytes=" + QByteArray::number(amountDownloaded) + '-');
            requestOffset = amountDownloaded;
        } else {
            amountDownloaded = 0;
        }
    }

    connect(networkManager, &QNetworkAccessManager::finished, this, &Download::downloadFinished,
        Qt::UniqueConnection);
    if (reply) {
        // The old reply must not speak for this download any more, even if it still runs.
        QNetworkReply *old = reply;
        reply = nullptr;
        old->disconnect(this);
        if (old->isRunning())
            old->abort();
        old->deleteLater();
    }
    reply = networkManager->get(request);
    reply->setReadBufferSize(kReadBufferSize);
    verdict = ReplyVerdict::Unchecked;
    rangeTotal = -1;
    connect(reply, &QNetworkReply::sslErrors, this, &Download::sslErrors);
    connect(reply, &QNetworkReply::downloadProgress, this, &Download::downloadProgress);
    connect(reply, &QNetworkReply::readyRead, this, &Download::dataReadyRead);
    connect(reply, &QNetworkReply::metaDataChanged, this, &Download::replyMetaDataChanged);

    state = Pending;
    report();
}

void Download::abort()
{
    if (!reply)
        return;
    aborting = true;
    reply->abort();
    aborting = false;
    disconnect(reply, &QNetworkReply::downloadProgress, this, &Download::downloadProgress);
    disconnect(reply, &QNetworkReply::readyRead, this, &Download::dataReadyRead);
    disconnect(reply, &QNetworkReply::metaDataChanged, this, &Download::replyMetaDataChanged);
    disconnect(networkManager, &QNetworkAccessManager::finished, this, &Download::downloadFinished);
}

bool Download::prepareFile(qint64 offset)
{
    if (!file.isOpen()) {
        file.setFileName(filePath);
        // Unbuffered: a committed byte is in the file before it is counted and stored.
        if (!file.open(QIODevice::ReadWrite | QIODevice::Unbuffered))
            return false;
    }
    if (file.size() < offset)
        return false;
    return file.seek(offset);
}

bool Download::saveToDisk(QByteArray data)
{
    if (!file.isOpen()) {
        file.setFileName(filePath);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Unbuffered))
            return false;
    }
    if (data.isEmpty())
        return true;
    return file.write(data) == data.size();
}

bool Download::commitData()
{
    // Copied through one reused buffer: a fresh array per batch would fault in every page again.
    qint64 committed = 0;
    if (reply) {
        if (scratch.size() != kScratchSize)
            scratch.resize(kScratchSize);
        qint64 n = 0;
        while ((n = reply->read(scratch.data(), scratch.size())) > 0) {
            if (!saveToDisk(QByteArray::fromRawData(scratch.constData(), n)))
                return false;
            committed += n;
        }
    }
    if (committed == 0 && !saveToDisk(QByteArray()))
        return false;
    amountDownloaded += committed;
    report();
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
    if (state == Completed)
        return;
    const ReplyVerdict judged = checkReply(false);
    if (reply != finished)
        return; // started over with a new request
    if (state == Completed)
        return; // settled by a range answer, file already closed

    if (judged != ReplyVerdict::Rejected && finished->error() == QNetworkReply::NoError) {
        state = Completed;
        if (commitData()) {
            // A resumed file may hold stale bytes past the end of the content.
            if (file.size() > amountDownloaded)
                file.resize(amountDownloaded);
        } else {
            state = Failed;
            abort();
        }
    } else if (state != Paused) {
        state = Failed;
        failureCode = 1;
    }
    file.close();
    scratch = QByteArray();
}

void Download::downloadProgress(qint64 bytesReceived, qint64 bytesTotal)
{
    Q_UNUSED(bytesReceived);
    // The last notification that abort() delivers is not progress: a pause stays a pause.
    if (aborting)
        return;
    bool totalKnown = true;
    if (reply && sender() == reply) {
        QNetworkReply *handled = reply;
        const ReplyVerdict judged = checkReply(true);
        if (reply != handled || judged == ReplyVerdict::Rejected || judged == ReplyVerdict::Settled)
            return;
        // Before the status is judged the size may be a redirect's or an error page's.
        totalKnown = judged == ReplyVerdict::Accepted;
    }
    state = Progressing;
    if (rangeTotal > 0)
        bytesTotal = rangeTotal;
    if (!totalKnown || bytesTotal < 1 || totalSize != 0)
        return;
    totalSize = bytesTotal;
    report();
}

void Download::dataReadyRead()
{
    if (!reply || (sender() && sender() != reply))
        return;
    QNetworkReply *handled = reply;
    const ReplyVerdict judged = checkReply(true);
    if (reply != handled)
        return;
    if (judged == ReplyVerdict::Rejected || judged == ReplyVerdict::Settled) {
        reply->skip(reply->bytesAvailable());
        return;
    }
    if (judged != ReplyVerdict::Accepted)
        return;

    const int limit = packetLimit();
    // A full read buffer stops the socket reads: commit it or the transfer stalls.
    if (limit > packetCount && reply->bytesAvailable() < kReadBufferSize) {
        ++packetCount;
        return;
    }
    packetCount = 0;
    if (!commitData()) {
        state = Failed;
        abort();
    }
}

void Download::replyMetaDataChanged()
{
    if (reply && sender() == reply)
        checkReply(true);
}

void Download::report()
{
    manager->updateDownload(this);
}

Download::ReplyVerdict Download::checkReply(bool redirectMayFollow)
{
    if (verdict != ReplyVerdict::Unchecked || !reply)
        return verdict;
    const QVariant attribute = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!attribute.isValid())
        return verdict; // no answer yet, or none at all: the network error decides
    const int status = attribute.toInt();
    if (redirectMayFollow && isRedirectStatus(status) && reply->hasRawHeader("Location"))
        return verdict; // the network library follows it; judge the answer it ends on

    ContentRange range;
    const bool hasRange = parseContentRange(reply->rawHeader("Content-Range"), &range);
    if (status == 206) {
        const bool sameContent = range.total < 0 || totalSize == 0 || range.total == totalSize;
        if (hasRange && range.first == requestOffset && sameContent) {
            rangeTotal = range.total;
            verdict = ReplyVerdict::Accepted;
        } else if (requestOffset > 0) {
            startOverWithoutRange(!sameContent);
        } else {
            rejectReply();
        }
        return verdict;
    }
    if (status >= 200 && status < 300) {
        if (requestOffset > 0) {
            const QVariant length = reply->header(QNetworkRequest::ContentLengthHeader);
            restartInPlace(length.isValid() ? length.toLongLong() : -1);
        }
        verdict = ReplyVerdict::Accepted;
        return verdict;
    }
    if (status == 416 && requestOffset > 0 && hasRange && range.first < 0
        && range.total == requestOffset) {
        completeFromRangeAnswer(range.total);
        return verdict;
    }
    rejectReply();
    return verdict;
}

void Download::rejectReply()
{
    // Neither an error page nor an unusable body may reach the file.
    verdict = ReplyVerdict::Rejected;
    state = Failed;
    failureCode = 1;
    // An error status is ended by the network library itself once its page is in; aborting
    // first would make it report a second error. Its body is dropped as it arrives.
    if (!endsWithLibraryError(reply))
        abort();
}

void Download::completeFromRangeAnswer(qint64 completeLength)
{
    // The server has nothing past the bytes already on disk: the file is whole.
    verdict = ReplyVerdict::Settled;
    if (file.isOpen() && file.size() > completeLength)
        file.resize(completeLength);
    file.close();
    if (totalSize == 0)
        totalSize = completeLength;
    state = Completed;
    report();
    // The library ends the answer with its own error; the rest of it is dropped.
}

void Download::startOverWithoutRange(bool contentChanged)
{
    // The partial answer does not continue our bytes; fetch the whole resource anew.
    QNetworkReply *old = reply;
    reply = nullptr;
    old->disconnect(this);
    old->abort();
    old->deleteLater();
    file.close();
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
    if (file.isOpen() && !(file.resize(0) && file.seek(0)))
        file.close(); // the first commit then truncates it
    if (newTotal > 0 && totalSize != 0 && newTotal != totalSize)
        totalSize = 0;
}

#include "Download.h"

#include "DlmLog.h"
#include "HttpTransfer.h"
#include "RateGovernor.h"
#include "RequestQueue.h"

#include <QDateTime>
#include <QUrl>

namespace dlm {

// A new download is a stored one that has no state and failure code 4 yet.
Download::Download(const DownloadContext &context, const QString &uniqueID, QString clientID,
    const QString &contentURL, const QString &name, const QString &filePath)
    : Download(context, RecordText::fromStrings(uniqueID, name, contentURL, filePath),
        std::move(clientID), Undefined, 4, 0, 0, 0)
{
}

Download::Download(const DownloadContext &context, RecordText text, QString clientID,
    unsigned state, unsigned failureCode, qint64 totalSize, qint64 amountDownloaded,
    qint64 startTime)
    : context(&context),
      clientID(std::move(clientID)),
      state(state),
      failureCode(failureCode),
      totalSize(totalSize),
      amountDownloaded(amountDownloaded),
      startTime(startTime),
      text(std::move(text))
{
    static quint64 created = 0;
    creationOrder = ++created;
}

Download::~Download()
{
    if (running)
        running->stop();
    else
        RequestQueue::instance().leave(this);
}

const Download::Details &Download::details() const
{
    static const Details none;
    return more ? *more : none;
}

Download::Details &Download::editDetails()
{
    if (!more)
        more = std::make_unique<Details>();
    return *more;
}

const char *Download::stateAsString() const
{
    switch (state) {
    case Completed:
        return "Completed";
    case Progressing:
        return "Progressing";
    case Paused:
        return "Paused";
    case Failed:
        return "Failed";
    case Pending:
        return "Pending";
    case Stalled:
        return "Stalled";
    default:
        return "Undefined";
    }
}

bool Download::pause()
{
    if (state != Progressing && state != Pending && state != Stalled)
        return false;
    // Every received byte is in the file already; the request ends (no connection is held).
    state = Paused;
    endTransfer();
    report();
    return true;
}

bool Download::resume()
{
    if (state != Paused && state != Failed)
        return false;
    if (running)
        running->resetRetries();
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
    launch();
}

void Download::launch()
{
    if (state == Completed)
        return;
    if (running || amountDownloaded != 0) {
        if (!running)
            running = std::make_unique<HttpTransfer>(*this, context->engine);
        running->start();
        return;
    }
    // Nothing on disk to check yet: the download waits for its slot as a plain record, and its
    // transfer is made once the slot is granted (thousands may wait at once).
    waitingForNetwork = false;
    if (startTime == 0)
        startTime = QDateTime::currentMSecsSinceEpoch();
    state = Pending;
    report();
    waitForSlot([this] {
        running = std::make_unique<HttpTransfer>(*this, context->engine);
        running->startGranted();
    });
}

void Download::waitForSlot(std::function<void()> granted)
{
    RequestQueue::instance().enter(this, ownerUid, RequestQueue::originOf(contentURL()),
        creationOrder, std::move(granted), details().priority);
}

void Download::abort()
{
    endTransfer();
}

void Download::endTransfer()
{
    if (!running) {
        RequestQueue::instance().leave(this); // waiting for a slot, if at all
        return;
    }
    running->stop();
    // Often called from inside the transfer (its last answer ended the download).
    running.release()->deleteLater();
}

qint64 Download::nextAttemptTime() const
{
    return state == Stalled && running ? running->nextAttemptTime() : 0;
}

qint64 Download::bytesPerSecond() const
{
    return state == Progressing && running ? running->rate() : 0;
}

bool Download::onTheWire() const
{
    return running && running->onTheWire();
}

void Download::setRateLimit(qint64 bytesPerSecond)
{
    editDetails().rateLimit = bytesPerSecond;
    if (context->governor)
        context->governor->setOwnLimit(this, bytesPerSecond);
    report();
}

void Download::setPriority(int newPriority)
{
    editDetails().priority = newPriority;
    RequestQueue::instance().setPriority(this, newPriority);
    report();
}

void Download::report()
{
    if (context->reportChange)
        context->reportChange(this);
}

void Download::networkChanged()
{
    if (!waitsForNetwork() || !context->hasRoute || !context->hasRoute(QUrl(contentURL()).host()))
        return;
    DLM_LOGI("Download %s: its host has a route again", uniqueID().toUtf8().constData());
    launch();
}

} // namespace dlm

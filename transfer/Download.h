#pragma once

#include "ContentCheck.h"
#include "FileIdentity.h"
#include "IDownload.h"
#include "RecordText.h"

#include <QByteArray>
#include <QString>

#include <functional>
#include <memory>

namespace dlm {

class CurlEngine;
class HttpTransfer;
class RateGovernor;
class Download;

// What every download of one owner shares: who hears of its changes and what runs it. Held once
// by the owner rather than by each of many stored records.
struct DownloadContext {
    std::function<void(Download *)> reportChange; // may be empty
    CurlEngine *engine = nullptr;
    RateGovernor *governor = nullptr; // holds requests to their rates; may stay null
    // Whether the device has a route to a host (name or number) now; empty when routes are not
    // watched. A network fault while there is none waits for the network, spending no retry.
    std::function<bool(const QString &host)> hasRoute;
    // Consecutive attempts without new bytes after which a passing fault fails a download; -1:
    // the schedule's default.
    int maxRetries = -1;
};

// One file fetched over HTTP for a client: the record that is stored, listed and shown, and its
// state machine. Most stored downloads never run again in a session, so a record is plain data;
// a running one also has an HttpTransfer, made once its first request may go out (or at launch
// when its file holds bytes already) and freed once the download is Completed, Failed or Paused.
// Lives on the main thread; every change worth storing or announcing is reported through the
// reportChange callback it is given.
class Download {
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
    Download(const DownloadContext &context, const QString &uniqueID, QString clientID,
        const QString &contentURL, const QString &name, const QString &filePath);
    // A download restored from its stored record, values taken as they are.
    Download(const DownloadContext &context, RecordText text, QString clientID, unsigned state,
        unsigned failureCode, qint64 totalSize, qint64 amountDownloaded, qint64 startTime);
    ~Download();
    Download(const Download &) = delete;
    Download &operator=(const Download &) = delete;

    const char *stateAsString() const;

    // Pending, Progressing and Stalled downloads pause; their request or retry is dropped.
    // Paused and Failed ones resume. False when the state does not allow it.
    bool pause();
    bool resume();
    void restart();

    // Start or continue the transfer from amountDownloaded; ignored once Completed.
    void launch();
    // Stop the current transfer and any pending retry; the download keeps its record.
    void abort();

    // While Stalled: the next attempt's time in ms since the epoch; otherwise 0.
    qint64 nextAttemptTime() const;
    // While Progressing: bytes per second over the last second or more of reports; otherwise 0.
    qint64 bytesPerSecond() const;
    // Whether a request of this download is on the wire or waits for a connection.
    bool onTheWire() const;

    // Stalled with no retry pending until its host has a route again.
    bool waitsForNetwork() const { return state == Stalled && waitingForNetwork; }
    // Routes changed: a download waiting for the network launches once its host has a route.
    void networkChanged();
    // Its own limit and its priority (see rateLimit), reaching a running transfer at once.
    void setRateLimit(qint64 bytesPerSecond);
    void setPriority(int newPriority);

    // Shared by every download of its owner, and outlives them.
    const DownloadContext *context;

    // Its texts, fixed when it is made.
    QString uniqueID() const { return text[RecordText::Id]; }
    QString name() const { return text[RecordText::Name]; }
    QString contentURL() const { return text[RecordText::Url]; }
    QString filePath() const { return text[RecordText::Path]; }
    // Whether a text of it is this UTF-8 text: a search compares without making strings.
    bool has(RecordText::Part part, QByteArrayView utf8) const { return text.view(part) == utf8; }
    QByteArrayView utf8(RecordText::Part part) const { return text.view(part); }
    // Shared with the other downloads of its client where it can be.
    QString clientID;
    unsigned state;
    unsigned failureCode;
    qint64 totalSize;
    qint64 amountDownloaded;
    qint64 startTime;
    // Who created it (root for the console and for rows stored before owners were kept): its
    // file is opened and removed with this user's file-system identity.
    uint ownerUid = 0;
    // Created 0600 rather than by the umask: it is not in a directory its owner chose. (Beside
    // the uid, where it costs no bytes of a record.)
    bool privateFile = false;

private:
    // Beside the uid as well: a record of 120 bytes takes a 128-byte heap chunk, one of 136 a
    // chunk of 144, 1.6 MB more with 100,000 stored.
    bool waitingForNetwork = false;

public:
    // The file this download created; only that file is opened again, emptied or removed.
    FileIdentity fileIdentity;
    // What most stored downloads never have, kept apart so that they cost one pointer.
    struct Details {
        // Why the last attempt failed or stalled (the text of its log line); stays, as
        // failureCode.
        QString failureReason;
        // Status of the last HTTP answer; 0 when none came.
        int httpStatus = 0;
        // Its own limit in bytes per second (0: none) and its place among waiting requests
        // (higher first); both stored.
        int priority = 0;
        qint64 rateLimit = 0;
        // Blocks of body received in this process, counted as MAX_PACKET_COUNT counts them.
        qint64 dataArrivals = 0;
        // Sent as If-Range with every Range (see ResumeValidator); empty when the answer had
        // none.
        QByteArray validator;
        // The size and SHA-256 its creator expects, checked as the bytes are written and at the
        // end.
        ContentCheck content;
    };
    // Reading shares one empty Details among all that have none; editing makes its own.
    const Details &details() const;
    Details &editDetails();
    // Place among the downloads of this process, in order of creation (or restore).
    quint64 creationOrder = 0;

private:
    friend class HttpTransfer;
    // Tells reportChange; the transfer calls it after each change it makes.
    void report();
    // Enters the request queue under this download's address, owner, origin, order and
    // priority; granted runs once a slot is free for it.
    void waitForSlot(std::function<void()> granted);
    // The download is Completed, Failed or Paused: its transfer goes (once its current call
    // has returned).
    void endTransfer();

    RecordText text;
    std::unique_ptr<Details> more;
    std::unique_ptr<HttpTransfer> running;
};

} // namespace dlm

#pragma once

#include "AccessPolicy.h"
#include "DatabaseHome.h"
#include "Download.h"
#include "DownloadDirectories.h"
#include "DownloadRules.h"
#include "FrontEnd.h"
#include "Outcome.h"
#include "RateLimits.h"
#include "ServiceSettings.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QString>
#include <QTimer>

#include <functional>

namespace dlm {

class Download;
class CurlEngine;
class NetworkWatch;
class RateGovernor;

// The centre of the service. Owns the downloads, the client front ends, the database, the
// download directories and the one network access manager all transfers share. Lives on the
// main thread; the IPC front end reaches it through its MainThreadQueue.
//
// Callers are named by uid. Uid 0 (root, the console, the service's own user) sees and controls
// every download; any other uid sees and controls only the downloads it created ("all" is all of
// its own; another's is "not found"), writes only into directories it may write itself, and
// has its own directory per client identifier.
class DownloadManager : public QObject {
    Q_OBJECT

public:
    // Builds the front ends once the directories are known and before stored downloads come
    // back; an empty one builds none (addClient() adds them later).
    using FrontEndFactory = std::function<QList<FrontEnd *>(DownloadManager *)>;
    explicit DownloadManager(const FrontEndFactory &frontEnds = {});
    // Reads its settings from settingsPath instead of the file next to the executable.
    explicit DownloadManager(const QString &settingsPath, const FrontEndFactory &frontEnds = {});
    ~DownloadManager() override;

    // True when another service holds the database directory: this manager then made nothing
    // (no clients, no database, no downloads) and the process must end.
    bool startRefused() const { return refused; }

    // The statuses of the refusable calls below (each an Outcome); the values are those the IPC
    // interface sends.
    using CreateStatus = dlm::CreateStatus;
    using PathStatus = DownloadDirectories::PathStatus;
    using SpaceStatus = dlm::SpaceStatus;
    using ControlStatus = dlm::ControlStatus;

    // Registers one more front end after construction; the manager owns it from then on.
    void addClient(FrontEnd *client);

    // Stops the service: destroys the clients, then the downloads, then the database, and leaves
    // the event loop. The caller may be one of the clients; it is gone when this returns.
    void quit();

    // Creation, paths and space. A new download gets an identifier no other download has (a
    // given one that is in use, in memory or stored, is refused) and a file path that no live
    // download holds and no file has; *createdID receives the identifier. It belongs to
    // ownerUid; a uid other than 0 that already has "max_downloads_per_user" is refused, and so
    // is an expectation ContentCheck::refusal() rejects, or a rate or priority out of bounds
    // (BadArgument).
    Outcome<CreateStatus> createDownload(const QString &clientID, const QString &url,
        const QString &uniqueID, const QString &name, QString *createdID = nullptr,
        uint ownerUid = 0, const ExpectedContent &expected = {}, const RateAndPriority &order = {});
    // A stored record comes back as it was, unless its URL is not http(s) or its path not one
    // these rules give: that one is logged and stays Failed, never launched nor resumed.
    void restoreDownload(const StoredRecord &record);
    // Stores an existing absolute directory (a leading "~/" is the home directory) for the
    // client of that uid, in memory and in the database, in canonical form (realpath); anything
    // else is refused and changes nothing. It is resolved as that uid, so below a directory the
    // uid may not search every path is NotPermitted. A uid other than 0 must be able to write
    // and search the directory itself, and may not set "DEFAULT_CLIENT_ID" (NotPermitted). A
    // directory the service itself cannot write now (read-only file system, outside its
    // sandbox's writable paths) is NotWritable.
    Outcome<PathStatus> setDownloadPath(
        const QString &clientID, const QString &path, uint ownerUid = 0);
    // Gives the client this directory, in memory only, unless it has one already.
    void ensureDownloadPath(const QString &clientID, const QString &path, uint ownerUid = 0);
    // The uid's directory for the client, else the default one (root's "DEFAULT_CLIENT_ID").
    QString getDownloadPath(const QString &clientID, uint ownerUid = 0);
    // Only Progressing downloads on the same file system as the client's directory reserve space.
    Outcome<SpaceStatus> checkDownloadPossible(
        const QString &clientID, long long size, uint callerUid = 0);

    // Control, removal and queries, limited to what callerUid may see (see the class comment).
    // "all" is Done whatever each download's state.
    Outcome<ControlStatus> pauseDownload(const QString &uniqueID, uint callerUid = 0);
    Outcome<ControlStatus> resumeDownload(const QString &uniqueID, uint callerUid = 0);
    void restartDownload(const QString &uniqueID);
    // Rates and order: a download's own limit and priority as pause does ("all" is not one),
    // and with "all" the overall limit, which only root sets, as it switches the background
    // mode (NotPermitted). A value out of RateLimits' bounds is BadValue. Nothing changes
    // unless Done.
    Outcome<ControlStatus> setRateLimit(
        const QString &uniqueID, qint64 bytesPerSecond, uint callerUid = 0);
    Outcome<ControlStatus> setPriority(const QString &uniqueID, int priority, uint callerUid = 0);
    Outcome<ControlStatus> setBackgroundMode(bool on, uint callerUid = 0);
    Download *getDownload(const QString &uniqueID, uint callerUid = 0);
    QList<Download *> getDownloadList(const QString &clientID, uint callerUid = 0);
    // Removal deletes the file of a download that is not Completed (as its owner), and the
    // stored row; a row the database keeps is logged, and the download leaves memory all the same.
    Outcome<ControlStatus> removeDownload(const QString &uniqueID, uint callerUid = 0);
    void removeAllDownloads();

    // Commits every change reported so far and lets the front ends send what they told of it;
    // otherwise that happens at the next turn of the event loop.
    void settleReports();

    // True once quit() has started: nothing may reach the downloads or clients any more.
    bool isQuitting() const { return quitting; }

public slots:
    void execute();

private:
    // The change hub, which every download reports to: marks the record to be stored and
    // announces the change to every client in list order. A change of state is committed with
    // the others of its turn before any client sends what it told of it; progress alone goes out
    // at once and is written behind.
    void updateDownload(Download *download);
    // Lets the front ends send what they told: every change in it is stored.
    void releaseReports();
    void loadDownloadPaths();
    Download *find(const QString &uniqueID) const;
    // Runs act on the caller's download, or with "all" on each of the caller's (then Done
    // whatever each answers); the answer for one download is logged, what by its name when done.
    Outcome<ControlStatus> control(const QString &uniqueID, uint callerUid, const char *what,
        const std::function<Outcome<ControlStatus>(Download *)> &act);
    bool identifierInUse(const QString &uniqueID) const;
    // The stored downloads' paths are reserved at the first new name, not at the start: a start
    // that only lists them need not hash every path.
    void reserveStoredPaths();
    // Aborts, unstores and destroys a download that is no longer in the list.
    void discard(Download *download);
    // Tells the downloads that wait for the network that routes changed.
    void networkChanged();
    // Once no download is on the wire: drops idle connections and the database's cache, and
    // gives freed heap back to the system, so a burst does not stay resident.
    void releaseIdleMemory();

    CurlEngine *engine;
    // The kernel's routes; a download that lost its route waits for a change here.
    std::unique_ptr<NetworkWatch> network;
    RateGovernor *governor;
    // What every download shares; "max_retries" is its maxRetries.
    DownloadContext context;
    QList<Download *> downloads;
    bool storedPathsReserved = false;
    QList<FrontEnd *> clients;
    DatabaseHome databaseHome; // holds the database directory while the database is open
    std::unique_ptr<DownloadDataBase> database; // null: no persistence
    DownloadDirectories directories;
    ServiceSettings settings;
    // Setting "max_downloads_per_user": downloads one uid other than 0 may have at a time.
    AccessPolicy access;
    RateLimits rates;
    // Runs releaseIdleMemory() a moment after the last download stopped.
    QTimer idleTimer;
    // Runs settleReports() at the next turn once a reported change waits for its commit.
    QTimer settleTimer;
    quint64 discards = 0; // downloads destroyed so far: a walk over a copy of the list checks it
    bool refused = false;
    bool quitting = false;
};

} // namespace dlm

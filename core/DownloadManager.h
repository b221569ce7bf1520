#pragma once

#include "DirectoryLock.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QPair>
#include <QSet>
#include <QString>

#include <functional>

class DLBaseClient;
class Download;
class DownloadDataBase;
class QNetworkAccessManager;
class QSettings;

// The centre of the service. Owns the downloads, the client front ends, the database, the table
// of per-client download directories and the one network access manager all transfers share.
// Lives on the main thread; other threads reach it only through createDownloadEvent() and
// actionDownloadEvent(), which post events to it.
class DownloadManager : public QObject
{
    Q_OBJECT

public:
    DownloadManager();
    // Reads its settings from settingsPath instead of the file next to the executable.
    explicit DownloadManager(const QString &settingsPath);
    ~DownloadManager() override;

    // True when another service holds the database directory: this manager then made nothing
    // (no clients, no database, no downloads) and the process must end.
    bool startRefused() const { return refused; }

    // Answers of createDownload; the values are those the IPC interface sends.
    enum class CreateStatus { Created = 0, BadUrl = 1, IdInUse = 2, BadArgument = 3, Refused = 4 };
    // Answers of setDownloadPath; the values are those the IPC interface sends.
    enum class PathStatus { Set = 0, NotAbsolute = 1, NotADirectory = 2 };

    void loadSettings();
    // Registers one more front end after construction; the manager owns it from then on.
    void addClient(DLBaseClient *client);
    QString getSettingsValue(const QString &key, const QString &defaultValue);

    // Stops the service: destroys the clients, then the downloads, then the database, and leaves
    // the event loop. The caller may be one of the clients; it is gone when this returns.
    void quit();

    // Creation, paths and space. A new download gets an identifier no other download has (a
    // given one that is in use, in memory or stored, is refused) and a file path that no live
    // download holds and no file has; *createdID receives the identifier.
    CreateStatus createDownload(const QString &clientID, const QString &url,
                                const QString &uniqueID, const QString &name,
                                QString *createdID = nullptr);
    void createDownload(const QString &uniqueID, const QString &clientID, const QString &name,
                        const QString &contentURL, const QString &filePath, unsigned int state,
                        unsigned int failureCode, long long totalSize, long long amountDownloaded,
                        long long startTime);
    // 32 lowercase hexadecimal characters, different on every call.
    QString getUniqueID(const QString &url);
    QString getFileName(const QString &clientID, const QString &url);
    // Stores an existing absolute directory (a leading "~/" is the home directory) for the
    // client, in memory and in the database; anything else is refused and changes nothing.
    PathStatus setDownloadPath(const QString &clientID, const QString &path, uint ownerUid = 0);
    // Gives the client this directory, in memory only, unless it has one already.
    void ensureDownloadPath(const QString &clientID, const QString &path, uint ownerUid = 0);
    QString getDownloadPath(const QString &clientID, uint ownerUid = 0);
    // Only Progressing downloads on the same file system as the client's directory reserve space.
    int checkDownloadPossible(const QString &clientID, long long size);

    // Control, removal and queries.
    void pauseDownload(const QString &uniqueID);
    void resumeDownload(const QString &uniqueID);
    void restartDownload(const QString &uniqueID);
    void abortDownload(const QString &uniqueID);
    // The change hub: stores the record, then announces it to every client in list order.
    void updateDownload(Download *download);
    Download *getDownload(const QString &uniqueID);
    QList<Download *> getDownloadList(const QString &clientID);
    // Removal deletes the file of a download that is not Completed, and the stored row; a row
    // the database keeps is logged, and the download leaves memory all the same.
    bool removeDownload(const QString &uniqueID);
    void removeAllDownloads();

    // Safe from any thread: they only post an event to the manager.
    void createDownloadEvent(const QString &clientID, const QString &url, const QString &uniqueID,
                             const QString &name);
    void actionDownloadEvent(const QString &uniqueID, int action);

    // Free bytes of the file system holding a directory, -1 when unknown. Empty: DLTools is
    // asked. Tests put a fixed figure here to check the space arithmetic.
    std::function<long long(const QString &directory)> freeSpaceProbe;

    // True once quit() has started: nothing may reach the downloads or clients any more.
    bool isQuitting() const { return quitting; }

public slots:
    void execute();

protected:
    void customEvent(QEvent *event) override;

private:
    using PathKey = QPair<uint, QString>; // owner uid, client id

    void createClients();
    void loadDownloadPaths();
    Download *find(const QString &uniqueID) const;
    bool identifierInUse(const QString &uniqueID) const;
    // Aborts, unstores and destroys a download that is no longer in the list.
    void discard(Download *download);
    // Builds the IPC front end (not yet published).
    DLBaseClient *createBinderClient();

    QNetworkAccessManager *networkManager;
    QList<Download *> downloads;
    QList<DLBaseClient *> clients;
    DownloadDataBase *database;
    QHash<PathKey, QString> downloadPaths;
    // File paths of the live downloads, so that a new download never shares one.
    QSet<QString> reservedPaths;
    QSettings *settings;
    QString settingsPath;
    // Setting "max_retries": attempts a download makes after a passing fault without new bytes.
    int maxRetries;
    DirectoryLock databaseLock;
    bool refused = false;
    bool quitting = false;
};

#pragma once

#include <QHash>
#include <QList>
#include <QObject>
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

    void loadSettings();
    // Registers one more front end after construction; the manager owns it from then on.
    void addClient(DLBaseClient *client);
    QString getSettingsValue(const QString &key, const QString &defaultValue);

    // Stops the service: destroys the clients, then the downloads, then the database, and leaves
    // the event loop. The caller may be one of the clients; it is gone when this returns.
    void quit();

    // Creation, paths and space.
    void createDownload(const QString &clientID, const QString &url, const QString &uniqueID,
                        const QString &name);
    void createDownload(const QString &uniqueID, const QString &clientID, const QString &name,
                        const QString &contentURL, const QString &filePath, unsigned int state,
                        unsigned int failureCode, long long totalSize, long long amountDownloaded,
                        long long startTime);
    QString getUniqueID(const QString &url);
    QString getFileName(const QString &clientID, const QString &url);
    void setDownloadPath(const QString &clientID, const QString &path);
    QString getDownloadPath(const QString &clientID);
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
    void createClients();
    // Builds the IPC front end (not yet published).
    DLBaseClient *createBinderClient();

    QNetworkAccessManager *networkManager;
    QList<Download *> downloads;
    QList<DLBaseClient *> clients;
    DownloadDataBase *database;
    QHash<QString, QString> downloadPaths;
    QSettings *settings;
    QString settingsPath;
    // Setting "max_retries": attempts a download makes after a passing fault without new bytes.
    int maxRetries;
    bool quitting = false;
};

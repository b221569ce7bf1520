#pragma once

#include <QList>
#include <QSqlDatabase>
#include <QString>
#include <QVariant>

class Download;
class DownloadManager;
class QSqlQuery;

// The "downloads" table in SQLite, one row per download with its owner's uid (a column added in
// place to older files, their rows read as root's), and the "download_paths" table, one
// directory per (owner uid, client id), on Qt's default connection. Main thread only. Every
// failure is a false result (and one ERROR line in the platform log).
class DownloadDataBase {
public:
    struct StoredPath {
        uint ownerUid;
        QString clientID;
        QString path;
    };

    DownloadDataBase(DownloadManager *manager, const QString &path);
    ~DownloadDataBase();

    bool open(const QString &path);
    void close();
    bool isTableInDB();
    bool isDBEntryAvailable(const QString &uniqueID);
    bool addEntry(Download *download);
    bool updateEntry(Download *download);
    bool deleteEntry(Download *download);
    // Hands every stored row to the manager's restore form of createDownload, in stored order.
    void getDownloadList();
    void clear();

    // Adds or replaces the directory of one client.
    bool storeDownloadPath(uint ownerUid, const QString &clientID, const QString &path);
    QList<StoredPath> downloadPaths();

private:
    // Switches the open file to write-ahead logging with normal syncing; false when refused.
    bool useWriteAheadLog();
    // Prepares statement on the default connection and runs it; logs the driver's message.
    bool run(QSqlQuery &query, const QString &statement, const QVariantList &values);

    QSqlDatabase db;
    DownloadManager *manager;
};

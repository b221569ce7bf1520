#pragma once

#include <QSqlDatabase>
#include <QString>

class Download;
class DownloadManager;

// The "downloads" table in SQLite, one row per download, on Qt's default connection.
// Main thread only. Every failure is a false result (and one ERROR line in the platform log).
class DownloadDataBase
{
public:
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

private:
    QSqlDatabase db;
    DownloadManager *manager;
};

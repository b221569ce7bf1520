#pragma once

#include "StoredRecord.h"

#include <QHash>
#include <QList>
#include <QSet>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>
#include <QTimer>
#include <QVariant>

#include <functional>
#include <vector>

struct sqlite3;

namespace dlm {

// The "downloads" table in SQLite, one row per download with its owner's uid (a column added in
// place to older files, their rows read as root's), and the "download_paths" table, one
// directory per (owner uid, client id), and the "download_extra" table, the per-download values
// "downloads" has no column for (the identity of the file it created, the resource's validator,
// the size and SHA-256 its creator expects, the last failure's reason and HTTP status, its rate
// limit and priority), on Qt's default connection; PRAGMA user_version counts the schema's
// migrations. Main thread only. Every failure is a false result (and one ERROR line in the platform
// log).
//
// Reports are written behind: store() marks a row changed and every changed row is written in
// one transaction by flush(), at the latest at the next turn of the event loop, so a burst of
// reports costs one commit. store() says when a change must be committed before it is told (a
// new state or file), and close() writes whatever is still pending. A row is only ever written
// from what the download has already put in its file.
//
// The database holds no download: it names each by the key its owner gives (a RowKey, compared
// only) and reads the download's values through the reader when it writes the row.
class DownloadDataBase {
public:
    using RowKey = const void *;
    using RowReader = std::function<StoredRecord(RowKey)>;

    struct StoredPath {
        uint ownerUid;
        QString clientID;
        QString path;
    };

    DownloadDataBase(const QString &path, RowReader reader);
    ~DownloadDataBase();

    bool open(const QString &path);
    void close();
    bool isDBEntryAvailable(const QString &uniqueID);
    bool addEntry(const StoredRecord &record);
    bool updateEntry(const StoredRecord &record);
    // Also drops what is pending for the download.
    bool deleteEntry(RowKey row, const QString &uniqueID);
    // Marks the download's row to be added or updated with every other pending row. True when
    // its state or its file is not the one last written: flush() before the change is told.
    bool store(RowKey row);
    // Writes every pending row in one transaction.
    bool flush();
    // Gives back the page cache SQLite holds for this connection.
    void releaseMemory();
    // Hands every stored record to restore, in stored order, each before the next is read (a
    // restored download may write its row on this connection first).
    void forEachStored(const std::function<void(const StoredRecord &)> &restore);

    // Adds or replaces the directory of one client.
    bool storeDownloadPath(uint ownerUid, const QString &clientID, const QString &path);
    QList<StoredPath> downloadPaths();

private:
    bool isTableInDB();
    // SQLite's own handle of the open connection; null when there is none.
    sqlite3 *nativeHandle();
    // The download is about to be destroyed: nothing of it is written any more.
    void forget(RowKey row);
    // Switches the open file to write-ahead logging with normal syncing; false when refused.
    bool useWriteAheadLog();
    // Prepares statement on the default connection and runs it; logs the driver's message.
    bool run(QSqlQuery &query, const QString &statement, const QVariantList &values);
    bool prepare(QSqlQuery &query, const QString &statement);
    // Runs a statement prepared once for the connection with these values.
    bool exec(QSqlQuery &query, const QString &statement, const QVariantList &values);
    bool write(RowKey row);
    // The tables of the oldest schema, where the file has none yet; false when it cannot be.
    bool createTables();
    // Brings an older file's schema up to this version; false when it cannot be.
    bool migrate();

    QSqlDatabase db;
    RowReader read;
    // Kept prepared for the connection: every report and every new identifier uses them.
    QSqlQuery upsert;
    QSqlQuery exists;
    // Downloads whose row is behind, and the state last written for each stored download.
    QSet<RowKey> pending;
    std::vector<RowKey> pendingOrder; // of marking; may still name a forgotten row
    QHash<RowKey, unsigned> writtenState;
    QHash<RowKey, FileIdentity> writtenIdentity;
    QHash<RowKey, QByteArray> writtenValidator; // only of downloads that had one
    QHash<RowKey, QString> writtenReason; // only those with a reason
    QHash<RowKey, QPair<qint64, int>> writtenTuning; // only those with a limit or priority

    QSqlQuery extra;
    QTimer flushTimer;
};

} // namespace dlm

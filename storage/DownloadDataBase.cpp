#include "DownloadDataBase.h"

#include "DlmLog.h"

#include <QScopeGuard>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>

#include <sqlite3.h>

#include <cstring>

#include <utility>

namespace dlm {

namespace {
// A record's UTF-8 text, bound as text: a byte array would be stored as a blob.
QVariant text(const QByteArray &utf8)
{
    return QString::fromUtf8(utf8);
}

const QString kTable = QStringLiteral("downloads");
const QString kPathsTable = QStringLiteral("download_paths");
// Columns a request sets once (client, URL, file, start, owner) are never rewritten.
const QString kUpsert = QStringLiteral(
    "INSERT INTO downloads (uniqueID, clientID, name, contentURL, filePath, state, failureCode, "
    "totalSize, amountDownloaded, startTime, ownerUid) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?) "
    "ON CONFLICT(uniqueID) DO UPDATE SET state = excluded.state, name = excluded.name, "
    "failureCode = excluded.failureCode, totalSize = excluded.totalSize, "
    "amountDownloaded = excluded.amountDownloaded");
const QString kExtra = QStringLiteral(
    "INSERT OR REPLACE INTO download_extra (uniqueID, fileDevice, fileInode, validator, "
    "expectedSize, expectedSha256, failureReason, httpStatus, rateLimit, priority) VALUES (?, ?, "
    "?, "
    "?, ?, ?, ?, ?, ?, ?)");
constexpr int kSchemaVersion = 4;
const QString kExists = QStringLiteral("SELECT 1 FROM downloads WHERE uniqueID = ?");

} // namespace

DownloadDataBase::DownloadDataBase(const QString &path, RowReader reader) : read(std::move(reader))
{
    flushTimer.setSingleShot(true);
    flushTimer.setInterval(0);
    QObject::connect(&flushTimer, &QTimer::timeout, [this] { flush(); });
    open(path);
}

DownloadDataBase::~DownloadDataBase()
{
    close();
}

bool DownloadDataBase::open(const QString &path)
{
    db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"));
    db.setDatabaseName(path);
    if (!db.open()) {
        DLM_LOGE("Unable to open database %s: %s", qUtf8Printable(path),
            qUtf8Printable(db.lastError().text()));
        return false;
    }
    // A file that is no database stays untouched; later calls find a closed connection instead
    // of failing (and logging) on every report.
    if (!createTables() || !migrate()) {
        close();
        return false;
    }
    useWriteAheadLog();
    // Rows are written and read in order: a small page cache costs nothing, 2 MiB stays resident.
    QSqlQuery cache;
    run(cache, QStringLiteral("PRAGMA cache_size=-256"), {});
    upsert = QSqlQuery(db);
    exists = QSqlQuery(db);
    extra = QSqlQuery(db);
    exists.setForwardOnly(true);
    if (!prepare(upsert, kUpsert) || !prepare(exists, kExists) || !prepare(extra, kExtra)) {
        close();
        return false;
    }
    return true;
}

bool DownloadDataBase::createTables()
{
    if (!isTableInDB()) {
        QSqlQuery query;
        if (!run(query,
                QStringLiteral("CREATE TABLE ") + kTable
                    + QStringLiteral(" (uniqueID TEXT UNIQUE ON CONFLICT REPLACE, clientID TEXT, "
                                     "name TEXT, contentURL TEXT, filePath TEXT, state NUMERIC, "
                                     "failureCode NUMERIC, totalSize NUMERIC, amountDownloaded "
                                     "NUMERIC, startTime NUMERIC, ownerUid INTEGER NOT NULL "
                                     "DEFAULT 0);"),
                {})) {
            return false;
        }
    } else if (!db.record(kTable).contains(QStringLiteral("ownerUid"))) {
        // Rows stored before owners were kept belong to root.
        QSqlQuery query;
        if (!run(query,
                QStringLiteral("ALTER TABLE ") + kTable
                    + QStringLiteral(" ADD COLUMN ownerUid INTEGER NOT NULL DEFAULT 0"),
                {})) {
            return false;
        }
    }
    QSqlQuery paths;
    return run(paths,
        QStringLiteral("CREATE TABLE IF NOT EXISTS ") + kPathsTable
            + QStringLiteral(" (ownerUid INTEGER NOT NULL, clientID TEXT NOT NULL, "
                             "path TEXT NOT NULL, PRIMARY KEY (ownerUid, clientID))"),
        {});
}

bool DownloadDataBase::migrate()
{
    QSqlQuery query;
    if (!run(query, QStringLiteral("PRAGMA user_version"), {}))
        return false;
    const int version = query.next() ? query.value(0).toInt() : 0;
    query.finish();
    if (version >= kSchemaVersion)
        return true;
    // Each version's step in one transaction: a file is at one version or the next, never between.
    const QStringList steps[] = {
        // 1: the identity of each download's file. Rows without one are older downloads.
        { QStringLiteral("CREATE TABLE IF NOT EXISTS download_extra (uniqueID TEXT PRIMARY KEY, "
                         "fileDevice INTEGER NOT NULL, fileInode INTEGER NOT NULL)") },
        // 2: the resource's validator and the content its creator expects.
        { QStringLiteral("ALTER TABLE download_extra ADD COLUMN validator BLOB"),
            QStringLiteral("ALTER TABLE download_extra ADD COLUMN expectedSize INTEGER NOT NULL "
                           "DEFAULT -1"),
            QStringLiteral("ALTER TABLE download_extra ADD COLUMN expectedSha256 TEXT") },
        // 3: the last failure's reason and HTTP status, kept also for a download that failed
        // before it made a file: the identity may be NULL, which reads as an older download.
        { QStringLiteral("ALTER TABLE download_extra RENAME TO download_extra_2"),
            QStringLiteral("CREATE TABLE download_extra (uniqueID TEXT PRIMARY KEY, fileDevice "
                           "INTEGER, fileInode INTEGER, validator BLOB, expectedSize INTEGER NOT "
                           "NULL DEFAULT -1, expectedSha256 TEXT, failureReason TEXT NOT NULL "
                           "DEFAULT '', httpStatus INTEGER NOT NULL DEFAULT 0)"),
            QStringLiteral(
                "INSERT INTO download_extra (uniqueID, fileDevice, fileInode, "
                "validator, expectedSize, expectedSha256) SELECT uniqueID, fileDevice, "
                "fileInode, validator, expectedSize, expectedSha256 FROM download_extra_2"),
            QStringLiteral("DROP TABLE download_extra_2") },
        // 4: the download's own rate limit and its priority.
        { QStringLiteral(
              "ALTER TABLE download_extra ADD COLUMN rateLimit INTEGER NOT NULL DEFAULT 0"),
            QStringLiteral(
                "ALTER TABLE download_extra ADD COLUMN priority INTEGER NOT NULL DEFAULT 0") },
    };
    for (int next = version + 1; next <= kSchemaVersion; ++next) {
        bool done = db.transaction();
        for (const QString &statement : steps[next - 1])
            done = done && run(query, statement, {});
        done = done && run(query, QStringLiteral("PRAGMA user_version = %1").arg(next), {});
        if (!(done && db.commit())) {
            db.rollback();
            return false;
        }
    }
    return true;
}

bool DownloadDataBase::useWriteAheadLog()
{
    // Every commit of received data writes a row: appending to a log and syncing only at
    // checkpoints keeps that cheap on flash, and a killed process still loses nothing.
    QSqlQuery query;
    if (!run(query, QStringLiteral("PRAGMA journal_mode=WAL"), {}))
        return false;
    const QString mode = query.next() ? query.value(0).toString() : QString();
    if (mode.compare(QLatin1String("wal"), Qt::CaseInsensitive) != 0) {
        DLM_LOGW("Database stays in journal mode %s", qUtf8Printable(mode));
        return false;
    }
    return run(query, QStringLiteral("PRAGMA synchronous=NORMAL"), {});
}

void DownloadDataBase::releaseMemory()
{
    QSqlQuery query;
    run(query, QStringLiteral("PRAGMA shrink_memory"), {});
}

bool DownloadDataBase::run(QSqlQuery &query, const QString &statement, const QVariantList &values)
{
    // Without a connection the service runs on in memory; the failed open was logged once.
    return db.isOpen() && prepare(query, statement) && exec(query, statement, values);
}

bool DownloadDataBase::prepare(QSqlQuery &query, const QString &statement)
{
    if (!query.prepare(statement)) {
        DLM_LOGE("Unable to prepare \"%s\": %s", qUtf8Printable(statement),
            qUtf8Printable(query.lastError().text()));
        return false;
    }
    return true;
}

bool DownloadDataBase::exec(QSqlQuery &query, const QString &statement, const QVariantList &values)
{
    if (!db.isOpen())
        return false;
    for (int i = 0; i < values.size(); ++i)
        query.bindValue(i, values.at(i));
    if (!query.exec()) {
        DLM_LOGE("Unable to execute \"%s\": %s", qUtf8Printable(statement),
            qUtf8Printable(query.lastError().text()));
        return false;
    }
    return true;
}

void DownloadDataBase::close()
{
    flush();
    flushTimer.stop();
    writtenState.clear();
    writtenIdentity.clear();
    writtenValidator.clear();
    writtenReason.clear();
    upsert = QSqlQuery();
    extra = QSqlQuery();
    exists = QSqlQuery();
    if (db.isOpen())
        db.close();
}

bool DownloadDataBase::isTableInDB()
{
    if (!db.isOpen())
        return false;
    return !db.record(kTable).isEmpty();
}

bool DownloadDataBase::isDBEntryAvailable(const QString &uniqueID)
{
    if (!exec(exists, kExists, { uniqueID }))
        return false;
    const bool found = exists.next();
    exists.finish();
    return found;
}

bool DownloadDataBase::addEntry(const StoredRecord &r)
{
    if (isDBEntryAvailable(QString::fromUtf8(r.uniqueID)))
        return false;
    QSqlQuery query;
    return run(query,
        QStringLiteral("INSERT INTO ") + kTable
            + QStringLiteral(" (uniqueID, clientID, name, contentURL, filePath, state")
            + QStringLiteral(", failureCode, totalSize, amountDownloaded, startTime, ownerUid)")
            + QStringLiteral(" VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"),
        { text(r.uniqueID), r.clientID, text(r.name), text(r.contentURL), text(r.filePath), r.state,
            r.failureCode, r.totalSize, r.amountDownloaded, r.startTime, r.ownerUid });
}

bool DownloadDataBase::updateEntry(const StoredRecord &r)
{
    if (!isDBEntryAvailable(QString::fromUtf8(r.uniqueID)))
        return false;
    QSqlQuery query;
    return run(query,
        QStringLiteral("UPDATE ") + kTable
            + QStringLiteral(
                " set state = ?, name = ?, failureCode=?, totalSize=?, amountDownloaded=?")
            + QStringLiteral(" where uniqueID = ?"),
        { r.state, text(r.name), r.failureCode, r.totalSize, r.amountDownloaded,
            text(r.uniqueID) });
}

bool DownloadDataBase::store(RowKey row)
{
    if (!db.isOpen())
        return false;
    if (!pending.contains(row)) {
        pending.insert(row);
        pendingOrder.push_back(row);
    }
    if (!flushTimer.isActive())
        flushTimer.start();
    const StoredRecord now = read(row);
    const auto written = writtenState.constFind(row);
    const auto identity = writtenIdentity.constFind(row);
    // A file's identity is stored before it is told: it guards every later open.
    return written == writtenState.constEnd() || written.value() != now.state
        || (identity != writtenIdentity.constEnd() && identity.value() != now.fileIdentity);
}

bool DownloadDataBase::flush()
{
    if (pending.isEmpty())
        return true;
    const QSet<RowKey> marked = std::exchange(pending, {});
    const std::vector<RowKey> rows = std::exchange(pendingOrder, {});
    // One commit for the lot; a failed begin still writes each row on its own. In the order they
    // were marked: new rows are numbered, and restored, in order of creation.
    const bool transaction = db.transaction();
    bool written = true;
    for (RowKey row : rows)
        written = (!marked.contains(row) || write(row)) && written;
    if (transaction && !db.commit()) {
        DLM_LOGE("Unable to commit %d rows: %s", int(marked.size()),
            qUtf8Printable(db.lastError().text()));
        db.rollback();
        for (RowKey row : rows)
            writtenState.remove(row);
        return false;
    }
    return written;
}

bool DownloadDataBase::write(RowKey row)
{
    const StoredRecord r = read(row);
    if (!exec(upsert, kUpsert,
            { text(r.uniqueID), r.clientID, text(r.name), text(r.contentURL), text(r.filePath),
                r.state, r.failureCode, r.totalSize, r.amountDownloaded, r.startTime, r.ownerUid }))
        return false;
    writtenState.insert(row, r.state);
    // An older download's row gets one once its file is known, or once it fails; a new one
    // also when it expects a content.
    const FileIdentity &file = r.fileIdentity;
    const bool expects = r.expectedSize >= 0 || !r.expectedSha256.isEmpty();
    const QPair<qint64, int> tuning(r.rateLimit, r.priority);
    const auto identity = writtenIdentity.constFind(row);
    if ((identity == writtenIdentity.constEnd() ? file.unrecorded && !expects
                                                : identity.value() == file)
        && writtenValidator.value(row) == r.validator && writtenReason.value(row) == r.failureReason
        && writtenTuning.value(row) == tuning)
        return true;
    const QVariant none(QMetaType::fromType<qulonglong>());
    const QVariant digest
        = r.expectedSha256.isEmpty() ? QVariant() : QVariant(QString::fromLatin1(r.expectedSha256));
    if (!exec(extra, kExtra,
            { text(r.uniqueID), file.unrecorded ? none : QVariant(quint64(file.device)),
                file.unrecorded ? none : QVariant(file.inode), r.validator, r.expectedSize, digest,
                r.failureReason, r.httpStatus, r.rateLimit, r.priority }))
        return false;
    writtenIdentity.insert(row, file);
    // Kept only for the downloads that have one: most never do.
    if (!r.validator.isEmpty() || writtenValidator.contains(row))
        writtenValidator.insert(row, r.validator);
    if (!r.failureReason.isEmpty())
        writtenReason.insert(row, r.failureReason);
    if (tuning != QPair<qint64, int>() || writtenTuning.contains(row))
        writtenTuning.insert(row, tuning);
    return true;
}

void DownloadDataBase::forget(RowKey row)
{
    pending.remove(row);
    writtenState.remove(row);
    writtenIdentity.remove(row);
    writtenValidator.remove(row);
    writtenReason.remove(row);
    writtenTuning.remove(row);
}

bool DownloadDataBase::deleteEntry(RowKey row, const QString &uniqueID)
{
    // A pending write would bring the row back.
    forget(row);
    if (!isDBEntryAvailable(uniqueID))
        return false;
    QSqlQuery query;
    return run(query, QStringLiteral("DELETE FROM download_extra WHERE uniqueID = ?"), { uniqueID })
        && run(query,
            QStringLiteral("DELETE FROM ") + kTable + QStringLiteral(" WHERE uniqueID = ?"),
            { uniqueID });
}

void DownloadDataBase::forEachStored(const std::function<void(const StoredRecord &)> &restore)
{
    // Read through SQLite's own interface on Qt's connection: Qt's result made a QVariant of
    // every column of every row and cached each row, a third of the start with 100,000 rows.
    sqlite3 *handle = nativeHandle();
    if (!handle)
        return;
    static const char kSelect[]
        = "SELECT uniqueID, clientID, name, contentURL, filePath, state, failureCode, totalSize, "
          "amountDownloaded, startTime, ownerUid, fileDevice, fileInode, fileInode IS NULL, "
          "COALESCE(expectedSize, -1), expectedSha256, validator, failureReason, httpStatus, "
          "COALESCE(rateLimit, 0), COALESCE(priority, 0) FROM downloads "
          "LEFT JOIN download_extra USING (uniqueID)";
    sqlite3_stmt *select = nullptr;
    if (sqlite3_prepare_v2(handle, kSelect, -1, &select, nullptr) != SQLITE_OK) {
        DLM_LOGE("Unable to read the stored downloads: %s", sqlite3_errmsg(handle));
        return;
    }
    const auto finalize = qScopeGuard([select] { sqlite3_finalize(select); });
    // A text column's UTF-8 bytes as stored (SQLite converts a number or a blob the same way),
    // into the record's own array: one record serves every row, and its arrays keep their room
    // unless restore kept a copy.
    const auto view = [select](int column) {
        const auto *text = reinterpret_cast<const char *>(sqlite3_column_text(select, column));
        return QByteArrayView(text, sqlite3_column_bytes(select, column));
    };
    const auto bytes = [&view](QByteArray &to, int column) {
        const QByteArrayView text = view(column);
        to.resize(text.size());
        if (!text.isEmpty())
            std::memcpy(to.data(), text.data(), size_t(text.size()));
    };
    const auto number = [select](int column) { return sqlite3_column_int64(select, column); };
    // Rows share few client identifiers: one copy each instead of one per row.
    QHash<QByteArray, QString> clientIDs;
    int step;
    // Each record is restored at once: launching it updates that same row on this connection
    // before the next one is read.
    StoredRecord r;
    QByteArray client;
    while ((step = sqlite3_step(select)) == SQLITE_ROW) {
        bytes(r.uniqueID, 0);
        bytes(client, 1);
        auto known = clientIDs.constFind(client);
        if (known == clientIDs.constEnd())
            known = clientIDs.insert(client, QString::fromUtf8(client));
        r.clientID = known.value();
        bytes(r.name, 2);
        bytes(r.contentURL, 3);
        bytes(r.filePath, 4);
        r.state = unsigned(number(5));
        r.failureCode = unsigned(number(6));
        r.totalSize = number(7);
        r.amountDownloaded = number(8);
        r.startTime = number(9);
        r.ownerUid = uint(number(10));
        r.fileIdentity = { quint64(number(11)), quint64(number(12)), number(13) != 0 };
        r.expectedSize = number(14);
        bytes(r.expectedSha256, 15);
        bytes(r.validator, 16);
        const QByteArrayView reason = view(17);
        r.failureReason = reason.isEmpty() ? QString() : QString::fromUtf8(reason);
        r.httpStatus = int(number(18));
        r.rateLimit = number(19);
        r.priority = int(number(20));
        restore(r);
    }
    if (step != SQLITE_DONE)
        DLM_LOGE("Reading the stored downloads stopped: %s", sqlite3_errmsg(handle));
}

sqlite3 *DownloadDataBase::nativeHandle()
{
    if (!db.isOpen())
        return nullptr;
    const QVariant handle = db.driver()->handle();
    if (!handle.isValid() || qstrcmp(handle.typeName(), "sqlite3*") != 0)
        return nullptr;
    return *static_cast<sqlite3 *const *>(handle.constData());
}

bool DownloadDataBase::storeDownloadPath(
    uint ownerUid, const QString &clientID, const QString &path)
{
    QSqlQuery query;
    return run(query,
        QStringLiteral("INSERT OR REPLACE INTO ") + kPathsTable
            + QStringLiteral(" (ownerUid, clientID, path) VALUES (?, ?, ?)"),
        { ownerUid, clientID, path });
}

QList<DownloadDataBase::StoredPath> DownloadDataBase::downloadPaths()
{
    QList<StoredPath> result;
    QSqlQuery query;
    query.setForwardOnly(true);
    if (!run(query, QStringLiteral("SELECT ownerUid, clientID, path FROM ") + kPathsTable, {}))
        return result;
    while (query.next())
        result.append(
            { query.value(0).toUInt(), query.value(1).toString(), query.value(2).toString() });
    return result;
}

} // namespace dlm

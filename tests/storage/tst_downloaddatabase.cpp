// The download database on its own and behind a real manager; rows are checked on disk through a
// second, raw connection.
#include "Download.h"
#include "DownloadDataBase.h"
#include "DownloadManager.h"

#include <android/log.h>

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

namespace {
QList<QByteArray> errorLines;

void captureLog(const __android_logger_data *data, const char *message)
{
    if (data->priority >= ANDROID_LOG_ERROR)
        errorLines.append(QByteArray(message));
    __android_log_stderr_logger(data, message);
}

struct Record {
    QString uniqueID, clientID, name, contentURL, filePath;
    unsigned state, failureCode;
    qint64 totalSize, amountDownloaded, startTime;
};

QVariantList values(const Record &r)
{
    return { r.uniqueID, r.clientID, r.name, r.contentURL, r.filePath, r.state, r.failureCode,
        r.totalSize, r.amountDownloaded, r.startTime, 0u }; // the owner: root
}

QVariantList values(const Download *d)
{
    return { d->uniqueID, d->clientID, d->name, d->contentURL, d->filePath, d->state,
        d->failureCode, d->totalSize, d->amountDownloaded, d->startTime, d->ownerUid };
}

std::unique_ptr<Download> makeDownload(const Record &r)
{
    return std::make_unique<Download>(nullptr, nullptr, r.uniqueID, r.clientID, r.name,
        r.contentURL, r.filePath, r.state, r.failureCode, r.totalSize, r.amountDownloaded,
        r.startTime);
}

const Record kPaused { "a1", "appA", "a.zip", "http://127.0.0.1:9/a.zip", "/tmp/a.zip", 4, 1,
    5'000'000'000LL, 123456, 1700000000123LL };
const QString kCreate = QStringLiteral(
    "CREATE TABLE downloads (uniqueID TEXT UNIQUE ON CONFLICT REPLACE, clientID TEXT, name TEXT, "
    "contentURL TEXT, filePath TEXT, state NUMERIC, failureCode NUMERIC, totalSize NUMERIC, "
    "amountDownloaded NUMERIC, startTime NUMERIC)");
} // namespace

class tst_DownloadDataBase : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void firstStartCreatesFileAndTable();
    void secondStartRestoresEveryRowInStoredOrder();
    void reportInsertsThenUpdatesOneRow();
    void addOfStoredKeyIsRefused();
    void missingKeyIsRefused_data();
    void missingKeyIsRefused();
    void updateKeepsWriteOnceColumns();
    void deleteRemovesOnlyItsRow();
    void keysAreBoundNotSpliced_data();
    void keysAreBoundNotSpliced();
    void clearEmptiesTheTable();
    void unusableDatabase_data();
    void unusableDatabase();
    void managerRunsOnWithoutDatabase();

private:
    QString dbFile() const { return dir->path() + "/dlm_download.db"; }
    std::unique_ptr<DownloadManager> startManager(const QString &dbDirectory);
    void stopManager(std::unique_ptr<DownloadManager> &manager);
    QList<QVariantList> rowsOnDisk(const QString &file);
    void storeRaw(const QString &file, const QList<Record> &records);

    std::unique_ptr<QTemporaryDir> dir;
};

void tst_DownloadDataBase::initTestCase()
{
    qunsetenv("DL_CONSOLE_READER_ENABLE");
    __android_log_set_logger(captureLog);
}

void tst_DownloadDataBase::init()
{
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(dir->isValid());
    errorLines.clear();
}

void tst_DownloadDataBase::cleanup()
{
    // Each case opens the default connection afresh.
    QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);
    dir.reset();
}

std::unique_ptr<DownloadManager> tst_DownloadDataBase::startManager(const QString &dbDirectory)
{
    const QString ini = dir->path() + "/downloadmanager.ini";
    {
        QSettings settings(ini, QSettings::IniFormat);
        settings.setValue("download_database_path", dbDirectory);
    }
    return std::make_unique<DownloadManager>(ini);
}

void tst_DownloadDataBase::stopManager(std::unique_ptr<DownloadManager> &manager)
{
    manager->quit(); // destroys the downloads and closes the database
    manager.reset();
    QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);
}

QList<QVariantList> tst_DownloadDataBase::rowsOnDisk(const QString &file)
{
    QList<QVariantList> rows;
    {
        QSqlDatabase raw = QSqlDatabase::addDatabase("QSQLITE", "raw");
        raw.setDatabaseName(file);
        if (!raw.open())
            return rows;
        QSqlQuery query(raw);
        if (query.exec("SELECT * FROM downloads ORDER BY rowid")) {
            while (query.next()) {
                QVariantList row;
                for (int i = 0; i < 5; ++i)
                    row << query.value(i).toString();
                row << query.value(5).toUInt() << query.value(6).toUInt();
                for (int i = 7; i < 10; ++i)
                    row << query.value(i).toLongLong();
                row << query.value(10).toUInt();
                rows << row;
            }
        }
    }
    QSqlDatabase::removeDatabase("raw");
    return rows;
}

void tst_DownloadDataBase::storeRaw(const QString &file, const QList<Record> &records)
{
    {
        QSqlDatabase raw = QSqlDatabase::addDatabase("QSQLITE", "raw");
        raw.setDatabaseName(file);
        QVERIFY(raw.open());
        QSqlQuery query(raw);
        if (!raw.tables().contains("downloads"))
            QVERIFY(query.exec(kCreate));
        for (const Record &r : records) {
            QVERIFY(query.prepare("INSERT INTO downloads (uniqueID, clientID, name, contentURL, "
                                  "filePath, state, failureCode, totalSize, amountDownloaded, "
                                  "startTime) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)"));
            for (const QVariant &v : values(r).mid(0, 10))
                query.addBindValue(v);
            QVERIFY(query.exec());
        }
    }
    QSqlDatabase::removeDatabase("raw");
}

void tst_DownloadDataBase::firstStartCreatesFileAndTable()
{
    auto manager = startManager(dir->path());
    QVERIFY(QFile::exists(dbFile()));
    QVERIFY(manager->getDownloadList("*").isEmpty());
    stopManager(manager);

    {
        QSqlDatabase raw = QSqlDatabase::addDatabase("QSQLITE", "raw");
        raw.setDatabaseName(dbFile());
        QVERIFY(raw.open());
        QSqlQuery query(raw);
        QVERIFY(query.exec("SELECT sql FROM sqlite_master WHERE type = 'table' ORDER BY rowid"));
        QStringList tables;
        while (query.next())
            tables << query.value(0).toString();
        QCOMPARE(tables,
            QStringList({ QString(kCreate).replace(
                              "NUMERIC)", "NUMERIC, ownerUid INTEGER NOT NULL DEFAULT 0)"),
                "CREATE TABLE download_paths (ownerUid INTEGER NOT NULL, clientID TEXT NOT NULL, "
                "path TEXT NOT NULL, PRIMARY KEY (ownerUid, clientID))" }));
        QVERIFY(query.exec("PRAGMA journal_mode"));
        QVERIFY(query.next());
        QCOMPARE(query.value(0).toString(), QString("wal"));
    }
    QSqlDatabase::removeDatabase("raw");
    QCOMPARE(errorLines, QList<QByteArray>());
}

void tst_DownloadDataBase::secondStartRestoresEveryRowInStoredOrder()
{
    // Paused and Completed downloads are restored without being launched, so every value stays
    // as stored; keys are deliberately out of alphabetical order. The table is one written
    // before owners were kept: its rows are root's, and new rows keep their owner.
    const QList<Record> stored = {
        { "zz", "appB", "z.bin", "http://127.0.0.1:9/z.bin", "/tmp/z.bin", 1, 4, 777, 777, 1 },
        kPaused,
        { "it's \"quoted\"", "shell", "q", "http://127.0.0.1:9/q", "/tmp/q", 4, 4, 0, 0, 0 },
        { "m", "", "", "http://127.0.0.1:9/", "/tmp/download", 1, 1, -1, 0, 9'000'000'000'000LL },
    };
    // Rows no request could have made come back Failed and are never launched.
    const QList<Record> refused = {
        { "x", "app", "", "httpfoo://127.0.0.1:9/x", "/tmp/x", 16, 4, 0, 0, 0 },
        { "y", "app", "", "http://127.0.0.1:9/y", "tmp/y", 4, 4, 0, 0, 0 },
    };
    storeRaw(dbFile(), stored + refused);

    auto manager = startManager(dir->path());
    QList<Download *> restored = manager->getDownloadList("*");
    QCOMPARE(restored.size(), stored.size() + refused.size());
    for (int i = 0; i < stored.size(); ++i)
        QCOMPARE(values(restored.at(i)), values(stored.at(i)));
    manager->resumeDownload("all");
    for (int i = stored.size(); i < restored.size(); ++i)
        QCOMPARE(restored.at(i)->state, unsigned(Download::Failed));
    QCOMPARE(errorLines.size(), 2 * refused.size()); // refused at start, and at the resume
    errorLines.clear();
    auto owned = makeDownload({ "u", "app", "", "http://h/u", "/tmp/u", 4, 4, 0, 0, 0 });
    owned->ownerUid = 4242;
    manager->updateDownload(owned.get());
    stopManager(manager);
    manager = startManager(dir->path());
    restored = manager->getDownloadList("*");
    QCOMPARE(restored.last()->ownerUid, 4242u);
    stopManager(manager);
}

void tst_DownloadDataBase::reportInsertsThenUpdatesOneRow()
{
    auto manager = startManager(dir->path());
    auto download = makeDownload(kPaused);
    manager->updateDownload(download.get());
    QCOMPARE(rowsOnDisk(dbFile()), QList<QVariantList> { values(kPaused) });

    download->state = Download::Progressing;
    download->amountDownloaded = 200000;
    manager->updateDownload(download.get());
    QCOMPARE(rowsOnDisk(dbFile()), QList<QVariantList> { values(download.get()) });

    // Progress waits for the next turn of the event loop, and the last report of a turn counts.
    const QVariantList progressing = values(download.get());
    for (qint64 amount : { 300000, 400000 }) {
        download->amountDownloaded = amount;
        manager->updateDownload(download.get());
    }
    QCOMPARE(rowsOnDisk(dbFile()), QList<QVariantList> { progressing });
    QCoreApplication::processEvents();
    QCOMPARE(rowsOnDisk(dbFile()), QList<QVariantList> { values(download.get()) });
    download->amountDownloaded = 500000; // still behind when the service stops
    manager->updateDownload(download.get());
    stopManager(manager);
    QCOMPARE(rowsOnDisk(dbFile()), QList<QVariantList> { values(download.get()) });
}

void tst_DownloadDataBase::addOfStoredKeyIsRefused()
{
    DownloadDataBase db(nullptr, dbFile());
    auto download = makeDownload(kPaused);
    QVERIFY(db.addEntry(download.get()));
    download->name = "other";
    download->amountDownloaded = 1;
    QVERIFY(!db.addEntry(download.get()));
    QCOMPARE(rowsOnDisk(dbFile()), QList<QVariantList> { values(kPaused) });
}

void tst_DownloadDataBase::missingKeyIsRefused_data()
{
    QTest::addColumn<bool>("update");
    QTest::newRow("update") << true;
    QTest::newRow("delete") << false;
}

void tst_DownloadDataBase::missingKeyIsRefused()
{
    QFETCH(bool, update);
    DownloadDataBase db(nullptr, dbFile());
    auto stored = makeDownload(kPaused);
    QVERIFY(db.addEntry(stored.get()));
    Record other = kPaused;
    other.uniqueID = "a2";
    auto missing = makeDownload(other);
    QVERIFY(update ? !db.updateEntry(missing.get()) : !db.deleteEntry(missing.get()));
    QVERIFY(!db.isDBEntryAvailable("a2"));
    QCOMPARE(rowsOnDisk(dbFile()), QList<QVariantList> { values(kPaused) });
}

void tst_DownloadDataBase::updateKeepsWriteOnceColumns()
{
    DownloadDataBase db(nullptr, dbFile());
    auto download = makeDownload(kPaused);
    QVERIFY(db.addEntry(download.get()));
    const Record changed { kPaused.uniqueID, "appZ", "renamed", "http://x/other", "/data/other",
        Download::Completed, 1, 6'000'000'000LL, 6'000'000'000LL, 42 };
    auto update = makeDownload(changed);
    QVERIFY(db.updateEntry(update.get()));

    Record expected = changed;
    expected.clientID = kPaused.clientID;
    expected.contentURL = kPaused.contentURL;
    expected.filePath = kPaused.filePath;
    expected.startTime = kPaused.startTime;
    QCOMPARE(rowsOnDisk(dbFile()), QList<QVariantList> { values(expected) });
}

void tst_DownloadDataBase::deleteRemovesOnlyItsRow()
{
    DownloadDataBase db(nullptr, dbFile());
    Record second = kPaused;
    second.uniqueID = "b2";
    auto first = makeDownload(kPaused);
    auto other = makeDownload(second);
    QVERIFY(db.addEntry(first.get()));
    QVERIFY(db.addEntry(other.get()));
    QVERIFY(db.deleteEntry(first.get()));
    QVERIFY(!db.isDBEntryAvailable(kPaused.uniqueID));
    QVERIFY(!db.deleteEntry(first.get()));
    QCOMPARE(rowsOnDisk(dbFile()), QList<QVariantList> { values(second) });
}

void tst_DownloadDataBase::keysAreBoundNotSpliced_data()
{
    QTest::addColumn<QString>("key");
    QTest::newRow("single quote") << "it's";
    QTest::newRow("double quotes") << "say \"hi\"";
    QTest::newRow("always true") << "x' OR '1'='1";
    QTest::newRow("second statement") << "x'); DROP TABLE downloads; --";
    QTest::newRow("question mark") << "?";
}

void tst_DownloadDataBase::keysAreBoundNotSpliced()
{
    QFETCH(QString, key);
    DownloadDataBase db(nullptr, dbFile());
    Record neighbour = kPaused;
    neighbour.uniqueID = "x";
    auto other = makeDownload(neighbour);
    QVERIFY(db.addEntry(other.get()));
    QVERIFY(!db.isDBEntryAvailable(key));

    Record quoted = kPaused;
    quoted.uniqueID = key;
    auto download = makeDownload(quoted);
    QVERIFY(db.addEntry(download.get()));
    QVERIFY(db.isDBEntryAvailable(key));
    download->amountDownloaded = 99;
    QVERIFY(db.updateEntry(download.get()));
    quoted.amountDownloaded = 99;
    QCOMPARE(rowsOnDisk(dbFile()), (QList<QVariantList> { values(neighbour), values(quoted) }));
    QVERIFY(db.deleteEntry(download.get()));
    QCOMPARE(rowsOnDisk(dbFile()), QList<QVariantList> { values(neighbour) });
}

void tst_DownloadDataBase::clearEmptiesTheTable()
{
    DownloadDataBase db(nullptr, dbFile());
    auto download = makeDownload(kPaused);
    QVERIFY(db.addEntry(download.get()));
    db.clear();
    QVERIFY(!db.isDBEntryAvailable(kPaused.uniqueID));
    QVERIFY(db.isTableInDB());
    QCOMPARE(rowsOnDisk(dbFile()), QList<QVariantList>());
}

void tst_DownloadDataBase::unusableDatabase_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QByteArray>("driverMessage");
    QTest::newRow("not a database") << "garbage" << QByteArray("file is not a database");
    QTest::newRow("missing directory") << "missing" << QByteArray("unable to open database file");
    QTest::newRow("path is a directory") << "directory" << QByteArray("unable to open database");
}

void tst_DownloadDataBase::unusableDatabase()
{
    QFETCH(QString, kind);
    QFETCH(QByteArray, driverMessage);

    QString path = dbFile();
    const QByteArray garbage = QByteArray("not a database, just text\n").repeated(100);
    if (kind == "garbage") {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(garbage);
    } else if (kind == "missing") {
        path = dir->path() + "/no/such/dir/dlm_download.db";
    } else {
        QVERIFY(QDir().mkpath(path));
    }

    {
        DownloadDataBase db(nullptr, path);
        QCOMPARE(errorLines.size(), 1);
        bool named = false;
        for (const QByteArray &line : qAsConst(errorLines))
            named = named || line.contains(driverMessage);
        QVERIFY2(named, errorLines.join('\n').constData());

        auto download = makeDownload(kPaused);
        QVERIFY(!db.isTableInDB());
        QVERIFY(!db.isDBEntryAvailable(kPaused.uniqueID));
        QVERIFY(!db.addEntry(download.get()));
        QVERIFY(!db.updateEntry(download.get()));
        QVERIFY(!db.deleteEntry(download.get()));
        db.getDownloadList(); // a null manager would crash on any restored row
        db.clear();
        // One line for the broken file, not one per report.
        QCOMPARE(errorLines.size(), 1);
    }
    if (kind == "garbage") {
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), garbage);
    }
    QVERIFY(!QFile::exists(dir->path() + "/no"));
}

void tst_DownloadDataBase::managerRunsOnWithoutDatabase()
{
    auto manager = startManager(dir->path() + "/missing");
    QVERIFY(!errorLines.isEmpty());
    auto download = makeDownload(kPaused);
    manager->updateDownload(download.get());
    QVERIFY(manager->getDownloadList("*").isEmpty());
    QCOMPARE(manager->getDownloadPath("DEFAULT_CLIENT_ID"), QString("/tmp/"));
    stopManager(manager);
}

QTEST_GUILESS_MAIN(tst_DownloadDataBase)
#include "tst_downloaddatabase.moc"

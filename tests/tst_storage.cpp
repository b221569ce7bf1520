// The database on its own, then behind a real manager; rows read back on the test's connection.
#include "Download.h"
#include "DownloadDataBase.h"
#include "DownloadManager.h"
#include "Harness.h"
#include "StoredDownloads.h"

#include <android/log.h>

#include <QtTest>

using namespace dlm;

using Rows = QList<QVariantList>;
QList<QByteArray> errors;

Rows values(const QList<Download *> &downloads)
{
    Rows rows;
    for (const Download *d : downloads)
        rows.append(
            { d->uniqueID(), d->clientID, d->name(), d->contentURL(), d->filePath(), d->state,
                d->failureCode, d->totalSize, d->amountDownloaded, d->startTime, d->ownerUid });
    return rows;
}

std::unique_ptr<DownloadManager> start(Service &svc, const QString &dbDir)
{
    QSettings(svc.path("ini"), QSettings::NativeFormat).setValue("download_database_path", dbDir);
    QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);
    return std::make_unique<DownloadManager>(svc.path("ini"));
}

class tst_Storage : public QObject {
    Q_OBJECT
private slots:
    void init()
    {
        errors.clear();
        QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);
        __android_log_set_minimum_priority(ANDROID_LOG_ERROR);
        __android_log_set_logger([](const __android_logger_data *, const char *m) { errors << m; });
    }

    void storedRows_data()
    {
        QTest::addColumn<QString>("key"); // of a download stored next to one with the key "x"
        QTest::addColumn<int>("older"); // schema of the file an older release left; -1: none
        QTest::newRow("single quote") << "it's" << -1;
        QTest::newRow("always true") << "x' OR '1'='1" << -1;
        QTest::newRow("second statement") << "x'); DROP TABLE downloads; --" << -1;
        QTest::newRow("file without owners") << "v0" << 0;
        QTest::newRow("file with identities only") << "v1" << 1;
        QTest::newRow("file without rates") << "v3" << 2;
    }
    void storedRows()
    {
        QFETCH(QString, key);
        QFETCH(int, older);
        Service svc;
        const QStringList releases[] = {
            { "CREATE TABLE downloads (uniqueID TEXT UNIQUE ON CONFLICT REPLACE, clientID TEXT, "
              "name TEXT, contentURL TEXT, filePath TEXT, state NUMERIC, failureCode NUMERIC, "
              "totalSize NUMERIC, amountDownloaded NUMERIC, startTime NUMERIC)" },
            { "CREATE TABLE download_extra (uniqueID TEXT PRIMARY KEY, fileDevice INTEGER NOT "
              "NULL, fileInode INTEGER NOT NULL)",
                "INSERT INTO download_extra VALUES ('kept', 5, 6)", "PRAGMA user_version = 1" },
            { "DROP TABLE download_extra",
                "CREATE TABLE download_extra (uniqueID TEXT PRIMARY KEY, fileDevice INTEGER, "
                "fileInode "
                "INTEGER, validator BLOB, expectedSize INTEGER NOT NULL DEFAULT -1, expectedSha256 "
                "TEXT, failureReason TEXT NOT "
                "NULL DEFAULT '', httpStatus INTEGER NOT NULL DEFAULT 0)",
                "INSERT INTO download_extra (uniqueID, fileDevice, fileInode) VALUES ('kept', 5, "
                "6)",
                "PRAGMA user_version = 3" }
        };
        for (int version = 0; version <= older; ++version)
            for (const QString &statement : releases[version])
                svc.sql(statement);
        const DownloadContext none;
        const QByteArray id = key.toUtf8();
        Download x(none, RecordText("x", "", "http://h", "/x"), "", 1, 1, -1, 0, 9000000000000);
        Download a(none, RecordText(id, "a", "http://h/a", "/a"), "c", 4, 1, 5000000000, 12, 3);
        Download b(none, RecordText(id, "b", "http://h/b", "/b"), "d", 1, 2, 6000000000, 45, 6);
        Download ab(none, RecordText(id, "b", "http://h/a", "/a"), "c", 1, 2, 6000000000, 45, 3);
        x.editDetails().validator
            = "\"x1\""; // its only extra value: it must come back all the same
        b.ownerUid = 4242; // the other columns a request sets once: a's stay
        b.editDetails() = { .failureReason = "HTTP 404 " + key,
            .httpStatus = 404, // no file made
            .priority = -7,
            .rateLimit = 65536 };
        {
            DownloadDataBase db(svc.path("db/dlm_download.db"), &stored::recordOf);
            for (Download *d : { &x, &a, &b })
                db.store(d);
            db.flush();
            QCOMPARE(svc.sql("SELECT * FROM downloads ORDER BY rowid"), values({ &x, &ab }));
            QVERIFY(db.deleteEntry(&b, key) && !db.deleteEntry(&b, key)
                && !db.isDBEntryAvailable(key) && db.isDBEntryAvailable("x")
                && db.storeDownloadPath(0, key, "/a") && db.storeDownloadPath(0, key, "/b")
                && db.storeDownloadPath(7, key, "/c"));
            db.store(&b);
        }
        const auto manager = start(svc, svc.path("db"));
        QCOMPARE(values(manager->getDownloadList("*")), values({ &x, &b }));
        QCOMPARE(manager->getDownloadPath(key) + manager->getDownloadPath(key, 7), "/b/c");
        const Download *restored = manager->getDownload(key);
        QVERIFY(restored);
        const Download::Details &more = restored->details();
        QVERIFY(more.failureReason == b.details().failureReason && more.httpStatus == 404);
        QVERIFY(more.validator.isEmpty()); // x's, read just before, is not carried over
        QVERIFY(more.rateLimit == 65536 && more.priority == -7);
        QCOMPARE(manager->getDownload("x")->details().validator, "\"x1\"");
        svc.sql("UPDATE downloads SET uniqueID = 'stored' WHERE uniqueID = 'x'"); // not live
        QVERIFY(manager->createDownload("c", "http://h/s", "stored", "").status
            == DownloadManager::CreateStatus::IdInUse);
        manager->quit();
        QCOMPARE(svc.sql("PRAGMA journal_mode"), Rows { { "wal" } });
        QCOMPARE(svc.sql("PRAGMA user_version"), Rows { { 4 } }); // and the older rows kept:
        QCOMPARE(svc.sql("SELECT uniqueID, fileDevice, fileInode, validator IS NULL, expectedSize, "
                         "expectedSha256 IS NULL FROM download_extra WHERE uniqueID = 'kept'"),
            older >= 1 ? Rows({ { "kept", 5, 6, 1, -1, 1 } }) : Rows());
        QCOMPARE(errors, QList<QByteArray>());
    }

    void unusableDatabase_data()
    {
        QTest::addColumn<QByteArray>("message"); // the row's name: the database directory
        QTest::newRow("db") << QByteArray("file is not a database");
        QTest::newRow("no/db") << QByteArray("unable to open database file");
    }
    void unusableDatabase()
    {
        QFETCH(QByteArray, message);
        Service svc;
        const QByteArray garbage = QByteArray("not a database\n").repeated(100);
        QFile file(svc.path("db/dlm_download.db"));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(garbage) && file.flush());
        const auto manager = start(svc, svc.path(QTest::currentDataTag()));
        QVERIFY(!manager->startRefused());
        QVERIFY(manager->setDownloadPath("a", svc.path()).done());
        manager->quit();
        QCOMPARE(errors.size(), 1); // for the file, not for every call
        QVERIFY2(errors[0].contains(message), errors[0]);
        QCOMPARE(readFile(file.fileName()), garbage);
    }
};

QTEST_GUILESS_MAIN(tst_Storage)
#include "tst_storage.moc"

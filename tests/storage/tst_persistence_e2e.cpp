// Downloads survive the service: killed in the middle of a transfer, restarted, stored paused,
// failed or completed. Runs the real executable against the in-process HTTP server; downloads are
// stored in the database file before start, as a previous run would have left them.
#include "FakeHttpServer.h"
#include "ServiceProcess.h"

#include <QDir>
#include <QFile>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QtTest>

namespace {
const QString kCreate = QStringLiteral(
    "CREATE TABLE downloads (uniqueID TEXT UNIQUE ON CONFLICT REPLACE, clientID TEXT, name TEXT, "
    "contentURL TEXT, filePath TEXT, state NUMERIC, failureCode NUMERIC, totalSize NUMERIC, "
    "amountDownloaded NUMERIC, startTime NUMERIC);");

enum : unsigned { Completed = 1, Paused = 4, Failed = 8, Pending = 16, Stalled = 32 };

struct Row {
    QString uniqueID;
    QString url;
    QString filePath;
    unsigned state;
    qint64 totalSize;
    qint64 amountDownloaded;
};

// Reads and writes the service's database through a connection of its own, one at a time.
class StoredRows {
public:
    explicit StoredRows(const QString &file) : file(file) { }

    bool store(const QList<Row> &rows)
    {
        bool ok = withConnection([&](QSqlDatabase &db) {
            QSqlQuery query(db);
            if (!db.tables().contains("downloads") && !query.exec(kCreate))
                return false;
            for (const Row &row : rows) {
                query.prepare("INSERT INTO downloads VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?)");
                for (const QVariant &v : QVariantList { row.uniqueID, "shell", "n", row.url,
                         row.filePath, row.state, 4, row.totalSize, row.amountDownloaded, 1 })
                    query.addBindValue(v);
                if (!query.exec())
                    return false;
            }
            return true;
        });
        return ok;
    }

    // -1 when the row (or the database) is not there.
    qint64 value(const QString &uniqueID, const char *column)
    {
        qint64 result = -1;
        withConnection([&](QSqlDatabase &db) {
            QSqlQuery query(db);
            query.prepare(QStringLiteral("SELECT %1 FROM downloads WHERE uniqueID = ?")
                              .arg(QLatin1String(column)));
            query.addBindValue(uniqueID);
            if (query.exec() && query.next())
                result = query.value(0).toLongLong();
            return true;
        });
        return result;
    }
    qint64 amount(const QString &uniqueID) { return value(uniqueID, "amountDownloaded"); }
    qint64 state(const QString &uniqueID) { return value(uniqueID, "state"); }

private:
    template <typename F> bool withConnection(F work)
    {
        bool ok = false;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "test");
            db.setDatabaseName(file);
            ok = db.open() && work(db);
        }
        QSqlDatabase::removeDatabase("test");
        return ok;
    }

    QString file;
};

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}
} // namespace

class tst_PersistenceE2E : public QObject {
    Q_OBJECT

private slots:
    void killedMidTransferResumesFromStoredAmount();
    void storedAmountAgainstFileOnDisk_data();
    void storedAmountAgainstFileOnDisk();
    void pausedDownloadWaitsForResume();
    void restartRelaunchesStalledOnly();
    void secondServiceOnTheSameDatabaseExits();
    void brokenDatabaseLeavesServiceRunning_data();
    void brokenDatabaseLeavesServiceRunning();
};

void tst_PersistenceE2E::killedMidTransferResumesFromStoredAmount()
{
    FakeHttpServer server;
    const QByteArray body = FakeHttpServer::makeBody(512 * 1024, 7);
    FakeHttpServer::Resource slow;
    slow.body = body;
    slow.chunkSize = 4096;
    slow.chunkDelayMs = 15;
    server.setResource("/big.bin", slow);

    ServiceProcess service;
    service.setEnv("DLM_REPORT_INTERVAL_MS", "0");
    QVERIFY(QDir().mkpath(service.databaseDir()));
    const QString target = service.downloadsDir() + "big.bin";
    StoredRows rows(service.databaseFile());
    QVERIFY(rows.store({ { "k1", server.url("/big.bin").toString(), target, Pending, 0, 0 } }));

    QVERIFY(service.start());
    QTRY_VERIFY_WITH_TIMEOUT(rows.amount("k1") > 0, 20000);
    service.kill();
    const qint64 stored = rows.amount("k1");
    QVERIFY(stored > 0 && stored < body.size());
    QVERIFY(QFileInfo(target).size() >= stored);

    server.clearRequests();
    server.resource("/big.bin").chunkDelayMs = 0;
    QVERIFY(service.start());
    QTRY_COMPARE_WITH_TIMEOUT(rows.state("k1"), qint64(Completed), 20000);
    const auto requests = server.requestsFor("/big.bin");
    QCOMPARE(requests.size(), 1);
    QCOMPARE(requests.first().header("Range"), "bytes=" + QByteArray::number(stored) + "-");
    QCOMPARE(rows.amount("k1"), qint64(body.size()));
    QVERIFY(readFile(target) == body);
    service.kill();
}

void tst_PersistenceE2E::storedAmountAgainstFileOnDisk_data()
{
    QTest::addColumn<QByteArray>("onDisk"); // "@n" is the first n bytes of the content
    QTest::addColumn<qint64>("storedAmount");
    QTest::addColumn<QByteArray>("range");

    QTest::newRow("file shorter: start over, no hole")
        << QByteArray("garbage!").repeated(64) << qint64(10000) << QByteArray();
    QTest::newRow("file missing: start over") << QByteArray("-") << qint64(10000) << QByteArray();
    QTest::newRow("file as long") << QByteArray("@8000") << qint64(8000)
                                  << QByteArray("bytes=8000-");
    QTest::newRow("file longer than stored")
        << QByteArray("@20000") << qint64(8000) << QByteArray("bytes=8000-");
}

void tst_PersistenceE2E::storedAmountAgainstFileOnDisk()
{
    QFETCH(QByteArray, onDisk);
    QFETCH(qint64, storedAmount);
    QFETCH(QByteArray, range);

    FakeHttpServer server;
    const QByteArray body = FakeHttpServer::makeBody(64 * 1024, 3);
    server.setBody("/f.bin", body);

    ServiceProcess service;
    QVERIFY(QDir().mkpath(service.databaseDir()));
    QVERIFY(QDir().mkpath(service.downloadsDir()));
    const QString target = service.downloadsDir() + "f.bin";
    if (onDisk.startsWith('@'))
        QVERIFY(writeFile(target, body.left(onDisk.mid(1).toInt())));
    else if (onDisk != "-")
        QVERIFY(writeFile(target, onDisk));
    StoredRows rows(service.databaseFile());
    QVERIFY(rows.store(
        { { "f", server.url("/f.bin").toString(), target, Stalled, body.size(), storedAmount } }));

    QVERIFY(service.start());
    QTRY_COMPARE_WITH_TIMEOUT(rows.state("f"), qint64(Completed), 20000);
    const auto requests = server.requestsFor("/f.bin");
    QCOMPARE(requests.size(), 1);
    QCOMPARE(requests.first().header("Range"), range);
    QCOMPARE(rows.amount("f"), qint64(body.size()));
    QVERIFY(readFile(target) == body);
    service.kill();
}

void tst_PersistenceE2E::pausedDownloadWaitsForResume()
{
    FakeHttpServer server;
    const QByteArray body = FakeHttpServer::makeBody(64 * 1024, 5);
    server.setBody("/p.bin", body);

    ServiceProcess service;
    service.setEnv("DL_CONSOLE_READER_ENABLE", "1");
    QVERIFY(QDir().mkpath(service.databaseDir()));
    QVERIFY(QDir().mkpath(service.downloadsDir()));
    const QString target = service.downloadsDir() + "p.bin";
    QVERIFY(writeFile(target, body.left(3000)));
    StoredRows rows(service.databaseFile());
    QVERIFY(rows.store(
        { { "p1", server.url("/p.bin").toString(), target, Paused, body.size(), 3000 } }));

    QVERIFY(service.start());
    QVERIFY(service.waitForErr("Enter your command:"));
    // Nothing to wait for: a paused download must simply not move.
    QTest::qWait(500);
    QCOMPARE(server.requestsFor("/p.bin").size(), 0);
    QCOMPARE(rows.state("p1"), qint64(Paused));

    service.writeLine("resume p1");
    QTRY_COMPARE_WITH_TIMEOUT(rows.state("p1"), qint64(Completed), 20000);
    QCOMPARE(server.requestsFor("/p.bin").size(), 1);
    QCOMPARE(server.requestsFor("/p.bin").first().header("Range"), QByteArray("bytes=3000-"));
    QVERIFY(readFile(target) == body);
    service.writeLine("quit");
    QVERIFY(service.waitForExit());
}

void tst_PersistenceE2E::restartRelaunchesStalledOnly()
{
    FakeHttpServer server;
    const QByteArray body = FakeHttpServer::makeBody(32 * 1024, 9);
    for (const QByteArray path : { "/failed", "/stalled", "/done" })
        server.setBody(path, body);

    ServiceProcess service;
    QVERIFY(QDir().mkpath(service.databaseDir()));
    QVERIFY(QDir().mkpath(service.downloadsDir()));
    const QString dir = service.downloadsDir();
    QVERIFY(writeFile(dir + "done", body));
    StoredRows rows(service.databaseFile());
    QVERIFY(
        rows.store({ { "failed", server.url("/failed").toString(), dir + "failed", Failed, 0, 0 },
            { "done", server.url("/done").toString(), dir + "done", Completed, body.size(),
                body.size() },
            { "stalled", server.url("/stalled").toString(), dir + "stalled", Stalled, 0, 0 } }));

    QVERIFY(service.start());
    QTRY_COMPARE_WITH_TIMEOUT(rows.state("stalled"), qint64(Completed), 20000);
    QVERIFY(readFile(dir + "stalled") == body);
    // A failed download waits for a resume, as a paused one does.
    QCOMPARE(rows.state("failed"), qint64(Failed));
    QCOMPARE(server.requestsFor("/failed").size(), 0);
    QCOMPARE(server.requestsFor("/done").size(), 0);
    QCOMPARE(rows.state("done"), qint64(Completed));
    QVERIFY(readFile(dir + "done") == body);
    service.kill();
    // Only what was launched says so.
    QCOMPARE(service.stdErr().count("Download launched with uniqueID:"), 1);
}

void tst_PersistenceE2E::secondServiceOnTheSameDatabaseExits()
{
    FakeHttpServer server;
    FakeHttpServer::Resource slow;
    slow.body = FakeHttpServer::makeBody(64 * 1024, 4);
    slow.chunkSize = 2048;
    slow.chunkDelayMs = 20;
    server.setResource("/s.bin", slow);

    ServiceProcess first;
    QVERIFY(QDir().mkpath(first.databaseDir()));
    const QString target = first.downloadsDir() + "s.bin";
    StoredRows rows(first.databaseFile());
    QVERIFY(rows.store({ { "s", server.url("/s.bin").toString(), target, Pending, 0, 0 } }));
    QVERIFY(first.start());
    QTRY_COMPARE_WITH_TIMEOUT(server.requestsFor("/s.bin").size(), 1, 20000);

    ServiceProcess second;
    second.setSetting("download_database_path", first.databaseDir());
    QVERIFY(second.start());
    QVERIFY(second.waitForExit());
    QCOMPARE(second.exitCode(), 1);
    QVERIFY(second.stdErr().contains("Another download service uses the database directory "
        + first.databaseDir().toLocal8Bit() + ": not starting"));
    QVERIFY(!second.stdErr().contains("Download launched"));
    QVERIFY(!QFile::exists(second.socketDir() + "/com.velta.DLService"));

    // The first one goes on alone.
    QTRY_COMPARE_WITH_TIMEOUT(rows.state("s"), qint64(Completed), 20000);
    QCOMPARE(server.requestsFor("/s.bin").size(), 1);
    QVERIFY(readFile(target) == slow.body);
    first.kill();
}

void tst_PersistenceE2E::brokenDatabaseLeavesServiceRunning_data()
{
    QTest::addColumn<QString>("kind");
    QTest::newRow("not a database") << "garbage";
    QTest::newRow("missing directory") << "missing";
}

void tst_PersistenceE2E::brokenDatabaseLeavesServiceRunning()
{
    QFETCH(QString, kind);
    ServiceProcess service;
    if (kind == "garbage") {
        QVERIFY(QDir().mkpath(service.databaseDir()));
        QVERIFY(
            writeFile(service.databaseFile(), QByteArray("plain text, not SQLite\n").repeated(50)));
    } else {
        service.setSetting("download_database_path", service.root() + "/no/such/dir");
    }
    QVERIFY(service.start());
    QVERIFY(service.waitForErr("Enter your command:"));
    const QByteArray err = service.consoleLines();
    QVERIFY2(err.contains(kind == "garbage" ? "file is not a database" : "unable to open database"),
        err.constData());
    QVERIFY(service.isRunning());
    service.writeLine("quit");
    QVERIFY(service.waitForExit());
    QCOMPARE(service.exitCode(), 0);
    if (kind == "garbage")
        QCOMPARE(
            readFile(service.databaseFile()), QByteArray("plain text, not SQLite\n").repeated(50));
}

QTEST_GUILESS_MAIN(tst_PersistenceE2E)
#include "tst_persistence_e2e.moc"

// Misbehaving servers and a full disk, end to end: the download ends by itself in the right state
// that every party hears of, the file never holds a byte that is not the content's, and once the
// fault is gone a resume makes it exact.
#include "FakeHttpServer.h"
#include "FaultSupport.h"
#include "ServiceProcess.h"

#include <QtTest>

#include <csignal>
#include <sys/resource.h>

using namespace faults;

namespace {

constexpr int kBodySize = 256 * 1024;

// The last console "status" line for uniqueID, asked for now.
QByteArray consoleStatus(ServiceProcess &service, const QString &uniqueID)
{
    const int before = service.stdErr().count("Download status:");
    service.writeLine("status " + uniqueID.toLatin1());
    if (!service.waitForErrCount("Download status:", before + 1))
        return QByteArray();
    const QList<QByteArray> lines = service.consoleLines().split('\n');
    for (auto it = lines.crbegin(); it != lines.crend(); ++it)
        if (it->contains("Download status:"))
            return *it;
    return QByteArray();
}

qint64 rangeStart(const FakeHttpServer::Request &request)
{
    const QByteArray range = request.header("Range");
    return range.startsWith("bytes=") ? range.mid(6, range.size() - 7).toLongLong() : -1;
}

// The service's WARN lines that report the failure of uniqueID.
QList<QByteArray> warningsAbout(ServiceProcess &service, const QByteArray &uniqueID)
{
    QList<QByteArray> found;
    for (const QByteArray &line : service.stdErr().split('\n')) {
        if (line.startsWith("dlm_manager W") && line.contains("Download " + uniqueID + " failed: "))
            found.append(line);
    }
    return found;
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size();
}

} // namespace

class tst_FaultServer : public QObject {
    Q_OBJECT

private slots:
    void misbehavingServer_data();
    void misbehavingServer();
    void diskFull_data();
    void diskFull();
};

void tst_FaultServer::misbehavingServer_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QByteArray>("endState");
    // "empty": no byte of the answer in the file; "prefix": the start of the content;
    // "advertised": exactly the Content-Length bytes; "whole": the content.
    QTest::addColumn<QString>("file");
    QTest::addColumn<qint64>("code"); // the failure code, stored and kept after a success
    QTest::addColumn<QByteArray>("reason"); // in the one WARN line of a failure
    QTest::addColumn<bool>("retried"); // the watcher saw the download Stalled

    QTest::newRow("cuts every connection after 100 KB")
        << "close" << QByteArray("Completed") << "whole" << 1ll << QByteArray() << true;
    QTest::newRow("stalls past the transfer timeout")
        << "stall" << QByteArray("Completed") << "whole" << 1ll << QByteArray() << true;
    QTest::newRow("answers 500 to every attempt")
        << "500" << QByteArray("Failed") << "empty" << 2ll << QByteArray("HTTP 500") << true;
    QTest::newRow("answers 404") << "404" << QByteArray("Failed") << "empty" << 2ll
                                 << QByteArray("HTTP 404") << false;
    QTest::newRow("answers 200 to every Range request")
        << "ignore-range" << QByteArray("Failed") << "prefix" << 1ll << QByteArray() << true;
    QTest::newRow("body longer than Content-Length")
        << "long" << QByteArray("Completed") << "advertised" << 4ll << QByteArray() << false;
    QTest::newRow("body shorter than Content-Length")
        << "short" << QByteArray("Completed") << "whole" << 1ll << QByteArray() << true;
    QTest::newRow("chunked body of 6 MiB")
        << "chunked" << QByteArray("Completed") << "whole" << 4ll << QByteArray() << false;
    QTest::newRow("6 MiB ended by closing")
        << "by-close" << QByteArray("Completed") << "whole" << 4ll << QByteArray() << false;
    QTest::newRow("TLS spoken to a plain server")
        << "tls" << QByteArray("Failed") << "empty" << 1ll << QByteArray("SSL") << false;
    QTest::newRow("file in place of the directory")
        << "unwritable" << QByteArray("Failed") << "empty" << 3ll << QByteArray("Not a directory")
        << false;
}

void tst_FaultServer::misbehavingServer()
{
    QFETCH(QString, fault);
    QFETCH(QByteArray, endState);
    QFETCH(QString, file);
    QFETCH(qint64, code);
    QFETCH(QByteArray, reason);
    QFETCH(bool, retried);

    FakeHttpServer server;
    FakeHttpServer::Resource bad;
    const bool large = fault == "chunked" || fault == "by-close";
    bad.body = FakeHttpServer::makeBody(large ? 6 * 1024 * 1024 : kBodySize, 11);
    const QByteArray body = bad.body;
    bad.chunkSize = large ? 0 : 8192;
    bad.chunkDelayMs = 2;
    if (fault == "close") {
        bad.closeAfter = 100000;
    } else if (fault == "stall") {
        bad.stallAfter = 90000;
    } else if (fault == "500" || fault == "404") {
        bad.status = fault.toInt();
        bad.body = "<html>error page</html>";
    } else if (fault == "ignore-range") {
        bad.closeAfter = 120000;
        bad.honorRange = false;
    } else if (fault == "long") {
        bad.contentLength = 100000;
    } else if (fault == "short") {
        bad.contentLength = kBodySize + 40000;
    }
    bad.chunkedCoding = fault == "chunked";
    bad.lengthByClose = fault == "by-close";
    server.setResource("/f.bin", bad);

    ServiceProcess service;
    service.setEnv("DLM_TRANSFER_TIMEOUT_MS", "1000");
    service.setEnv("DLM_RETRY_BASE_MS", "50");
    // Commit often, so a fault finds bytes stored; the large bodies move only by the buffer bound.
    service.setEnv("MAX_PACKET_COUNT", large ? "1000000" : "1");
    QVERIFY(service.start());
    QVERIFY(service.waitForErr("Enter your command:"));
    const QString dir
        = fault == "unwritable" ? service.root() + "/blocked/" : service.downloadsDir();
    QVERIFY(QDir().mkpath(dir));
    QCOMPARE(dlctl(service, { "set-path", "dlctl", dir }).code, 0);
    if (fault == "unwritable") // replaced once set: root writes everywhere else
        QVERIFY(QDir().rmdir(dir) && writeFile(service.root() + "/blocked", "not a directory"));
    const QString target = dir + "f.bin";
    StoredRows rows(service.databaseFile());
    Watcher watcher(service);
    QVERIFY(service.waitForErr("Event client registered"));

    QString url = server.url("/f.bin").toString();
    if (fault == "tls")
        url.replace("http:", "https:");
    QCOMPARE(dlctl(service, { "create", url, "--id", "f" }).code, 0);
    // Every party hears how it ended: the database, the console and the watcher.
    QTRY_COMPARE_WITH_TIMEOUT(rows.state("f"), endState == "Failed" ? Failed : Completed, 20000);
    QVERIFY(service.waitForErr("status:  \"" + endState + '"'));
    QVERIFY(watcher.waitFor("f dlctl " + endState));
    QCOMPARE(watcher.out().contains(" Stalled "), retried);
    QCOMPARE(watcher.out().contains(" (next attempt at "), retried);
    QCOMPARE(rows.failureCode("f"), code);
    const QList<QByteArray> warnings = warningsAbout(service, "f");
    QCOMPARE(warnings.size(), endState == "Failed" ? 1 : 0);
    if (!warnings.isEmpty())
        QVERIFY2(warnings.first().contains(reason) && watcher.out().contains("(failure "),
            warnings.first().constData());

    const QByteArray onDisk = readFile(target);
    if (file == "empty")
        QCOMPARE(onDisk.size(), 0);
    else if (file == "advertised")
        QVERIFY(onDisk == body.left(bad.contentLength));
    else if (file == "whole")
        QVERIFY(onDisk == body);
    else
        QVERIFY2(body.startsWith(onDisk), qPrintable(QString::number(onDisk.size())));
    QVERIFY(rows.amount("f") <= onDisk.size());
    if (endState == "Completed" || fault == "tls")
        return;

    // The server behaves again, except that the one ignoring ranges keeps ignoring them.
    FakeHttpServer::Resource good;
    good.body = body;
    good.honorRange = fault != "ignore-range";
    server.setResource("/f.bin", good);
    server.clearRequests();
    if (fault == "unwritable")
        QVERIFY(QFile::remove(service.root() + "/blocked") && QDir().mkpath(dir));
    const qint64 stored = rows.amount("f");
    service.writeLine("resume f");
    QTRY_COMPARE_WITH_TIMEOUT(rows.state("f"), Completed, 10000);
    QVERIFY(readFile(target) == body);
    QCOMPARE(rows.amount("f"), qint64(kBodySize));
    QCOMPARE(rows.failureCode("f"), code);
    const auto requests = server.requestsFor("/f.bin");
    QVERIFY(!requests.isEmpty());
    for (const FakeHttpServer::Request &request : requests)
        QVERIFY(rangeStart(request) <= onDisk.size());
    if (fault == "ignore-range") {
        QVERIFY(stored > 0);
        QCOMPARE(rangeStart(requests.first()), stored);
    }
    service.writeLine("quit");
    QVERIFY(service.waitForExit());
}

void tst_FaultServer::diskFull_data()
{
    QTest::addColumn<bool>("tmpfs");
    QTest::newRow("file size limit") << false;
    QTest::newRow("small tmpfs") << true;
}

void tst_FaultServer::diskFull()
{
    QFETCH(bool, tmpfs);

    FakeHttpServer server;
    FakeHttpServer::Resource big;
    big.body = FakeHttpServer::makeBody(2 * 1024 * 1024, 13);
    big.chunkSize = 64 * 1024;
    server.setResource("/big.bin", big);

    ServiceProcess service;
    QVERIFY(QDir().mkpath(service.downloadsDir()));
    // Unmounted even when a check below fails.
    struct Mount {
        QString dir;
        ~Mount()
        {
            if (!dir.isEmpty())
                QProcess::execute("umount", { "-l", dir });
        }
    } mount;
    if (tmpfs) {
        if (QProcess::execute(
                "mount", { "-t", "tmpfs", "-o", "size=1m", "tmpfs", service.downloadsDir() })
            != 0)
            QSKIP("cannot mount a tmpfs here");
        mount.dir = service.downloadsDir();
    } else {
        // Writes past 512 KiB fail with EFBIG instead of killing the service with SIGXFSZ.
        service.process.setChildProcessModifier([] {
            ::signal(SIGXFSZ, SIG_IGN);
            const rlimit limit { 512 * 1024, 512 * 1024 };
            ::setrlimit(RLIMIT_FSIZE, &limit);
        });
    }

    QVERIFY(service.start());
    QVERIFY(service.waitForErr("Enter your command:"));
    QCOMPARE(dlctl(service, { "set-path", "dlctl", service.downloadsDir() }).code, 0);
    const QString target = service.downloadsDir() + "big.bin";
    StoredRows rows(service.databaseFile());

    QCOMPARE(
        dlctl(service, { "create", server.url("/big.bin").toString(), "--id", "big" }).code, 0);
    QTRY_COMPARE_WITH_TIMEOUT(stateOf(service, "big"), QByteArray("Failed"), 15000);
    QVERIFY2(consoleStatus(service, "big").contains("\"Failed\""), "");
    QVERIFY(service.isRunning());
    QVERIFY(big.body.startsWith(readFile(target)));
    QVERIFY(readFile(target).size() < big.body.size());

    if (tmpfs) {
        QCOMPARE(
            QProcess::execute("mount", { "-o", "remount,size=8m", service.downloadsDir() }), 0);
    } else {
        service.writeLine("quit");
        QVERIFY(service.waitForExit());
        service.process.setChildProcessModifier({});
        QVERIFY(service.start());
        QVERIFY(service.waitForErr("Enter your command:"));
    }
    service.writeLine("resume big");
    QTRY_COMPARE_WITH_TIMEOUT(rows.state("big"), Completed, 15000);
    QVERIFY2(consoleStatus(service, "big").contains("\"Completed\""), "");
    QVERIFY(readFile(target) == big.body);
    service.writeLine("quit");
    QVERIFY(service.waitForExit());
    QCOMPARE(service.exitCode(), 0);
}

QTEST_GUILESS_MAIN(tst_FaultServer)
#include "tst_fault_server.moc"

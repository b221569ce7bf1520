// Misbehaving servers and a full disk, end to end: the download ends in the right state, the file
// never holds a byte that is not the content's, and once the fault is gone a resume makes it exact.
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
    // "advertised": exactly the Content-Length bytes.
    QTest::addColumn<QString>("file");

    QTest::newRow("closes mid-body") << "close" << QByteArray("Failed") << "prefix";
    QTest::newRow("stalls past the transfer timeout")
        << "stall" << QByteArray("Failed") << "prefix";
    QTest::newRow("answers 500") << "500" << QByteArray("Failed") << "empty";
    QTest::newRow("answers 200 to a Range request")
        << "ignore-range" << QByteArray("Failed") << "prefix";
    QTest::newRow("body longer than Content-Length")
        << "long" << QByteArray("Completed") << "advertised";
    QTest::newRow("body shorter than Content-Length")
        << "short" << QByteArray("Failed") << "prefix";
}

void tst_FaultServer::misbehavingServer()
{
    QFETCH(QString, fault);
    QFETCH(QByteArray, endState);
    QFETCH(QString, file);

    FakeHttpServer server;
    FakeHttpServer::Resource bad;
    bad.body = FakeHttpServer::makeBody(kBodySize, 11);
    const QByteArray body = bad.body;
    bad.chunkSize = 8192;
    bad.chunkDelayMs = 2;
    if (fault == "close") {
        bad.closeAfter = 100000;
    } else if (fault == "stall") {
        bad.stallAfter = 90000;
    } else if (fault == "500") {
        bad.status = 500;
        bad.body = "<html>internal error</html>";
    } else if (fault == "ignore-range") {
        bad.closeAfter = 120000;
        bad.honorRange = false;
    } else if (fault == "long") {
        bad.contentLength = 100000;
    } else if (fault == "short") {
        bad.contentLength = kBodySize + 40000;
    }
    server.setResource("/f.bin", bad);

    ServiceProcess service;
    service.setEnv("DLM_TRANSFER_TIMEOUT_MS", "1000");
    service.setEnv("MAX_PACKET_COUNT", "1"); // commit often, so a fault finds bytes stored
    QVERIFY(service.start());
    QVERIFY(service.waitForErr("Enter your command:"));
    QCOMPARE(dlctl(service, { "set-path", "dlctl", service.downloadsDir() }).code, 0);
    const QString target = service.downloadsDir() + "f.bin";
    StoredRows rows(service.databaseFile());

    // A failure is not reported to clients or stored; it shows in the download's status.
    QCOMPARE(dlctl(service, { "create", server.url("/f.bin").toString(), "--id", "f" }).code, 0);
    QTRY_COMPARE_WITH_TIMEOUT(stateOf(service, "f"), endState, 15000);
    const QByteArray status = consoleStatus(service, "f");
    QVERIFY2(status.contains('"' + endState + '"'), status.constData());

    const QByteArray onDisk = readFile(target);
    if (file == "empty")
        QCOMPARE(onDisk.size(), 0);
    else if (file == "advertised")
        QVERIFY(onDisk == body.left(bad.contentLength));
    else
        QVERIFY2(body.startsWith(onDisk), qPrintable(QString::number(onDisk.size())));
    QVERIFY(rows.amount("f") <= onDisk.size());
    if (endState == "Completed")
        return;

    // The server behaves again, except that the one ignoring ranges keeps ignoring them.
    FakeHttpServer::Resource good;
    good.body = body;
    good.honorRange = fault != "ignore-range";
    server.setResource("/f.bin", good);
    server.clearRequests();
    const qint64 stored = rows.amount("f");
    service.writeLine("resume f");
    QTRY_COMPARE_WITH_TIMEOUT(rows.state("f"), Completed, 10000);
    QVERIFY2(consoleStatus(service, "f").contains("\"Completed\""), "");
    QVERIFY(readFile(target) == body);
    QCOMPARE(rows.amount("f"), qint64(kBodySize));
    QCOMPARE(rows.failureCode("f"), qint64(1)); // a network error, kept after the success
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

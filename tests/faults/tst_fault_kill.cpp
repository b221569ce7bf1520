// The service killed with SIGKILL at pseudo-random moments while several downloads run, and
// started again on the same directory: no download is lost, duplicated or holed.
#include "FakeHttpServer.h"
#include "FaultSupport.h"
#include "ServiceProcess.h"

#include <QRandomGenerator>
#include <QtTest>

using namespace faults;

class tst_FaultKill : public QObject {
    Q_OBJECT

private slots:
    void killedAtRandomMomentsLosesNothing();
};

void tst_FaultKill::killedAtRandomMomentsLosesNothing()
{
    constexpr int kDownloads = 5;
    constexpr int kRounds = 14;
    QRandomGenerator random(20261123);

    FakeHttpServer server;
    QList<QByteArray> bodies;
    for (int i = 0; i < kDownloads; ++i) {
        FakeHttpServer::Resource slow;
        slow.body = FakeHttpServer::makeBody(640 * 1024 + i * 4099, quint32(100 + i));
        slow.chunkSize = 1024;
        slow.chunkDelayMs = 10;
        server.setResource("/k" + QByteArray::number(i), slow);
        bodies.append(slow.body);
    }
    auto id = [](int i) { return QStringLiteral("kill-%1").arg(i); };

    ServiceProcess service;
    StoredRows rows(service.databaseFile());
    const QString dir = service.downloadsDir();
    QVERIFY(service.start());
    QVERIFY(service.waitForErr("Enter your command:"));
    QCOMPARE(dlctl(service, { "set-path", "dlctl", dir }).code, 0);
    for (int i = 0; i < kDownloads; ++i) {
        const QString url = server.url("/k" + QByteArray::number(i)).toString();
        const Result r = dlctl(service, { "create", url, "--id", id(i) });
        QVERIFY2(r.code == 0, r.err.constData());
    }

    QStringList expected;
    for (int i = 0; i < kDownloads; ++i)
        expected.append(id(i));
    auto storedIds = [&rows] {
        QStringList ids = rows.identifiers();
        ids.sort();
        return ids;
    };
    QTRY_COMPARE_WITH_TIMEOUT(storedIds(), expected, 10000);

    // Bytes in each file when the service last died: no Range may reach past them.
    QList<qint64> onDisk(kDownloads, 0);
    for (int round = 0; round < kRounds; ++round) {
        if (round > 0) {
            QVERIFY(service.start());
            // Round 1 dies right away, round 2 while the stored downloads are brought back.
            if (round == 2)
                QVERIFY(service.waitForErr("Enter your command:"));
            else if (round > 2)
                QTest::qWait(int(random.bounded(50, 700)));
        } else {
            QTest::qWait(int(random.bounded(100, 600)));
        }
        service.kill();
        QVERIFY(!service.isRunning());

        for (int i = 0; i < kDownloads; ++i) {
            const QByteArray path = "/k" + QByteArray::number(i);
            for (const FakeHttpServer::Request &request : server.requestsFor(path)) {
                const QByteArray range = request.header("Range");
                if (range.isEmpty())
                    continue;
                QVERIFY2(range.startsWith("bytes=") && range.endsWith('-'), range.constData());
                const qint64 from = range.mid(6, range.size() - 7).toLongLong();
                QVERIFY2(from <= onDisk[i],
                    qPrintable(QStringLiteral("round %1, %2: %3 with %4 bytes in the file")
                                   .arg(round)
                                   .arg(id(i), QString::fromLatin1(range))
                                   .arg(onDisk[i])));
            }
            onDisk[i] = fileSize(dir + "k" + QString::number(i));
            // Whatever is in the file by now is the start of the content.
            QVERIFY2(
                bodies[i].startsWith(readFile(dir + "k" + QString::number(i))), qPrintable(id(i)));
            QVERIFY(rows.amount(id(i)) <= onDisk[i]);
        }
        QCOMPARE(storedIds(), expected);
        qDebug("round %d: %lld %lld %lld %lld %lld bytes", round, onDisk[0], onDisk[1], onDisk[2],
            onDisk[3], onDisk[4]);
        server.clearRequests();
        server.dropAll();
    }

    for (int i = 0; i < kDownloads; ++i)
        server.resource("/k" + QByteArray::number(i)).chunkDelayMs = 0;
    QVERIFY(service.start());
    QVERIFY(service.waitForErr("Enter your command:"));
    for (int i = 0; i < kDownloads; ++i)
        QTRY_COMPARE_WITH_TIMEOUT(rows.state(id(i)), Completed, 30000);
    for (int i = 0; i < kDownloads; ++i) {
        const Result status = dlctl(service, { "status", id(i) });
        QCOMPARE(status.code, 0);
        QVERIFY2(
            status.out.startsWith(id(i).toLatin1() + " dlctl Completed "), status.out.constData());
        QVERIFY2(readFile(dir + "k" + QString::number(i)) == bodies[i], qPrintable(id(i)));
        QCOMPARE(rows.amount(id(i)), qint64(bodies[i].size()));
        for (const FakeHttpServer::Request &request :
            server.requestsFor("/k" + QByteArray::number(i))) {
            const QByteArray range = request.header("Range");
            if (!range.isEmpty())
                QVERIFY(range.mid(6, range.size() - 7).toLongLong() <= onDisk[i]);
        }
    }
    QCOMPARE(storedIds(), expected);

    service.writeLine("quit");
    QVERIFY(service.waitForExit());
}

QTEST_GUILESS_MAIN(tst_FaultKill)
#include "tst_fault_kill.moc"

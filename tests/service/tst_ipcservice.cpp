// End to end over IPC: the real service, dlctl and probe clients as separate processes.
#include "FakeHttpServer.h"
#include "ServiceProcess.h"

#include <QtTest>

#include <csignal>

namespace {

struct Result
{
    int code = -1;
    QByteArray out;
    QByteArray err;
};

// A client process run without blocking the event loop, so the fake server keeps serving.
class Client
{
public:
    Client(const QString &program, const QStringList &args, const ServiceProcess &service)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("BINDER_SOCKET_DIR", service.socketDir());
        process.setProcessEnvironment(env);
        process.start(program, args);
        process.waitForStarted(5000);
    }
    ~Client()
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished(3000);
        }
    }
    bool waitForOut(const QByteArray &needle, int count = 1, int ms = 15000)
    {
        QDeadlineTimer deadline(ms);
        while (out().count(needle) < count) {
            if (deadline.hasExpired())
                return false;
            QTest::qWait(20);
        }
        return true;
    }
    Result finish(int ms = 30000)
    {
        QDeadlineTimer deadline(ms);
        while (process.state() != QProcess::NotRunning && !deadline.hasExpired())
            QTest::qWait(20);
        Result r;
        r.code = process.state() == QProcess::NotRunning ? process.exitCode() : -1;
        r.out = out();
        r.err = err + process.readAllStandardError();
        return r;
    }
    QByteArray out()
    {
        output += process.readAllStandardOutput();
        return output;
    }
    void kill() { ::kill(pid_t(process.processId()), SIGKILL); }
    QProcess process;

private:
    QByteArray output;
    QByteArray err;
};

Result dlctl(const ServiceProcess &service, const QStringList &args, int ms = 30000)
{
    Client c(QStringLiteral(DLCTL_BINARY), args, service);
    return c.finish(ms);
}

QByteArray fileBytes(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

} // namespace

class tst_IpcService : public QObject
{
    Q_OBJECT

private:
    void startService(ServiceProcess &service)
    {
        QVERIFY(service.start());
        QVERIFY(service.waitForErr("Enter your command:"));
        const Result r = dlctl(service, {"set-path", "dlctl", service.downloadsDir()});
        QCOMPARE(r.code, 0);
    }
    static QByteArray slowBody(FakeHttpServer &server, const QByteArray &path, int size)
    {
        FakeHttpServer::Resource r;
        r.body = FakeHttpServer::makeBody(size, 5);
        r.chunkSize = 4096;
        r.chunkDelayMs = 30;
        server.setResource(path, r);
        return r.body;
    }

private slots:
    void createOverIpcWritesExactBytesAndTellsTheConsole();
    void controlByIdentifierAndAll();
    void listStatusAndUnknownIdentifiers();
    void spaceCheckCodes();
    void setPathAppliesToTheNextDownload();
    void twoWatchersSeeEveryUpdateInOrder();
    void killedWatcherIsDroppedOthersKeepReceiving();
    void clientRegisteredTwiceGetsUpdatesTwice();
    void queryFromInsideCallbackDoesNotHang();
    void waitEndsWithStatusOneOnFailure();
    void serviceNotRunning();
    void manyClientsQueryWhileDownloadsChange();
};

void tst_IpcService::createOverIpcWritesExactBytesAndTellsTheConsole()
{
    FakeHttpServer server;
    const QByteArray body = FakeHttpServer::makeBody(300000, 2);
    server.setBody("/a.bin", body);
    ServiceProcess service;
    startService(service);

    const Result r = dlctl(service, {"create", server.url("/a.bin").toString(), "--wait"});
    QCOMPARE(r.code, 0);
    const QString path = service.downloadsDir() + "a.bin";
    QVERIFY2(r.out.contains(" dlctl Completed 300000 300000 " + path.toLocal8Bit()), r.out);
    QCOMPARE(fileBytes(path), body);
    const QByteArray consoleLine = "Download update with file: \"" + path.toLocal8Bit() +
                                   "\"  status:  \"Completed\"  DL:  300000 / 300000 \n";
    QVERIFY(service.waitForErr(consoleLine));
    QVERIFY(service.stdErr().contains("Create download client id:dlctl url:" +
                                      server.url("/a.bin").toEncoded() + " unique id: name "));
}

void tst_IpcService::controlByIdentifierAndAll()
{
    FakeHttpServer server;
    const QByteArray body = slowBody(server, "/slow.bin", 400000);
    ServiceProcess service;
    startService(service);

    FakeHttpServer::Resource silent; // its download stays Pending
    silent.neverAnswer = true;
    server.setResource("/silent", silent);
    QCOMPARE(dlctl(service, {"create", server.url("/silent").toString(), "--id", "quiet"}).code, 0);
    Result r = dlctl(service, {"create", server.url("/slow.bin").toString(), "--id", "job1"});
    QCOMPARE(r.code, 0);
    QCOMPARE(r.out, QByteArray("job1\n"));
    // The console's update lines tell the state as it changes; polling could miss a short one.
    QVERIFY(service.waitForErr("status:  \"Progressing\"", 20000));
    QVERIFY(dlctl(service, {"status", "quiet"}).out.contains(" Pending "));

    QCOMPARE(dlctl(service, {"pause", "all"}).code, 0);
    QVERIFY(service.waitForErrCount("status:  \"Paused\"", 2, 20000));
    QVERIFY(dlctl(service, {"status", "job1"}).out.contains(" Paused "));
    QVERIFY(dlctl(service, {"status", "quiet"}).out.contains(" Paused "));
    server.clearRequests();
    QCOMPARE(dlctl(service, {"resume", "all"}).code, 0);
    QVERIFY(service.waitForErr("status:  \"Completed\"", 60000));
    QVERIFY(dlctl(service, {"status", "job1"}).out.contains(" Completed "));
    QCOMPARE(server.requestsFor("/slow.bin").size(), 1);
    QVERIFY(server.requestsFor("/slow.bin").first().header("range").startsWith("bytes="));
    const QString path = service.downloadsDir() + "slow.bin";
    QCOMPARE(fileBytes(path), body);

    // "all" is an ordinary identifier for removal: nothing goes.
    r = dlctl(service, {"remove", "all"});
    QCOMPARE(r.code, 1);
    QVERIFY(dlctl(service, {"status", "job1"}).code == 0);
    QCOMPARE(dlctl(service, {"remove", "job1"}).code, 0);
    QTRY_COMPARE_WITH_TIMEOUT(dlctl(service, {"status", "job1"}).code, 1, 10000);
    QCOMPARE(fileBytes(path), body); // files stay on disk
}

void tst_IpcService::listStatusAndUnknownIdentifiers()
{
    FakeHttpServer server;
    server.setBody("/one", "first");
    server.setBody("/two", "second!");
    ServiceProcess service;
    startService(service);
    QCOMPARE(dlctl(service, {"set-path", "other", service.downloadsDir()}).code, 0);
    QCOMPARE(dlctl(service, {"create", server.url("/one").toString(), "--id", "one", "--wait"}).code, 0);
    QCOMPARE(dlctl(service, {"create", server.url("/two").toString(), "--id", "two", "--client",
                             "other", "--wait"})
                 .code,
             0);

    Result r = dlctl(service, {"list"});
    QCOMPARE(r.code, 0);
    const QList<QByteArray> lines = r.out.trimmed().split('\n');
    QCOMPARE(lines.size(), 2);
    QVERIFY(lines[0].startsWith("one dlctl Completed 5 5 "));
    QVERIFY(lines[1].startsWith("two other Completed 7 7 "));

    r = dlctl(service, {"list", "other"});
    QCOMPARE(r.out.count('\n'), 1);
    QVERIFY(r.out.startsWith("two other "));
    QCOMPARE(dlctl(service, {"list", "nobody"}).out, QByteArray());

    r = dlctl(service, {"status", "one"});
    QCOMPARE(r.code, 0);
    QCOMPARE(r.out, "one dlctl Completed 5 5 " + service.downloadsDir().toLocal8Bit() + "one\n");
    r = dlctl(service, {"status", "missing"});
    QCOMPARE(r.code, 1);
    QVERIFY(service.waitForErr(" getDownload download is null missing"));
    QCOMPARE(dlctl(service, {"pause", "missing"}).code, 1);
}

void tst_IpcService::spaceCheckCodes()
{
    ServiceProcess service;
    startService(service);
    Result r = dlctl(service, {"space", "1"});
    QCOMPARE(r.code, 0);
    QVERIFY(r.out.startsWith("0 "));
    r = dlctl(service, {"space", "9000000000000000000"});
    QVERIFY(r.out.startsWith("1 "));
    QCOMPARE(dlctl(service, {"set-path", "ghost", service.root() + "/missing/"}).code, 0);
    r = dlctl(service, {"space", "1", "--client", "ghost"});
    QVERIFY(r.out.startsWith("2 "));
    QCOMPARE(dlctl(service, {"space", "abc"}).code, 64);
}

void tst_IpcService::setPathAppliesToTheNextDownload()
{
    FakeHttpServer server;
    server.setBody("/f.txt", "hello");
    ServiceProcess service;
    startService(service);
    QDir().mkpath(service.root() + "/second");
    QCOMPARE(dlctl(service, {"create", server.url("/f.txt").toString(), "--wait"}).code, 0);
    QCOMPARE(dlctl(service, {"set-path", "dlctl", service.root() + "/second/"}).code, 0);
    QCOMPARE(dlctl(service, {"create", server.url("/f.txt").toString(), "--wait"}).code, 0);
    QCOMPARE(fileBytes(service.downloadsDir() + "f.txt"), QByteArray("hello"));
    QCOMPARE(fileBytes(service.root() + "/second/f.txt"), QByteArray("hello"));
    QVERIFY(!QFile::exists(service.downloadsDir() + "f.txt.0"));
}

void tst_IpcService::twoWatchersSeeEveryUpdateInOrder()
{
    FakeHttpServer server;
    slowBody(server, "/w.bin", 200000);
    ServiceProcess service;
    startService(service);
    Client a(DLCTL_BINARY, {"watch"}, service);
    Client b(DLCTL_BINARY, {"watch"}, service);
    QVERIFY(service.waitForErrCount("Event client registered", 2));
    QCOMPARE(dlctl(service, {"create", server.url("/w.bin").toString(), "--id", "w", "--wait"}).code, 0);
    QVERIFY(a.waitForOut("w dlctl Completed 200000 200000"));
    QVERIFY(b.waitForOut("w dlctl Completed 200000 200000"));
    // Same lines, same order; byte counts never go back.
    QCOMPARE(a.out(), b.out());
    qint64 last = -1;
    for (const QByteArray &line : a.out().trimmed().split('\n')) {
        const qint64 bytes = line.split(' ').value(3).toLongLong();
        QVERIFY(bytes >= last);
        last = bytes;
    }
    QVERIFY(a.out().startsWith("w dlctl Pending 0 0 "));
}

void tst_IpcService::killedWatcherIsDroppedOthersKeepReceiving()
{
    FakeHttpServer server;
    server.setBody("/k1", "one");
    server.setBody("/k2", "two");
    ServiceProcess service;
    startService(service);
    Client victim(DLCTL_BINARY, {"watch"}, service);
    Client survivor(DLCTL_BINARY, {"watch"}, service);
    QVERIFY(service.waitForErrCount("Event client registered", 2));
    QCOMPARE(dlctl(service, {"create", server.url("/k1").toString(), "--id", "k1", "--wait"}).code, 0);
    QVERIFY(victim.waitForOut("k1 dlctl Completed"));
    victim.kill();
    QVERIFY(service.waitForErr("died, trying to remove from clients list", 5000));
    QVERIFY(service.waitForErr("from eventClients", 5000));
    QCOMPARE(dlctl(service, {"create", server.url("/k2").toString(), "--id", "k2", "--wait"}).code, 0);
    QVERIFY(survivor.waitForOut("k2 dlctl Completed"));
    QVERIFY(service.isRunning());
}

void tst_IpcService::clientRegisteredTwiceGetsUpdatesTwice()
{
    FakeHttpServer server;
    server.setBody("/d", "data");
    ServiceProcess service;
    startService(service);
    Client probe(DLPROBE_BINARY, {"twice"}, service);
    QVERIFY(probe.waitForOut("registered"));
    QCOMPARE(dlctl(service, {"create", server.url("/d").toString(), "--id", "d", "--wait"}).code, 0);
    QVERIFY(probe.waitForOut("update d 1 4", 2));
    QCOMPARE(probe.out().count("update d 16 0"), 2);
}

void tst_IpcService::queryFromInsideCallbackDoesNotHang()
{
    FakeHttpServer server;
    slowBody(server, "/r.bin", 100000);
    ServiceProcess service;
    startService(service);
    Client probe(DLPROBE_BINARY, {"reentrant"}, service);
    QVERIFY(probe.waitForOut("registered"));
    QCOMPARE(dlctl(service, {"create", server.url("/r.bin").toString(), "--id", "r", "--wait"}).code, 0);
    QVERIFY(probe.waitForOut("update r 1 100000"));
    QVERIFY(probe.waitForOut("reentrant r 1"));
    // The service still answers after all those nested calls.
    QCOMPARE(dlctl(service, {"status", "r"}).code, 0);
}

void tst_IpcService::waitEndsWithStatusOneOnFailure()
{
    FakeHttpServer server; // "/missing" answers 404
    ServiceProcess service;
    startService(service);
    const Result r = dlctl(service, {"create", server.url("/missing").toString(), "--id", "m", "--wait"});
    QCOMPARE(r.code, 1);
    QVERIFY2(r.out.contains("m dlctl Failed 0 0 "), r.out);
    QVERIFY2(r.out.contains("(failure 2: the server answered with an error status)"), r.out);
}

void tst_IpcService::serviceNotRunning()
{
    ServiceProcess nothing; // never started: its socket directory is empty
    QDir().mkpath(nothing.socketDir());
    const Result r = dlctl(nothing, {"list"});
    QCOMPARE(r.code, 2);
    QVERIFY(r.err.contains("not running"));
}

void tst_IpcService::manyClientsQueryWhileDownloadsChange()
{
    FakeHttpServer server;
    for (int i = 0; i < 4; ++i)
        slowBody(server, "/s" + QByteArray::number(i), 200000);
    ServiceProcess service;
    startService(service);
    for (int i = 0; i < 4; ++i)
        QCOMPARE(dlctl(service, {"create", server.url("/s" + QByteArray::number(i)).toString(),
                                 "--id", QString("s%1").arg(i)})
                     .code,
                 0);
    std::vector<std::unique_ptr<Client>> storms;
    for (int i = 0; i < 8; ++i)
        storms.emplace_back(new Client(DLPROBE_BINARY, {"storm", "150"}, service));
    for (auto &storm : storms) {
        const Result r = storm->finish(120000);
        QCOMPARE(r.code, 0);
        QCOMPARE(r.out, QByteArray("ok\n"));
    }
    service.writeLine("quit");
    QVERIFY(service.waitForExit(20000));
    QCOMPARE(service.exitCode(), 0);
    QVERIFY2(!service.stdErr().contains("ThreadSanitizer"), service.stdErr().right(4000));
}

QTEST_GUILESS_MAIN(tst_IpcService)
#include "tst_ipcservice.moc"

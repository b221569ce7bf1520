// End to end over IPC: the real service, dlctl and probe clients as separate processes.
#include "FakeHttpServer.h"
#include "ServiceProcess.h"

#include <QtTest>

#include <csignal>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

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
    void setPathAppliesToTheNextDownloadAndSurvivesRestart();
    void twoWatchersSeeEveryUpdateInOrder();
    void killedWatcherIsDroppedOthersKeepReceiving();
    void eventClientsAreBoundedPerConnection();
    void queryFromInsideCallbackDoesNotHang();
    void failuresAndRefusalsEndWithStatusOne();
    void reachability_data();
    void reachability();
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
    // The identifier comes first, then the download's own updates.
    const QByteArray id = r.out.left(r.out.indexOf('\n'));
    QVERIFY2(QRegularExpression("^[0-9a-f]{32}$").match(QString(id)).hasMatch(), r.out);
    QVERIFY2(r.out.endsWith(id + " dlctl Completed 300000 300000 " + path.toLocal8Bit() + "\n"),
             r.out);
    QCOMPARE(fileBytes(path), body);
    const QByteArray consoleLine = "Download update with file: \"" + path.toLocal8Bit() +
                                   "\"  status:  \"Completed\"  DL:  300000 / 300000 \n";
    QVERIFY(service.waitForErr(consoleLine));
    QVERIFY(service.stdErr().contains("Request download client id:dlctl url:" +
                                      server.url("/a.bin").toEncoded() + " unique id: name "));
}

void tst_IpcService::controlByIdentifierAndAll()
{
    FakeHttpServer server;
    // Long enough to outlast the dlctl calls below under sanitizers.
    const QByteArray body = slowBody(server, "/slow.bin", 1200000);
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
    // An identifier in use is refused: nothing is made, job1 is untouched.
    r = dlctl(service, {"create", server.url("/other.bin").toString(), "--id", "job1"});
    QCOMPARE(r.code, 1);
    QVERIFY2(r.err.contains("the identifier belongs to another download"), r.err);
    QVERIFY(service.waitForErr("Error: The download identifier job1 is in use."));
    QVERIFY(dlctl(service, {"status", "job1"}).out.endsWith("/slow.bin\n"));
    QCOMPARE(server.requestsFor("/other.bin").size(), 0);

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
    server.setBody("/tw%C3%B6", "second!");
    ServiceProcess service;
    startService(service);
    // Text other than ASCII travels as UTF-8 both ways.
    const QString other = QString::fromUtf8("\u00e9t\u00e9");
    QCOMPARE(dlctl(service, {"set-path", other, service.downloadsDir()}).code, 0);
    QCOMPARE(dlctl(service, {"create", server.url("/one").toString(), "--id", "one", "--wait"}).code, 0);
    const QString url = QString::fromUtf8("http://127.0.0.1:%1/tw\u00f6").arg(server.port());
    QCOMPARE(dlctl(service, {"create", url, "--id", "two", "--client", other, "--wait"}).code, 0);

    Result r = dlctl(service, {"list"});
    QCOMPARE(r.code, 0);
    const QList<QByteArray> lines = r.out.trimmed().split('\n');
    QCOMPARE(lines.size(), 2);
    QVERIFY(lines[0].startsWith("one dlctl Completed 5 5 "));
    const QString twoFile = service.downloadsDir() + QString::fromUtf8("tw\u00f6");
    QCOMPARE(QString::fromUtf8(lines[1]), "two " + other + " Completed 7 7 " + twoFile);
    QCOMPARE(fileBytes(twoFile), QByteArray("second!"));

    r = dlctl(service, {"list", other});
    QCOMPARE(r.out.count('\n'), 1);
    QVERIFY(r.out.startsWith("two " + other.toUtf8() + " "));
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
    FakeHttpServer server;
    FakeHttpServer::Resource huge; // announces far more than any disk holds, then stays silent
    huge.body = QByteArray(65536, 0);
    huge.contentLength = 1LL << 50;
    huge.chunkSize = 4096;
    huge.chunkDelayMs = 20;
    huge.stallAfter = huge.body.size();
    server.setResource("/huge", huge);
    QTemporaryDir elsewhere("/dev/shm/dlm-space-XXXXXX"); // another file system
    if (!elsewhere.isValid())
        QSKIP("no /dev/shm");
    ServiceProcess service;
    startService(service);
    Result r = dlctl(service, {"space", "1"});
    QCOMPARE(r.code, 0);
    QVERIFY(r.out.startsWith("0 "));
    r = dlctl(service, {"space", "9000000000000000000"});
    QVERIFY(r.out.startsWith("1 "));

    // What a running download still needs counts only on its own file system.
    QCOMPARE(dlctl(service, {"create", server.url("/huge").toString()}).code, 0);
    QVERIFY(service.waitForErr("status:  \"Progressing\""));
    QCOMPARE(dlctl(service, {"set-path", "shm", elsewhere.path()}).code, 0);
    QVERIFY(dlctl(service, {"space", "1"}).out.startsWith("1 "));
    QVERIFY(dlctl(service, {"space", "1", "--client", "shm"}).out.startsWith("0 "));

    QVERIFY(QDir().mkpath(service.root() + "/gone"));
    QCOMPARE(dlctl(service, {"set-path", "ghost", service.root() + "/gone"}).code, 0);
    QVERIFY(QDir().rmdir(service.root() + "/gone"));
    r = dlctl(service, {"space", "1", "--client", "ghost"});
    QVERIFY(r.out.startsWith("2 "));
    QCOMPARE(dlctl(service, {"space", "abc"}).code, 64);
    QCOMPARE(dlctl(service, {"space", "-1"}).code, 64);
}

void tst_IpcService::setPathAppliesToTheNextDownloadAndSurvivesRestart()
{
    FakeHttpServer server;
    server.setBody("/f.txt", "hello");
    ServiceProcess service;
    startService(service);
    const QString second = service.root() + "/second"; // joined with one separator
    QDir().mkpath(second);
    QCOMPARE(dlctl(service, {"create", server.url("/f.txt").toString(), "--wait"}).code, 0);
    QCOMPARE(dlctl(service, {"set-path", "dlctl", second}).code, 0);
    // Refusals change nothing.
    for (const QString &bad : {QString(), QString("relative"), service.root() + "/missing"}) {
        const Result r = dlctl(service, {"set-path", "dlctl", bad});
        QCOMPARE(r.code, 1);
        QVERIFY2(r.err.startsWith("dlctl: " + bad.toUtf8() + " is not "), r.err);
    }

    service.writeLine("quit");
    QVERIFY(service.waitForExit());
    QVERIFY(service.start() && service.waitForErrCount("Enter your command:", 2));
    QCOMPARE(dlctl(service, {"create", server.url("/f.txt").toString(), "--wait"}).code, 0);
    QCOMPARE(fileBytes(service.downloadsDir() + "f.txt"), QByteArray("hello"));
    QCOMPARE(fileBytes(second + "/f.txt"), QByteArray("hello"));
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

void tst_IpcService::eventClientsAreBoundedPerConnection()
{
    FakeHttpServer server;
    server.setBody("/d", "data");
    ServiceProcess service;
    startService(service);
    Client probe(DLPROBE_BINARY, {"flood"}, service);
    QVERIFY(probe.waitForOut("registered"));
    QCOMPARE(dlctl(service, {"create", server.url("/d").toString(), "--id", "d", "--wait"}).code, 0);
    // The repeated object once, the service's own object never, then others up to the limit.
    QVERIFY(probe.waitForOut("update d 1 4", 16));
    QCOMPARE(probe.out().count("update d 16 0"), 16);
    QVERIFY(service.stdErr().contains("refused: not another process's object"));
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

void tst_IpcService::failuresAndRefusalsEndWithStatusOne()
{
    FakeHttpServer server; // "/missing" answers 404
    ServiceProcess service;
    startService(service);
    Result r = dlctl(service, {"create", server.url("/missing").toString(), "--id", "m", "--wait"});
    QCOMPARE(r.code, 1);
    QVERIFY2(r.out.contains("m dlctl Failed 0 0 "), r.out);
    QVERIFY2(r.out.contains("(failure 2: the server answered with an error status)"), r.out);
    r = dlctl(service, {"create", "ftp://127.0.0.1/f"});
    QCOMPARE(r.code, 1);
    QVERIFY2(r.err.contains("not an http or https URL"), r.err);
}

void tst_IpcService::reachability_data()
{
    QTest::addColumn<QString>("situation");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("message");
    QTest::newRow("another user, service started under umask 077") << "open" << 0 << QByteArray();
    QTest::newRow("not running") << "absent" << 2 << QByteArray("not running");
    QTest::newRow("socket directory closed to the user")
        << "closed" << 2 << QByteArray("permission denied");
    QTest::newRow("backlog full") << "backlog" << 2 << QByteArray("not answering");
    QTest::newRow("SIGTERM while connecting") << "sigterm" << 128 + SIGTERM << QByteArray();
}

void tst_IpcService::reachability()
{
    QFETCH(QString, situation);
    QFETCH(int, code);
    QFETCH(QByteArray, message);
    const bool otherUser = situation == "open" || situation == "closed";
    if (otherUser && geteuid() != 0)
        QSKIP("running dlctl as another user needs root");
    ServiceProcess service;
    QDir().mkpath(service.socketDir());
    if (situation == "open") {
        QVERIFY(chmod(QFile::encodeName(service.root()).constData(), 0755) == 0);
        QVERIFY(QDir().rmdir(service.socketDir())); // the service makes it
        const mode_t mask = umask(077);
        startService(service);
        umask(mask);
    }
    // A listener that never accepts, its backlog filled: connecting blocks.
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::vector<int> queued;
    if (situation == "backlog" || situation == "sigterm") {
        sockaddr_un addr {};
        addr.sun_family = AF_UNIX;
        const QByteArray path = QFile::encodeName(service.socketDir() + "/com.velta.DLService");
        memcpy(addr.sun_path, path.constData(), size_t(path.size()));
        QVERIFY(bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0);
        QVERIFY(listen(listener, 0) == 0);
        for (int fd; (fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) >= 0;) {
            queued.push_back(fd);
            if (::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
                break;
        }
    }
    const QStringList list {"list"};
    Client c(otherUser ? "runuser" : DLCTL_BINARY,
             otherUser ? QStringList {"-u", "nobody", "--", DLCTL_BINARY} + list : list, service);
    if (situation == "sigterm") {
        const QString syscall = QStringLiteral("/proc/%1/syscall").arg(c.process.processId());
        QTRY_VERIFY(fileBytes(syscall).startsWith(QByteArray::number(SYS_connect) + ' '));
        c.process.terminate();
    }
    const Result r = c.finish();
    QCOMPARE(r.code, code);
    QVERIFY2(r.err.contains(message), r.err);
    for (int fd : queued)
        close(fd);
    close(listener);
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

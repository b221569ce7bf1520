// End to end over IPC: the real service, dlctl and probe clients as separate processes.
#include "FakeHttpServer.h"
#include "ServiceProcess.h"

#include <QtTest>

#include <csignal>
#include <pwd.h>
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

// dlctl as root, or as another user.
Result dlctl(const ServiceProcess &service, const QStringList &args, const QString &user = {})
{
    Client c(user.isEmpty() ? DLCTL_BINARY : "runuser",
             user.isEmpty() ? args : QStringList {"-u", user, "--", DLCTL_BINARY} + args, service);
    return c.finish();
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
    // Throw-away users, made on first use and removed when the test ends.
    struct User
    {
        QString name;
        uid_t uid;
        gid_t gid;
    };
    User user(int i)
    {
        while (users.size() <= i) {
            users << QString("dlmt%1%2").arg(getpid()).arg(QChar(char('a' + users.size())));
            QProcess::execute("useradd", {"--system", "--shell", "/usr/sbin/nologin", users.last()});
        }
        const passwd *entry = getpwnam(users[i].toLocal8Bit().constData());
        return entry ? User {users[i], entry->pw_uid, entry->pw_gid} : User {users[i], 0, 0};
    }
    QStringList users;

private slots:
    void cleanupTestCase()
    {
        for (const QString &name : users)
            QProcess::execute("userdel", {name});
    }
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
    void ownership_data();
    void ownership();
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
    const QByteArray body = slowBody(server, "/slow.bin", 400000);
    server.resource("/slow.bin").stallAfter = 100000; // it cannot complete before the pause
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
    server.resource("/slow.bin").stallAfter = -1;
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

void tst_IpcService::ownership_data()
{
    QTest::addColumn<QString>("situation");
    QTest::newRow("a user downloads into its own directory, as itself") << "own";
    QTest::newRow("a root-only directory stays closed") << "closed";
    QTest::newRow("a planted symbolic link is not followed") << "link";
    QTest::newRow("another user's downloads are not seen nor touched") << "stranger";
    QTest::newRow("a user over its limit of downloads") << "limit";
    QTest::newRow("a database directory another user can write") << "database";
    QTest::newRow("a settings file another user owns") << "settings";
}

void tst_IpcService::ownership()
{
    QFETCH(QString, situation);
    if (geteuid() != 0)
        QSKIP("acting as other users needs root");
    const User a = user(0);
    const QString b = user(1).name;
    QVERIFY(a.uid != 0);
    FakeHttpServer server;
    const QByteArray body = FakeHttpServer::makeBody(70000, 3);
    server.setBody("/f", body);
    ServiceProcess service;
    const QString mine = service.root() + "/mine", closed = service.root() + "/closed";
    QVERIFY(QDir().mkpath(mine) && QDir().mkpath(closed) && QDir().mkpath(service.databaseDir()));
    QVERIFY(chmod(QFile::encodeName(service.root()), 0755) == 0 &&
            chown(QFile::encodeName(mine), a.uid, a.gid) == 0 &&
            chmod(QFile::encodeName(closed), 0700) == 0);
    if (situation == "database")
        QVERIFY(chmod(QFile::encodeName(service.databaseDir()), 0777) == 0);
    if (situation == "settings") {
        const QString ini = service.root() + "/theirs.ini";
        QVERIFY(QFile(ini).open(QIODevice::WriteOnly) &&
                chown(QFile::encodeName(ini), a.uid, a.gid) == 0);
        service.setEnv("DLM_SETTINGS", ini);
    }
    service.setSetting("max_downloads_per_user", "1");
    startService(service);
    QCOMPARE(dlctl(service, {"set-path", "dlctl", mine}, a.name).code, 0);
    const QString url = server.url("/f").toString();

    if (situation == "own") {
        QCOMPARE(dlctl(service, {"create", url, "--wait"}, a.name).code, 0);
        QCOMPARE(fileBytes(mine + "/f"), body);
        QCOMPARE(QFileInfo(mine + "/f").ownerId(), a.uid);
    } else if (situation == "closed") {
        Result r = dlctl(service, {"set-path", "app", closed}, a.name);
        QCOMPARE(r.code, 1);
        QVERIFY2(r.err.contains("is not permitted"), r.err);
        QCOMPARE(dlctl(service, {"set-path", "DEFAULT_CLIENT_ID", mine}, a.name).code, 1);
        // Root may make it every user's default; a user's file there is refused by the kernel.
        QCOMPARE(dlctl(service, {"set-path", "DEFAULT_CLIENT_ID", closed}).code, 0);
        r = dlctl(service, {"create", url, "--client", "app", "--wait"}, a.name);
        QVERIFY2(r.code == 1 && r.out.contains(" Failed 0 70000 " + closed.toUtf8()), r.out);
        QVERIFY(QDir(closed).isEmpty());
    } else if (situation == "link") {
        // Root's download in a directory the user writes; the user links its name to a secret.
        QVERIFY(QFile(closed + "/secret").open(QIODevice::WriteOnly));
        QCOMPARE(dlctl(service, {"set-path", "victim", mine}).code, 0);
        QCOMPARE(dlctl(service, {"create", server.url("/later").toString(), "--client", "victim",
                                 "--id", "v", "--wait"}).code, 1); // not there yet
        QVERIFY(QFile::link(closed + "/secret", mine + "/later"));
        server.setBody("/later", body);
        QCOMPARE(dlctl(service, {"resume", "v"}).code, 0);
        QVERIFY(service.waitForErr("Download v failed: cannot write " + mine.toUtf8() +
                                   "/later: Too many levels of symbolic links"));
        QCOMPARE(QFileInfo(closed + "/secret").size(), 0);
    } else if (situation == "stranger") {
        server.resource("/f").stallAfter = 1000; // stays Progressing
        Client watcher("runuser", {"-u", b, "--", DLCTL_BINARY, "watch"}, service);
        QCOMPARE(dlctl(service, {"create", url, "--id", "theirs"}, a.name).code, 0);
        QVERIFY(service.waitForErr("status:  \"Progressing\""));
        for (const QString command : {"status", "pause", "remove"})
            QVERIFY(dlctl(service, {command, "theirs"}, b).err.contains("no download theirs"));
        QCOMPARE(dlctl(service, {"list"}, b).out, QByteArray());
        QCOMPARE(dlctl(service, {"pause", "all"}, b).code, 0);
        QVERIFY(service.waitForErr("all has been paused."));
        QVERIFY(dlctl(service, {"list"}, a.name).out.startsWith("theirs dlctl Progressing 0 "));
        QVERIFY(dlctl(service, {"list"}).out.startsWith("theirs dlctl Progressing 0 "));
        // Its own download's updates reach the watcher; the other one's never did.
        QCOMPARE(dlctl(service, {"create", server.url("/none").toString(), "--wait"}, b).code, 1);
        QVERIFY(watcher.waitForOut(" Failed "));
        QVERIFY2(!watcher.out().contains("theirs"), watcher.out());
    } else if (situation == "limit") {
        QCOMPARE(dlctl(service, {"create", url}, a.name).code, 0);
        const Result r = dlctl(service, {"create", url}, a.name);
        QVERIFY2(r.code == 1 && r.err.contains("reached its limit of downloads"), r.err);
        QVERIFY(service.waitForErr("Download refused: uid " + QByteArray::number(a.uid)));
        QCOMPARE(dlctl(service, {"create", url}).code, 0); // root has no limit
    } else {
        QVERIFY(service.waitForErr(situation == "database" ? "running without persistence: "
                                                           : "not used, defaults apply: "));
        QVERIFY(!QFile::exists(service.databaseFile()));
    }
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

// The IPC interface end to end: the real service driven by dlctl and the probe client, as root
// and (when the test runs as root) as two other users.
#include "FakeHttpServer.h"
#include "Harness.h"

#include <QtTest>

#include <csignal>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const QStringList kUsers {"dlmtest-a", "dlmtest-b"};
// Every data notification is written and reported at once.
const QStringList kEveryPacket {"MAX_PACKET_COUNT=-1", "DLM_REPORT_INTERVAL_MS=0"};
const QByteArray kHttpFailure = " (failure 2: the server answered with an error status)\n";

uid_t uidOf(const QString &user)
{
    const passwd *entry = getpwnam(user.toLocal8Bit().constData());
    return entry ? entry->pw_uid : 0;
}

Run run(Service &svc, const QStringList &argv)
{
    const std::unique_ptr<Child> c = svc.client(argv);
    return Run {c->finish(), c->out(), c->err()};
}

// Root's dlctl downloads land in path("downloads").
bool start(Service &svc)
{
    return svc.start() && svc.dlctl({"set-path", "dlctl", svc.path("downloads")}).code == 0;
}

FakeHttpServer::Resource resource(qint64 size, int chunkDelayMs, qint64 stallAfter = -1)
{
    FakeHttpServer::Resource r;
    r.body = FakeHttpServer::makeBody(size, 5);
    r.chunkSize = chunkDelayMs ? 8192 : 0;
    r.chunkDelayMs = chunkDelayMs;
    r.stallAfter = stallAfter;
    return r;
}

} // namespace

class tst_Dlctl : public QObject
{
    Q_OBJECT

    QString url(const QByteArray &path) const { return server.url(path).toString(); }
    void buildShared();

    FakeHttpServer server;
    std::unique_ptr<Service> shared; // the requests table's service, built by its first row
    std::unique_ptr<Child> watcher;  // dlmtest-b's dlctl watch on it
    QTemporaryDir shm {"/dev/shm/dlmtest-XXXXXX"}; // another file system

private slots:
    void initTestCase()
    {
        server.setResource("/p.bin", resource(300000, 10, 100000));
        server.setResource("/w.bin", resource(200000, 30));
        server.setResource("/stall", resource(70000, 0, 1000));
        server.setResource("/huge", resource(4096, 0, 4096));
        server.resource("/huge").contentLength = 1LL << 50;
        server.resource("/dlmtest-never").neverAnswer = true;
        server.setBody("/f", FakeHttpServer::makeBody(70000, 3));
        server.setBody("/tw%C3%B6", "second!");
        for (const QString &user : kUsers)
            if (geteuid() == 0)
                QProcess::execute("useradd", {"--system", "--shell", "/usr/sbin/nologin", user});
    }
    void cleanupTestCase()
    {
        watcher.reset();
        if (shared)
            QCOMPARE(shared->stop(), 0);
        for (const QString &user : kUsers)
            if (geteuid() == 0)
                QProcess::execute("userdel", {user});
    }
    void recordsAndControl();
    void requests_data();
    void requests();
    void watchers();
    void reachability_data();
    void reachability();
    void manyStoredAreListed();
};

void tst_Dlctl::recordsAndControl()
{
    const QByteArray body = server.resource("/p.bin").body;
    server.setBody("/a.bin", body);
    Service svc({}, kEveryPacket);
    QVERIFY(start(svc));
    Run r = svc.dlctl({"create", url("/a.bin"), "--wait"});
    const QByteArray id = r.out.left(32), path = svc.path("downloads/a.bin").toUtf8();
    QVERIFY2(r.code == 0 && QRegularExpression("^[0-9a-f]{32}\n").match(r.out).hasMatch(), r.out);
    QVERIFY2(r.out.endsWith(id + " dlctl Completed 300000 300000 " + path + '\n'), r.out);
    QCOMPARE(readFile(path), body);
    QVERIFY(svc.waitErr("Request download client id:dlctl url:" + url("/a.bin").toUtf8()));
    QVERIFY(svc.waitErr("file: \"" + path + "\"  status:  \"Completed\"  DL:  300000 / 300000"));

    // A paused download's record, whose bytes differ from its total, member for member.
    QCOMPARE(svc.dlctl({"create", url("/p.bin"), "--id", "p", "--name", "Shown"}).out, "p\n");
    QVERIFY(svc.waitErr("DL:  100000 / 300000"));
    QCOMPARE(svc.dlctl({"pause", "p"}).code, 0);
    QVERIFY(svc.waitErr("status:  \"Paused\""));
    const QString file = svc.path("downloads/p.bin");
    const QByteArray line = "p dlctl Paused 100000 300000 " + file.toUtf8() + '\n';
    QCOMPARE(svc.dlctl({"status", "p"}).out, line);
    QStringList stored;
    for (const QVariant &column : svc.sql("SELECT uniqueID, clientID, name, contentURL, filePath, "
                                          "state, failureCode, totalSize, amountDownloaded, "
                                          "startTime FROM downloads WHERE uniqueID = ?", {"p"}).value(0))
        stored << column.toString();
    QVERIFY2(stored.join('|').startsWith("p|dlctl|Shown|"), qPrintable(stored.join('|')));
    QCOMPARE(run(svc, {DLPROBE_BINARY, "record", "p"}).out, stored.join('|').toUtf8() + '\n');

    // An identifier in use is refused and changes nothing.
    r = svc.dlctl({"create", url("/other"), "--id", "p"});
    QVERIFY2(r.code == 1 && r.err.contains("the identifier belongs to another download"), r.err);
    QVERIFY(svc.waitErr("Error: The download identifier p is in use."));
    QCOMPARE(svc.dlctl({"status", "p"}).out, line);
    QVERIFY(server.requestsFor("/other").isEmpty());

    // Resumed from its committed byte while two probes query without pause.
    server.resource("/p.bin").stallAfter = -1;
    server.clearRequests();
    const auto storm = svc.client({DLPROBE_BINARY, "storm", "30"});
    const auto storm2 = svc.client({DLPROBE_BINARY, "storm", "30"});
    QCOMPARE(svc.dlctl({"resume", "all"}).code, 0);
    QVERIFY(svc.waitErr("status:  \"Completed\"  DL:  300000 / 300000", 2));
    QVERIFY(storm->finish() == 0 && storm2->finish() == 0 && storm->out() + storm2->out() == "ok\nok\n");
    QCOMPARE(server.requests().size(), 1);
    QCOMPARE(server.requests().first().header("range"), "bytes=100000-");
    QCOMPARE(readFile(file), body);

    // "all" names no download to remove; removal keeps a Completed file and drops the row.
    QCOMPARE(svc.dlctl({"remove", "all"}).code, 1);
    QCOMPARE(svc.dlctl({"remove", "p"}).code, 0);
    QVERIFY(svc.waitErr("Download successfully deleted."));
    QCOMPARE(svc.dlctl({"status", "p"}).code, 1);
    QCOMPARE(readFile(file), body);
    QCOMPARE(svc.sql("SELECT uniqueID FROM downloads WHERE uniqueID = 'p'").size(), 0);
    QCOMPARE(svc.stop(), 0);
}

// The requests table's service: a download announcing 2^50 bytes runs in path("downloads"),
// client "shm" writes to another file system, client "ghost"'s directory is gone. As root also:
// dlmtest-a's "theirs" runs in its own directory "mine", root's "v" in "mine" met a planted
// link, "app" of dlmtest-b is "yours", and dlmtest-b watches.
void tst_Dlctl::buildShared()
{
    shared = std::make_unique<Service>(QMap<QString, QString> {{"max_downloads_per_user", "2"}},
                                       kEveryPacket);
    Service &s = *shared;
    for (const char *dir : {"ghost", "mine", "yours", "closed"})
        QDir().mkpath(s.path(dir));
    QVERIFY(start(s) && s.dlctl({"set-path", "ghost", s.path("ghost")}).code == 0);
    QVERIFY(QDir().rmdir(s.path("ghost")) && s.dlctl({"set-path", "shm", shm.path()}).code == 0);
    QCOMPARE(s.dlctl({"create", url("/huge")}).code, 0);
    QVERIFY(s.waitErr("DL:  4096 / 1125899906842624"));
    if (geteuid() != 0)
        return;
    QVERIFY(chmod(QFile::encodeName(s.path()), 0755) == 0);
    QVERIFY(chmod(QFile::encodeName(s.path("closed")), 0700) == 0);
    QVERIFY(chown(QFile::encodeName(s.path("mine")), uidOf(kUsers[0]), gid_t(-1)) == 0);
    QVERIFY(chown(QFile::encodeName(s.path("yours")), uidOf(kUsers[1]), gid_t(-1)) == 0);
    watcher = s.client({DLCTL_BINARY, "watch"}, kUsers[1]);
    QVERIFY(s.waitErr("Event client registered"));
    QCOMPARE(s.dlctl({"set-path", "dlctl", s.path("mine")}, kUsers[0]).code, 0);
    QCOMPARE(s.dlctl({"set-path", "app", s.path("yours")}, kUsers[1]).code, 0);
    QCOMPARE(s.dlctl({"create", url("/stall"), "--id", "theirs"}, kUsers[0]).code, 0);
    QVERIFY(s.waitErr("DL:  1000 / 70000"));
    QCOMPARE(s.dlctl({"set-path", "victim", s.path("mine")}).code, 0);
    QCOMPARE(s.dlctl({"create", url("/later"), "--client", "victim", "--id", "v", "--wait"}).code, 1);
    QFile::remove(s.path("mine/later"));
    QVERIFY(QFile::link(s.path("closed/secret"), s.path("mine/later")));
    server.setBody("/later", "never written");
    QCOMPARE(s.dlctl({"resume", "v"}).code, 0);
    QVERIFY(s.waitErr("Too many levels of symbolic links"));
}

void tst_Dlctl::requests_data()
{
    QTest::addColumn<QString>("user");     // root when empty; "a" or "b" need root
    QTest::addColumn<QStringList>("args"); // "URL/" the server, "@" the service's directory
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("out");     // of a --wait only the first and last line
    QTest::addColumn<QByteArray>("said");    // in dlctl's standard error, else in the log
    QTest::addColumn<QByteArray>("watched"); // seen by dlmtest-b's watcher by then
    const auto row = [](const char *name, const QString &user, const QStringList &args, int code,
                        const QByteArray &out, const QByteArray &said = {},
                        const QByteArray &watched = {}) {
        QTest::newRow(name) << user << args << code << out << said << watched;
    };
    row("not an http URL", "", {"create", "ftp://h/f"}, 1, "", "not an http or https URL");
    row("empty path", "", {"set-path", "app", ""}, 1, "", "dlctl:  is not an absolute path");
    row("relative path", "", {"set-path", "app", "rel"}, 1, "", "rel is not an absolute path");
    row("missing directory", "", {"set-path", "app", "@/no"}, 1, "", "@/no is not a directory");
    row("size not a number", "", {"space", "abc"}, 64, "", "SIZE must be");
    row("negative size", "", {"space", "-1"}, 64, "", "SIZE must be");
    row("unknown command", "", {"frob"}, 64, "", "usage: dlctl");
    row("fits on another file system", "", {"space", "1", "--client", "shm"}, 0, "0 fits\n");
    row("more than it holds", "", {"space", "9000000000000000000", "--client", "shm"}, 0,
        "1 does not fit\n");
    row("a running download reserves its rest", "", {"space", "1"}, 0, "1 does not fit\n");
    row("directory gone", "", {"space", "1", "--client", "ghost"}, 0,
        "2 directory missing or unreadable\n");
    row("failed download", "", {"create", "URL/missing", "--id", "m", "--wait"}, 1,
        "m\nm dlctl Failed 0 0 @/downloads/missing" + kHttpFailure);
    row("unknown download", "", {"status", "none"}, 1, "", " getDownload download is null none");
    row("unknown client", "", {"create", "URL/dlmtest-never", "--client", "nobody", "--id", "nb"},
        0, "nb\n");
    row("unknown client's default directory", "", {"status", "nb"}, 0,
        "nb nobody Pending 0 0 /tmp/dlmtest-never\n");
    row("UTF-8 client", "", {"set-path", "été", "@/downloads"}, 0, "");
    row("UTF-8 URL", "", {"create", "URL/twö", "--client", "été", "--id", "two", "--wait"}, 0,
        "two\ntwo été Completed 7 7 @/downloads/twö\n");
    row("list of one client", "", {"list", "été"}, 0, "two été Completed 7 7 @/downloads/twö\n");
    row("list of a client without downloads", "", {"list", "ghost"}, 0, "");
    row("own directory, own file", "a", {"create", "URL/f", "--id", "own", "--wait"}, 0,
        "own\nown dlctl Completed 70000 70000 @/mine/f\n");
    row("root-only directory", "a", {"set-path", "app", "@/closed"}, 1, "", "is not permitted");
    row("default directory", "a", {"set-path", "DEFAULT_CLIENT_ID", "@/mine"}, 1, "",
        "is not permitted");
    row("a client's directory per user", "a", {"set-path", "app", "@/mine"}, 0, "");
    row("another's directory stays", "b", {"create", "URL/missing", "--client", "app", "--id",
        "bm", "--wait"}, 1, "bm\nbm app Failed 0 0 @/yours/missing" + kHttpFailure, "",
        "bm app Failed 0 0 @/yours/missing");
    row("another's download unseen", "b", {"status", "theirs"}, 1, "", "no download theirs");
    row("another's downloads unlisted", "b", {"list"}, 0, "bm app Failed 0 0 @/yours/missing\n");
    row("pause all of one's own", "b", {"pause", "all"}, 0, "", "all has been paused.");
    row("root sees all; another's runs", "root", {"status", "theirs"}, 0,
        "theirs dlctl Progressing 1000 70000 @/mine/stall\n");
    row("a user over its limit", "a", {"create", "URL/f"}, 1, "", "has 2 downloads, its limit");
    row("planted link not followed", "root", {"status", "v"}, 0,
        "v victim Failed 0 13 @/mine/later\n");
}

void tst_Dlctl::requests()
{
    QFETCH(QString, user);
    QFETCH(QStringList, args);
    QFETCH(int, code);
    QFETCH(QByteArray, out);
    QFETCH(QByteArray, said);
    QFETCH(QByteArray, watched);
    if (!user.isEmpty() && geteuid() != 0)
        QSKIP("needs root to act as other users");
    if (!shared)
        buildShared();
    Service &s = *shared;
    const auto fill = [&](QByteArray text) { return text.replace('@', s.path().toUtf8()); };
    for (QString &arg : args)
        arg.replace("URL/", url("/")).replace('@', s.path());
    const QString name = user.size() == 1 ? "dlmtest-" + user : user;
    const qsizetype mark = s.mark();
    const Run r = s.dlctl(args, name);
    QCOMPARE(r.code, code);
    QList<QByteArray> lines = r.out.split('\n');
    if (args.contains("--wait")) // the updates before the last one vary in number
        lines.remove(1, lines.size() - 3);
    QCOMPARE(lines.join('\n'), fill(out));
    QVERIFY2(r.err.contains(fill(said)) || s.waitErr(fill(said), 1, mark), r.err);
    QVERIFY(!watcher || watcher->waitFor([&] { return watcher->out().contains(fill(watched)); }));
    QVERIFY2(!watcher || !watcher->out().contains("theirs"), watcher->out());
    // A completed file holds its bytes and belongs to the caller.
    for (const QByteArray &line : r.out.split('\n')) {
        const QList<QByteArray> f = line.split(' ');
        const QFileInfo file(QString::fromUtf8(f.last()));
        QVERIFY(f.value(2) != "Completed" ||
                (file.size() == f[3].toLongLong() && file.ownerId() == uidOf(name)));
    }
}

void tst_Dlctl::watchers()
{
    Service svc;
    QVERIFY(start(svc));
    const auto a = svc.client({DLCTL_BINARY, "watch"}), b = svc.client({DLCTL_BINARY, "watch"});
    const auto stopped = svc.client({DLCTL_BINARY, "watch"});
    const auto flood = svc.client({DLPROBE_BINARY, "flood"});
    const auto reentrant = svc.client({DLPROBE_BINARY, "reentrant"});
    QVERIFY(svc.waitErr("Event client registered", 20));
    stopped->signal(SIGSTOP);
    // Updates are one-way: a watcher that never reads holds up neither the manager nor dlctl.
    QCOMPARE(svc.dlctl({"create", url("/w.bin"), "--id", "w", "--wait"}).code, 0);
    QVERIFY(svc.sync());
    const QByteArray last = "w dlctl Completed 200000 200000 " + svc.path("downloads/w.bin").toUtf8();
    QVERIFY(a->waitFor([&] { return a->out().endsWith(last + '\n') && b->out().endsWith(last + '\n'); }));
    QCOMPARE(a->out(), b->out());
    QVERIFY2(a->out().startsWith("w dlctl Pending 0 0 "), a->out());
    qint64 bytes = 0;
    for (const QByteArray &line : a->out().trimmed().split('\n')) {
        QVERIFY2(line.split(' ')[3].toLongLong() >= bytes, a->out());
        bytes = line.split(' ')[3].toLongLong();
    }
    // One object counts once, the service's own object never, a connection's objects up to 16.
    QVERIFY(flood->waitFor([&] { return flood->out().count("update w 1 200000") == 16; }));
    QCOMPARE(flood->out().count("update w 16 0"), 16);
    QVERIFY(svc.waitErr("refused: not another process's object"));
    // A query from inside a callback is answered, every time.
    QVERIFY(reentrant->waitFor([&] {
        const QByteArray o = reentrant->out();
        return o.contains("update w 1 200000") && o.count("reentrant w 1") == o.count("update w ");
    }));
    QCOMPARE(svc.dlctl({"status", "w"}).code, 0);
    // A killed watcher is dropped; the others still hear of every change.
    a->signal(SIGKILL);
    QVERIFY(svc.waitErr("from eventClients"));
    server.setBody("/w2", "two");
    QCOMPARE(svc.dlctl({"create", url("/w2"), "--id", "w2", "--wait"}).code, 0);
    QVERIFY(b->waitFor([&] { return b->out().contains("w2 dlctl Completed 3 3 "); }));
    stopped->signal(SIGKILL);
    QCOMPARE(svc.stop(), 0);
}

void tst_Dlctl::reachability_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<bool>("running"); // started under umask 077, so it must open its socket
    QTest::addColumn<bool>("stuck");   // a listener that never accepts, its backlog full
    QTest::addColumn<int>("signal");   // sent while dlctl waits in connect()
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("said");
    QTest::newRow("another user") << kUsers[0] << true << false << 0 << 0 << QByteArray();
    QTest::newRow("not running") << "" << false << false << 0 << 2 << QByteArray("not running");
    QTest::newRow("socket directory closed to the user")
        << kUsers[0] << false << false << 0 << 2 << QByteArray("permission denied");
    QTest::newRow("backlog full") << "" << false << true << 0 << 2 << QByteArray("not answering");
    QTest::newRow("SIGTERM while connecting") << "" << false << true << SIGTERM << 143 << QByteArray();
}

void tst_Dlctl::reachability()
{
    QFETCH(QString, user);
    QFETCH(bool, running);
    QFETCH(bool, stuck);
    QFETCH(int, signal);
    QFETCH(int, code);
    QFETCH(QByteArray, said);
    if (!user.isEmpty() && geteuid() != 0)
        QSKIP("needs root to act as other users");
    Service svc;
    if (running) {
        QVERIFY(chmod(QFile::encodeName(svc.path()), 0755) == 0 && QDir().rmdir(svc.path("binder")));
        QVERIFY(svc.start([] { umask(077); }));
    }
    sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(svc.path("binder/com.velta.DLService"));
    memcpy(addr.sun_path, name.constData(), size_t(name.size()));
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::vector<int> queued {listener};
    QVERIFY(!stuck || (bind(listener, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
                       listen(listener, 0) == 0));
    for (int fd = 0; stuck && fd >= 0;) {
        queued.push_back(fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        if (::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
            break;
    }
    const auto c = svc.client({DLCTL_BINARY, "list"}, user);
    const QString syscall = QStringLiteral("/proc/%1/syscall").arg(c->pid());
    QVERIFY(!signal || c->waitFor([&] {
        return readFile(syscall).startsWith(QByteArray::number(SYS_connect) + ' ');
    }));
    c->signal(signal);
    QCOMPARE(c->finish(), code);
    QVERIFY2(c->err().contains(said), c->err());
    for (int fd : queued)
        close(fd);
    QVERIFY(!running || svc.stop() == 0);
}

void tst_Dlctl::manyStoredAreListed()
{
    Service svc;
    QVERIFY(svc.start());
    QCOMPARE(svc.stop(), 0);
    svc.sql("WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 19999) "
            "INSERT INTO downloads (uniqueID, clientID, name, contentURL, filePath, state) "
            "SELECT printf('id%05d', i), 'crowd', 'n', 'http://h/', printf('/d/%05d', i), 4 FROM n");
    QVERIFY(svc.start());
    const Run r = svc.dlctl({"list"});
    QCOMPARE(r.code, 0);
    QCOMPARE(r.out.count('\n'), 20000);
    QVERIFY2(r.out.startsWith("id00000 crowd Paused 0 0 /d/00000\n"), r.out.left(200));
    // They pass one reply's bound: the one-reply list is refused, not sent broken.
    QCOMPARE(run(svc, {DLPROBE_BINARY, "storm", "1"}).code, 3);
    QVERIFY(svc.waitErr("the records exceed one reply"));
    QCOMPARE(svc.stop(), 0);
}

QTEST_GUILESS_MAIN(tst_Dlctl)
#include "tst_dlctl.moc"

// The IPC interface end to end: the real service driven by dlctl and probe clients.
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

// Resources are given by their first members; the others keep their defaults.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

static const QStringList kUsers {"dlmtest-a", "dlmtest-b"};

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
        const QByteArray body = FakeHttpServer::makeBody(300000, 2);
        server.setResource("/p.bin", {body, 200, true, 8192, 10, 100000});
        server.setResource("/w.bin", {body.left(200000), 200, true, 8192, 30});
        server.setResource("/huge", {body.left(4096), 200, true, 0, 0, 4096});
        server.resource("/huge").contentLength = 1LL << 50;
        server.resource("/dlmtest-never").neverAnswer = true;
        for (const char *path : {"/a", "/f", "/w2"})
            server.setBody(path, body.left(70000));
        server.setBody("/tw%C3%B6", "second!");
        QProcess::execute("sh", {"-c", "(useradd -r dlmtest-a; useradd -r dlmtest-b) 2>/dev/null"});
    }
    void cleanupTestCase()
    {
        // dlmtest-b heard of its own download, never of the other user's.
        QVERIFY(!watcher || watcher->out().contains(" app Failed "));
        QVERIFY(!watcher || !watcher->out().contains("theirs"));
        watcher.reset();
        QVERIFY(!shared || shared->stop() == 0);
        QProcess::execute("sh", {"-c", "(userdel dlmtest-a; userdel dlmtest-b) 2>/dev/null"});
    }
    void requests_data();
    void requests();
    void watchers();
    void reachability_data();
    void reachability();
    void manyStoredAreListed();
};

// Started under umask 077, every data notification written and reported at once: "huge" wants
// 2^50 bytes, "p" paused at 100000 of 300000 has its file replaced by a link, client "shm" is on
// another file system. As root: dlmtest-a's "theirs" stalls in "a"; dlmtest-b watches.
void tst_Dlctl::buildShared()
{
    shared.reset(new Service({{"max_downloads_per_user", "2"}},
                             {"MAX_PACKET_COUNT=-1", "DLM_REPORT_INTERVAL_MS=0"}));
    Service &s = *shared;
    const auto as = [&s](int user, const QString &args) {
        return s.dlctl(args.split(' '), user < 0 ? QString() : kUsers[user]).code == 0;
    };
    QVERIFY(chmod(QFile::encodeName(s.path()), 0755) == 0 && QDir().rmdir(s.path("binder")));
    QVERIFY(s.start([] { umask(077); }) && as(-1, "set-path dlctl " + s.path("downloads")));
    QVERIFY(as(-1, "set-path shm " + shm.path()) && as(-1, "create " + url("/huge")));
    QVERIFY(as(-1, "create " + url("/p.bin") + " --id p --name Shown"));
    QVERIFY(s.waitErr("DL:  100000 / 300000") && as(-1, "pause p") && s.waitErr("\"Paused\""));
    const QString file = s.path("downloads/p.bin");
    QVERIFY(QFile::remove(file) && QFile::link(s.path("db/secret"), file));
    QVERIFY(s.waitErr("DL:  4096 / 1125899906842624"));
    if (geteuid() == 0) {
        for (int user = 0; user < 2; ++user)
            QProcess::execute("install", {"-d", "-o", kUsers[user], s.path(user ? "b" : "a")});
        watcher = s.client({DLCTL_BINARY, "watch"}, kUsers[1]);
        QVERIFY(s.waitErr("Event client registered"));
        QVERIFY(as(0, "set-path dlctl " + s.path("a")));
        QVERIFY(as(1, "set-path app " + s.path("b")));
        QVERIFY(as(0, "create " + url("/p.bin") + " --id theirs"));
        QVERIFY(s.waitErr("DL:  100000 / 300000", 2));
    }
    // The record as the interface carries it holds what is stored, member for member.
    const auto probe = s.client({DLPROBE_BINARY, "record", "p"});
    const QVariantList row = s.sql("SELECT * FROM downloads WHERE uniqueID = 'p'").value(0);
    QVERIFY(probe->finish() == 0 && row.value(2) == "Shown");
    QCOMPARE(probe->out(), QVariant(row.mid(0, 10)).toStringList().join('|').toUtf8() + '\n');
}

void tst_Dlctl::requests_data()
{
    QTest::addColumn<QString>("user"); // root when empty; the others need the test to run as root
    QTest::addColumn<QString>("args"); // "URL/" is the server, "@" the service's directory
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("out");  // of a --wait only the first and the last line
    QTest::addColumn<QByteArray>("said"); // in dlctl's standard error, else the service's
    const auto row = [](const char *name, const QString &user, const QString &args, int code,
                        const QByteArray &out, const QByteArray &said = {}) {
        QTest::newRow(name) << user << args << code << out << said;
    };
    row("paused record", "", "status p", 0, "p dlctl Paused 100000 300000 @/downloads/p.bin\n");
    row("create and follow", "", "create URL/a --id a --wait", 0,
        "a\na dlctl Completed 70000 70000 @/downloads/a\n", "\"Completed\"  DL:  70000 / 70000");
    row("identifier in use", "", "create URL/other --id p", 1, "", "belongs to another download");
    row("not an http URL", "", "create ftp://h/f", 1, "", "not an http or https URL");
    row("relative path", "", "set-path app rel", 1, "", "rel is not an absolute path");
    row("missing directory", "", "set-path app @/no", 1, "", "@/no is not a directory");
    row("negative size", "", "space -1", 64, "", "SIZE must be");
    row("fits elsewhere", "", "space 1 --client shm", 0, "0 fits\n");
    row("a running download reserves its rest", "", "space 1", 0, "1 does not fit\n");
    row("all is no identifier to remove", "", "remove all", 1, "", "no download all");
    row("removed", "", "remove a", 0, "", "Download successfully deleted.");
    row("unknown client", "", "create URL/dlmtest-never --client nobody --id nb", 0, "nb\n",
        "Request download client id:nobody url:URL/dlmtest-never unique id:nb name \n");
    row("its default directory", "", "status nb", 0, "nb nobody Pending 0 0 /tmp/dlmtest-never\n");
    row("UTF-8 client", "", "set-path été @/downloads", 0, "");
    row("UTF-8 URL", "", "create URL/twö --client été --id two --wait", 0,
        "two\ntwo été Completed 7 7 @/downloads/twö\n");
    row("own directory, own file", "a", "create URL/f --id own --wait", 0,
        "own\nown dlctl Completed 70000 70000 @/a/f\n");
    row("a directory of root's", "a", "set-path app @/db", 1, "", "is not permitted");
    row("default directory", "a", "set-path DEFAULT_CLIENT_ID @/a", 1, "", "is not permitted");
    row("a client's directory per user", "a", "set-path app @/a", 0, "");
    row("another's directory stays", "b", "create URL/no --client app --id b --wait", 1,
        "b\nb app Failed 0 0 @/b/no (failure 2: the server answered with an error status)\n");
    row("another's download unseen", "b", "status theirs", 1, "", "no download theirs");
    row("another's downloads unlisted", "b", "list", 0, "b app Failed 0 0 @/b/no\n");
    row("pause all of one's own", "b", "pause all", 0, "", "all has been paused.");
    row("a user's identifiers are its own", "b", "create URL/no --client app --id p", 0, "p\n");
    row("root's identifier a user holds", "", "create URL/dlmtest-never --id b", 0, "b\n");
    row("root sees all", "root", "status A:theirs", 0,
        "A:theirs dlctl Progressing 100000 300000 @/a/p.bin\n");
    row("an identifier too long", "a", "status " + QString(257, 'x'), 1, "", "longer than the");
    row("controls escaped", "", "create URL/no --id e\x1b\xc2\x85\xe2\x80\xae --wait", 1,
        "e\\x1b\\u0085\\u202e\ne\\x1b\\u0085\\u202e dlctl Failed 0 0 @/downloads/no (failure 2: "
        "the server answered with an error status)\n", "uniqueID:e\\x1b\\u0085\\u202e url");
    row("a user over its limit", "a", "create URL/f", 1, "", "has 2 downloads, its limit");
    row("resumed onto a planted link", "", "resume p", 0, "", "Too many levels of symbolic links");
    row("the link not followed", "", "status p", 0, "p dlctl Failed 0 300000 @/downloads/p.bin\n");
}

void tst_Dlctl::requests()
{
    QFETCH(QString, user);
    QFETCH(QString, args);
    QFETCH(int, code);
    QFETCH(QByteArray, out);
    QFETCH(QByteArray, said);
    if (!user.isEmpty() && geteuid() != 0)
        QSKIP("needs root to act as other users");
    if (!shared)
        buildShared();
    const passwd *a = getpwnam("dlmtest-a"); // "A:" is the prefix of dlmtest-a's identifiers
    const auto fill = [this, a](QString text) {
        text.replace("A:", QString::number(a ? a->pw_uid : 0) + ':');
        return text.replace("URL/", url("/")).replace('@', shared->path()).toUtf8();
    };
    const QString name = user.size() == 1 ? "dlmtest-" + user : user;
    const Run r = shared->dlctl(QString::fromUtf8(fill(args)).split(' '), name);
    QCOMPARE(r.code, code);
    QList<QByteArray> lines = r.out.split('\n');
    if (args.endsWith("--wait")) // the updates before the last one vary in number
        lines.remove(1, lines.size() - 3);
    QCOMPARE(lines.join('\n'), fill(out));
    QVERIFY2(r.err.contains(fill(said)) || shared->waitErr(fill(said)), r.err);
    // A completed file belongs to the caller, as the directory it chose does.
    const QList<QByteArray> last = lines.value(lines.size() - 2).split(' ');
    const QFileInfo file(QString::fromUtf8(last.last()));
    QVERIFY(last.value(2) != "Completed" || file.ownerId() == QFileInfo(file.path()).ownerId());
}

void tst_Dlctl::watchers()
{
    Service svc;
    QVERIFY(chmod(QFile::encodeName(svc.path()), 0755) == 0 && QDir().rmdir(svc.path("binder")));
    QVERIFY(svc.start() && svc.dlctl({"set-path", "dlctl", svc.path("downloads")}).code == 0);
    const auto a = svc.client({DLCTL_BINARY, "watch"}), b = svc.client({DLCTL_BINARY, "watch"});
    const auto stopped = svc.client({DLCTL_BINARY, "watch"});
    const auto flood = svc.client({DLPROBE_BINARY, "flood"});
    const auto nested = svc.client({DLPROBE_BINARY, "reentrant"});
    QVERIFY(svc.waitErr("Event client registered", 20));
    stopped->signal(SIGSTOP);
    // Updates are one-way: a watcher that never reads holds up neither the manager nor dlctl.
    QCOMPARE(svc.dlctl({"create", url("/w.bin"), "--id", "w", "--wait"}).code, 0);
    QVERIFY(svc.sync());
    const QByteArray last =
        "w dlctl Completed 200000 200000 " + svc.path("downloads/w.bin").toUtf8() + '\n';
    QVERIFY(a->waitFor([&] { return a->out().endsWith(last) && b->out().endsWith(last); }));
    QCOMPARE(a->out(), b->out());
    QVERIFY2(a->out().startsWith("w dlctl Pending 0 0 "), a->out());
    const QList<QByteArray> lines = a->out().trimmed().split('\n');
    QVERIFY2(std::is_sorted(lines.begin(), lines.end(), [](auto &x, auto &y) {
                 return x.split(' ')[3].toLongLong() < y.split(' ')[3].toLongLong(); }), a->out());
    // One object counts once, the service's own object never, a connection's objects up to 16.
    QVERIFY(flood->waitFor([&] { return flood->out().count("update w 1 200000") == 16; }));
    QCOMPARE(flood->out().count("update w 16 0"), 16);
    QVERIFY(svc.waitErr("refused: not another process's object"));
    // A query from inside a callback is answered, up to the last update.
    QVERIFY(nested->waitFor([&] { return nested->out().contains("w 1 200000\nreentrant w 1\n"); }));
    // A killed watcher is dropped; the others still hear of every change.
    a->signal(SIGKILL);
    QVERIFY(svc.waitErr("from eventClients"));
    QCOMPARE(svc.dlctl({"create", url("/w2"), "--id", "w2", "--wait"}).code, 0);
    QVERIFY(b->waitFor([&] { return b->out().contains("w2 dlctl Completed 70000 70000 "); }));
    // A user's watchers have a share below the total; its create --wait then asks instead.
    std::unique_ptr<Child> floods[3];
    for (auto &flood : floods)
        flood = svc.client({DLPROBE_BINARY, "flood"}, kUsers[0]);
    QVERIFY(svc.waitErr("its user's limit of event clients is reached"));
    QProcess::execute("install", {"-d", "-o", kUsers[0], svc.path("a")});
    QCOMPARE(svc.dlctl({"set-path", "dlctl", svc.path("a")}, kUsers[0]).code, 0);
    QCOMPARE(svc.dlctl({"create", url("/w2"), "--id", "u", "--wait"}, kUsers[0]).code, 0);
    QCOMPARE(svc.stop(), 0);
}

void tst_Dlctl::reachability_data()
{
    // "stuck": a listener that never accepts, its backlog full; "TERM": SIGTERM in connect();
    // "silent": connected, never answered.
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("socket");
    QTest::addColumn<int>("code");
    QTest::addColumn<QByteArray>("said");
    QTest::newRow("not running") << "" << "" << 2 << QByteArray("not running");
    QTest::newRow("closed to the user") << kUsers[0] << "" << 2 << QByteArray("permission denied");
    QTest::newRow("backlog full") << "" << "stuck" << 2 << QByteArray("not answering");
    QTest::newRow("SIGTERM while connecting") << "" << "stuck TERM" << 143 << QByteArray();
    QTest::newRow("call never answered") << "" << "silent" << 2 << QByteArray("did not answer list");
}

void tst_Dlctl::reachability()
{
    QFETCH(QString, user);
    QFETCH(QString, socket);
    QFETCH(int, code);
    QFETCH(QByteArray, said);
    if (!user.isEmpty() && geteuid() != 0)
        QSKIP("needs root to act as other users");
    Service svc; // not started
    sockaddr_un addr {AF_UNIX, {}};
    strcpy(addr.sun_path, qPrintable(svc.path("binder/com.velta.DLService")));
    const auto to = reinterpret_cast<sockaddr *>(&addr);
    std::vector<int> fds {::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    const bool stuck = socket.startsWith("stuck"), term = socket.endsWith("TERM");
    const bool silent = socket == "silent";
    QVERIFY(!(stuck || silent) || (bind(fds[0], to, sizeof addr) == 0 && listen(fds[0], 0) == 0));
    qputenv("DLCTL_TIMEOUT_MS", silent ? "500" : "");
    while (stuck && ::connect(fds.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)),
                              to, sizeof addr) == 0) { }
    const auto c = svc.client({DLCTL_BINARY, "list"}, user);
    const QString syscall = QStringLiteral("/proc/%1/syscall").arg(c->pid());
    QVERIFY(!term || c->waitFor([&] {
        return readFile(syscall).startsWith(QByteArray::number(SYS_connect) + ' ');
    }));
    c->signal(term ? SIGTERM : 0);
    QCOMPARE(c->finish(), code);
    QVERIFY2(c->err().contains(said), c->err());
    std::for_each(fds.begin(), fds.end(), close);
}

void tst_Dlctl::manyStoredAreListed()
{
    Service svc;
    QVERIFY(svc.start() && svc.stop() == 0);
    svc.sql("WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 19999) "
            "INSERT INTO downloads (uniqueID, clientID, name, contentURL, filePath, state) "
            "SELECT printf('id%05d', i), 'crowd', 'n', 'http://h/', '/d/' || i, 4 FROM n");
    // A row too large for any reply is shown cut, and named as any other.
    svc.sql("INSERT INTO downloads (uniqueID, clientID, name, contentURL, filePath, state) VALUES "
            "('id10000x', 'crowd', 'n', 'http://h/' || hex(zeroblob(1 << 19)), '/d/x', 4)");
    QVERIFY(svc.start());
    const Run r = svc.dlctl({"list"});
    QVERIFY(r.code == 0 && r.out.count('\n') == 20001);
    QVERIFY(svc.dlctl({"status", "id10000x"}).code == 0 && svc.dlctl({"remove", "id10000x"}).code == 0);
    QVERIFY2(r.out.startsWith("id00000 crowd Paused 0 0 /d/0\n"), r.out.left(200));
    // They pass one reply's bound: the one-reply list is refused, not sent broken.
    const auto probe = svc.client({DLPROBE_BINARY, "storm", "1"});
    QVERIFY(probe->finish() == 3 && svc.waitErr("the records exceed one reply"));
    QCOMPARE(svc.stop(), 0);
}

QTEST_GUILESS_MAIN(tst_Dlctl)
#include "tst_dlctl.moc"

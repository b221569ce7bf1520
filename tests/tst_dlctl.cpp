// The IPC interface end to end: the real service driven by dlctl and probe clients.
#include "FakeHttpServer.h"
#include "Harness.h"
#include "IDownload.h"

#include <QtTest>

#include <csignal>
#include <pwd.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

static const QStringList kUsers { "dlmtest-a", "dlmtest-b" };

// A dlctl command as a user, after commands that make the state it needs (whatever they answer:
// an earlier row may have made it; "dlprobe ..." ones as dlmtest-b). "URL/" is the server, "@"
// the service's directory.
// out: of a --wait only the first and the last line; said: in dlctl's standard error, else the
// service's since the row began; heard: by dlmtest-b's watcher, which never hears of another's.
struct Request {
    const char *user = ""; // root when empty; the others need the test to run as root
    QStringList before = {};
    QByteArray args;
    int code = 0;
    QByteArray out = "", said = "", heard = "";
    bool poll = false; // out is the state the before-commands lead to: asked until it comes
    bool small = false; // needs the 8 MiB file system, skipped where it cannot be mounted
    QByteArray json = ""; // members the last line's JSON object holds; out is then not compared
    bool readOnly = false; // needs "@/ro", a read-only mount (root only)
};

// "stuck": a listener that never accepts, its backlog full; "term": SIGTERM in connect().
struct Reach {
    QString user = {};
    bool stuck = false, term = false, silent = false; // silent: connected, never answered
    int code;
    QByteArray said = "";
};

class tst_Dlctl : public QObject {
    Q_OBJECT

    QString url(const QByteArray &path) const { return server.url(path).toString(); }
    void buildShared();

    FakeHttpServer server;
    std::unique_ptr<Service> shared; // the requests table's service, built by a row that needs it
    std::unique_ptr<Child> watcher; // dlmtest-b's dlctl watch on it
    bool smallFs = false; // client "small"'s directory, mounted by buildShared
    bool readOnlyMounted = false;

private slots:
    void initTestCase()
    {
        const QByteArray body = FakeHttpServer::makeBody(300000, 2);
        server.setResource("/p.bin",
            { .body = body, .chunkSize = 8192, .chunkDelayMs = 10, .stallAfter = 100000 });
        server.setResource(
            "/w.bin", { .body = body.left(200000), .chunkSize = 8192, .chunkDelayMs = 30 });
        server.setResource(
            "/huge", { .body = body.left(4096), .stallAfter = 4096, .contentLength = 1LL << 50 });
        server.setResource("/big",
            { .body = QByteArray(3 << 20, 'b'), .stallAfter = 3 << 20, .contentLength = 6 << 20 });
        server.setResource("/dlmtest-never", { .neverAnswer = true });
        for (const char *path : { "/a", "/f", "/w2", "/dlmtest-0600" })
            server.setBody(path, body.left(70000));
        server.setBody("/tw%C3%B6", "second!");
        // Kept after the run: the scenarios that run beside this one act as them too.
        QProcess::execute("sh",
            { "-c",
                "(useradd -r dlmtest-a; useradd -r dlmtest-b; groupadd -r dlmtest-g; usermod -aG "
                "dlmtest-g dlmtest-a) 2>/dev/null" });
        QFile::remove("/tmp/dlmtest-0600");
    }
    void cleanupTestCase()
    {
        if (readOnlyMounted)
            QProcess::execute("umount", { shared->path("ro") });
        watcher.reset();
        if (smallFs)
            umount2(qPrintable(shared->path("small")), MNT_DETACH);
        shared.reset();
    }
    void requests_data();
    void requests();
    void watchers();
    void reachability_data();
    void reachability();
    void manyStoredAreListed();
};

// Started under umask 027, every data notification written and reported at once: "huge" wants
// 2^50 bytes, "p" paused at 100000 of 300000 has its file replaced by a link, client "small" is
// on an 8 MiB file system of its own, with 3 of 6 MiB of "big" in it, n1 and n2 wait for one name
// in one directory spelled two ways. As root: dlmtest-a's "theirs" stalls in "a", untouched by
// dlmtest-b's "pause all"; root's "swap" paused in "a/dl", which dlmtest-a then replaces by a link
// to root's "db"; "g" dlmtest-a may write only as a member of dlmtest-g; dlmtest-b watches, its
// client "app" in "b" kept when dlmtest-a sets its own.
void tst_Dlctl::buildShared()
{
    shared.reset(new Service({ { "max_downloads_per_user", "2" } },
        { "MAX_PACKET_COUNT=-1", "DLM_REPORT_INTERVAL_MS=0" }));
    Service &s = *shared;
    const auto as = [&s](int user, const QString &args) {
        return s.dlctl(args.split(' '), user < 0 ? QString() : kUsers[user]).code == 0;
    };
    QVERIFY(chmod(QFile::encodeName(s.path()), 0755) == 0 && QDir().rmdir(s.path("binder")));
    QVERIFY(chmod(QFile::encodeName(s.path("db")), 0700) == 0);
    QVERIFY(s.start([] { umask(027); }) && as(-1, "set-path dlctl " + s.path("downloads")));
    QVERIFY(as(-1, "create " + url("/huge")) && QDir().mkpath(s.path("small")));
    smallFs = mount("tmpfs", qPrintable(s.path("small")), "tmpfs", 0, "size=8m") == 0;
    QVERIFY(!smallFs
        || (as(-1, "set-path small " + s.path("small"))
            && as(-1, "create " + url("/big") + " --client small")));
    QVERIFY(as(-1, "create " + url("/p.bin") + " --id p --name Shown"));
    QVERIFY(s.waitErr("DL:  100000 / 300000") && as(-1, "pause p") && s.waitErr("\"Paused\""));
    const QString file = s.path("downloads/p.bin");
    QVERIFY(QFile::remove(file) && QFile::link(s.path("db/secret"), file));
    QVERIFY(s.waitErr("DL:  4096 / 1125899906842624")
        && (!smallFs || s.waitErr("DL:  3145728 / 6291456")));
    if (geteuid() == 0) {
        for (int user = 0; user < 2; ++user)
            QProcess::execute("install", { "-d", "-o", kUsers[user], s.path(user ? "b" : "a") });
        QProcess::execute("install", { "-d", "-m", "0770", "-g", "dlmtest-g", s.path("g") });
        watcher = s.client({ "dlctl", "watch" }, kUsers[1]);
        QVERIFY(s.waitErr("Event client registered"));
        QVERIFY(as(0, "set-path dlctl " + s.path("a")) && as(1, "set-path app " + s.path("b"))
            && as(0, "set-path app " + s.path("a")));
        QVERIFY(as(0, "create " + url("/p.bin") + " --id theirs"));
        QVERIFY(s.waitErr("/a/p.bin\"  status:  \"Progressing\"  DL:  100000 / 300000")
            && as(1, "pause all"));
        QProcess::execute("install", { "-d", "-o", kUsers[0], s.path("a/dl") });
        QVERIFY(as(-1, "set-path sys " + s.path("a/dl")));
        QVERIFY(as(-1, "create " + url("/p.bin") + " --client sys --id swap"));
        QVERIFY(s.waitErr("/a/dl/p.bin\"  status:  \"Progressing\"  DL:  100000 / 300000")
            && as(-1, "pause swap"));
        QVERIFY(QDir().rename(s.path("a/dl"), s.path("a/dl.old")));
        QVERIFY(QDir().mkpath(s.path("ro")));
        readOnlyMounted = QProcess::execute("mount",
                              { "-t", "tmpfs", "-o", "ro,size=64k", "dlmtest-ro", s.path("ro") })
            == 0;
        QFile secret(s.path("db/p.bin"));
        QVERIFY(QFile::link(s.path("db"), s.path("a/dl")) && secret.open(QIODevice::WriteOnly));
        QVERIFY(secret.write("root's") == 6);
    }
    QVERIFY(as(-1, "set-path dots " + s.path() + "/./downloads//"));
    for (const QString &n : QStringList { "n1", "n2 --client dots" })
        QVERIFY(as(-1, "create " + url("/dlmtest-never") + " --id " + n)
            && as(-1, "pause " + n.left(2)));
    // The record as the interface carries it holds what is stored, member for member.
    const auto probe = s.client({ "dlprobe", "record", "p" });
    const QVariantList row = s.sql("SELECT * FROM downloads WHERE uniqueID = 'p'").value(0);
    QVERIFY(probe->finish() == 0 && row.value(2) == "Shown");
    QCOMPARE(probe->out(), QVariant(row.mid(0, 10)).toStringList().join('|').toUtf8() + '\n');
}

void tst_Dlctl::requests_data()
{
    QTest::addColumn<Request>("row");
    const auto row = [](const char *name, const Request &r) { QTest::newRow(name) << r; };
    row("paused record",
        { .args = "status p", .out = "p dlctl Paused 100000 300000 @/downloads/p.bin\n" });
    row("resumed by another's raw call",
        { .user = "root",
            .before = { "dlprobe resume p" },
            .args = "status p",
            .out = "p dlctl Paused 100000 300000 @/downloads/p.bin\n" });
    row("create and follow",
        { .args = "create URL/a --id a --wait",
            .out = "a\na dlctl Completed 70000 70000 @/downloads/a\n",
            .said = "\"Completed\"  DL:  70000 / 70000" });
    row("identifier in use",
        { .args = "create URL/other --id p", .code = 1, .said = "belongs to another download" });
    row("not an http URL",
        { .args = "create ftp://h/f", .code = 1, .said = "not an http or https URL" });
    row("a digest that is no SHA-256",
        { .args = "create URL/f --sha256 12ab",
            .code = 1,
            .said = "refused: the expected SHA-256 is not 64 hexadecimal digits" });
    row("a negative expected size",
        { .args = "create URL/f --size -5",
            .code = 64,
            .said = "--size must be a whole, non-negative number" });
    row("relative path",
        { .args = "set-path app rel", .code = 1, .said = "rel is not an absolute path" });
    row("missing directory",
        { .args = "set-path app @/no", .code = 1, .said = "@/no is not a directory" });
    row("negative size", { .args = "space -1", .code = 64, .said = "SIZE must be" });
    row("elsewhere a running download reserves its rest, not its total",
        { .args = "space 1048576 --client small", .out = "0 fits\n", .small = true });
    row("a running download reserves its rest", { .args = "space 1", .out = "1 does not fit\n" });
    row("all is no identifier to remove",
        { .args = "remove all", .code = 1, .said = "no download all" });
    row("removed",
        { .before = { "create URL/f --id gone", "remove gone" },
            .args = "status gone",
            .code = 1,
            .said = "no download gone" });
    row("unknown client, default directory",
        { .before = { "create URL/dlmtest-never --client nobody --id nb" },
            .args = "status nb",
            .out = "nb nobody Pending 0 0 /tmp/dlmtest-never\n" });
    row("UTF-8 client and URL",
        { .before = { "set-path été @/downloads" },
            .args = "create URL/twö --client été --id two --wait",
            .out = "two\ntwo été Completed 7 7 @/downloads/twö\n" });
    row("own directory, own file",
        { .user = "dlmtest-a",
            .args = "create URL/f --id own --wait",
            .out = "own\nown dlctl Completed 70000 70000 @/a/f\n" });
    row("a directory of root's",
        { .user = "dlmtest-a",
            .args = "set-path app @/db",
            .code = 1,
            .said = "is not permitted" });
    row("a directory the caller may write only through its other group",
        { .user = "dlmtest-a", .args = "set-path grp @/g" });
    row("default directory",
        { .user = "dlmtest-a",
            .args = "set-path DEFAULT_CLIENT_ID @/a",
            .code = 1,
            .said = "is not permitted" });
    row("a client's directory per user", { .user = "dlmtest-a", .args = "set-path app @/a" });
    row("another's directory stays",
        { .user = "dlmtest-b",
            .args = "create URL/no --client app --id b --wait",
            .code = 1,
            .out = "b\nb app Failed 0 0 @/b/no (failure 2: the server answered with an error "
                   "status; HTTP 404 Error)\n",
            .heard = "b app Failed 0 0 " });
    row("another's download unseen",
        { .user = "dlmtest-b", .args = "status theirs", .code = 1, .said = "no download theirs" });
    row("another's downloads unlisted",
        { .user = "dlmtest-b",
            .before = { "create URL/no --client app --id b --wait" },
            .args = "list",
            .out = "b app Failed 0 0 @/b/no\n" });
    row("pause all of one's own",
        { .user = "dlmtest-b", .args = "pause all", .said = "all has been paused." });
    row("removed by another's raw call",
        { .user = "root",
            .before = { "dlprobe remove A:theirs" },
            .args = "status A:theirs",
            .out = "A:theirs dlctl Progressing 100000 300000 @/a/p.bin\n" });
    row("root sees all",
        { .user = "root",
            .args = "status A:theirs",
            .out = "A:theirs dlctl Progressing 100000 300000 @/a/p.bin\n" });
    row("a user over its limit",
        { .user = "dlmtest-a",
            .before = { "create URL/f --id own" },
            .args = "create URL/f",
            .code = 1,
            .said = "has 2 downloads, its limit" });
    row("resumed onto a planted link, not followed",
        { .before = { "resume p" },
            .args = "status p",
            .out = "p dlctl Failed 0 300000 @/downloads/p.bin (failure 3: the local file could not "
                   "be opened or written; cannot write @/downloads/p.bin: Too many levels of "
                   "symbolic links)\n",
            .poll = true });
    row("a file outside one's directory is private",
        { .user = "dlmtest-b",
            .args = "create URL/dlmtest-0600 --client other --id fb --wait",
            .out = "fb\nfb other Completed 70000 70000 /tmp/dlmtest-0600\n" });
    row("what lies below a closed directory",
        { .user = "dlmtest-a",
            .args = "set-path app @/db/none",
            .code = 1,
            .said = "@/db/none is not permitted" });
    row("resumed through a swapped directory",
        { .user = "root",
            .args = "resume swap",
            .said = "swap failed: cannot write @/a/dl/p.bin: Too many levels of symbolic links" });
    row("removed through a swapped directory", { .user = "root", .args = "remove swap" });
    row("one file however the directory is spelled",
        { .args = "status n2", .out = "n2 dots Paused 0 0 @/downloads/dlmtest-never.0\n" });
    row("a user's identifiers are its own",
        { .user = "dlmtest-b",
            .before = { "remove fb" },
            .args = "create URL/no --client app --id p",
            .out = "p\n" });
    row("root's identifier a user holds",
        { .args = "create URL/dlmtest-never --id theirs", .out = "theirs\n" });
    row("an identifier too long",
        { .user = "dlmtest-a",
            .args = "status " + QByteArray(257, 'x'),
            .code = 1,
            .said = "longer than the" });
    row("pause of a finished download",
        { .before = { "create URL/a --id a --wait" },
            .args = "pause a",
            .code = 1,
            .said = "a cannot be paused: it is not Pending, Progressing or Stalled" });
    row("another's download not paused",
        { .user = "dlmtest-b",
            .args = "pause A:theirs",
            .code = 1,
            .said = "no download A:theirs" });
    row("another's download not removed",
        { .user = "dlmtest-b",
            .args = "remove A:theirs",
            .code = 1,
            .said = "no download A:theirs" });
    row("why a 404 failed, in the record",
        { .user = "dlmtest-b",
            .before = { "create URL/no --client app --id b --wait" },
            .args = "status b --json",
            .json
            = R"({"id": "b", "state": "Failed", "failureCode": 2, "httpStatus": 404, "failureReason": "HTTP 404 Error", "bytesPerSecond": 0})" });
    row("limit and priority kept from creation",
        { .before = { "create URL/dlmtest-never --id lim --rate 65536 --priority 5", "pause lim" },
            .args = "status lim --json",
            .json = R"({"rateLimit": 65536, "priority": 5})" });
    row("a negative rate",
        { .args = "rate p -5",
            .code = 1,
            .said = "rate -5 refused: a rate is 0 (none) to 10000000000 bytes per second" });
    row("an absurd rate",
        { .args = "rate all 10000000001", .code = 1, .said = "rate 10000000001 refused" });
    row("an absurd rate at creation",
        { .args = "create URL/f --rate 10000000001",
            .code = 1,
            .said = "--rate must be 0 to 10000000000" });
    row("a priority out of range",
        { .args = "priority p 101",
            .code = 1,
            .said = "priority 101 refused: a priority is -100 to 100" });
    row("rate of an unknown download",
        { .args = "rate nosuch 1000", .code = 1, .said = "no download nosuch" });
    row("another's download not limited",
        { .user = "dlmtest-b",
            .args = "rate A:theirs 1000",
            .code = 1,
            .said = "no download A:theirs" });
    row("another's download not reordered",
        { .user = "dlmtest-b",
            .args = "priority A:theirs 9",
            .code = 1,
            .said = "no download A:theirs" });
    row("the overall limit is root's",
        { .user = "dlmtest-a",
            .args = "rate all 1000",
            .code = 1,
            .said = "only root changes the overall rate limit" });
    row("the background mode is root's",
        { .user = "dlmtest-a",
            .args = "background on",
            .code = 1,
            .said = "only root changes the background mode" });
    row("a refused rate changes nothing",
        { .before = { "rate n1 4096", "rate n1 -1" },
            .args = "status n1",
            .out = "n1 dlctl Paused 0 0 @/downloads/dlmtest-never (rate 4096)\n" });
    row("a read-only directory",
        { .args = "set-path app @/ro",
            .code = 1,
            .said = "@/ro is not writable for the service",
            .readOnly = true });
    row("an unknown option", { .args = "list -q", .code = 64, .said = "usage: dlctl" });
    row("controls escaped",
        { .args = "create URL/no --id e\x1b\xc2\x85\xe2\x80\xae --wait",
            .code = 1,
            .out = "e\\x1b\\u0085\\u202e\ne\\x1b\\u0085\\u202e dlctl Failed 0 0 @/downloads/no "
                   "(failure 2: the server answered with an error status; HTTP 404 Error)\n",
            .said = "uniqueID:e\\x1b\\u0085\\u202e url" });
}

void tst_Dlctl::requests()
{
    QFETCH(Request, row);
    if ((*row.user || row.readOnly) && geteuid() != 0)
        QSKIP("needs root to act as other users");
    if (!shared)
        buildShared();
    if (row.small && !smallFs)
        QSKIP("cannot mount an 8 MiB file system here");
    if (row.readOnly && !readOnlyMounted)
        QSKIP("no read-only mount could be made");
    const passwd *a = getpwnam("dlmtest-a"); // "A:" is the prefix of dlmtest-a's identifiers
    if (QTest::currentTestFailed())
        return;
    const auto fill = [this, a](QString text) {
        text.replace("A:", QString::number(a ? a->pw_uid : 0) + ':');
        return text.replace("URL/", url("/")).replace('@', shared->path()).toUtf8();
    };
    const auto run = [&](const QString &args) {
        return shared->dlctl(QString::fromUtf8(fill(args)).split(' '), row.user);
    };
    const qsizetype mark = shared->mark();
    for (const QString &args : row.before)
        args.startsWith("dlprobe")
            ? void(shared->client(QString::fromUtf8(fill(args)).split(' '), kUsers[1])->finish())
            : void(run(args));
    Run r = run(row.args);
    QVERIFY(!row.poll
        || waitFor(fill(row.out), [&] { return (r = run(row.args)).out == fill(row.out); }));
    QVERIFY2(r.code == row.code, r.err);
    QList<QByteArray> lines = r.out.split('\n');
    if (QByteArray(row.args).endsWith("--wait")) // the updates before the last one vary in number
        lines.remove(1, lines.size() - 3);
    const QJsonObject expected = QJsonDocument::fromJson(row.json).object();
    const QJsonObject got = QJsonDocument::fromJson(lines.value(lines.size() - 2)).object();
    for (const QString &key : expected.keys())
        QVERIFY2(got.value(key) == expected.value(key), qPrintable(key + ": " + lines.join('\n')));
    if (row.json.isEmpty())
        QCOMPARE(lines.join('\n'), fill(row.out));
    QVERIFY2(r.err.contains(fill(row.said)) || shared->waitErr(fill(row.said), 1, mark), r.err);
    QVERIFY(!watcher || row.heard.isEmpty() || waitFor("the watcher to hear " + row.heard, [&] {
        return watcher->out().contains(row.heard);
    }));
    QVERIFY(!watcher || !watcher->out().contains("theirs"));
    // A completed file belongs to the caller, as the directory it chose does; one in the default
    // directory only the caller reads. No row touches root's file behind a swapped directory.
    const QList<QByteArray> last = lines.value(lines.size() - 2).split(' ');
    const QFileInfo file(QString::fromUtf8(last.last()));
    struct stat st { };
    const bool fallback = file.path() == "/tmp" && stat(last.last(), &st) == 0;
    QVERIFY(last.value(2) != "Completed"
        || (fallback ? (st.st_mode & 0777) == 0600
                     : file.ownerId() == QFileInfo(file.path()).ownerId()));
    QCOMPARE(readFile(shared->path("db/p.bin")), QByteArray(geteuid() == 0 ? "root's" : ""));
}

void tst_Dlctl::watchers()
{
    Service svc;
    QVERIFY(chmod(QFile::encodeName(svc.path()), 0755) == 0 && QDir().rmdir(svc.path("binder")));
    QVERIFY(svc.start() && svc.dlctl({ "set-path", "dlctl", svc.path("downloads") }).code == 0);
    const auto a = svc.client({ "dlctl", "watch" }), b = svc.client({ "dlctl", "watch" });
    const auto stopped = svc.client({ "dlctl", "watch" });
    const auto flood = svc.client({ "dlprobe", "flood" });
    const auto nested = svc.client({ "dlprobe", "reentrant" });
    QVERIFY(svc.waitErr("Event client registered", 20));
    stopped->signal(SIGSTOP);
    // Updates are one-way: a watcher that never reads holds up neither the manager nor dlctl.
    QCOMPARE(svc.dlctl({ "create", url("/w.bin"), "--id", "w", "--wait" }).code, 0);
    QVERIFY(svc.sync());
    const QByteArray last
        = "w dlctl Completed 200000 200000 " + svc.path("downloads/w.bin").toUtf8() + '\n';
    QVERIFY(waitFor("both watchers to hear " + last,
        [&] { return a->out().endsWith(last) && b->out().endsWith(last); }));
    QCOMPARE(a->out(), b->out());
    QVERIFY2(a->out().startsWith("w dlctl Pending 0 0 "), a->out());
    const QList<QByteArray> lines = a->out().trimmed().split('\n');
    QVERIFY2(std::is_sorted(lines.begin(), lines.end(),
                 [](auto &x, auto &y) {
                     return x.split(' ')[3].toLongLong() < y.split(' ')[3].toLongLong();
                 }),
        a->out());
    // One object counts once, the service's own object never, a connection's objects up to 16.
    QVERIFY(waitFor(
        "16 completions", [&] { return flood->out().count("update w Completed 200000") == 16; }));
    QCOMPARE(flood->out().count("update w Pending 0"), 16);
    QVERIFY(svc.waitErr("refused: not another process's object"));
    // A query from inside a callback is answered, up to the last update.
    QVERIFY(waitFor("a query from a callback",
        [&] { return nested->out().contains("w Completed 200000\nreentrant w 1\n"); }));
    // A killed watcher is dropped; the others still hear of every change.
    a->signal(SIGKILL);
    QVERIFY(svc.waitErr("from eventClients"));
    QCOMPARE(svc.dlctl({ "create", url("/w2"), "--id", "w2", "--wait" }).code, 0);
    QVERIFY(waitFor(
        "w2 completed", [&] { return b->out().contains("w2 dlctl Completed 70000 70000 "); }));
    // A user's watchers have a share below the total; its create --wait then asks instead.
    std::unique_ptr<Child> floods[3];
    for (auto &flood : floods)
        flood = svc.client({ "dlprobe", "flood" }, kUsers[0]);
    QVERIFY(svc.waitErr("its user's limit of event clients is reached"));
    QProcess::execute("install", { "-d", "-o", kUsers[0], svc.path("a") });
    QCOMPARE(svc.dlctl({ "set-path", "dlctl", svc.path("a") }, kUsers[0]).code, 0);
    QCOMPARE(svc.dlctl({ "create", url("/w2"), "--id", "u", "--wait" }, kUsers[0]).code, 0);
    QCOMPARE(svc.stop(), 0);
}

void tst_Dlctl::reachability_data()
{
    QTest::addColumn<Reach>("row");
    QTest::newRow("not running") << Reach { .code = 2, .said = "not running" };
    QTest::newRow("closed to the user")
        << Reach { .user = kUsers[0], .code = 2, .said = "permission denied" };
    QTest::newRow("backlog full") << Reach { .stuck = true, .code = 2, .said = "not answering" };
    QTest::newRow("SIGTERM while connecting") << Reach { .stuck = true, .term = true, .code = 143 };
    QTest::newRow("call never answered")
        << Reach { .silent = true, .code = 2, .said = "did not answer list" };
}

void tst_Dlctl::reachability()
{
    QFETCH(Reach, row);
    if (!row.user.isEmpty() && geteuid() != 0)
        QSKIP("needs root to act as other users");
    Service svc; // not started
    sockaddr_un addr { AF_UNIX, {} };
    strcpy(addr.sun_path, qPrintable(svc.path("binder/com.velta.DLService")));
    const auto to = reinterpret_cast<sockaddr *>(&addr);
    std::vector<int> fds { ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0) };
    QVERIFY(!(row.stuck || row.silent)
        || (bind(fds[0], to, sizeof addr) == 0 && listen(fds[0], 0) == 0));
    qputenv("DLCTL_TIMEOUT_MS", row.silent ? "500" : "");
    while (row.stuck
        && ::connect(
               fds.emplace_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0)), to, sizeof addr)
            == 0) { }
    const auto c = svc.client({ "dlctl", "list" }, row.user);
    const QString syscall = QStringLiteral("/proc/%1/syscall").arg(c->pid());
    QVERIFY(!row.term || waitFor("dlctl in connect()", [&] {
        return readFile(syscall).startsWith(QByteArray::number(SYS_connect) + ' ');
    }));
    c->signal(row.term ? SIGTERM : 0);
    QCOMPARE(c->finish(), row.code);
    QVERIFY2(c->err().contains(row.said), c->err());
    std::for_each(fds.begin(), fds.end(), close);
}

void tst_Dlctl::manyStoredAreListed()
{
    Service svc;
    QVERIFY(svc.start() && svc.stop() == 0);
    svc.sql("WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 FROM n WHERE i < 19999) "
            "INSERT INTO downloads (uniqueID, clientID, name, contentURL, filePath, state) "
            "SELECT printf('id%05d', i), 'crowd', 'n', 'http://h/', '/d/' || i, ? FROM n",
        { STATE_PAUSED });
    // A row too large for any reply is shown cut, and named as any other.
    svc.sql("INSERT INTO downloads (uniqueID, clientID, name, contentURL, filePath, state) VALUES "
            "('id10000x', 'crowd', 'n', 'http://h/' || hex(zeroblob(1 << 19)), '/d/x', ?)",
        { STATE_PAUSED });
    QVERIFY(svc.start());
    const Run r = svc.dlctl({ "list" });
    QVERIFY(r.code == 0 && r.out.count('\n') == 20001);
    QVERIFY(svc.dlctl({ "status", "id10000x" }).code == 0
        && svc.dlctl({ "remove", "id10000x" }).code == 0);
    QVERIFY2(r.out.startsWith("id00000 crowd Paused 0 0 /d/0\n"), r.out.left(200));
    // They pass one reply's bound: the one-reply list is refused, not sent broken.
    const auto probe = svc.client({ "dlprobe", "storm", "1" });
    QVERIFY(probe->finish() == 3 && svc.waitErr("the records exceed one reply"));
    QCOMPARE(svc.stop(), 0);
}

DLM_TEST_MAIN(tst_Dlctl)
#include "tst_dlctl.moc"

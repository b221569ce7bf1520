// The real executable's console: answers byte for byte, start and end, files and stored rows.
#include "FakeHttpServer.h"
#include "Harness.h"

#include <QtTest>

#include <csignal>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

using Lines = QList<QByteArray>;

namespace {
const QByteArray kNone = "No download found.", kList = "List of downloads:";
const QByteArray kRates = "a rate is 0 (none) to 10000000000 bytes per second ";

const auto invalid = [](const QByteArray &shown) { return "invalid format:  \"" + shown + "\" "; };

// A change line; with an identifier, the line a status or list query prints.
QByteArray line(const QString &path, const QString &state, qint64 amount, qint64 total,
    const QVariant &id = {}, const QString &label = "Download:")
{
    const QString own = "  uniqueID: \"" + id.toString() + "\"  clientID: \"shell\"  file: \"";
    const QString f = (id.isNull() ? "Download update with file: \"" : label + own)
        + "%3\"  status:  \"%4\"  DL: " + (id.isNull() ? " " : "") + "%1 / %2 ";
    return f.arg(amount).arg(total).arg(path, state).toUtf8(); // the numbers first: no % in them
}

// Every console line in answer to input, as a command with a known answer follows it.
Lines ask(Service &svc, const QByteArray &input)
{
    const qsizetype mark = svc.mark(); // a number no earlier answer holds
    const QByteArray done = "Path n" + QByteArray::number(mark) + " refused: not an absolute path.";
    svc.line(input + "\ndownload_path n" + QByteArray::number(mark));
    const Lines got = svc.waitErr(done, 1, mark) ? svc.console(mark) : Lines();
    return got.mid(0, got.indexOf(done));
}

struct Command { // a row of commands(); @R, the row's directory, goes after each '|' part of input
    QByteArray input;
    Lines expected;
    QStringList taken = {};
    QByteArrayList logged = {}; // names made in @R first; each ends a log line
};

struct Start { // a row of startup(); @S is the service's own directory, @F that of one running
    QStringList env = {};
    int exit;
    bool kill = false; // without a console only SIGKILL ends it
    QByteArray out, input = {}, logged = {}; // input null: the start fails; logged: once, if any
    bool garbage = false; // in the database file before the start, and still there after it
    QString untrusted = {}; // given mode and owner before the start
    int mode = 0, owner = 0;
    bool unused = false; // no database made in @S/db: its settings or directory not trusted
};
} // namespace

class tst_Console : public QObject {
    Q_OBJECT
    Service shell; // every command row talks to this one
    Lines help; // what it printed first
    QTcpServer sink; // takes connections and never answers

private slots:
    void initTestCase()
    {
        shell.env << "HOME=" + shell.path();
        QVERIFY(QDir().mkpath(shell.path("dl")) && sink.listen(QHostAddress::LocalHost)
            && shell.start());
        help = shell.console(); // once
        QVERIFY(help.value(0) == "Console help:" && help.count(help[0]) == 1);
    }

    // clang-format off
    void commands_data()
    {
        QTest::addColumn<Command>("row");
        const auto row = [](const char *tag, const Command &c) { QTest::newRow(tag) << c; };
        const QByteArray bad2("\xef\xbf\xbd\xef\xbf\xbd"), dp = "download_possible ",
            xs(300000, 'x'), res = dp + "result: ", huge = dp + "99999999999999999999";
        row("parsing", {.input = "Help\nSTATUS x\n  help\n\nstatus abc \ncreate http://h/a b\nhelp x\nhelp ",
            .expected = Lines {invalid("Help"), invalid("STATUS x"), invalid("  help"), invalid(""), invalid("status abc "), invalid("create http://h/a b")} + help + help});
        row("line ends, escaping, one read", {.input = "Quit\r\nstatus\r\npause x\nlist appA\nremove\n"
            "status y\n\"a\\n\"\t\x01\x1b[0m\n" + QByteArray("\xff\xfe st\0tus \x7f\n", 12) + xs, .expected = {invalid("Quit"), kNone, kList, "No downloads ", kNone,
            invalid("\"a\\n\"\\t\\x01\\x1b[0m"), invalid(bad2 + " st\\x00tus \\x7f"), invalid(xs)}});
        row("only http(s): refused, nothing made", {.input = "create ftp://h/f\ncreate HTTP://h/f\n"
            "create httpx://h/f\ncreate\nlist", .expected = {kList, "No downloads "}, .logged = {"URL=ftp://h/f", "URL=HTTP://h/f", "URL=httpx://h/f", "URL="}});
        row("paths", {.input = "download_path @R/none\ndownload_path\ndownload_path rel\ndownload_path ~/dl\ndownload_path ~dl",
            .expected = {"Path @R/none refused: no such directory.", "Path  refused: not an absolute path.", "Path rel refused: not an absolute path.", "Path ~/dl set.", "Path ~dl refused: not an absolute path."}});
        row("space", {.input = "download_path @R\n" + dp + "100\n" + dp + "9223372036854775807\n" + huge
            + "\n" + dp + "-1\n" + dp + "@A|" + dp + "1", .expected = {"Path @R set.", res + "0.", res + "1.", invalid(huge), invalid(dp + "-1"), res + "1.", res + "2."}});
        row("rates and order refused, nothing changed", {.input = "rate nosuch 100\nrate all -1\npriority nosuch 1\nrate all 10000000001\nbackground maybe\nrate all\nbackground on",
            .expected = {"rate \"nosuch 100\" refused: no download found ", "rate \"all -1\" refused: " + kRates, "priority \"nosuch 1\" refused: no download found ", "rate \"all 10000000001\" refused: " + kRates,
                invalid("background maybe"), invalid("rate all"), "background \"on\" done. "}});
        // The first change line names the file; the download is removed before it hears anything.
        const QByteArray url = "\ncreate http://127.0.0.1:" + QByteArray::number(sink.serverPort());
        const auto name = [&](const char *tag, auto path, QString file, QStringList taken = {}) {
            row(tag, {.input = "download_path @R" + url + path + "\nremove all",
                .expected = {"Path @R set.", line("@R/" + file, "Pending", 0, 0)}, .taken = taken}); };
        const QString e125(125, QChar(0xe9));
        const QByteArray e300 = "/" + QByteArray("%C3%A9").repeated(300) + ".bin";
        name("numbered past the taken", "/a.zip", "a.zip.1", {"a.zip", "a.zip.0"});
        name("first free number", "/a.zip", "a.zip.0", {"a.zip", "a.zip.1"});
        name("a dangling link takes its name", "/a.zip", "a.zip.0", {"a.zip -> none"});
        name("no name in the URL", "/dir/", "download.0", {"download"});
        name("query and fragment", "/r.pdf?t=a/b#c", "r.pdf");
        name("decoded", "/na%C3%AFve%20f.txt", "naïve f.txt");
        name("separators and controls", "/a%2Fb%0A%00.txt", "ab.txt");
        name("dot dot", "/%2E%2E", "download");
        name("cut to 255 bytes", e300, e125 + ".bin");
        name("cut for the number", e300, e125.chopped(1) + ".bin.0", {e125 + ".bin"});
    }

    void startup_data()
    {
        QTest::addColumn<Start>("row");
        const auto row = [](const char *tag, const Start &s) { QTest::newRow(tag) << s; };
        const QByteArray join = "DOWNLOAD APM JOIN SUCCESS!!.\n",
            calls = join + QByteArray("@GetFocus()\n@LossFocus()\n@Destroy()\n"
            "@ResourceAvailable()\n@ResourceUnavailable()\n").replace("@", "[DOWNLOAD]On");
        row("join refused", {.env = {"APM_REFUSE_JOIN=1"}, .exit = 255, .out = "APM client test program aborted.\n"});
        row("console 0", {.env = {"DL_CONSOLE_READER_ENABLE=0"}, .exit = 137, .kill = true, .out = join, .input = "quit\n", .logged = "settings file : @S/bin/downloadmanager.ini\n"});
        row("console -1, callbacks only print", {.env = {"DL_CONSOLE_READER_ENABLE=-1",
            "APM_TEST_CALLBACKS=focus,lose_focus,destroy,resource,lose_resource"}, .exit = 0, .out = calls, .input = "quit now\n", .logged = "value @S/db \n"});
        row("garbage database", {.exit = 0, .out = join, .input = "quit", .logged = "is not a database", .garbage = true});
        row("/tmp/ by default, not trusted", {.env = {"DLM_SETTINGS=@S/none"}, .exit = 0, .out = join, .input = "quit\nhelp\nstatus x\n", .logged = "/tmp/ is writable by group or others"});
        const QString ini = "@S/bin/downloadmanager.ini", notRead = "Settings file " + ini + " not used, defaults apply: " + ini;
        row("settings its group may write, not read", {.exit = 0, .out = join, .input = "quit\n", .logged = (notRead + " is writable by group").toUtf8(), .untrusted = ini, .mode = 0664, .unused = true});
        row("settings of another user, not read", {.exit = 0, .out = join, .input = "quit\n", .logged = (notRead + " is owned by uid 65534").toUtf8(), .untrusted = ini, .mode = 0644, .owner = 65534, .unused = true});
        row("database directory its group may write, not used", {.exit = 0, .out = join, .input = "quit\n", .logged = "running without persistence: @S/db is writable by group", .untrusted = "@S/db", .mode = 0770, .unused = true});
        row("second service, same database", {.env = {"DLM_SETTINGS=@F/bin/downloadmanager.ini"}, .exit = 1,
            .out = join, .logged = "Another download service uses the database directory @F/db: not starting"});
    }
    // clang-format on

    void commands()
    {
        QFETCH(Command, row);
        const qsizetype mark = shell.mark();
        const QByteArray dir = shell.path("downloads/" + QString::number(mark)).toUtf8();
        for (const QString &name : QStringList(QString()) + row.taken) { // "a -> b": a link to b
            const QStringList link = name.split(" -> "); // a directory takes a name as a file does
            QVERIFY(link.size() == 2 ? QFile::link(link[1], dir + '/' + link[0])
                                     : QDir().mkpath(dir + '/' + name));
        }
        // @A: more than may be used, less than is free counting root's reserve (if there is one).
        struct statvfs fs { };
        QVERIFY(statvfs(dir, &fs) == 0);
        const auto beyond = (fs.f_bavail + (fs.f_bfree - fs.f_bavail) / 2) * fs.f_bsize + 1;
        Lines seen;
        for (const QByteArray &part : row.input.split('|')) {
            seen += ask(shell,
                QByteArray(part).replace("@R", dir).replace(
                    "@A", QByteArray::number(quint64(beyond))));
            QVERIFY(QDir(dir).removeRecursively());
        }
        QCOMPARE(seen.join('\n').replace(dir, "@R"), row.expected.join('\n'));
        const QByteArray logged = shell.log(mark).join('\n') + '\n';
        for (const QByteArray &end : row.logged)
            QVERIFY2(logged.contains(end + '\n'), logged);
    }

    void startup()
    {
        QFETCH(Start, row);
        Service svc;
        const auto fill
            = [&](QString t) { return t.replace("@S", svc.path()).replace("@F", shell.path()); };
        svc.env = fill(row.env.join('\n')).split('\n', Qt::SkipEmptyParts);
        QFile db(svc.path("db/dlm_download.db"));
        QVERIFY(!row.garbage || (db.open(QFile::WriteOnly) && db.write("garbage") && db.flush()));
        const QByteArray loose = QFile::encodeName(fill(row.untrusted));
        const auto loosen = [&] {
            if (!loose.isEmpty() && chown(loose.constData(), row.owner, -1) == 0)
                chmod(loose.constData(), row.mode);
        };
        QCOMPARE(svc.start(loosen), !row.input.isNull());
        if (!row.input.isNull()) {
            QVERIFY(waitFor("its standard output: " + row.out,
                [&] { return svc.proc.out().size() >= row.out.size(); }));
            QCOMPARE(svc.dlctl({ "list" }).code, 0); // after OnDestroy too
            svc.proc.write(row.input);
            svc.proc.closeInput();
            svc.proc.signal(row.kill ? SIGKILL : 0);
        }
        QCOMPARE(svc.proc.finish(), row.exit);
        QCOMPARE(svc.proc.out(), row.out);
        QCOMPARE(svc.proc.err().count("Console help:"), row.exit == 0); // none after quit
        QCOMPARE(svc.proc.err().count(fill(row.logged).toUtf8()), 1); // empty: once in nothing
        QVERIFY(!row.garbage || readFile(db.fileName()) == "garbage");
        QVERIFY(!row.unused || !db.exists());
    }

    void downloadLifecycle()
    {
        FakeHttpServer server;
        const QByteArray slow = FakeHttpServer::makeBody(400000, 3),
                         quick = FakeHttpServer::makeBody(100000, 9);
        server.setResource("/slow.bin",
            { .body = slow, .chunkSize = 4000, .chunkDelayMs = 20 }); // still running when paused
        server.setBody("/quick.bin", quick);
        Service svc({}, { "MAX_PACKET_COUNT=-1", "DLM_REPORT_INTERVAL_MS=0" }); // commit per change
        QVERIFY(svc.start());
        const QString s = svc.path("downloads/slow.bin"), q = svc.path("downloads/quick.bin");
        const QByteArray qDone = line(q, "Completed", 100000, 100000);
        svc.line("download_path " + svc.path("downloads").toUtf8() + "\ncreate "
            + server.url("/slow.bin").toEncoded() + "\ncreate "
            + server.url("/quick.bin").toEncoded());
        QVERIFY(svc.waitErr(qDone)
            && waitFor("slow.bin's first bytes", [&] { return QFileInfo(s).size(); }));
        const auto ids = svc.sql("SELECT uniqueID FROM downloads ORDER BY rowid");
        const QByteArray idS = ids[0][0].toByteArray(), idQ = ids[1][0].toByteArray();

        const Lines paused = ask(svc, "pause all\npause " + idS + "\nrestart " + idS);
        const qint64 amount = svc.sql("SELECT amountDownloaded FROM downloads WHERE uniqueID = ?",
                                     { QString(idS) })[0][0]
                                  .toLongLong();
        QVERIFY(paused.endsWith(line(s, "Paused", amount, 400000))); // the last two print nothing
        QCOMPARE(
            svc.proc.err().count("\"Paused\"") + svc.proc.err().count("all has been paused."), 2);
        QCOMPARE(readFile(s), slow.left(amount));

        svc.line("resume all"); // slow goes on where it paused, quick has nothing left to fetch
        QVERIFY(svc.waitErr(line(s, "Completed", 400000, 400000)));
        QCOMPARE(server.requestsFor("/slow.bin").last().header("range"),
            "bytes=" + QByteArray::number(amount) + '-');
        QCOMPARE(
            ask(svc, "remove " + idS + "\nremove " + idS + "\nstatus " + idS + "\nstatus " + idQ),
            (Lines { kNone, line(q, "Completed", 100000, 100000, idQ, "Download status:") }));
        QCOMPARE(readFile(s), slow); // completed: the file stays

        // The input ends while a restart writes the file anew: it goes on, the service idles.
        QFile wrong(q); // all its bytes there, the first ten wrong
        QVERIFY(
            wrong.open(QIODevice::ReadWrite) && wrong.write("xxxxxxxxxx") == 10 && wrong.flush());
        const qsizetype mark = svc.mark();
        svc.proc.write("restart " + idQ + "\nstatus none"); // the last line without its line end
        svc.proc.closeInput();
        QVERIFY(svc.waitErr(qDone, 1, mark) && svc.waitErr(kNone, 2));
        QCOMPARE(svc.console(mark).value(0), line(q, "Pending", 0, 0));
        QCOMPARE(readFile(q), quick);
        QCOMPARE(server.requestsFor("/quick.bin").last().header("range"), QByteArray());
        QCOMPARE(server.requests().size(), 4);
        const auto cpuTicks = [&] { // user + system; the process name holds no blank
            const Lines f = readFile(QString("/proc/%1/stat").arg(svc.proc.pid())).split(' ');
            return f.value(13).toLongLong() + f.value(14).toLongLong();
        };
        const qint64 ticks = cpuTicks();
        QTest::qWait(1000); // what is measured is the CPU used meanwhile, not the time
        QVERIFY2(cpuTicks() - ticks < 20 && svc.proc.running(), "busy or gone after the input end");
        svc.kill(); // nothing else ends it now
    }

    void namesIdentifiersAndRestart()
    {
        FakeHttpServer server;
        const auto a = FakeHttpServer::makeBody(200000, 1), b = FakeHttpServer::makeBody(150000, 2);
        const QByteArray pb = "/b/r%C3%A9sum%C3%A9.pdf", pa = "/a" + pb.mid(2) + "?token=SECRET/x";
        server.setBody(pa, a);
        server.setBody(pb, b);
        const QByteArray urlA = server.url(pa).toEncoded(), urlB = server.url(pb).toEncoded();
        Service svc;
        const QString file = svc.path("downloads/résumé.pdf"), part = svc.path("downloads/p");
        QVERIFY(svc.start());
        // In one read: all three exist before any of them has written its file.
        svc.line("download_path " + svc.path("downloads").toUtf8() + "\ncreate " + urlA
            + "\ncreate " + urlA + "\ncreate " + urlB);
        QVERIFY(svc.waitErr("status:  \"Completed\"", 3));
        QCOMPARE(readFile(file) + readFile(file + ".0") + readFile(file + ".1"), a + a + b);

        // A paused download stored before the start; the database keeps its row at the removal.
        QVERIFY(svc.stop() == 0 && QFile::copy(svc.path("bin/downloadmanager.ini"), part));
        svc.sql("INSERT INTO downloads VALUES ('p', 'shell', 'n', ?, ?, 4, 4, 1000, 100, 1, 0)",
            { urlB, part });
        // No file yet, but the name is a stored download's: a new one must not take it.
        svc.sql("INSERT INTO downloads VALUES ('q', 'shell', 'n', ?, ?, 4, 4, 1000, 0, 1, 0)",
            { urlB, file + ".2" });
        QVERIFY(svc.start());
        svc.line("create " + urlB); // into the directory stored in the first run
        QVERIFY(svc.waitErr("status:  \"Completed\""));
        const auto id = svc.sql("SELECT uniqueID FROM downloads ORDER BY rowid"); // six, distinct
        QCOMPARE(ask(svc, "list"),
            (Lines { kList, line(file, "Completed", 200000, 200000, id[0][0]),
                line(file + ".0", "Completed", 200000, 200000, id[1][0]),
                line(file + ".1", "Completed", 150000, 150000, id[2][0]),
                line(part, "Paused", 100, 1000, "p"), line(file + ".2", "Paused", 0, 1000, "q"),
                line(file + ".3", "Completed", 150000, 150000, id[5][0]) }));
        svc.sql("CREATE TRIGGER k BEFORE DELETE ON downloads BEGIN SELECT RAISE(ABORT, 'k'); END");
        QCOMPARE(ask(svc, "remove p\nstatus p"), Lines { kNone });
        QVERIFY(svc.proc.err().contains("Unable to delete p from the database"));
        QVERIFY(!QFile::exists(part));
        svc.sql("DROP TRIGGER k");
        svc.sql("DELETE FROM downloads WHERE uniqueID = 'p'"); // the row it kept would come back

        svc.line("remove all"); // for good: nothing comes back at the next start
        QVERIFY(svc.stop() == 0 && svc.start());
        QCOMPARE(ask(svc, "list"), (Lines { kList, "No downloads " }));
        QVERIFY(svc.sql("SELECT uniqueID FROM downloads").isEmpty());
        QCOMPARE(svc.stop(), 0);
    }
};

DLM_TEST_MAIN(tst_Console)
#include "tst_console.moc"

// The operator console of the real executable: commands typed on standard input, answers and
// change lines compared byte for byte on standard error, downloads served by the fake server.
#include "FakeHttpServer.h"
#include "ServiceProcess.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QtTest>

namespace {
const QList<QByteArray> kHelp = {
    "Console help:",
    "help: display help",
    "quit: quit the application",
    "create url: download an url",
    "remove id: remove the download with id",
    "status id: display download status with id",
    "list clientID: display download status with id",
    "download_possible size:",
    "download_path path:",
    "Enter your command:",
};

const QRegularExpression kLogPrefix(
    QStringLiteral("^\\S+ [VDIWEF] \\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\S* +\\d+ +\\d+ "));

// Standard error split into the console's own lines and the messages of the platform log.
struct ErrLines {
    QList<QByteArray> console;
    QList<QByteArray> log;
};

ErrLines splitErr(const QByteArray &err)
{
    ErrLines result;
    QList<QByteArray> lines = err.split('\n');
    lines.removeLast(); // the part after the last newline is not complete yet
    bool afterLog = false;
    for (const QByteArray &line : lines) {
        const auto match = kLogPrefix.match(QString::fromLatin1(line));
        if (match.hasMatch()) {
            result.log.append(line.mid(match.capturedLength()));
            afterLog = true;
            continue;
        }
        // A log message that ends in its own newline leaves an empty line behind.
        if (!(afterLog && line.isEmpty()))
            result.console.append(line);
        afterLog = false;
    }
    return result;
}

QByteArray updateLine(const QString &path, const char *state, qint64 received, qint64 total)
{
    return "Download update with file: \"" + path.toLocal8Bit() + "\"  status:  \"" + state
        + "\"  DL:  " + QByteArray::number(received) + " / " + QByteArray::number(total) + " ";
}

QByteArray entryLine(const char *label, const QByteArray &id, const QString &path,
    const char *state, qint64 received, qint64 total, const QByteArray &client = "shell")
{
    return QByteArray(label) + "  uniqueID: \"" + id + "\"  clientID: \"" + client + "\"  file: \""
        + path.toLocal8Bit() + "\"  status:  \"" + state + "\"  DL: " + QByteArray::number(received)
        + " / " + QByteArray::number(total) + " ";
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
}

// The identifier the manager logged when it launched the download of url.
QByteArray launchedId(ServiceProcess &service, const QUrl &url)
{
    const QByteArray launched = "Download launched with uniqueID:";
    QByteArray id;
    for (const QByteArray &line : splitErr(service.stdErr()).log) {
        if (line.startsWith(launched) && line.endsWith(" url: " + url.toEncoded()))
            id = line.mid(launched.size(), 32);
    }
    return id;
}

// Waits until standard error matches pattern.
bool waitForMatch(ServiceProcess &service, const char *pattern, int timeoutMs = 10000)
{
    const QRegularExpression expression(QString::fromLatin1(pattern));
    QDeadlineTimer deadline(timeoutMs);
    while (!expression.match(QString::fromLatin1(service.stdErr())).hasMatch()) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(20);
    }
    return true;
}

// Ticks of CPU time the process has used (user + system).
qint64 cpuTicks(qint64 pid)
{
    QFile stat(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!stat.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray text = stat.readAll();
    // Fields after the command name, which is in parentheses and may hold blanks.
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    return fields.value(11).toLongLong() + fields.value(12).toLongLong();
}
// Runs statements on the service's database through a connection of its own.
bool execOnDatabase(const QString &file, const QStringList &statements)
{
    bool ok = true;
    {
        QSqlDatabase db
            = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("test"));
        db.setDatabaseName(file);
        ok = db.open();
        QSqlQuery query(db);
        for (const QString &statement : statements)
            ok = ok && query.exec(statement);
    }
    QSqlDatabase::removeDatabase(QStringLiteral("test"));
    return ok;
}
} // namespace

class tst_Console : public QObject {
    Q_OBJECT

private slots:
    void init() { syncCount = 0; }
    void helpAtStartAndOnRequest();
    void invalidLines_data();
    void invalidLines();
    void linesArrivingTogether();
    void statusAndListWithoutDownloads();
    void downloadPossibleAndPath();
    void createReportsEveryChangeAndWritesExactBytes();
    void createRefusesOtherSchemes();
    void downloadsNeverShareIdentifierOrFile();
    void pauseAndResumeContinueWithRange();
    void pauseAllPausesEveryDownload();
    void restartCompletedDownload();
    void removeKeepsFilesOnDisk();
    void removeDeletesPartialFilesEvenWhenTheDatabaseRefuses();
    void downloadOfAnotherClientIsReported();
    void closedInputKeepsServiceRunningAndIdle_data();
    void closedInputKeepsServiceRunningAndIdle();
    void downloadContinuesAfterInputCloses();
    void quitExitsWithZero_data();
    void quitExitsWithZero();

private:
    bool startService(ServiceProcess &service);
    // Console lines written after the first `from` bytes of standard error.
    QList<QByteArray> consoleSince(ServiceProcess &service, qsizetype from);
    // Sends a command that answers with a known line, and waits for that answer.
    bool sync(ServiceProcess &service);
    // The answer of the n-th sync: a relative directory is refused and changes nothing.
    static QByteArray synced(int n)
    {
        return "Path sync" + QByteArray::number(n) + " refused: not an absolute path.";
    }
    QByteArray createAndWait(ServiceProcess &service, const QUrl &url, QString *path);
    int syncCount = 0;
};

bool tst_Console::startService(ServiceProcess &service)
{
    return service.start() && service.waitForErr("Enter your command:\n");
}

QList<QByteArray> tst_Console::consoleSince(ServiceProcess &service, qsizetype from)
{
    return splitErr(service.stdErr().mid(from)).console;
}

bool tst_Console::sync(ServiceProcess &service)
{
    service.writeLine("download_path sync" + QByteArray::number(++syncCount));
    return service.waitForErr(synced(syncCount) + '\n');
}

// Creates a download of url in the downloads directory, waits until it has completed and
// returns its identifier.
QByteArray tst_Console::createAndWait(ServiceProcess &service, const QUrl &url, QString *path)
{
    service.writeLine("download_path " + service.downloadsDir().toLocal8Bit());
    service.writeLine("create " + url.toEncoded());
    if (!service.waitForErr(" url: " + url.toEncoded() + "\n"))
        return QByteArray();
    const QByteArray id = launchedId(service, url);
    *path = service.downloadsDir() + url.fileName();
    const QByteArray done = "file: \"" + path->toLocal8Bit() + "\"  status:  \"Completed\"";
    if (!service.waitForErr(done))
        return QByteArray();
    return id;
}

void tst_Console::helpAtStartAndOnRequest()
{
    ServiceProcess service;
    QVERIFY(startService(service));
    QCOMPARE(consoleSince(service, 0), kHelp);

    // The argument and a trailing blank are ignored.
    const qsizetype mark = service.stdErr().size();
    service.writeLine("help x");
    service.writeLine("help ");
    QVERIFY(sync(service));
    QCOMPARE(consoleSince(service, mark), kHelp + kHelp + QList<QByteArray> { synced(1) });
}

void tst_Console::invalidLines_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QByteArray>("shown");

    QTest::newRow("wrong case") << QByteArray("Help") << QByteArray("Help");
    QTest::newRow("wrong case with argument") << QByteArray("STATUS x") << QByteArray("STATUS x");
    QTest::newRow("blanks before a command") << QByteArray("  help") << QByteArray("  help");
    QTest::newRow("empty line") << QByteArray("") << QByteArray("");
    QTest::newRow("blank after the argument")
        << QByteArray("status abc ") << QByteArray("status abc ");
    QTest::newRow("url with a blank") << QByteArray("create http://127.0.0.1/a b.bin")
                                      << QByteArray("create http://127.0.0.1/a b.bin");
    QTest::newRow("quotes and backslashes")
        << QByteArray("say \"hi\" \\n\ttab") << QByteArray("say \"hi\" \\n\\ttab");
    QTest::newRow("control bytes escaped")
        << QByteArray("\x01\x02\x1b[0m") << QByteArray("\\x01\\x02\\x1b[0m");
    QTest::newRow("carriage return line end") << QByteArray("Quit\r") << QByteArray("Quit");
    const QByteArray longLine(300000, 'x');
    QTest::newRow("very long line") << longLine << longLine;
}

void tst_Console::invalidLines()
{
    QFETCH(QByteArray, input);
    QFETCH(QByteArray, shown);

    ServiceProcess service;
    QVERIFY(startService(service));
    const qsizetype mark = service.stdErr().size();
    service.writeLine(input);
    QVERIFY(sync(service));
    const QList<QByteArray> expected = { "invalid format:  \"" + shown + "\" ", synced(1) };
    QCOMPARE(consoleSince(service, mark), expected);
    QVERIFY(service.isRunning());
}

void tst_Console::linesArrivingTogether()
{
    ServiceProcess service;
    QVERIFY(startService(service));

    // Random bytes with NUL bytes must neither crash the console nor swallow the next lines.
    QByteArray garbage;
    for (int i = 0; i < 4096; ++i)
        garbage.append(char((i * 7919 + 13) % 256));
    garbage.replace('\n', ' ');
    const qsizetype mark = service.stdErr().size();
    service.process.write(garbage + "\nstatus one\r\nstatus two\nlist\nstatus three");
    QVERIFY(service.waitForErr("No downloads \n"));
    // The last line has no line end yet: it waits for one.
    service.process.write("\n");
    QVERIFY(sync(service));
    QList<QByteArray> lines = consoleSince(service, mark);
    QVERIFY2(lines.value(0).startsWith("invalid format:  \""), lines.value(0).left(80));
    lines.removeFirst();
    const QList<QByteArray> expected = { "No download found.", "No download found.",
        "List of downloads:", "No downloads ", "No download found.", synced(1) };
    QCOMPARE(lines, expected);
    QVERIFY(service.isRunning());
}

void tst_Console::statusAndListWithoutDownloads()
{
    ServiceProcess service;
    QVERIFY(startService(service));
    const qsizetype mark = service.stdErr().size();
    service.writeLine("status");
    service.writeLine("status 0123");
    service.writeLine("list");
    service.writeLine("list appA");
    service.writeLine("remove");
    service.writeLine("pause nothing");
    QVERIFY(sync(service));
    const QList<QByteArray> expected
        = { "No download found.", "No download found.", "List of downloads:", "No downloads ",
              "List of downloads:", "No downloads ", synced(1) };
    QCOMPARE(consoleSince(service, mark), expected);
    const QList<QByteArray> log = splitErr(service.stdErr().mid(mark)).log;
    QVERIFY(log.contains("unique id: 0123"));
    QCOMPARE(log.count("client id: *"), 2);
    QVERIFY(!log.contains("nothing has been paused."));
}

void tst_Console::downloadPossibleAndPath()
{
    ServiceProcess service;
    QVERIFY(startService(service));
    const QByteArray dir = service.downloadsDir().toLocal8Bit();
    QVERIFY(QDir().mkpath(dir + "gone"));
    const qsizetype mark = service.stdErr().size();
    service.writeLine("download_path " + dir);
    service.writeLine("download_possible 100");
    service.writeLine("download_possible abc");
    service.writeLine("download_possible 9223372036854775807");
    service.writeLine("download_possible 99999999999999999999"); // not a 64-bit number
    service.writeLine("download_possible -1");
    service.writeLine("download_path " + dir + "missing/");
    service.writeLine("download_possible 1"); // the refusal kept the directory
    service.writeLine("download_path");
    service.writeLine("download_path " + dir + "gone");
    QVERIFY(service.waitForErr("Path " + dir + "gone set.\n"));
    QVERIFY(QDir().rmdir(dir + "gone"));
    service.writeLine("download_possible 1");
    QVERIFY(sync(service));
    const QList<QByteArray> expected = {
        "Path " + dir + " set.",
        "download_possible result: 0.",
        "invalid format:  \"download_possible abc\" ",
        "download_possible result: 1.",
        "invalid format:  \"download_possible 99999999999999999999\" ",
        "invalid format:  \"download_possible -1\" ",
        "Path " + dir + "missing/ refused: no such directory.",
        "download_possible result: 0.",
        "Path  refused: not an absolute path.",
        "Path " + dir + "gone set.",
        "download_possible result: 2.",
        synced(1),
    };
    QCOMPARE(consoleSince(service, mark), expected);
    const QList<QByteArray> log = splitErr(service.stdErr().mid(mark)).log;
    QVERIFY(log.contains("clientID = shell Download path=" + dir));
    QVERIFY(log.contains("Download path \"\" of shell refused: not an absolute path"));
}

void tst_Console::createReportsEveryChangeAndWritesExactBytes()
{
    FakeHttpServer server;
    const QByteArray body = FakeHttpServer::makeBody(300000, 7);
    FakeHttpServer::Resource resource;
    resource.body = body;
    resource.chunkSize = 16384;
    server.setResource("/data/file.bin", resource);

    ServiceProcess service;
    QVERIFY(startService(service));
    const qsizetype mark = service.stdErr().size();
    QString path;
    const QByteArray id = createAndWait(service, server.url("/data/file.bin"), &path);
    QCOMPARE(id.size(), 32);
    QCOMPARE(readFile(path), body);

    const QList<QByteArray> lines = consoleSince(service, mark);
    QCOMPARE(lines.first(), "Path " + service.downloadsDir().toLocal8Bit() + " set.");
    QCOMPARE(lines.at(1), updateLine(path, "Pending", 0, 0));
    QCOMPARE(lines.last(), updateLine(path, "Completed", body.size(), body.size()));
    // Every line between: the same file, growing amounts, the total once known.
    const QRegularExpression shape("^Download update with file: \""
        + QRegularExpression::escape(path)
        + "\"  status:  \"(Progressing|Completed)\"  DL:  (\\d+) / (\\d+) $");
    qint64 previous = 0;
    for (const QByteArray &line : lines.mid(2)) {
        const auto match = shape.match(QString::fromLocal8Bit(line));
        QVERIFY2(match.hasMatch(), line.constData());
        QVERIFY(match.captured(2).toLongLong() >= previous);
        previous = match.captured(2).toLongLong();
        QCOMPARE(match.captured(3).toLongLong(), qint64(body.size()));
    }

    const qsizetype queries = service.stdErr().size();
    service.writeLine("status " + id);
    service.writeLine("list");
    service.writeLine("list someone");
    QVERIFY(sync(service));
    const QByteArray entry
        = entryLine("Download:", id, path, "Completed", body.size(), body.size());
    const QList<QByteArray> expected = {
        entryLine("Download status:", id, path, "Completed", body.size(), body.size()),
        "List of downloads:",
        entry,
        "List of downloads:",
        entry,
        synced(1),
    };
    QCOMPARE(consoleSince(service, queries), expected);
}

void tst_Console::createRefusesOtherSchemes()
{
    ServiceProcess service;
    QVERIFY(startService(service));
    const qsizetype mark = service.stdErr().size();
    service.writeLine("create ftp://127.0.0.1/file.bin");
    service.writeLine("create");
    QVERIFY(sync(service));
    QCOMPARE(consoleSince(service, mark), QList<QByteArray> { synced(1) });
    const QList<QByteArray> log = splitErr(service.stdErr().mid(mark)).log;
    QVERIFY(log.contains(
        "Error: The download url must contains http://. URL=ftp://127.0.0.1/file.bin"));
    QVERIFY(log.contains("Error: The download url must contains http://. URL="));
}

void tst_Console::downloadsNeverShareIdentifierOrFile()
{
    FakeHttpServer server;
    const QByteArray bodyA = FakeHttpServer::makeBody(200000, 1);
    const QByteArray bodyB = FakeHttpServer::makeBody(150000, 2);
    server.setBody("/a/r%C3%A9sum%C3%A9.pdf?token=SECRET/x", bodyA);
    server.setBody("/b/r%C3%A9sum%C3%A9.pdf", bodyB);
    const QByteArray urlA = server.url("/a/r%C3%A9sum%C3%A9.pdf?token=SECRET/x").toEncoded();
    const QByteArray urlB = server.url("/b/r%C3%A9sum%C3%A9.pdf").toEncoded();

    ServiceProcess service;
    QVERIFY(startService(service));
    QString dir = service.downloadsDir();
    dir.chop(1); // joined with one separator all the same
    service.writeLine("download_path " + dir.toUtf8());
    // In one read: all three exist before any of them has written its file.
    service.process.write("create " + urlA + "\ncreate " + urlA + "\ncreate " + urlB + "\n");
    QVERIFY(service.waitForErrCount("status:  \"Completed\"", 3));
    const QString file = dir + QString::fromUtf8("/r\u00e9sum\u00e9.pdf");
    QCOMPARE(readFile(file), bodyA);
    QCOMPARE(readFile(file + ".0"), bodyA);
    QCOMPARE(readFile(file + ".1"), bodyB);

    QList<QByteArray> ids;
    for (const QByteArray &line : splitErr(service.stdErr()).log) {
        if (line.startsWith("Download launched with uniqueID:"))
            ids << line.mid(32, 32);
    }
    QCOMPARE(ids.size(), 3);
    QVERIFY(ids[0] != ids[1] && ids[1] != ids[2] && ids[0] != ids[2]);
    // Three rows: all three come back after a restart.
    service.writeLine("quit");
    QVERIFY(service.waitForExit());
    QVERIFY(service.start() && service.waitForErrCount("Enter your command:\n", 2));
    const qsizetype mark = service.stdErr().size();
    service.writeLine("list");
    QVERIFY(sync(service));
    const QList<QByteArray> expected = { "List of downloads:",
        entryLine("Download:", ids[0], file, "Completed", bodyA.size(), bodyA.size()),
        entryLine("Download:", ids[1], file + ".0", "Completed", bodyA.size(), bodyA.size()),
        entryLine("Download:", ids[2], file + ".1", "Completed", bodyB.size(), bodyB.size()),
        synced(1) };
    QCOMPARE(consoleSince(service, mark), expected);
}

void tst_Console::pauseAndResumeContinueWithRange()
{
    FakeHttpServer server;
    const QByteArray body = FakeHttpServer::makeBody(400000, 3);
    FakeHttpServer::Resource resource;
    resource.body = body;
    resource.chunkSize = 4000;
    resource.chunkDelayMs = 20;
    server.setResource("/slow.bin", resource);

    ServiceProcess service;
    service.setEnv("MAX_PACKET_COUNT", "-1"); // write on every notification
    QVERIFY(startService(service));
    const QString path = service.downloadsDir() + "slow.bin";
    service.writeLine("download_path " + service.downloadsDir().toLocal8Bit());
    service.writeLine("create " + server.url("/slow.bin").toEncoded());
    QVERIFY(service.waitForErr(" url: " + server.url("/slow.bin").toEncoded() + "\n"));
    const QByteArray id = launchedId(service, server.url("/slow.bin"));
    QCOMPARE(id.size(), 32);
    QVERIFY(waitForMatch(service, "\"Progressing\"  DL:  [1-9]"));

    service.writeLine("pause " + id);
    QVERIFY(service.waitForErr(id + " has been paused.\n"));
    const QRegularExpression pausedLine("\"Paused\"  DL:  (\\d+) / 400000 \n");
    const auto paused = pausedLine.match(QString::fromLatin1(service.stdErr()));
    QVERIFY(paused.hasMatch());
    const qint64 amount = paused.captured(1).toLongLong();
    QVERIFY(amount > 0 && amount < body.size());
    QCOMPARE(readFile(path), body.left(amount));

    service.writeLine("status " + id);
    QVERIFY(service.waitForErr(entryLine("Download status:", id, path, "Paused", amount, 400000)));

    service.writeLine("resume " + id);
    QVERIFY(service.waitForErr(id + " has been resumed.\n"));
    QVERIFY(service.waitForErr(updateLine(path, "Completed", body.size(), body.size()), 30000));
    QCOMPARE(readFile(path), body);
    const QList<FakeHttpServer::Request> requests = server.requestsFor("/slow.bin");
    QCOMPARE(requests.size(), 2);
    QCOMPARE(requests.at(0).header("range"), QByteArray());
    QCOMPARE(requests.at(1).header("range"), "bytes=" + QByteArray::number(amount) + "-");
}

void tst_Console::pauseAllPausesEveryDownload()
{
    FakeHttpServer server;
    FakeHttpServer::Resource resource;
    resource.body = FakeHttpServer::makeBody(400000, 5);
    resource.chunkSize = 4000;
    resource.chunkDelayMs = 20;
    server.setResource("/one.bin", resource);
    server.setResource("/two.bin", resource);

    ServiceProcess service;
    service.setEnv("MAX_PACKET_COUNT", "-1");
    QVERIFY(startService(service));
    service.writeLine("download_path " + service.downloadsDir().toLocal8Bit());
    service.writeLine("create " + server.url("/one.bin").toEncoded());
    service.writeLine("create " + server.url("/two.bin").toEncoded());
    QVERIFY(waitForMatch(service, "one.bin\"  status:  \"Progressing\"  DL:  [1-9]"));
    QVERIFY(waitForMatch(service, "two.bin\"  status:  \"Progressing\"  DL:  [1-9]"));
    service.writeLine("pause all");
    QVERIFY(service.waitForErr("all has been paused.\n"));
    QVERIFY(service.waitForErr("one.bin\"  status:  \"Paused\""));
    QVERIFY(service.waitForErr("two.bin\"  status:  \"Paused\""));
    service.writeLine("resume all");
    QVERIFY(service.waitForErr("all has been resumed.\n"));
    QVERIFY(service.waitForErr("one.bin\"  status:  \"Completed\"", 30000));
    QVERIFY(service.waitForErr("two.bin\"  status:  \"Completed\"", 30000));
    QCOMPARE(readFile(service.downloadsDir() + "one.bin"), resource.body);
    QCOMPARE(readFile(service.downloadsDir() + "two.bin"), resource.body);
    QVERIFY(sync(service));
    QCOMPARE(service.stdErr().count("has been paused."), 1); // one line for the command
}

void tst_Console::restartCompletedDownload()
{
    FakeHttpServer server;
    const QByteArray body = FakeHttpServer::makeBody(100000, 9);
    server.setBody("/again.bin", body);

    ServiceProcess service;
    QVERIFY(startService(service));
    QString path;
    const QByteArray id = createAndWait(service, server.url("/again.bin"), &path);
    QVERIFY(!id.isEmpty());
    QFile::resize(path, 10); // a restart must write the whole file anew

    const qsizetype mark = service.stdErr().size();
    service.writeLine("restart " + id);
    QVERIFY(service.waitForErr(id + " has been restarted.\n"));
    QVERIFY(service.waitForErrCount(updateLine(path, "Completed", body.size(), body.size()), 2));
    QCOMPARE(consoleSince(service, mark).first(), updateLine(path, "Pending", 0, 0));
    QCOMPARE(readFile(path), body);
    const QList<FakeHttpServer::Request> requests = server.requestsFor("/again.bin");
    QCOMPARE(requests.size(), 2);
    QCOMPARE(requests.at(1).header("range"), QByteArray());
}

void tst_Console::removeKeepsFilesOnDisk()
{
    FakeHttpServer server;
    server.setBody("/a.bin", FakeHttpServer::makeBody(5000, 1));
    server.setBody("/b.bin", FakeHttpServer::makeBody(6000, 2));
    server.setBody("/c.bin", FakeHttpServer::makeBody(7000, 3));

    ServiceProcess service;
    QVERIFY(startService(service));
    QString pathA, pathB, pathC;
    const QByteArray idA = createAndWait(service, server.url("/a.bin"), &pathA);
    const QByteArray idB = createAndWait(service, server.url("/b.bin"), &pathB);
    const QByteArray idC = createAndWait(service, server.url("/c.bin"), &pathC);
    QVERIFY(!idA.isEmpty() && !idB.isEmpty() && !idC.isEmpty());

    qsizetype mark = service.stdErr().size();
    service.writeLine("remove " + idB);
    service.writeLine("remove");
    service.writeLine("list");
    QVERIFY(sync(service));
    QList<QByteArray> expected = {
        "List of downloads:",
        entryLine("Download:", idA, pathA, "Completed", 5000, 5000),
        entryLine("Download:", idC, pathC, "Completed", 7000, 7000),
        synced(1),
    };
    QCOMPARE(consoleSince(service, mark), expected);
    QVERIFY(splitErr(service.stdErr().mid(mark)).log.contains("Download successfully deleted."));
    QCOMPARE(readFile(pathB), FakeHttpServer::makeBody(6000, 2));

    mark = service.stdErr().size();
    service.writeLine("remove " + idB);
    service.writeLine("remove All"); // an ordinary identifier
    service.writeLine("remove all");
    service.writeLine("list");
    QVERIFY(sync(service));
    expected = { "List of downloads:", "No downloads ", synced(2) };
    QCOMPARE(consoleSince(service, mark), expected);
    const QList<QByteArray> log = splitErr(service.stdErr().mid(mark)).log;
    QVERIFY(log.contains(idB + " not found. Unable to delete."));
    QVERIFY(log.contains("All not found. Unable to delete."));
    QVERIFY(log.contains("Remove all downloads"));
    QCOMPARE(readFile(pathA), FakeHttpServer::makeBody(5000, 1));
    QCOMPARE(readFile(pathB), FakeHttpServer::makeBody(6000, 2));
    QCOMPARE(readFile(pathC), FakeHttpServer::makeBody(7000, 3));
}

void tst_Console::removeDeletesPartialFilesEvenWhenTheDatabaseRefuses()
{
    ServiceProcess service;
    const QString pathA = service.downloadsDir() + "a.part";
    const QString pathB = service.downloadsDir() + "b.part";
    QDir().mkpath(service.downloadsDir());
    QDir().mkpath(service.databaseDir());
    for (const QString &path : { pathA, pathB }) {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(QByteArray(100, 'p')) == 100);
    }
    // Two paused downloads come back at start without being launched.
    const QString insert = QStringLiteral(
        "INSERT INTO downloads VALUES ('%1', 'shell', 'n', 'http://127.0.0.1:1/%1', '%2', 4, 4, "
        "1000, 100, 1)");
    QVERIFY(execOnDatabase(service.databaseFile(),
        { "CREATE TABLE downloads (uniqueID TEXT UNIQUE ON CONFLICT REPLACE, clientID TEXT, "
          "name TEXT, contentURL TEXT, filePath TEXT, state NUMERIC, failureCode NUMERIC, "
          "totalSize NUMERIC, amountDownloaded NUMERIC, startTime NUMERIC)",
            insert.arg("p1", pathA), insert.arg("p2", pathB) }));
    QVERIFY(startService(service));

    // From now on the database refuses every deletion.
    QVERIFY(execOnDatabase(service.databaseFile(),
        { "CREATE TRIGGER keep BEFORE DELETE ON downloads BEGIN SELECT RAISE(ABORT, 'kept'); END" }));

    qsizetype mark = service.stdErr().size();
    service.writeLine("remove p1");
    service.writeLine("list");
    QVERIFY(sync(service));
    QList<QByteArray> expected = { "List of downloads:",
        entryLine("Download:", "p2", pathB, "Paused", 100, 1000), synced(1) };
    QCOMPARE(consoleSince(service, mark), expected);
    QCOMPARE(splitErr(service.stdErr()).log.count(
                 "Unable to delete p1 from the database; removed from memory only"),
        1);
    QVERIFY(!QFile::exists(pathA));
    QCOMPARE(readFile(pathB), QByteArray(100, 'p'));

    mark = service.stdErr().size();
    service.writeLine("remove all");
    service.writeLine("list");
    QVERIFY(sync(service));
    expected = { "List of downloads:", "No downloads ", synced(2) };
    QCOMPARE(consoleSince(service, mark), expected);
    QVERIFY(!QFile::exists(pathB));
}

void tst_Console::downloadOfAnotherClientIsReported()
{
    FakeHttpServer server;
    const QByteArray body = FakeHttpServer::makeBody(50000, 11);
    server.setBody("/remote.bin", body);

    ServiceProcess service;
    QVERIFY(startService(service));
    // Another process creates a download over IPC for its own client.
    const auto runCtl = [&](const QStringList &args) {
        QProcess ctl;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("BINDER_SOCKET_DIR", service.socketDir());
        ctl.setProcessEnvironment(env);
        ctl.start(QStringLiteral(DLCTL_BINARY), args);
        // The fake server needs this thread's event loop while the tool runs.
        QDeadlineTimer deadline(10000);
        while (ctl.state() != QProcess::NotRunning && !deadline.hasExpired())
            QTest::qWait(20);
        return ctl.exitStatus() == QProcess::NormalExit && ctl.exitCode() == 0;
    };
    QVERIFY(runCtl({ "set-path", "appB", service.downloadsDir() }));
    QVERIFY(runCtl({ "create", server.url("/remote.bin").toString(), "--client", "appB", "--id",
        "fromipc01" }));

    const QString path = service.downloadsDir() + "remote.bin";
    QVERIFY(service.waitForErr(updateLine(path, "Pending", 0, 0)));
    QVERIFY(service.waitForErr(updateLine(path, "Completed", body.size(), body.size())));
    QCOMPARE(readFile(path), body);
    const qsizetype mark = service.stdErr().size();
    service.writeLine("list shell");
    QVERIFY(sync(service));
    const QList<QByteArray> expected = { "List of downloads:",
        entryLine("Download:", "fromipc01", path, "Completed", body.size(), body.size(), "appB"),
        synced(1) };
    QCOMPARE(consoleSince(service, mark), expected);
}

void tst_Console::closedInputKeepsServiceRunningAndIdle_data()
{
    QTest::addColumn<bool>("pipe");
    QTest::newRow("pipe closed") << true;
    QTest::newRow("started with /dev/null") << false;
}

void tst_Console::closedInputKeepsServiceRunningAndIdle()
{
    QFETCH(bool, pipe);

    ServiceProcess service;
    if (!pipe)
        service.process.setStandardInputFile(QProcess::nullDevice());
    QVERIFY(startService(service));
    if (pipe) {
        // A last line without a line end is still carried out when the input ends.
        service.process.write("status none");
        service.closeInput();
        QVERIFY(service.waitForErr("No download found.\n"));
    }
    // Let the service settle after start before measuring.
    QTest::qWait(300);
    const qint64 before = cpuTicks(service.pid());
    QTest::qWait(2000);
    const qint64 after = cpuTicks(service.pid());
    QVERIFY(before >= 0);
    QVERIFY2(after - before < 20, qPrintable(QString("busy: %1 ticks").arg(after - before)));
    QVERIFY(service.isRunning());
    // Nothing after the help text (and the last line's answer) came from the console.
    const QList<QByteArray> expected
        = pipe ? kHelp + QList<QByteArray> { "No download found." } : kHelp;
    QCOMPARE(consoleSince(service, 0), expected);
}

void tst_Console::downloadContinuesAfterInputCloses()
{
    FakeHttpServer server;
    FakeHttpServer::Resource resource;
    resource.body = FakeHttpServer::makeBody(200000, 4);
    resource.chunkSize = 10000;
    resource.chunkDelayMs = 50;
    server.setResource("/late.bin", resource);

    ServiceProcess service;
    QVERIFY(startService(service));
    const QString path = service.downloadsDir() + "late.bin";
    service.writeLine("download_path " + service.downloadsDir().toLocal8Bit());
    service.writeLine("create " + server.url("/late.bin").toEncoded());
    QVERIFY(service.waitForErr(updateLine(path, "Pending", 0, 0)));
    service.closeInput();

    QVERIFY(service.waitForErr(updateLine(path, "Completed", 200000, 200000), 30000));
    QCOMPARE(readFile(path), resource.body);
    QVERIFY(service.isRunning());
}

void tst_Console::quitExitsWithZero_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::newRow("quit") << QByteArray("quit\n");
    QTest::newRow("quit with argument") << QByteArray("quit now\n");
    QTest::newRow("lines after quit are dropped") << QByteArray("quit\nhelp\nstatus x\n");
    QTest::newRow("quit as last line without end") << QByteArray("quit");
}

void tst_Console::quitExitsWithZero()
{
    QFETCH(QByteArray, input);

    ServiceProcess service;
    QVERIFY(startService(service));
    const qsizetype mark = service.stdErr().size();
    service.process.write(input);
    if (!input.endsWith('\n'))
        service.closeInput();
    QVERIFY(service.waitForExit());
    QCOMPARE(service.exitStatus(), QProcess::NormalExit);
    QCOMPARE(service.exitCode(), 0);
    QCOMPARE(consoleSince(service, mark), QList<QByteArray>());
    QVERIFY(splitErr(service.stdErr().mid(mark)).log.contains("!!!!QUIT!!!!!!"));
}

QTEST_GUILESS_MAIN(tst_Console)
#include "tst_console.moc"

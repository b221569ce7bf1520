// Faults end to end against the real service: broken servers, stored rows against the files
// beside them, a full disk, a kill in the middle of transfers and hostile IPC frames. Every
// fault ends in a state the console, the stored row and a watcher agree on, and no byte that is
// not the content's reaches a file.
#include "FakeHttpServer.h"
#include "Harness.h"
#include "IDLService.h"
#include "ParcelText.h"
#include "Wire.h"

#include <binder/Parcel.h>

#include <QDir>
#include <QFile>
#include <QRandomGenerator>
#include <QtTest>

#include <csignal>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace android;
using Res = FakeHttpServer::Resource;

namespace {

constexpr int kEof = 1 << 30; // the service hangs up instead of answering
const QMap<QByteArray, int> kState {{"Completed", 1}, {"Paused", 4}, {"Failed", 8}};

// A resource from words: status=N, close=N, stall=N, first=N (faulty answers), length=N
// (advertised), range (ignored), never, moved (to /target), cr (206 from byte 0), chunk=N.
Res resource(const QByteArray &spec, const QByteArray &body)
{
    Res r;
    r.body = body;
    for (const QByteArray &word : spec.split(' ')) {
        const QByteArray key = word.split('=').value(0);
        const int n = word.split('=').value(1).toInt();
        r.status = key == "status" ? n : r.status;
        r.closeAfter = key == "close" ? n : r.closeAfter;
        r.stallAfter = key == "stall" ? n : r.stallAfter;
        r.faultyAnswers = key == "first" ? n : r.faultyAnswers;
        r.contentLength = key == "length" ? n : r.contentLength;
        r.chunkSize = key == "chunk" ? n : r.chunkSize;
        r.chunkDelayMs = key == "chunk" ? 15 : r.chunkDelayMs;
        r.honorRange &= key != "range";
        r.neverAnswer |= key == "never";
        r.redirectTo = key == "moved" ? "/target" : r.redirectTo;
        if (key == "cr")
            r.extraHeaders = {{"Content-Range", "bytes 0-" + QByteArray::number(body.size() - 1)
                                                    + '/' + QByteArray::number(body.size())}};
    }
    return r;
}

// The Range offset of each request for path, "-" for none.
QByteArray ranges(const FakeHttpServer &server, const QByteArray &path)
{
    QByteArrayList out;
    for (const FakeHttpServer::Request &q : server.requestsFor(path))
        out << (q.header("range").isEmpty() ? QByteArray("-") : q.header("range").mid(6).chopped(1));
    return out.join(' ');
}

QByteArrayList grep(const QList<QByteArray> &lines, const QByteArray &needle)
{
    QByteArrayList found;
    for (const QByteArray &line : lines)
        if (line.contains(needle))
            found << line;
    return found;
}

// State, failure code, amount and total of a stored row, as text; empty when there is none.
QByteArrayList stored(Service &s, const QByteArray &id)
{
    QByteArrayList row;
    for (const QVariantList &r : s.sql("SELECT state, failureCode, amountDownloaded, totalSize "
                                       "FROM downloads WHERE uniqueID = ?", {QString(id)}))
        for (const QVariant &v : r)
            row << v.toByteArray();
    return row;
}

bool waitStored(Service &s, const QByteArray &id, const QByteArray &state, qint64 amount = -1)
{
    return s.proc.waitFor([&] {
        const QByteArrayList row = stored(s, id);
        return row.value(0) == state && (amount < 0 || row.value(2).toLongLong() == amount);
    });
}

QByteArray bytesOf(const std::vector<uint8_t> &v)
{
    return QByteArray(reinterpret_cast<const char *>(v.data()), int(v.size()));
}

// A call to the service's object: interface token, texts, then raw bytes.
QByteArray call(uint32_t code, const std::vector<std::string> &texts, const QByteArray &tail = {},
                std::vector<wire::Object> objects = {}, uint64_t target = 0,
                const String16 &token = IDLService::descriptor)
{
    Parcel p;
    p.writeInterfaceToken(token);
    for (const std::string &t : texts)
        dlparcel::writeText(&p, t);
    wire::Frame f;
    f.command = wire::Transact;
    f.txnId = 1;
    f.target = target;
    f.code = code;
    f.data.assign(p.data(), p.data() + p.dataSize());
    f.data.insert(f.data.end(), tail.begin(), tail.end());
    f.objects = objects;
    return bytesOf(wire::encode(f));
}

QByteArray header(uint32_t command, uint32_t size)
{
    return QByteArray(reinterpret_cast<const char *>(&command), 4)
        + QByteArray(reinterpret_cast<const char *>(&size), 4);
}

// The status of the reply to bytes; kEof when the service hangs up, -1 on anything else.
int replyStatus(int fd, const QByteArray &bytes)
{
    send(fd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL);
    std::vector<uint8_t> in(1 << 20);
    size_t got = 0;
    uint32_t command = 0, size = 0;
    for (ssize_t n; (n = recv(fd, in.data() + got, in.size() - got, 0)) > 0;) {
        got += size_t(n);
        wire::Frame reply;
        if (got >= wire::kHeaderSize && wire::decodeHeader(in.data(), &command, &size)
            && got >= wire::kHeaderSize + size)
            return wire::decodeBody(command, in.data() + wire::kHeaderSize, size, &reply)
                    && reply.command == wire::Reply ? reply.status : -1;
    }
    return got == 0 ? kEof : -1;
}

// A stored row and the file beside it: the stored amount's prefix of the content, then junk, to
// "file" bytes (-1: no file). "resume": not launched at start, resumed by the test.
struct Restored {
    const char *id;
    int state, size, total, amount, file;
    bool resume;
    const char *end;
    int code;
    const char *ranges; // by the end
};
const Restored kRestored[] = {
    {"shorter", 32, 65536, 65536, 10000, 512, false, "Completed", 4, "-"},
    {"missing", 32, 65536, 65536, 10000, -1, false, "Completed", 4, "-"},
    {"as-long", 32, 65536, 65536, 8000, 8000, false, "Completed", 4, "8000"},
    {"longer", 32, 65536, 65536, 8000, 70000, false, "Completed", 4, "8000"},
    {"total", 32, 3000, 5000, 1000, 1000, false, "Completed", 4, "1000 -"},
    {"whole", 32, 4096, 4096, 4096, 4096, false, "Completed", 4, "4096"},
    {"paused", 4, 65536, 65536, 3000, 3000, true, "Completed", 4, "3000"},
    {"completed", 1, 4096, 4096, 4096, 4096, false, "Completed", 4, ""},
    {"failed", 8, 4096, 0, 0, -1, true, "Completed", 4, "-"},
    {"ftp", 32, 4096, 0, 0, -1, true, "Failed", 4, ""},
    {"symlink", 32, 4096, 4096, 0, 100, false, "Failed", 3, "-"},
};

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly) && f.write(bytes) == bytes.size();
}

} // namespace

class tst_Faults : public QObject {
    Q_OBJECT

    QByteArrayList watched(const QByteArray &id) { return grep(watcher->out().split('\n'), id + ' '); }

    FakeHttpServer server;
    // Every commit reported, stalls after a second, retries after 50 ms, and a third failure
    // without progress is final.
    Service svc {{{"max_retries", "2"}},
                 {"MAX_PACKET_COUNT=1", "DLM_TRANSFER_TIMEOUT_MS=1000", "DLM_RETRY_BASE_MS=50"}};
    std::unique_ptr<Child> watcher;
    int rows = 0;
    Service restored;

private slots:
    void initTestCase();
    void serverFaults_data();
    void serverFaults();
    void queuedDownloadsDoNotTimeOut();
    void hostileFrames_data();
    void hostileFrames();
    void cleanupTestCase();
    void restoredRows_data();
    void restoredRows();
    void diskFull();
    void killAndRestart();
};

void tst_Faults::initTestCase()
{
    QVERIFY(svc.start());
    QCOMPARE(svc.dlctl({"set-path", "dlctl", svc.path("downloads")}).code, 0);
    watcher = svc.client({DLCTL_BINARY, "watch"});
    QVERIFY(svc.waitErr("Event client registered"));
}

void tst_Faults::serverFaults_data()
{
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<QByteArray>("end");
    QTest::addColumn<int>("code");
    QTest::addColumn<int>("bytes"); // in the file and stored: the content's first bytes
    QTest::addColumn<QByteArray>("reason"); // of the one WARN line of a failure
    QTest::addColumn<QByteArray>("ranges");
    QTest::addColumn<QByteArray>("states"); // the watcher's, Pending and Progressing left out
    const int all = 256 * 1024;
    QTest::newRow("cut once") << QByteArray("close=100000 first=1") << QByteArray("Completed") << 1 << all << QByteArray() << QByteArray("- 100000") << QByteArray("Stalled Completed");
    QTest::newRow("stalls once") << QByteArray("stall=90000 first=1") << QByteArray("Completed") << 1 << all << QByteArray() << QByteArray("- 90000") << QByteArray("Stalled Completed");
    QTest::newRow("404") << QByteArray("status=404") << QByteArray("Failed") << 2 << 0 << QByteArray("HTTP 404") << QByteArray("-") << QByteArray("Failed");
    QTest::newRow("503 always") << QByteArray("status=503") << QByteArray("Failed") << 2 << 0 << QByteArray("HTTP 503") << QByteArray("- - -") << QByteArray("Stalled Stalled Failed");
    QTest::newRow("ignores Range") << QByteArray("range close=120000 first=1") << QByteArray("Completed") << 1 << all << QByteArray() << QByteArray("- 120000") << QByteArray("Stalled Completed");
    QTest::newRow("206 elsewhere") << QByteArray("status=206 cr close=100000 first=1") << QByteArray("Completed") << 1 << all << QByteArray() << QByteArray("- 100000 -") << QByteArray("Stalled Completed");
    QTest::newRow("body longer") << QByteArray("length=100000") << QByteArray("Completed") << 4 << 100000 << QByteArray() << QByteArray("-") << QByteArray("Completed");
    QTest::newRow("body shorter") << QByteArray("length=300000") << QByteArray("Completed") << 1 << all << QByteArray() << QByteArray("- 262144") << QByteArray("Stalled Completed");
    QTest::newRow("redirect") << QByteArray("moved") << QByteArray("Completed") << 4 << all << QByteArray() << QByteArray("-") << QByteArray("Completed");
    QTest::newRow("TLS") << QByteArray("tls") << QByteArray("Failed") << 1 << 0 << QByteArray("SSL") << QByteArray() << QByteArray("Failed");
    QTest::newRow("directory gone") << QByteArray("gone") << QByteArray("Failed") << 3 << 0 << QByteArray("No such file") << QByteArray("-") << QByteArray("Failed");
    QTest::newRow("never answers") << QByteArray("never") << QByteArray("Paused") << 4 << 0 << QByteArray() << QByteArray("-") << QByteArray("Paused");
}

void tst_Faults::serverFaults()
{
    QFETCH(QByteArray, fault);
    QFETCH(QByteArray, end);
    QFETCH(int, code);
    QFETCH(int, bytes);
    QFETCH(QByteArray, reason);
    QFETCH(QByteArray, ranges);
    QFETCH(QByteArray, states);
    const QByteArray id = "f" + QByteArray::number(++rows), path = '/' + id;
    const QByteArray body = FakeHttpServer::makeBody(256 * 1024, rows);
    server.setResource(path, resource(fault, body));
    server.setBody("/target", body);
    const QString dir = svc.path("downloads/" + id), file = dir + '/' + id;
    QVERIFY(QDir().mkpath(dir));
    QCOMPARE(svc.dlctl({"set-path", id, dir}).code, 0);
    QVERIFY(fault != "gone" || QDir().rmdir(dir));
    const QString url = server.url(path).toString().replace("http:", fault == "tls" ? "https:" : "http:");
    const qsizetype mark = svc.mark();
    QCOMPARE(svc.dlctl({"create", url, "--client", id, "--id", id}).code, 0);
    if (fault == "never") {
        QVERIFY(svc.proc.waitFor([&] { return !server.requestsFor(path).isEmpty(); }));
        svc.line("pause " + id);
    }
    QVERIFY(watcher->waitFor([&] { return watched(id).value(watched(id).size() - 1).contains(' ' + end + ' '); }));
    QVERIFY(svc.sync());
    // The stored row, the watcher's last line and the console's last update line agree.
    const QByteArrayList row = stored(svc, id);
    QCOMPARE(row.mid(0, 3).join(' '), QByteArray::number(kState[end]) + ' ' + QByteArray::number(code) + ' ' + QByteArray::number(bytes));
    const QByteArray n = QByteArray::number(bytes), path8 = file.toUtf8();
    QVERIFY2(watched(id).last().startsWith(id + ' ' + id + ' ' + end + ' ' + n + ' ' + row.value(3) + ' ' + path8), watched(id).last());
    QCOMPARE(grep(svc.console(mark), '"' + path8 + '"').last(), "Download update with file: \"" + path8 + "\"  status:  \"" + end + "\"  DL:  " + n + " / " + row.value(3) + ' ');
    QByteArrayList seen;
    for (const QByteArray &line : watched(id))
        if (!line.contains(" Pending ") && !line.contains(" Progressing "))
            seen << line.split(' ').value(2);
    QCOMPARE(seen.join(' '), states);
    QCOMPARE(readFile(file), body.left(bytes));
    QCOMPARE(::ranges(server, path), ranges);
    for (const FakeHttpServer::Request &q : server.requests())
        QCOMPARE(q.header("accept-encoding"), QByteArray("identity"));
    const QByteArrayList warned = grep(svc.log(mark), "Download " + id + " failed: ");
    QCOMPARE(warned.size(), int(end == "Failed"));
    QVERIFY(warned.isEmpty() || warned.first().contains(reason));
    if (end != "Failed" || fault == "tls")
        return;
    // Repaired, a resume fetches it whole and the failure code stays.
    server.setBody(path, body);
    QVERIFY(QDir().mkpath(dir));
    svc.line("resume " + id);
    QVERIFY(waitStored(svc, id, "1"));
    QCOMPARE(readFile(file), body);
    QCOMPARE(stored(svc, id).value(1).toInt(), code);
}

void tst_Faults::queuedDownloadsDoNotTimeOut()
{
    // Seven from one host, each sending for about 1.5 s: the seventh waits for a connection
    // longer than the stall timeout.
    const QByteArray body = FakeHttpServer::makeBody(100 * 1024, 77);
    for (int i = 0; i < 7; ++i) {
        server.setResource("/q" + QByteArray::number(i), resource("chunk=1024", body));
        QCOMPARE(svc.dlctl({"create", server.url("/q" + QByteArray::number(i)).toString(), "--id", "q" + QString::number(i)}).code, 0);
    }
    for (int i = 0; i < 7; ++i) {
        const QByteArray id = "q" + QByteArray::number(i);
        QVERIFY(waitStored(svc, id, "1"));
        QCOMPARE(readFile(svc.path("downloads/") + id), body);
        QCOMPARE(ranges(server, '/' + id), QByteArray("-"));
        QVERIFY(!watched(id).join().contains(" Stalled "));
    }
}

void tst_Faults::hostileFrames_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("halfClose");
    QTest::addColumn<int>("answer");
    QByteArray garbage(4096, '\0');
    QRandomGenerator random(4242);
    for (char &c : garbage)
        c = char(random.bounded(256));
    const QByteArray list = call(IDLService::GET_DOWNLOAD_LIST, {"*"});
    const QByteArray binder("\1\0\0\0\0\0\0\0", 8), huge("\xff\xff\xff\x7f", 4);
    wire::Frame reply;
    reply.command = wire::Reply;
    reply.txnId = 4242;
    QTest::newRow("garbage, seed 4242") << garbage << false << kEof;
    QTest::newRow("truncated header") << QByteArray(5, '\1') << true << kEof;
    QTest::newRow("truncated frame") << list.chopped(3) << true << kEof;
    QTest::newRow("huge length") << header(wire::Transact, 0x7fffffff) << false << kEof;
    QTest::newRow("length past the bound") << header(wire::Transact, wire::kMaxBody + 1) + QByteArray(64, 0) << false << kEof;
    QTest::newRow("unknown command") << header(9, 4) + QByteArray(4, 0) << false << kEof;
    QTest::newRow("reply nobody asked for") << bytesOf(wire::encode(reply)) << false << kEof;
    QTest::newRow("unknown object kind") << call(IDLService::ADD_CLIENT, {}, binder, {{7, 1}}) << false << kEof;
    QTest::newRow("unknown target") << call(IDLService::GET_DOWNLOAD_LIST, {"*"}, {}, {}, 77) << false << int(BAD_VALUE);
    QTest::newRow("unknown object handle") << call(IDLService::ADD_CLIENT, {}, binder, {{wire::ReceiverObject, 999}}) << false << int(BAD_VALUE);
    QTest::newRow("wrong interface token") << call(IDLService::REMOVE_DOWNLOAD, {"f1"}, {}, {}, 0, String16("com.velta.IDLClient")) << false << int(PERMISSION_DENIED);
    QTest::newRow("unknown code") << call(IDLService::LIST_DOWNLOADS_PAGE + 50, {"*"}) << false << int(UNKNOWN_TRANSACTION);
    QTest::newRow("text longer than the parcel") << call(IDLService::REMOVE_DOWNLOAD, {}, huge + huge) << false << int(BAD_VALUE);
    QTest::newRow("arguments missing") << call(IDLService::GET_DOWNLOAD, {}) << false << int(BAD_VALUE);
    QTest::newRow("no client object") << call(IDLService::ADD_CLIENT, {}) << false << int(BAD_VALUE);
    QTest::newRow("control bytes as URL") << call(IDLService::REQUEST_DOWNLOAD, {"dlctl", std::string("\x01\nforged\0\xff:://\n", 14), "hostile", ""}) << false << int(NO_ERROR);
    QTest::newRow("remove all") << call(IDLService::REMOVE_DOWNLOAD, {"all"}) << false << int(NO_ERROR);
    QTest::newRow("valid list") << list << false << int(NO_ERROR);
}

void tst_Faults::hostileFrames()
{
    QFETCH(QByteArray, bytes);
    QFETCH(bool, halfClose);
    QFETCH(int, answer);
    const Run before = svc.dlctl({"list"});
    const qsizetype mark = svc.mark();
    const int fd = svc.rawConnect();
    QVERIFY(fd >= 0);
    if (answer == kEof)
        QVERIFY(Service::hangsUp(fd, bytes, halfClose));
    else
        QCOMPARE(replyStatus(fd, bytes), answer);
    // Answered while the hostile connection is still open, and nothing changed.
    const Run after = svc.dlctl({"list"});
    close(fd);
    QCOMPARE(after.code, 0);
    QCOMPARE(after.out, before.out);
    // A caller's newline is logged escaped, never as a line of its own.
    QCOMPARE(svc.proc.err().mid(mark).contains("\\x01\\nforged"), bytes.contains("\x01\nforged"));
    QVERIFY(!svc.proc.err().mid(mark).contains("\nforged"));
}

void tst_Faults::cleanupTestCase()
{
    QCOMPARE(svc.stop(), 0);
}

void tst_Faults::restoredRows_data()
{
    QTest::addColumn<int>("i");
    for (int i = 0; i < int(std::size(kRestored)); ++i)
        QTest::newRow(kRestored[i].id) << i;
}

void tst_Faults::restoredRows()
{
    QFETCH(int, i);
    const Restored &r = kRestored[i];
    const QByteArray id = r.id, body = FakeHttpServer::makeBody(r.size, r.size);
    const QString file = restored.path("downloads/") + r.id;
    const QByteArray before = (body.left(r.amount) + QByteArray(qMax(r.file, 0), 'x')).left(qMax(r.file, 0));
    if (restored.proc.pid() < 0) { // every row is stored before one start
        QVERIFY(restored.start());
        QCOMPARE(restored.stop(), 0);
        for (const Restored &s : kRestored) {
            const QByteArray content = FakeHttpServer::makeBody(s.size, s.size);
            const QString url = server.url('/' + QByteArray(s.id)).toString(), path = restored.path("downloads/") + s.id;
            server.setBody('/' + QByteArray(s.id), content);
            restored.sql("INSERT INTO downloads (uniqueID, clientID, name, contentURL, filePath, state, failureCode, totalSize, amountDownloaded, startTime) VALUES (?, 'app', ?, ?, ?, ?, 4, ?, ?, 1)",
                         {s.id, s.id, QString(url).replace("http:", QByteArray(s.id) == "ftp" ? "ftp:" : "http:"), path, s.state, s.total, s.amount});
            const QByteArray bytes = (content.left(s.amount) + QByteArray(qMax(s.file, 0), 'x')).left(qMax(s.file, 0));
            // The symlink row's file is a link to a file elsewhere.
            QVERIFY(s.file < 0 || writeFile(QByteArray(s.id) == "symlink" ? restored.path("elsewhere") : path, bytes));
            QVERIFY(QByteArray(s.id) != "symlink" || QFile::link(restored.path("elsewhere"), path));
        }
        QVERIFY(restored.start());
    }
    QCOMPARE(restored.proc.err().contains("Download launched with uniqueID:" + id), r.state == 32 && !r.resume);
    if (r.resume) {
        QCOMPARE(ranges(server, '/' + id), QByteArray());
        restored.line("resume " + id);
    }
    const bool done = QByteArray(r.end) == "Completed";
    const QByteArray line = id + " app " + r.end + ' ' + QByteArray::number(done ? r.size : r.amount) + ' ' + QByteArray::number(done ? r.size : r.total) + ' ' + file.toUtf8() + '\n';
    QVERIFY(restored.proc.waitFor([&] { return restored.dlctl({"status", id}).out == line; }));
    QCOMPARE(ranges(server, '/' + id), QByteArray(r.ranges));
    QCOMPARE(readFile(file), done ? body : before);
    const QByteArrayList row = stored(restored, id); // exactly one
    QCOMPARE(row.size(), 4);
    QCOMPARE(row.value(1).toInt(), r.code);
    if (i == int(std::size(kRestored)) - 1)
        QCOMPARE(restored.stop(), 0);
}

void tst_Faults::diskFull()
{
    // Writes past 512 KiB fail with EFBIG instead of ending the service with SIGXFSZ.
    Service s({}, {"MAX_PACKET_COUNT=1", "DLM_REPORT_INTERVAL_MS=0"});
    QVERIFY(s.start([] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit {512 * 1024, 512 * 1024};
        setrlimit(RLIMIT_FSIZE, &limit);
    }));
    const QByteArray body = FakeHttpServer::makeBody(2 * 1024 * 1024, 13);
    server.setResource("/big", resource("chunk=65536", body));
    QCOMPARE(s.dlctl({"set-path", "dlctl", s.path("downloads")}).code, 0);
    QCOMPARE(s.dlctl({"create", server.url("/big").toString(), "--id", "big"}).code, 0);
    QVERIFY(waitStored(s, "big", "8"));
    const QByteArrayList failed = stored(s, "big");
    const QByteArray onDisk = readFile(s.path("downloads/big"));
    QCOMPARE(failed.value(1), QByteArray("3"));
    QVERIFY(failed.value(2).toInt() > 0 && failed.value(2).toInt() <= onDisk.size());
    QVERIFY(onDisk.size() < body.size() && body.startsWith(onDisk));
    QVERIFY(s.waitErr("Download big failed: cannot write " + s.path("downloads/big").toUtf8() + ": "));
    // Without the limit, a resume goes on from the stored amount.
    QCOMPARE(s.stop(), 0);
    QVERIFY(s.start());
    s.line("resume big");
    QVERIFY(waitStored(s, "big", "1"));
    QCOMPARE(readFile(s.path("downloads/big")), body);
    QCOMPARE(ranges(server, "/big"), "- " + failed.value(2));
    QCOMPARE(s.stop(), 0);
}

void tst_Faults::killAndRestart()
{
    // Every notification commits, so each stall point is stored exactly: k0 stops after 96 KiB,
    // k1 after its headers, k2 completes, k3 is paused at 32 KiB.
    Service s({}, {"MAX_PACKET_COUNT=-1", "DLM_REPORT_INTERVAL_MS=0"});
    QVERIFY(s.start());
    QCOMPARE(s.dlctl({"set-path", "dlctl", s.path("downloads")}).code, 0);
    const QByteArrayList specs {"stall=98304", "stall=0", "", "stall=32768"};
    const QByteArrayList expected {"2 4 98304", "2 4 0", "1 4 4096", "4 4 32768"};
    QList<QByteArray> bodies;
    for (int i = 0; i < 4; ++i) {
        bodies << FakeHttpServer::makeBody(i == 2 ? 4096 : 256 * 1024, 40 + i);
        server.setResource("/k" + QByteArray::number(i), resource(specs[i], bodies[i]));
        QCOMPARE(s.dlctl({"create", server.url("/k" + QByteArray::number(i)).toString(), "--id", "k" + QString::number(i)}).code, 0);
    }
    QVERIFY(waitStored(s, "k3", "2", 32768));
    s.line("pause k3");
    const auto rows = [&] {
        QByteArrayList all;
        for (int i = 0; i < 4; ++i)
            all << stored(s, "k" + QByteArray::number(i)).mid(0, 3).join(' ');
        return all;
    };
    QVERIFY(s.proc.waitFor([&] { return rows() == expected; }));
    for (bool killed : {false, true}) { // no stored amount runs ahead of its file, alive or killed
        if (killed)
            s.kill();
        QCOMPARE(rows(), expected);
        for (int i = 0; i < 4; ++i)
            QCOMPARE(readFile(s.path("downloads/k") + QString::number(i)), bodies[i].left(expected[i].split(' ')[2].toInt()));
    }
    // The server repaired: the stalled ones go on from their stored bytes, the paused one waits.
    server.clearRequests();
    for (int i = 0; i < 4; ++i)
        server.setBody("/k" + QByteArray::number(i), bodies[i]);
    QVERIFY(s.start());
    QCOMPARE(s.dlctl({"list"}).out.count('\n'), 4);
    QVERIFY(waitStored(s, "k0", "1") && waitStored(s, "k1", "1"));
    s.line("resume k3");
    QVERIFY(waitStored(s, "k3", "1"));
    for (int i = 0; i < 4; ++i)
        QCOMPARE(readFile(s.path("downloads/k") + QString::number(i)), bodies[i]);
    QCOMPARE(ranges(server, "/k0") + '|' + ranges(server, "/k1") + '|' + ranges(server, "/k2") + '|' + ranges(server, "/k3"), QByteArray("98304|-||32768"));
    QCOMPARE(s.sql("SELECT group_concat(uniqueID) FROM downloads").value(0).value(0).toString(), QString("k0,k1,k2,k3"));
    QCOMPARE(s.stop(), 0);
}

QTEST_GUILESS_MAIN(tst_Faults)
#include "tst_faults.moc"

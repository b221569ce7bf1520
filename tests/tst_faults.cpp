// The real service against broken servers, odd stored rows, a kill on a full disk, hostile IPC.
#include "FakeHttpServer.h"
#include "Harness.h"
#include "IDLService.h"
#include "ParcelText.h"
#include "Wire.h"

#include <QtTest>

#include <csignal>
#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace android;
using Res = FakeHttpServer::Resource;

namespace {

const QString kUser = "dlmtest-a"; // another user, made for the run
constexpr int kEof = 1 << 30, kEofOnHalfClose = kEof + 1; // hangs up instead of answering
const rlimit kFileSizeLimit { 1 << 20, 1 << 20 };

// The resource as served (its body set by the test). bytes: the content's first bytes in the file
// and stored; reason: in the one WARN line of a failure; states: the watcher's, without Pending
// and Progressing; ranges "*": Qt may send the redirected request twice, "N?V": If-Range V.
struct ServerFault {
    const char *name;
    Res serve {};
    const char *scheme = "http"; // "https": a TLS handshake the plain server cannot answer
    bool removeDir = false; // the client's directory is gone after it is set
    bool pauseAsked = false; // paused while its request waits for an answer
    bool pauseStalled = false; // paused once Stalled, then left past its retry's time
    int othersBacklog = 0; // downloads of another user trickling from the same host first
    QStringList create {}; // more dlctl create options; "SHA" is the body's SHA-256
    qint64 pauseAt = 0; // paused once this much is stored, then resumed
    QByteArray replaceTag {}; // while paused, another body as long is served with this ETag
    const char *heard = ""; // by the watcher before the end, after "ID ID "
    const char *end;
    int code, bytes = 0;
    const char *reason = "", *ranges, *states;
    const char *note = ""; // ends the watcher's last line
};
// clang-format off
const ServerFault kServerFaults[] = {
    {.name = "cut three times", .serve = {.closeAfter = 50000, .faultyAnswers = 3}, .end = "Completed", .code = 1, .bytes = 262144, .ranges = "- 50000 100000 150000", .states = "Stalled Stalled Stalled Completed"},
    {.name = "stalls once, its last bytes reported while quiet", .serve = {.stallAfter = 90000, .faultyAnswers = 1}, .heard = "Progressing 90000 ", .end = "Completed", .code = 1, .bytes = 262144, .ranges = "- 90000", .states = "Stalled Completed"},
    {.name = "404", .serve = {.status = 404}, .end = "Failed", .code = 2, .reason = "HTTP 404", .ranges = "-", .states = "Failed"},
    {.name = "503 always", .serve = {.status = 503}, .end = "Failed", .code = 2, .reason = "HTTP 503", .ranges = "- - -", .states = "Stalled Stalled Failed"},
    {.name = "ignores Range", .serve = {.honorRange = false, .closeAfter = 120000, .faultyAnswers = 1}, .end = "Completed", .code = 1, .bytes = 262144, .ranges = "- 120000", .states = "Stalled Completed"},
    {.name = "206 elsewhere", .serve = {.status = 206, .closeAfter = 100000, .faultyAnswers = 1, .extraHeaders = {{"Content-Range", "bytes 0-262143/262144"}}}, .end = "Completed", .code = 1, .bytes = 262144, .ranges = "- 100000 -", .states = "Stalled Completed"},
    {.name = "body longer", .serve = {.contentLength = 100000}, .end = "Completed", .code = 4, .bytes = 100000, .ranges = "-", .states = "Completed"},
    {.name = "body shorter", .serve = {.contentLength = 300000}, .end = "Completed", .code = 1, .bytes = 262144, .ranges = "- 262144", .states = "Stalled Completed"},
    {.name = "redirect", .serve = {.redirectTo = "?moved"}, .end = "Completed", .code = 4, .bytes = 262144, .ranges = "*", .states = "Completed"},
    {.name = "TLS", .scheme = "https", .end = "Failed", .code = 1, .reason = "SSL", .ranges = "", .states = "Failed"},
    {.name = "directory gone", .removeDir = true, .end = "Failed", .code = 3, .reason = "No such file or directory", .ranges = "-", .states = "Failed"},
    {.name = "never answers", .serve = {.neverAnswer = true}, .pauseAsked = true, .end = "Paused", .code = 4, .ranges = "-", .states = "Paused"},
    {.name = "header without end", .serve = {.endlessHeader = true}, .end = "Failed", .code = 1, .reason = "answer headers longer than 65536 bytes", .ranges = "*", .states = "Stalled Stalled Failed"},
    {.name = "redirect to a closed port", .serve = {.redirectTo = "http://127.0.0.1:1/"}, .end = "Failed", .code = 1, .reason = "refused", .ranges = "*", .states = "Stalled Stalled Failed"},
    {.name = "paused while stalled", .serve = {.status = 503, .extraHeaders = {{"Retry-After", "3"}}}, .pauseStalled = true, .end = "Paused", .code = 2, .ranges = "-", .states = "Stalled Paused"},
    {.name = "another user's backlog", .othersBacklog = 12, .end = "Completed", .code = 4, .bytes = 262144, .ranges = "-", .states = "Completed"},
    {.name = "changed while paused", .serve = {.stallAfter = 131072, .faultyAnswers = 1, .etag = "\"v1\""}, .pauseAt = 131072, .replaceTag = "\"v2\"", .end = "Completed", .code = 4, .bytes = 262144, .ranges = "- 131072?\"v1\"", .states = "Paused Completed"},
    {.name = "unchanged while paused", .serve = {.stallAfter = 131072, .faultyAnswers = 1, .etag = "\"v1\""}, .pauseAt = 131072, .end = "Completed", .code = 4, .bytes = 262144, .ranges = "- 131072?\"v1\"", .states = "Paused Completed"},
    {.name = "weak ETag", .serve = {.stallAfter = 131072, .faultyAnswers = 1, .etag = "W/\"v1\""}, .pauseAt = 131072, .end = "Completed", .code = 4, .bytes = 262144, .ranges = "- 131072", .states = "Paused Completed"},
    {.name = "expected content", .create = {"--sha256", "SHA", "--size", "262144"}, .end = "Completed", .code = 4, .bytes = 262144, .ranges = "-", .states = "Completed", .note = " (verified)"},
    {.name = "other content", .create = {"--sha256", QString(64, 'a')}, .end = "Failed", .code = 5, .bytes = 262144, .reason = ", expected aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", .ranges = "-", .states = "Failed"},
    {.name = "announced longer than expected", .create = {"--size", "100000"}, .end = "Failed", .code = 5, .reason = "longer than the expected 100000 bytes", .ranges = "-", .states = "Failed"},
    {.name = "longer than expected", .serve = {.lengthByClose = true}, .create = {"--size", "100000"}, .end = "Failed", .code = 5, .bytes = 100000, .reason = "longer than the expected 100000 bytes", .ranges = "-", .states = "Failed"},
};

// A stored row and its file: the stored amount's prefix of the content, then junk, to "file"
// bytes (-1: none).
struct StoredRow {
    const char *name;
    const char *scheme = "http";
    DownloadState state;
    int size, total, amount, file;
    bool linked = false; // the file is a link to one elsewhere, which must stay as it is
    bool replaced = false; // stored as created, then replaced by another file
    bool resume = false; // not launched at start, resumed by the test
    const char *at = nullptr; // the file's stored path, when not downloads/NAME
    bool unclean = false; // stored as downloads/.//NAME: carried out at its clean path
    const char *end, *ranges, *stored; // stored by the end
    QByteArray body() const { return FakeHttpServer::makeBody(size, size); }
    QString path(const Service &s) const { return at ? at : s.path("downloads/") + name; }
    QByteArray onDisk() const { return (body().left(amount) + QByteArray(file, 'x')).left(file); }
};
const StoredRow kStoredRows[] = {
    {.name = "shorter", .state = STATE_STALLED, .size = 65536, .total = 65536, .amount = 10000, .file = 512, .end = "Completed", .ranges = "-", .stored = "Completed 4 65536 65536"},
    {.name = "longer", .state = STATE_STALLED, .size = 65536, .total = 65536, .amount = 8000, .file = 70000, .end = "Completed", .ranges = "8000", .stored = "Completed 4 65536 65536"},
    {.name = "total", .state = STATE_STALLED, .size = 3000, .total = 5000, .amount = 1000, .file = 1000, .end = "Completed", .ranges = "1000 -", .stored = "Completed 4 3000 3000"},
    {.name = "paused", .state = STATE_PAUSED, .size = 65536, .total = 65536, .amount = 3000, .file = 3000, .resume = true, .end = "Completed", .ranges = "3000", .stored = "Completed 4 65536 65536"},
    {.name = "completed", .state = STATE_COMPLETED, .size = 4096, .total = 4096, .amount = 4096, .file = 4096, .end = "Completed", .ranges = "", .stored = "Completed 4 4096 4096"},
    {.name = "failed", .state = STATE_FAILED, .size = 4096, .total = 0, .amount = 0, .file = -1, .resume = true, .end = "Completed", .ranges = "-", .stored = "Completed 4 4096 4096"},
    {.name = "relative", .state = STATE_STALLED, .size = 4096, .total = 0, .amount = 0, .file = -1, .resume = true, .at = "relative", .end = "Failed", .ranges = "", .stored = "Stalled 4 0 0"},
    {.name = "ftp", .scheme = "ftp", .state = STATE_STALLED, .size = 4096, .total = 0, .amount = 0, .file = -1, .resume = true, .end = "Failed", .ranges = "", .stored = "Stalled 4 0 0"},
    {.name = "unclean", .state = STATE_STALLED, .size = 4096, .total = 4096, .amount = 0, .file = -1, .unclean = true, .end = "Completed", .ranges = "-", .stored = "Completed 4 4096 4096"},
    {.name = "symlink", .state = STATE_STALLED, .size = 4096, .total = 4096, .amount = 0, .file = 100, .linked = true, .end = "Failed", .ranges = "-", .stored = "Failed 3 0 4096"},
    {.name = "replaced", .state = STATE_STALLED, .size = 4096, .total = 4096, .amount = 1000, .file = 2000, .replaced = true, .end = "Failed", .ranges = "-", .stored = "Failed 3 0 4096"},
};

// Connections from each uid (a bare number: none has to exist); refused: how many of them all
// the service hangs up on; served: a uid answered while they are held (-1: none).
struct Flood {
    const char *name;
    std::vector<uid_t> uids;
    int each, refused, served = -1;
};
const Flood kFloods[] = {
    {.name = "root alone, up to the total", .uids = {0}, .each = 300, .refused = 300 - 256},
    {.name = "one user, its share; another served", .uids = {70000}, .each = 40, .refused = 8, .served = 70001},
    {.name = "eight users, root's reserve kept", .uids = {70000, 70001, 70002, 70003, 70004, 70005, 70006, 70007}, .each = 32, .refused = 32, .served = 0},
};
// clang-format on

QByteArrayList grep(QByteArrayList lines, const QByteArray &needle)
{
    lines.removeIf([&](const QByteArray &line) { return !line.contains(needle); });
    return lines;
}

// "state code amount total" of each stored row whose identifier is like id, comma-separated; the
// state by its name.
QByteArray stored(Service &s, const QByteArray &id)
{
    const char *sql = "SELECT group_concat(state||' '||failureCode||' '||amountDownloaded||' '||"
                      "totalSize) FROM downloads WHERE uniqueID LIKE ?";
    QByteArrayList rows = s.sql(sql, { QString(id) }).value(0).value(0).toByteArray().split(',');
    for (QByteArray &row : rows) {
        if (const int blank = row.indexOf(' '); blank > 0)
            row.replace(0, blank, downloadStateName(row.left(blank).toInt()));
    }
    return rows.join(',');
}

const char *const kInsertRow
    = "INSERT INTO downloads (uniqueID, clientID, name, contentURL, filePath, state, failureCode, "
      "totalSize, amountDownloaded, startTime) VALUES (?, 'app', ?, ?, ?, ?, 4, ?, ?, 1)";

bool waitRows(Service &s, const QByteArray &id, const QByteArray &prefix)
{
    return waitFor(
        "rows " + id + " at " + prefix, [&] { return stored(s, id).startsWith(prefix); });
}

// Each request's Range offset for id and below ("-": none, "!": no Accept-Encoding: identity).
QByteArray ranges(const FakeHttpServer &server, const QByteArray &id)
{
    QByteArrayList out;
    for (const FakeHttpServer::Request &q : server.requests()) {
        QByteArray range = q.header("range").mid(6), same = q.header("if-range");
        range.chop(1); // "bytes=N-"
        if (q.path.startsWith('/' + id))
            out << (q.header("accept-encoding") != "identity" ? "!"
                    : range.isEmpty()                         ? "-"
                    : same.isEmpty()                          ? range
                                                              : range + '?' + same);
    }
    return out.join(' ');
}

// A call to the service's object: interface token and texts, then raw bytes.
QByteArray call(uint32_t code, const std::vector<std::string> &texts, const QByteArray &tail = {},
    const std::vector<wire::Object> &objects = {}, uint64_t target = 0,
    const String16 &token = IDLService::descriptor)
{
    Parcel p;
    p.writeInterfaceToken(token);
    for (const std::string &t : texts)
        dlparcel::writeText(&p, t);
    p.write(tail.constData(), size_t(tail.size()));
    const std::vector<uint8_t> bytes = wire::encode({ wire::Transact, 1, 0, target, code, 0, 0,
        { p.data(), p.data() + p.dataSize() }, objects });
    return QByteArray(reinterpret_cast<const char *>(bytes.data()), int(bytes.size()));
}

// The status of the reply to bytes, -1 when none comes.
int replyStatus(int fd, const QByteArray &bytes)
{
    send(fd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL);
    std::vector<uint8_t> in(wire::kMaxBody);
    uint32_t command = 0, size = 0;
    wire::Frame reply;
    const auto got = [&](size_t n) { return recv(fd, in.data(), n, MSG_WAITALL) == ssize_t(n); };
    const bool ok = got(wire::kHeaderSize) && wire::decodeHeader(in.data(), &command, &size)
        && got(size) && wire::decodeBody(command, in.data(), size, &reply);
    return ok ? reply.status : -1;
}

} // namespace

class tst_Faults : public QObject {
    Q_OBJECT

    FakeHttpServer server;
    // Every commit reported, a stall after 1 s, retries after 50 ms, final at the third failure.
    Service svc { { { "max_retries", "2" } },
        { "MAX_PACKET_COUNT=1", "DLM_TRANSFER_TIMEOUT_MS=5000", "DLM_RETRY_BASE_MS=50" } };
    std::unique_ptr<Child> watcher;
    Service restored;

    QByteArray &body(const QByteArray &id) { return server.resource('/' + id).body; }
    QString url(const QByteArray &id) const { return server.url('/' + id).toString(); }
    void interfere(const ServerFault &r, int i, const QByteArray &id);

private slots:
    void initTestCase()
    {
        QProcess::execute("sh", { "-c", "useradd -r " + kUser + " 2>/dev/null" });
        QVERIFY(chmod(QFile::encodeName(svc.path()), 0755) == 0); // for the other user
        QVERIFY(svc.start() && svc.dlctl({ "set-path", "dlctl", svc.path("downloads") }).code == 0);
        watcher = svc.client({ "dlctl", "watch" });
        QVERIFY(svc.waitErr("Event client registered"));
    }

    void serverFaults_data() { indexRows(kServerFaults); }
    void serverFaults();

    // Seven from one host sending for 1.5 s each; those beyond the limits wait past the stall
    // time-out without failing, and start in order of creation.
    void queued_data()
    {
        QTest::addColumn<QString>("setting");
        QTest::addColumn<int>("most"); // connections at once: root leaves one for other users
        QTest::addColumn<bool>("netLoss"); // no route to the host until they all wait
        QTest::addColumn<bool>("raised"); // the last one created by dlctl with priority 5
        QTest::addColumn<bool>("bounced"); // q1 paused and resumed in one command while it waits
        QTest::addColumn<bool>("parked"); // q1 paused while it waits, resumed once all others end
        QTest::newRow("six per host") << "" << 5 << false << false << false << false;
        QTest::newRow("two per host")
            << "max_connections_per_host" << 1 << false << false << false << false;
        QTest::newRow("two downloads at once")
            << "max_active_downloads" << 1 << false << false << false << false;
        QTest::newRow("retries spent while the network is gone")
            << "" << 5 << true << false << false << false;
        QTest::newRow("a raised priority waits least")
            << "max_active_downloads" << 1 << false << true << false << false;
        QTest::newRow("a stopped transfer's late leave drops its download's new place")
            << "max_active_downloads" << 1 << false << false << true << false;
        QTest::newRow("a download paused while it waits is never given a slot")
            << "max_active_downloads" << 1 << false << false << false << true;
    }
    void queued();

    // clang-format off
    void hostileFrames_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("answer");
        QTest::newRow("garbage, seed 4242") << FakeHttpServer::makeBody(4096, 4242) << kEof;
        QTest::newRow("truncated frame") << call(IDLService::GET_DOWNLOAD_LIST, {"*"}).chopped(3) << kEofOnHalfClose;
        QTest::newRow("huge length") << QByteArray::fromHex("01000000ffffff7f") << kEof;
        QTest::newRow("unknown command") << QByteArray::fromHex("090000000400000000000000") << kEof;
        QTest::newRow("reply nobody asked for") << QByteArray::fromHex("0200000014000000" "0100000000000000" "000000000000000000000000") << kEof;
        QTest::newRow("unknown object kind") << call(IDLService::ADD_CLIENT, {}, QByteArray("\1\0\0\0\0\0\0\0", 8), {{7, 1}}) << kEof;
        QTest::newRow("unknown target") << call(IDLService::GET_DOWNLOAD_LIST, {"*"}, {}, {}, 77) << int(BAD_VALUE);
        QTest::newRow("wrong interface token") << call(IDLService::REMOVE_DOWNLOAD, {"f10"}, {}, {}, 0, String16("com.velta.IDLClient")) << int(PERMISSION_DENIED);
        QTest::newRow("unknown code") << call(IDLService::LIST_DOWNLOADS_PAGE + 50, {"*"}) << int(UNKNOWN_TRANSACTION);
        QTest::newRow("text longer than the parcel") << call(IDLService::REMOVE_DOWNLOAD, {}, QByteArray("\xff\xff\xff\x7f", 4)) << int(BAD_VALUE);
        QTest::newRow("control bytes as URL") << call(IDLService::REQUEST_DOWNLOAD, {"dlctl", std::string("\x01\nforged\0\xff:://\n", 14), "hostile", ""}) << int(NO_ERROR);
        QTest::newRow("remove all") << call(IDLService::REMOVE_DOWNLOAD, {"all"}) << int(NO_ERROR);
        QTest::newRow("identifier past its limit") << call(IDLService::REMOVE_DOWNLOAD, {std::string(257, 'i')}) << int(IDLService::TEXT_TOO_LONG);
        QTest::newRow("URL past its limit") << call(IDLService::REQUEST_DOWNLOAD, {"dlctl", "http://h/" + std::string(8192, 'u'), "", ""}) << int(IDLService::TEXT_TOO_LONG);
    }
    // clang-format on

    void hostileFrames();

    void restoredRows_data() { indexRows(kStoredRows); }
    void restoredRows();

    void killAndRestart();
    void connectionFlood_data() { indexRows(kFloods); }
    void connectionFlood();
};

// The row's pauses and resumes while its download runs.
void tst_Faults::interfere(const ServerFault &r, int i, const QByteArray &id)
{
    if (r.pauseAt && waitRows(svc, id, "Progressing 4 " + QByteArray::number(r.pauseAt))) {
        svc.line("pause " + id);
        QVERIFY(waitRows(svc, id, "Paused ") && svc.sync());
        if (!r.replaceTag.isEmpty()) {
            server.resource('/' + id).etag = r.replaceTag;
            body(id) = FakeHttpServer::makeBody(262144, i + 100);
        }
        svc.line("resume " + id);
    }
    if (r.pauseAsked && waitFor("its request", [&] { return !ranges(server, id).isEmpty(); }))
        svc.line("pause " + id);
    const QByteArray stalled = id + ' ' + id + " Stalled ";
    if (r.pauseStalled && waitFor(stalled, [&] { return watcher->out().contains(stalled); })) {
        svc.line("pause " + id);
        QTest::qWait(3500); // past the server's Retry-After
    }
}

void tst_Faults::serverFaults()
{
    QFETCH(int, i);
    const ServerFault &r = kServerFaults[i];
    const QByteArray end = r.end, id = 'f' + QByteArray::number(i + 10);
    server.setResource('/' + id, r.serve);
    body(id) = body(id + "?moved") = FakeHttpServer::makeBody(262144, i);
    const QString dir = svc.path("downloads/" + id), file = dir + '/' + id;
    QVERIFY(QDir().mkpath(dir) && svc.dlctl({ "set-path", id, dir }).code == 0);
    QVERIFY(!r.removeDir || QDir().rmdir(dir));
    if (r.othersBacklog && geteuid() != 0)
        QSKIP("needs root to act as another user");
    const auto stop = qScopeGuard([&] {
        server.resource('/' + id).endlessHeader = false;
        QVERIFY(!r.othersBacklog || svc.dlctl({ "pause", "all" }, kUser).code == 0);
    });
    if (r.othersBacklog) { // they trickle from the same host before this one is asked for
        server.setResource(
            "/backlog", { .body = QByteArray(1000, 'x'), .chunkSize = 1, .chunkDelayMs = 1000 });
        QVERIFY(QProcess::execute("install", { "-d", "-o", kUser, svc.path(kUser) }) == 0);
        QVERIFY(svc.dlctl({ "set-path", "dlctl", svc.path(kUser) }, kUser).code == 0);
    }
    for (int k = 0; k < r.othersBacklog; ++k)
        QCOMPARE(svc.dlctl({ "create", url("backlog") }, kUser).code, 0);
    const qsizetype mark = svc.mark();
    const QString link = r.scheme + url(id).mid(4);
    const QString sha = QCryptographicHash::hash(body(id), QCryptographicHash::Sha256).toHex();
    QStringList create { "create", link, "--client", id, "--id", id };
    for (const QString &arg : r.create)
        create << (arg == "SHA" ? sha : arg);
    QCOMPARE(svc.dlctl(create).code, 0);
    interfere(r, i, id);
    if (QTest::currentTestFailed())
        return;
    const QByteArray seen = id + ' ' + id + ' ' + end + ' ';
    QVERIFY(waitFor("the watcher to hear " + seen, [&] { return watcher->out().contains(seen); })
        && svc.sync());
    QVERIFY2(watcher->out().contains(id + ' ' + id + ' ' + r.heard), r.heard);
    const QByteArray row = stored(svc, id), n = QByteArray::number(r.bytes),
                     total = row.split(' ').value(3), name8 = file.toUtf8(), q8 = '"' + name8 + '"';
    QCOMPARE(row, r.end + QString::asprintf(" %d %d ", r.code, r.bytes).toUtf8() + total);
    QByteArray trail; // the states the watcher saw
    const QByteArrayList heard = grep(watcher->out().split('\n'), id + ' ');
    const QByteArray last = heard.value(heard.size() - 1);
    for (const QByteArray &line : heard)
        trail += line.split(' ').value(2) + ' ';
    QVERIFY2(last.startsWith(seen + n + ' ' + total + ' ' + name8) && last.endsWith(r.note), last);
    QCOMPARE(trail.replace("Pending ", "").replace("Progressing ", ""), QByteArray(r.states) + ' ');
    QCOMPARE(grep(svc.console(mark), q8).last(),
        "Download update with file: " + q8 + "  status:  \"" + end + "\"  DL:  " + n + " / " + total
            + ' ');
    QCOMPARE(readFile(file), body(id).left(r.bytes));
    QVERIFY(r.ranges == QByteArray("*") || ranges(server, id) == r.ranges);
    const QByteArrayList warned = grep(svc.log(mark), "Download " + id + " failed: ");
    QVERIFY2(
        warned.size() == (*r.reason ? 1 : 0) && warned.join().contains(r.reason), warned.join());
}

void tst_Faults::queued()
{
    QFETCH(QString, setting);
    QFETCH(int, most);
    QFETCH(bool, netLoss);
    const int home = netLoss ? open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC) : -1;
    if (netLoss && (home < 0 || unshare(CLONE_NEWNET) != 0)) {
        close(home);
        QSKIP("needs a network namespace of its own (unshare -n)");
    }
    const auto back = qScopeGuard([&] { // this thread's own network again
        QVERIFY(home < 0 || (setns(home, CLONE_NEWNET) == 0 && close(home) == 0));
    });
    const auto lo = [](const char *verb) {
        return QProcess::execute("ip", { "addr", verb, "127.0.0.1/8", "dev", "lo" }) == 0;
    };
    QVERIFY(!netLoss || QProcess::execute("ip", { "link", "set", "lo", "up" }) == 0);
    QFETCH(bool, raised);
    QByteArrayList ids { "q0", "q1", "q2", "q3", "q4", "q5", "q6" };
    FakeHttpServer host; // its connections are this service's alone
    Service one({ { setting.isEmpty() ? "max_retries" : setting, "2" } },
        { "DLM_TRANSFER_TIMEOUT_MS=1000", "DLM_RETRY_BASE_MS=50" });
    QVERIFY(one.start() && one.dlctl({ "set-path", "shell", one.path("downloads") }).code == 0);
    QVERIFY(!netLoss || lo("del")); // the server stays bound to an address with no route
    QByteArray creates; // in one write, so that they overlap on any machine
    for (const QByteArray &id : ids) {
        host.setResource('/' + id,
            { .body = FakeHttpServer::makeBody(102400, 77),
                .chunkSize = 1024,
                .chunkDelayMs = 15 });
        creates += "create " + host.url('/' + id).toEncoded() + '\n';
    }
    one.line(creates.left(raised ? creates.lastIndexOf("\ncreate") : creates.size() - 1));
    if (raised) { // while q0 runs and the others wait
        QVERIFY(waitFor("six created",
            [&] { return one.sql("SELECT count(*) FROM downloads").value(0).value(0) == 6; }));
        QCOMPARE(one.dlctl({ "create", host.url("/q6").toString(), "--client", "shell",
                               "--priority", "5" })
                     .code,
            0);
        ids.move(6, 1);
    }
    QFETCH(bool, bounced);
    QFETCH(bool, parked);
    QByteArray q1;
    const char *idOf = "SELECT uniqueID FROM downloads WHERE filePath LIKE '%/q1'";
    QVERIFY(!(bounced || parked) || waitFor("q1 to wait behind q0", [&] {
        q1 = one.sql(idOf).value(0).value(0).toByteArray();
        return !q1.isEmpty() && !host.requests().isEmpty();
    }));
    if (bounced)
        one.line("pause " + q1 + "\nresume " + q1);
    if (parked) {
        one.line("pause " + q1);
        ids.move(1, ids.size() - 1);
    }
    if (netLoss) { // all wait past their whole retry schedule, then the route is back
        const char *stalled
            = "SELECT count(*) = 7 FROM downloads WHERE state = 32"; // STATE_STALLED
        QVERIFY(
            waitFor("all to stall", [&] { return one.sql(stalled).value(0).value(0).toBool(); }));
        for (const QVariantList &row : one.sql("SELECT uniqueID FROM downloads"))
            QVERIFY(one.dlctl({ "status", row.value(0).toString() })
                        .out.endsWith(" (waiting for network)\n"));
        QTest::qWait(1000);
        QVERIFY(lo("add"));
    }
    const QByteArray done = netLoss ? "1 102400" : "4 102400"; // the lost route's code stays
    for (const QByteArray &id : ids) {
        if (parked && id == "q1") { // every slot has come free meanwhile
            for (const FakeHttpServer::Request &q : host.requests())
                QVERIFY(q.path != "/q1");
            one.line("resume " + q1);
        }
        const char *sql = "SELECT failureCode||' '||amountDownloaded FROM downloads WHERE filePath "
                          "LIKE ? AND state = ?";
        QVERIFY(waitFor(id + " completed without a failure", [&] {
            return one.sql(sql, { QString("%/" + id), STATE_COMPLETED })
                       .value(0)
                       .value(0)
                       .toByteArray()
                == done;
        }));
        QCOMPARE(readFile(one.path("downloads/") + id), host.resource('/' + id).body);
    }
    QByteArrayList asked;
    for (const FakeHttpServer::Request &q : host.requests())
        asked << q.path.mid(1) + (q.header("range").isEmpty() ? "" : " with a range");
    // Over several connections requests reach the server in any order; where one runs at a
    // time, they must come in the order of creation.
    if (most > 1)
        std::sort(asked.begin(), asked.end());
    QCOMPARE(asked, ids);
    QCOMPARE(host.mostConnections, most);
    QCOMPARE(one.stop(), 0);
}

void tst_Faults::hostileFrames()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, answer);
    const QByteArray before = svc.dlctl({ "list" }).out;
    const qsizetype mark = svc.mark();
    const int fd = svc.rawConnect();
    const bool hungUp = answer >= kEof && Service::hangsUp(fd, bytes, answer == kEofOnHalfClose);
    QCOMPARE(answer < kEof ? replyStatus(fd, bytes) : hungUp ? answer : -1, answer);
    QCOMPARE(svc.dlctl({ "list" }).out, before); // answered while the connection is open
    close(fd);
    // A caller's newline is logged escaped, never as a line of its own.
    QVERIFY(!svc.proc.err().contains("\nforged"));
    QVERIFY(!bytes.contains("\nforged") || svc.waitErr("\\x01\\nforged", 1, mark));
}

void tst_Faults::restoredRows()
{
    QFETCH(int, i);
    const StoredRow &r = kStoredRows[i];
    const QByteArray id = r.name;
    const QString file = r.path(restored);
    if (restored.proc.pid() < 0) { // every row is stored before one start
        QVERIFY(restored.start() && restored.stop() == 0); // to create the schema
        for (const StoredRow &s : kStoredRows) {
            const QString path = s.path(restored);
            const QString link = s.scheme + url(s.name).mid(4);
            body(s.name) = s.body();
            const QString as = s.unclean ? restored.path("downloads/.//") + s.name : path;
            restored.sql(kInsertRow, { s.name, s.name, link, as, s.state, s.total, s.amount });
            const QString real = s.linked ? restored.path("elsewhere") : path;
            QFile f(real);
            QVERIFY(s.file < 0 || (f.open(QIODevice::WriteOnly) && f.write(s.onDisk()) == s.file));
            QVERIFY(real == path || QFile::link(real, path));
            if (s.replaced)
                restored.sql("INSERT INTO download_extra (uniqueID, fileDevice, fileInode) VALUES "
                             "('replaced', 1, 1)");
        }
        QVERIFY(restored.start());
    }
    QVERIFY2(restored.proc.running(), "the service of the stored rows is not running");
    QCOMPARE(restored.proc.err().contains("Download launched with uniqueID:" + id),
        r.state == STATE_STALLED && !r.resume);
    if (r.resume)
        restored.line("resume " + id);
    const QByteArray line = id + " app " + r.end + ' '
        + QByteArray(r.stored).split(' ').mid(2).join(' ') + ' ' + file.toUtf8() + '\n';
    QVERIFY(waitFor(line, [&] { // a Failed one adds why
        const QByteArray out = restored.dlctl({ "status", id }).out;
        return out == line || out.startsWith(line.chopped(1) + " (failure ");
    }));
    QCOMPARE(ranges(server, id), QByteArray(r.ranges));
    QCOMPARE(readFile(file), QByteArray(r.end) == "Completed" ? r.body() : r.onDisk());
    QCOMPARE(stored(restored, id), QByteArray(r.stored));
}

void tst_Faults::killAndRestart()
{
    // Each notification commits, so stall points are stored exactly; every download expects its
    // SHA-256, rebuilt from the file after the kill. k0 stops after 96 KiB, k1
    // after its headers, k2 completes, k3 is paused at 32 KiB, k4 fails with EFBIG at 1 MiB.
    Service s({}, { "MAX_PACKET_COUNT=-1", "DLM_REPORT_INTERVAL_MS=0" });
    QVERIFY(s.start([] {
        signal(SIGXFSZ, SIG_IGN);
        setrlimit(RLIMIT_FSIZE, &kFileSizeLimit);
    }));
    QCOMPARE(s.dlctl({ "set-path", "dlctl", s.path("downloads") }).code, 0);
    const QByteArrayList ids { "k0", "k1", "k2", "k3", "k4" };
    const int stalls[] { 98304, 0, -1, 32768, -1 },
        sizes[] { 262144, 262144, 4096, 262144, 3 << 20 };
    const auto file = [&](int i) { return readFile(s.path("downloads/") + ids[i]); };
    for (int i = 0; i < 5; ++i) {
        server.setResource('/' + ids[i],
            { .body = FakeHttpServer::makeBody(sizes[i], i),
                .chunkSize = i == 4 ? 65536 : 4096,
                .chunkDelayMs = 1,
                .stallAfter = stalls[i] });
        const QString sha
            = QCryptographicHash::hash(body(ids[i]), QCryptographicHash::Sha256).toHex();
        QCOMPARE(s.dlctl({ "create", url(ids[i]), "--id", ids[i], "--sha256", sha }).code, 0);
    }
    QVERIFY(waitRows(s, "k3", "Progressing 4 32768 "));
    s.line("pause k3");
    QVERIFY(waitRows(s, "%",
        "Progressing 4 98304 262144,Progressing 4 0 262144,Completed 4 4096 4096,Paused 4 32768 "
        "262144,Failed 3 "));
    QVERIFY(s.waitErr("Download k4 failed: cannot write " + s.path("downloads/k4").toUtf8()
        + ": File too large"));
    const QByteArray k4 = stored(s, "k4").split(' ').value(2), expected = stored(s, "%");
    // No stored amount runs ahead of its file, alive or killed, and each file holds only content.
    for (int killed = 0; killed < 2; s.kill(), ++killed) {
        QCOMPARE(stored(s, "%"), expected);
        for (int i = 0; i < 5; ++i)
            QVERIFY(file(i).size() >= expected.split(',')[i].split(' ')[2].toInt()
                && body(ids[i]).startsWith(file(i)));
    }
    // Repaired, without the limit: the stalled go on from their stored bytes, the others resumed.
    server.clearRequests();
    for (const QByteArray &id : ids)
        server.resource('/' + id).stallAfter = -1;
    QVERIFY(s.start());
    s.line("resume k3\nresume k4");
    QVERIFY(waitRows(s, "%",
        "Completed 4 262144 262144,Completed 4 262144 262144,Completed 4 4096 4096,Completed 4 "
        "262144 262144,Completed 3 3145728 3145728"));
    QCOMPARE(stored(s, "%").count(','), 4); // no other row
    const QByteArrayList requests { "98304", "-", "", "32768", k4 };
    for (int i = 0; i < 5; ++i) {
        QCOMPARE(file(i), body(ids[i]));
        QCOMPARE(ranges(server, ids[i]), requests[i]);
    }
    QCOMPARE(s.stop(), 0);
}

void tst_Faults::connectionFlood()
{
    // A connection costs its body's bytes only as they arrive; past a cap it ends.
    QFETCH(int, i);
    const Flood &row = kFloods[i];
    Service s({}, { "DLM_LOG_LEVEL=i" }); // only the manager logs each call
    if (row.served >= 0 && geteuid() != 0)
        QSKIP("needs root to connect as other users");
    QVERIFY(chmod(QFile::encodeName(s.path()), 0755) == 0 && s.start());
    const auto connectAs = [&s, me = geteuid()](uid_t uid) { // -1 when uid could not be taken on
        const int fd = uid == me || seteuid(uid) == 0 ? s.rawConnect() : -1;
        return seteuid(me) == 0 ? fd : -1;
    };
    const auto rssKiB = [&] {
        const QByteArray status = readFile(QString("/proc/%1/status").arg(s.proc.pid()));
        return status.mid(status.indexOf("VmRSS:") + 6).trimmed().split(' ').value(0).toLongLong();
    };
    [[maybe_unused]] const qint64 before = rssKiB();
    std::vector<int> fds;
    for (uid_t uid : row.uids)
        for (int k = 0; k < row.each; ++k) {
            QVERIFY(fds.emplace_back(connectAs(uid)) >= 0);
            send(
                fds.back(), QByteArray::fromHex("010000000000100000").constData(), 9, MSG_NOSIGNAL);
        }
    const auto ended = [&] {
        char c;
        return std::count_if(
            fds.begin(), fds.end(), [&](int fd) { return recv(fd, &c, 1, MSG_DONTWAIT) == 0; });
    };
    QVERIFY(waitFor("the connections past a cap to end", [&] { return ended() == row.refused; }));
    const int other = row.served < 0 ? -1 : connectAs(uid_t(row.served));
    QVERIFY(row.served < 0 || replyStatus(other, call(IDLService::GET_DOWNLOAD, { "x" })) == 0);
    close(other);
#if !defined(__SANITIZE_THREAD__)                                                                  \
    && !defined(__SANITIZE_ADDRESS__) // their per-thread state hides the service's
    QVERIFY2(rssKiB() - before < 32 * 1024, QByteArray::number(rssKiB() - before));
#endif
    for (int fd : fds)
        close(fd);
    // One-way calls stay counted until carried out: with the manager held up (its log pipe full,
    // as this loop does not read it), the service stops reading the caller instead of queueing.
    int fd = -1; // once the flood's slots are back
    QVERIFY(waitFor("an answer once the flood's slots are back", [&] {
        return replyStatus(fd = s.rawConnect(), call(IDLService::GET_DOWNLOAD, { "x" })) == 0
            || close(fd) > 0;
    }));
    QByteArray remove = call(IDLService::REMOVE_DOWNLOAD, { std::string(250, 'r') });
    remove[wire::kHeaderSize + 28] = char(IBinder::FLAG_ONEWAY); // the frame's flags
    const timeval patience { 2, 0 };
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    qint64 sent = 0;
    while (sent < (16 << 20)
        && send(fd, remove.constData(), remove.size(), MSG_NOSIGNAL) == remove.size())
        sent += remove.size();
    QVERIFY2(sent < (4 << 20), QByteArray::number(sent)); // no longer read
    close(fd);
    QVERIFY(s.dlctl({ "list" }).code == 0 && s.stop() == 0);
}

DLM_TEST_MAIN(tst_Faults)
#include "tst_faults.moc"

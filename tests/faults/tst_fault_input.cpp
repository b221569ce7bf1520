// Hostile input against the real service: malformed frames on its IPC socket and malformed
// console lines. The service answers each with an error or a hang-up and keeps serving.
#include "RawSocket.h"
#include "FakeHttpServer.h"
#include "FaultSupport.h"
#include "IDLService.h"
#include "ParcelText.h"
#include "ServiceProcess.h"
#include "Wire.h"

#include <binder/Parcel.h>

#include <QRandomGenerator>
#include <QtTest>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

using namespace android;
using namespace faults;

namespace {

// How a hostile frame must be answered.
enum Answer { HangUp = 1000, NoAnswerYet = 1001, Garbled = 1002 }; // else a reply's status

QByteArray frameBytes(const wire::Frame &frame)
{
    const std::vector<uint8_t> bytes = wire::encode(frame);
    return QByteArray(reinterpret_cast<const char *>(bytes.data()), int(bytes.size()));
}

QByteArray callBytes(uint64_t target, uint32_t code, const Parcel &data,
    const std::vector<wire::Object> &objects = {})
{
    wire::Frame f;
    f.command = wire::Transact;
    f.txnId = 1;
    f.target = target;
    f.code = code;
    f.data.assign(data.data(), data.data() + data.dataSize());
    f.objects = objects;
    return frameBytes(f);
}

QByteArray header(uint32_t command, uint32_t size)
{
    QByteArray h(8, '\0');
    memcpy(h.data(), &command, 4);
    memcpy(h.data() + 4, &size, 4);
    return h;
}

// The status of the reply that comes back on fd, HangUp when the service closes it instead.
int replyStatus(int fd)
{
    std::vector<uint8_t> in(1 << 16);
    size_t got = 0;
    uint32_t command = 0, size = 0;
    for (ssize_t n; (n = recv(fd, in.data() + got, in.size() - got, 0)) > 0;) {
        got += size_t(n);
        if (got >= wire::kHeaderSize && wire::decodeHeader(in.data(), &command, &size)
            && got >= wire::kHeaderSize + size)
            break;
    }
    wire::Frame reply;
    if (got == 0)
        return HangUp;
    if (got < wire::kHeaderSize || !wire::decodeHeader(in.data(), &command, &size)
        || !wire::decodeBody(command, in.data() + wire::kHeaderSize, size, &reply)
        || reply.command != wire::Reply)
        return Garbled;
    return reply.status;
}

Parcel request()
{
    Parcel p;
    p.writeInterfaceToken(IDLService::descriptor);
    return p;
}

} // namespace

class tst_FaultInput : public QObject {
    Q_OBJECT

private:
    int rawConnect();

    FakeHttpServer server;
    ServiceProcess service;
    QByteArray body;

private slots:
    void initTestCase();
    void malformedIpcFrame_data();
    void malformedIpcFrame();
    void serviceStillDownloadsOverIpc();
    void malformedConsoleLines();
    void hundredThousandDownloadsAreListed();
    void cleanupTestCase();
};

int tst_FaultInput::rawConnect()
{
    return connectRawUnixSocket(service.socketDir() + "/com.velta.DLService");
}

void tst_FaultInput::initTestCase()
{
    body = FakeHttpServer::makeBody(200 * 1024, 17);
    server.setBody("/ok.bin", body);
    QVERIFY(service.start());
    QVERIFY(service.waitForErr("Enter your command:"));
    QCOMPARE(dlctl(service, { "set-path", "dlctl", service.downloadsDir() }).code, 0);
}

void tst_FaultInput::malformedIpcFrame_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<int>("answer");

    Parcel create = request();
    for (const char *text : { "dlctl", "http://127.0.0.1:1/x", "hostile", "" })
        dlparcel::writeText(&create, text);
    Parcel wrongToken;
    wrongToken.writeInterfaceToken(String16("com.velta.IDLClient"));
    for (const char *text : { "dlctl", "http://127.0.0.1:1/x", "hostile", "" })
        dlparcel::writeText(&wrongToken, text);
    Parcel lyingText = request();
    lyingText.writeInt32(0x7fffffff);
    lyingText.writeInt32(0);
    Parcel negativeText = request();
    negativeText.writeInt32(-5);
    Parcel negativeSize = request();
    dlparcel::writeText(&negativeSize, "dlctl");
    negativeSize.writeInt64(-1);
    Parcel tokenOnly = request();
    Parcel withBinder = request();
    withBinder.writeInt32(1);
    withBinder.writeInt32(0);
    Parcel garbageUrl = request();
    dlparcel::writeText(&garbageUrl, "dlctl");
    dlparcel::writeText(&garbageUrl, std::string("\x01\nforged\0\xff:://\n", 14));
    dlparcel::writeText(&garbageUrl, "garbage-url");
    dlparcel::writeText(&garbageUrl, "");

    QByteArray garbage(4096, '\0');
    QRandomGenerator random(4242);
    for (char &c : garbage)
        c = char(random.bounded(256));
    Parcel list = request();
    dlparcel::writeText(&list, "*");
    const QByteArray valid = callBytes(0, IDLService::GET_DOWNLOAD_LIST, list);

    QTest::newRow("garbage") << garbage << int(HangUp);
    QTest::newRow("truncated header") << QByteArray(5, '\1') << int(NoAnswerYet);
    QTest::newRow("truncated frame") << valid.left(valid.size() - 3) << int(NoAnswerYet);
    QTest::newRow("huge length") << header(wire::Transact, 0x7fffffff) << int(HangUp);
    QTest::newRow("length beyond the frame limit")
        << header(wire::Transact, uint32_t(wire::kMaxBody + 1)) + QByteArray(64, '\0')
        << int(HangUp);
    QTest::newRow("unknown command") << header(9, 4) + QByteArray(4, '\0') << int(HangUp);
    QTest::newRow("unknown target handle")
        << callBytes(77, IDLService::CREATE_DOWNLOAD, create) << int(BAD_VALUE);
    QTest::newRow("wrong interface token")
        << callBytes(0, IDLService::CREATE_DOWNLOAD, wrongToken) << int(PERMISSION_DENIED);
    QTest::newRow("unknown transaction code")
        << callBytes(0, IDLService::SET_DOWNLOAD_PATH + 50, create) << int(UNKNOWN_TRANSACTION);
    QTest::newRow("text longer than the parcel")
        << callBytes(0, IDLService::CREATE_DOWNLOAD, lyingText) << int(BAD_VALUE);
    QTest::newRow("negative text length")
        << callBytes(0, IDLService::REMOVE_DOWNLOAD, negativeText) << int(BAD_VALUE);
    QTest::newRow("negative size")
        << callBytes(0, IDLService::CHECK_SPACE_AVAILABILITY, negativeSize) << int(BAD_VALUE);
    QTest::newRow("arguments missing")
        << callBytes(0, IDLService::GET_DOWNLOAD, tokenOnly) << int(BAD_VALUE);
    QTest::newRow("client object missing")
        << callBytes(0, IDLService::ADD_CLIENT, tokenOnly) << int(BAD_VALUE);
    QTest::newRow("unknown object handle") << callBytes(0, IDLService::ADD_CLIENT, withBinder,
        { { wire::ReceiverObject, 999 } }) << int(BAD_VALUE);
    QTest::newRow("control bytes as URL")
        << callBytes(0, IDLService::CREATE_DOWNLOAD, garbageUrl) << int(NO_ERROR);
    QTest::newRow("valid call") << valid << int(NO_ERROR);
}

void tst_FaultInput::malformedIpcFrame()
{
    QFETCH(QByteArray, bytes);
    QFETCH(int, answer);

    const int fd = rawConnect();
    QVERIFY(fd >= 0);
    QCOMPARE(
        send(fd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL), ssize_t(bytes.size()));
    if (answer != NoAnswerYet)
        QCOMPARE(replyStatus(fd), answer);
    // Served while the hostile connection is still open.
    const Result list = dlctl(service, { "list" });
    close(fd);
    QCOMPARE(list.code, 0);
    QVERIFY(service.isRunning());
}

void tst_FaultInput::serviceStillDownloadsOverIpc()
{
    const Result r
        = dlctl(service, { "create", server.url("/ok.bin").toString(), "--id", "ok", "--wait" });
    QVERIFY2(r.code == 0, r.err.constData());
    QVERIFY(readFile(service.downloadsDir() + "ok.bin") == body);
    QVERIFY(!dlctl(service, { "list" }).out.contains("hostile"));
    // A caller's newline is logged escaped, never as a line of its own.
    QVERIFY(service.waitForErr("url:\\x01\\nforged"));
    QVERIFY(!service.stdErr().contains("\nforged"));
}

void tst_FaultInput::malformedConsoleLines()
{
    QRandomGenerator random(777);
    QByteArray noise(4096, '\0');
    for (char &c : noise)
        c = char(random.bounded(256));
    noise.replace('\n', '\0'); // one long line of noise, NUL bytes included
    const int invalidBefore = service.stdErr().count("invalid format");
    service.writeLine(noise);
    service.writeLine(QByteArray("\0\0\0", 3));
    service.writeLine("\xff\xfe status \xc3");
    service.writeLine("\r");
    service.writeLine(QByteArray(1024 * 1024, 'x'));
    service.writeLine("status ok");
    QVERIFY(service.waitForErr("uniqueID: \"ok\"", 20000));
    QVERIFY(service.stdErr().count("invalid format") >= invalidBefore + 4);
    const QList<QByteArray> lines = service.consoleLines().split('\n');
    QByteArray status;
    for (const QByteArray &line : lines)
        if (line.startsWith("Download status:") && line.contains("uniqueID: \"ok\""))
            status = line;
    QVERIFY2(status.contains("\"Completed\""), status.constData());
    QVERIFY(status.contains(QByteArray::number(body.size())));
    QVERIFY(service.isRunning());
    QCOMPARE(dlctl(service, { "status", "ok" }).code, 0);
}

void tst_FaultInput::hundredThousandDownloadsAreListed()
{
    ServiceProcess crowded;
    QVERIFY(crowded.start()); // creates the table
    QVERIFY(crowded.waitForErr("Enter your command:"));
    crowded.writeLine("quit");
    QVERIFY(crowded.waitForExit());
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "crowd");
        db.setDatabaseName(crowded.databaseFile());
        QVERIFY(db.open() && db.transaction());
        QSqlQuery insert(db);
        QVERIFY(insert.prepare("INSERT INTO downloads (uniqueID, clientID, name, contentURL, "
                               "filePath, state) VALUES (?, 'crowd', ?, 'http://127.0.0.1:1/', ?, 4)"));
        for (int i = 0; i < 100000; ++i) {
            const QString id = QStringLiteral("id%1").arg(i, 6, 10, QLatin1Char('0'));
            insert.addBindValue(id);
            insert.addBindValue(id);
            insert.addBindValue(crowded.downloadsDir() + id);
            QVERIFY(insert.exec());
        }
        QVERIFY(db.commit());
    }
    QSqlDatabase::removeDatabase("crowd");
    QVERIFY(crowded.start());
    QVERIFY(crowded.waitForErrCount("Enter your command:", 2, 120000));

    const Result r = dlctl(crowded, { "list" }, 120000);
    QVERIFY2(r.code == 0, r.err.constData());
    QCOMPARE(r.out.count('\n'), 100000);
    QVERIFY(r.out.startsWith("id000000 crowd Paused "));
    // The one-reply list fails cleanly instead of building a reply that cannot be sent.
    Parcel list = request();
    dlparcel::writeText(&list, "*");
    const QByteArray call = callBytes(0, IDLService::GET_DOWNLOAD_LIST, list);
    const int fd = connectRawUnixSocket(crowded.socketDir() + "/com.velta.DLService");
    QCOMPARE(send(fd, call.constData(), size_t(call.size()), MSG_NOSIGNAL), ssize_t(call.size()));
    QCOMPARE(replyStatus(fd), int(FAILED_TRANSACTION));
    close(fd);
    QVERIFY(crowded.waitForErr("the records exceed one reply"));
    crowded.writeLine("quit");
    QVERIFY(crowded.waitForExit(60000));
}

void tst_FaultInput::cleanupTestCase()
{
    service.writeLine("quit");
    QVERIFY(service.waitForExit());
    QCOMPARE(service.exitStatus(), QProcess::NormalExit);
    QCOMPARE(service.exitCode(), 0);
}

QTEST_GUILESS_MAIN(tst_FaultInput)
#include "tst_fault_input.moc"

#include "RawSocket.h"
#include "ConnectionSlots.h"
#include "DemoInterface.h"
#include "PeerProcess.h"
#include "Wire.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <QtTest>

#include <csignal>
#include <mutex>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

using namespace android;

namespace {

const char *const kServiceName = "demo";
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

class RecordingCallback : public BnDemoCallback {
public:
    sp<IDemoService> service;
    std::thread::id computeThread;
    pid_t computeCaller = 0;

    void onEvent(int32_t seq, const std::string &payload) override
    {
        std::lock_guard<std::mutex> lock(mLock);
        mEvents.push_back(seq);
        mPayloadOk = mPayloadOk && payload == std::string(2048, 'p');
    }
    int32_t compute(int32_t a, int32_t b) override
    {
        computeThread = std::this_thread::get_id();
        computeCaller = IPCThreadState::self()->getCallingPid();
        return service->add(a, b) * 10; // calls back into the service that is calling us
    }
    std::vector<int32_t> events()
    {
        std::lock_guard<std::mutex> lock(mLock);
        return mEvents;
    }
    bool payloadOk()
    {
        std::lock_guard<std::mutex> lock(mLock);
        return mPayloadOk;
    }

private:
    std::mutex mLock;
    std::vector<int32_t> mEvents;
    bool mPayloadOk = true;
};

class DeathCounter : public IBinder::DeathRecipient {
public:
    void binderDied(const wp<IBinder> &who) override
    {
        std::lock_guard<std::mutex> lock(mLock);
        mDied.push_back(who.unsafe_get());
    }
    std::vector<IBinder *> died()
    {
        std::lock_guard<std::mutex> lock(mLock);
        return mDied;
    }

private:
    std::mutex mLock;
    std::vector<IBinder *> mDied;
};

QByteArray frameBytes(const wire::Frame &frame)
{
    const std::vector<uint8_t> bytes = wire::encode(frame);
    return QByteArray(reinterpret_cast<const char *>(bytes.data()), int(bytes.size()));
}

wire::Frame callFrame(uint64_t target, uint32_t code, const Parcel &data)
{
    wire::Frame f;
    f.command = wire::Transact;
    f.txnId = 1;
    f.target = target;
    f.code = code;
    f.data.assign(data.data(), data.data() + data.dataSize());
    return f;
}

QByteArray header(uint32_t command, uint32_t size)
{
    QByteArray h(8, '\0');
    memcpy(h.data(), &command, 4);
    memcpy(h.data() + 4, &size, 4);
    return h;
}

qint64 residentKiB(pid_t pid)
{
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : status.readAll().split('\n'))
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    return -1;
}

} // namespace

class tst_Ipc : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void parcelRoundTripsThroughService();
    void oneWayCallbacksArriveInOrder();
    void nestedCallbackRunsOnWaitingThread();
    void killedClientIsReportedDead();
    void unlinkedRecipientIsNotTold();
    void serviceDeathReachesClient();
    void concurrentClientsAllServed();
    void stalledPeerIsDroppedNotWaitedFor();
    void oversizedCallIsRefused();
    void connectionFloodIsBounded_data();
    void connectionFloodIsBounded();
    void hostileInputLeavesServiceServing_data();
    void hostileInputLeavesServiceServing();

private:
    PeerProcess *startPeer(const QStringList &args, const QByteArray &readyLine);
    sp<IDemoService> connectService();
    int rawConnect();

    std::unique_ptr<QTemporaryDir> mDir;
    std::vector<std::unique_ptr<PeerProcess>> mPeers;
    sp<IDemoService> mService;
};

void tst_Ipc::init()
{
    mDir = std::make_unique<QTemporaryDir>();
    QVERIFY(mDir->isValid());
    qputenv("BINDER_SOCKET_DIR", QFile::encodeName(mDir->path()));
    QVERIFY(startPeer({ "service", kServiceName }, "ready"));
    mService = connectService();
    QVERIFY(mService != nullptr);
}

void tst_Ipc::cleanup()
{
    mService.clear();
    mPeers.clear();
}

PeerProcess *tst_Ipc::startPeer(const QStringList &args, const QByteArray &readyLine)
{
    auto peer = std::make_unique<PeerProcess>();
    if (!peer->start(IPC_PEER_BINARY, args, readyLine))
        return nullptr;
    mPeers.push_back(std::move(peer));
    return mPeers.back().get();
}

sp<IDemoService> tst_Ipc::connectService()
{
    return interface_cast<IDemoService>(
        defaultServiceManager()->getService(String16(kServiceName)));
}

int tst_Ipc::rawConnect()
{
    return connectRawUnixSocket(mDir->filePath(kServiceName));
}

void tst_Ipc::parcelRoundTripsThroughService()
{
    sp<RecordingCallback> cb = new RecordingCallback;
    const String16 wide(u"gr\u00fc\u00dfe \U0001F600");
    Parcel data, reply;
    data.writeInterfaceToken(IDemoService::descriptor);
    data.writeInt32(INT32_MIN);
    data.writeUint32(0xdeadbeefu);
    data.writeInt64(-1234567890123LL);
    data.writeUint64(0xfedcba9876543210ULL);
    data.writeBool(true);
    data.writeCString("c string");
    data.writeString8(String8("string eight"));
    data.writeString16(wide);
    data.writeUtf8AsUtf16("ünïcode");
    data.writeStrongBinder(cb);
    sp<IBinder> remote = IInterface::asBinder(mService);
    QCOMPARE(remote->transact(IDemoService::ECHO, data, &reply), NO_ERROR);

    QCOMPARE(reply.readInt32(), INT32_MIN);
    QCOMPARE(reply.readUint32(), 0xdeadbeefu);
    QCOMPARE(reply.readInt64(), -1234567890123LL);
    QCOMPARE(reply.readUint64(), 0xfedcba9876543210ULL);
    QCOMPARE(reply.readBool(), true);
    QCOMPARE(QByteArray(reply.readCString()), QByteArray("c string"));
    QCOMPARE(QByteArray(reply.readString8().string()), QByteArray("string eight"));
    QVERIFY(reply.readString16() == wide);
    std::string utf8;
    QCOMPARE(reply.readUtf8FromUtf16(&utf8), NO_ERROR);
    QCOMPARE(utf8, std::string("ünïcode"));
    // Our own object comes back as itself, not as a proxy; the service saw a proxy.
    QVERIFY(reply.readStrongBinder() == IInterface::asBinder(cb));
    QVERIFY(reply.readStrongBinder() == IInterface::asBinder(cb));
    QCOMPARE(reply.readInt32(), 1);
    QCOMPARE(reply.readInt32(), 0);
    QCOMPARE(reply.dataAvail(), size_t(0));

    QVERIFY(mService->asBinder() == remote);
    QVERIFY(defaultServiceManager()->checkService(String16(kServiceName)) == remote);
    QVERIFY(defaultServiceManager()->checkService(String16("absent")) == nullptr);
    QCOMPARE(remote->getInterfaceDescriptor(), IDemoService::descriptor);
    QCOMPARE(remote->pingBinder(), NO_ERROR);
    QCOMPARE(defaultServiceManager()->addService(String16(kServiceName), cb), ALREADY_EXISTS);
    sp<RecordingCallback> first = new RecordingCallback;
    sp<RecordingCallback> second = new RecordingCallback;
    QCOMPARE(defaultServiceManager()->addService(String16("mine"), first), NO_ERROR);
    QCOMPARE(defaultServiceManager()->addService(String16("mine"), second), NO_ERROR);
    interface_cast<IDemoCallback>(defaultServiceManager()->checkService(String16("mine")))
        ->onEvent(7, std::string(16, 'p'));
    QTRY_COMPARE(second->events(), std::vector<int32_t> { 7 });
    QVERIFY(first->events().empty());
    int32_t pid = 0, uid = -1;
    QCOMPARE(mService->whoAmI(&pid, &uid), NO_ERROR);
    QCOMPARE(pid, int32_t(getpid()));
    QCOMPARE(uid, int32_t(getuid()));
}

void tst_Ipc::oneWayCallbacksArriveInOrder()
{
    sp<RecordingCallback> cb = new RecordingCallback;
    QCOMPARE(mService->registerCallback(cb), NO_ERROR);
    // 4 MiB: more than the socket takes at once, so the calling and writer threads share sends.
    QCOMPARE(mService->fire(2000, 2048), NO_ERROR);
    QTRY_COMPARE_WITH_TIMEOUT(cb->events().size(), size_t(2000), 20000);
    const std::vector<int32_t> events = cb->events();
    for (int32_t i = 0; i < int32_t(events.size()); ++i)
        QCOMPARE(events[size_t(i)], i);
    QVERIFY(cb->payloadOk());
}

void tst_Ipc::nestedCallbackRunsOnWaitingThread()
{
    sp<RecordingCallback> cb = new RecordingCallback;
    cb->service = mService;
    QCOMPARE(mService->callBack(cb, 20, 22), 420);
    QVERIFY(cb->computeThread == std::this_thread::get_id());
    // The nested call answers for the service that made it; outside it, we are our own caller.
    QCOMPARE(cb->computeCaller, mPeers.front()->processId());
    QCOMPARE(IPCThreadState::self()->getCallingPid(), getpid());
    // A second nested round trip on the same connection still routes correctly.
    QCOMPARE(mService->callBack(cb, 1, 2), 30);
    cb->service.clear();
}

void tst_Ipc::killedClientIsReportedDead()
{
    PeerProcess *client = startPeer({ "register", kServiceName }, "registered");
    QVERIFY(client);
    client->kill();
    QTRY_COMPARE_WITH_TIMEOUT(mService->deaths(), 1, 1000);
    QCOMPARE(mService->add(40, 2), 42);
    sp<RecordingCallback> cb = new RecordingCallback;
    QCOMPARE(mService->registerCallback(cb), NO_ERROR);
    QCOMPARE(mService->fire(3, 2048), NO_ERROR);
    QTRY_COMPARE(cb->events().size(), size_t(3));
}

void tst_Ipc::unlinkedRecipientIsNotTold()
{
    PeerProcess *unlinked = startPeer({ "register-unregister", kServiceName }, "registered");
    PeerProcess *linked = startPeer({ "register", kServiceName }, "registered");
    QVERIFY(unlinked && linked);
    unlinked->kill();
    QVERIFY(unlinked->waitForFinished());
    linked->kill();
    QTRY_COMPARE_WITH_TIMEOUT(mService->deaths(), 1, 1000);
    QVERIFY(linked->waitForFinished());
    QCOMPARE(mService->deaths(), 1);
}

void tst_Ipc::serviceDeathReachesClient()
{
    sp<IBinder> remote = IInterface::asBinder(mService);
    sp<DeathCounter> kept = new DeathCounter;
    sp<DeathCounter> dropped = new DeathCounter;
    sp<DeathCounter> unlinked = new DeathCounter;
    QCOMPARE(remote->linkToDeath(kept), NO_ERROR);
    QCOMPARE(remote->linkToDeath(dropped, nullptr, 0), NO_ERROR);
    QCOMPARE(remote->linkToDeath(unlinked, this, 0), NO_ERROR);
    QCOMPARE(remote->unlinkToDeath(nullptr, this, 0), NO_ERROR);
    QCOMPARE(remote->unlinkToDeath(unlinked), NAME_NOT_FOUND);
    QCOMPARE(IInterface::asBinder(new RecordingCallback)->linkToDeath(kept), INVALID_OPERATION);
    wp<DeathCounter> weak = dropped;
    dropped.clear();
    QVERIFY(weak.promote() == nullptr); // the runtime holds recipients weakly

    mPeers.front()->kill();
    QTRY_COMPARE_WITH_TIMEOUT(kept->died().size(), size_t(1), 1000);
    QVERIFY(kept->died().front() == remote.get());
    QVERIFY(unlinked->died().empty());
    QVERIFY(!remote->isBinderAlive());
    QCOMPARE(mService->add(1, 1), int32_t(DEAD_OBJECT));
    QCOMPARE(remote->linkToDeath(kept), DEAD_OBJECT);
}

void tst_Ipc::concurrentClientsAllServed()
{
    std::vector<PeerProcess *> clients;
    for (int i = 0; i < 16; ++i) {
        PeerProcess *client = startPeer({ "stress", kServiceName, "300" }, QByteArray());
        QVERIFY(client);
        clients.push_back(client);
    }
    for (PeerProcess *client : clients) {
        QVERIFY(client->waitForFinished(60000));
        QVERIFY(client->exitedNormally());
        QCOMPARE(client->exitCode(), 0);
    }
    QCOMPARE(mService->deaths(), 0);
}

void tst_Ipc::stalledPeerIsDroppedNotWaitedFor()
{
    PeerProcess *client = startPeer({ "register", kServiceName }, "registered");
    QVERIFY(client);
    client->kill(SIGSTOP);
    // 20 MiB of one-way events to a peer that reads nothing: queued, then the peer is dropped.
    QCOMPARE(mService->fire(320, 64 * 1024), NO_ERROR);
    QTRY_COMPARE_WITH_TIMEOUT(mService->deaths(), 1, 10000);
    QCOMPARE(mService->add(2, 2), 4);
}

void tst_Ipc::oversizedCallIsRefused()
{
    Parcel data, reply;
    data.writeInterfaceToken(IDemoService::descriptor);
    const std::vector<char> big(2u << 20, 'x');
    data.write(big.data(), big.size());
    QCOMPARE(IInterface::asBinder(mService)->transact(IDemoService::ADD, data, &reply),
        FAILED_TRANSACTION);
    QCOMPARE(mService->add(3, 4), 7);
}

void tst_Ipc::connectionFloodIsBounded_data()
{
    QTest::addColumn<QString>("mode");
    QTest::newRow("idle connections announcing 1 MiB") << "service";
    QTest::newRow("threads cannot be started") << "starved-service";
}

void tst_Ipc::connectionFloodIsBounded()
{
    QFETCH(QString, mode);
    if (mode == "starved-service" && kSanitized)
        QSKIP("an address-space limit also starves the sanitizer's own mappings");
    PeerProcess *peer = startPeer({ mode, "flood" }, "ready");
    QVERIFY(peer);
    const qint64 before = residentKiB(peer->processId());
    const QByteArray announce = header(wire::Transact, 1u << 20) + QByteArray(1, '\0');
    std::vector<int> fds;
    for (int i = 0; i < 300; ++i) {
        fds.push_back(connectRawUnixSocket(mDir->filePath("flood")));
        QVERIFY(fds.back() >= 0);
        send(fds.back(), announce.constData(), size_t(announce.size()), MSG_NOSIGNAL);
    }
    auto closed = [&] {
        int n = 0;
        char c;
        for (int fd : fds) {
            const ssize_t r = recv(fd, &c, 1, MSG_DONTWAIT);
            n += r == 0 || (r < 0 && errno != EAGAIN);
        }
        return n;
    };
    // Past its user's limit a connection is closed at once; the others cost little memory
    // (a sanitizer's own bookkeeping takes about 1 MiB per thread).
    QTRY_VERIFY(closed() >= 300 - int(ConnectionSlots::kMaxPerUid));
    QVERIFY2(kSanitized || residentKiB(peer->processId()) - before < 32 * 1024,
        QByteArray::number(residentKiB(peer->processId()) - before));
    for (int fd : fds)
        close(fd);
    auto add = [] {
        sp<IBinder> b = defaultServiceManager()->checkService(String16("flood"));
        return b ? interface_cast<IDemoService>(b)->add(2, 3) : -1;
    };
    QTRY_COMPARE(add(), 5);
    QVERIFY(!peer->waitForFinished(0));
}

void tst_Ipc::hostileInputLeavesServiceServing_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<bool>("expectReply");
    QTest::addColumn<int>("status"); // expected reply status, or ignored when the link must close

    Parcel add;
    add.writeInterfaceToken(IDemoService::descriptor);
    add.writeInt32(1);
    add.writeInt32(2);
    Parcel wrongToken;
    wrongToken.writeInterfaceToken(String16("com.velta.evil"));
    Parcel withBinder;
    withBinder.writeInterfaceToken(IDemoService::descriptor);
    withBinder.writeInt32(1);
    withBinder.writeInt32(0);

    wire::Frame unknownObject = callFrame(0, IDemoService::REGISTER, withBinder);
    unknownObject.objects.push_back({ wire::ReceiverObject, 999 });
    wire::Frame unknownReply;
    unknownReply.command = wire::Reply;
    unknownReply.txnId = 4242;
    const QByteArray valid = frameBytes(callFrame(0, IDemoService::ADD, add));
    QByteArray lyingObjects = valid;
    lyingObjects[lyingObjects.size() - 4] = 100; // object count beyond the frame
    wire::Frame manyObjects = callFrame(0, IDemoService::ADD, add);
    manyObjects.objects.resize(wire::kMaxObjects, { wire::SenderObject, 5 });
    QByteArray tooManyObjects = frameBytes(manyObjects);
    const uint32_t count = wire::kMaxObjects + 1;
    const uint32_t body = uint32_t(tooManyObjects.size()) - wire::kHeaderSize + 12;
    memcpy(tooManyObjects.data() + 4, &body, 4);
    memcpy(tooManyObjects.data() + tooManyObjects.size() - wire::kMaxObjects * 12 - 4, &count, 4);
    tooManyObjects += frameBytes(manyObjects).right(12);
    QByteArray garbage(4096, '\0');
    for (int i = 0; i < garbage.size(); ++i)
        garbage[i] = char((i * 7919) ^ (i >> 3));

    QTest::newRow("valid call") << valid << true << 0;
    QTest::newRow("unknown target")
        << frameBytes(callFrame(77, IDemoService::ADD, add)) << true << int(BAD_VALUE);
    QTest::newRow("unknown object handle") << frameBytes(unknownObject) << true << int(BAD_VALUE);
    QTest::newRow("object index beyond table")
        << frameBytes(callFrame(0, IDemoService::REGISTER, withBinder)) << true << int(BAD_VALUE);
    QTest::newRow("wrong interface token")
        << frameBytes(callFrame(0, IDemoService::ADD, wrongToken)) << true
        << int(PERMISSION_DENIED);
    QTest::newRow("unknown code") << frameBytes(callFrame(0, 999, add)) << true
                                  << int(UNKNOWN_TRANSACTION);
    QTest::newRow("huge size") << header(wire::Transact, 0x7fffffff) << false << 0;
    QTest::newRow("unknown command") << header(9, 4) + QByteArray(4, '\0') << false << 0;
    QTest::newRow("short body") << header(wire::Transact, 10) + QByteArray(10, '\1') << false << 0;
    QTest::newRow("lying object count") << lyingObjects << false << 0;
    QTest::newRow("valid call with many objects") << frameBytes(manyObjects) << true << 0;
    QTest::newRow("too many objects") << tooManyObjects << false << 0;
    QTest::newRow("reply nobody asked for") << frameBytes(unknownReply) << false << 0;
    QTest::newRow("garbage") << garbage << false << 0;
    QTest::newRow("truncated header, then silence") << QByteArray(5, '\1') << false << -1;
    QTest::newRow("lying length, then silence")
        << header(wire::Transact, 1000) + QByteArray(10, '\0') << false << -1;
}

void tst_Ipc::hostileInputLeavesServiceServing()
{
    QFETCH(QByteArray, bytes);
    QFETCH(bool, expectReply);
    QFETCH(int, status);

    const int fd = rawConnect();
    QVERIFY(fd >= 0);
    QCOMPARE(
        send(fd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL), ssize_t(bytes.size()));
    if (status >= 0 || expectReply) {
        // Either one well-formed reply with the expected status, or the service hangs up.
        std::vector<uint8_t> in(1 << 16);
        size_t got = 0;
        for (ssize_t n; (n = recv(fd, in.data() + got, in.size() - got, 0)) > 0;) {
            got += size_t(n);
            if (expectReply && got >= wire::kHeaderSize) {
                uint32_t command = 0, size = 0;
                QVERIFY(wire::decodeHeader(in.data(), &command, &size));
                if (got >= wire::kHeaderSize + size)
                    break;
            }
        }
        if (expectReply) {
            uint32_t command = 0, size = 0;
            QVERIFY(got >= wire::kHeaderSize);
            QVERIFY(wire::decodeHeader(in.data(), &command, &size));
            wire::Frame reply;
            QVERIFY(wire::decodeBody(command, in.data() + wire::kHeaderSize, size, &reply));
            QCOMPARE(reply.command, uint32_t(wire::Reply));
            QCOMPARE(reply.txnId, uint64_t(1));
            QCOMPARE(reply.status, int32_t(status));
        } else {
            QCOMPARE(got, size_t(0));
        }
    }
    // Other callers, old and new, are served while the hostile connection is still open.
    QCOMPARE(mService->add(20, 22), 42);
    sp<IDemoService> fresh = connectService();
    QVERIFY(fresh != nullptr);
    QCOMPARE(fresh->add(1, 2), 3);
    close(fd);
}

QTEST_GUILESS_MAIN(tst_Ipc)
#include "tst_ipc.moc"

#include "Connection.h"
#include "Wire.h"
#include "WireFuzz.h"

#include <binder/Binder.h>

#include <android/log.h>

#include <QtTest>

#include <random>
#include <sys/socket.h>
#include <unistd.h>

using namespace android;

namespace {

class Adder : public BBinder {
protected:
    status_t onTransact(uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags) override
    {
        if (code != FIRST_CALL_TRANSACTION)
            return BBinder::onTransact(code, data, reply, flags);
        const int32_t a = data.readInt32();
        data.readStrongBinder(); // exercises object resolution on hostile tables
        return reply->writeInt32(a + data.readInt32());
    }
};

wire::Frame randomFrame(std::mt19937 &rng)
{
    wire::Frame f;
    f.command = rng() % 2 ? wire::Transact : wire::Reply;
    f.txnId = rng() % 4;
    f.parentTxn = rng() % 3;
    f.target = rng() % 3;
    f.code = 1 + rng() % 3;
    f.flags = rng() % 2;
    f.status = int32_t(rng() % 3) - 1;
    f.data.resize(rng() % 64);
    for (uint8_t &b : f.data)
        b = uint8_t(rng() % 4 == 0 ? rng() : 0);
    for (uint32_t i = rng() % 3; i > 0; --i)
        f.objects.push_back({ uint32_t(1 + rng() % 2), rng() % 3 });
    return f;
}

void mutate(std::vector<uint8_t> &bytes, std::mt19937 &rng)
{
    switch (rng() % 5) {
    case 0: // flip bits
        for (int i = 0; i < 4 && !bytes.empty(); ++i)
            bytes[rng() % bytes.size()] ^= uint8_t(1u << (rng() % 8));
        break;
    case 1: // truncate
        bytes.resize(rng() % (bytes.size() + 1));
        break;
    case 2: { // overwrite a length or count word with an extreme value
        static const uint32_t extremes[] = { 0, 1, 0x7fffffff, 0xffffffff, 0x100000, 0x100001 };
        if (bytes.size() >= 4) {
            const size_t at = (rng() % (bytes.size() / 4)) * 4;
            const uint32_t v = extremes[rng() % 6];
            memcpy(bytes.data() + at, &v, 4);
        }
        break;
    }
    case 3: // trailing junk
        bytes.resize(bytes.size() + 1 + rng() % 16, uint8_t(rng()));
        break;
    default: // keep it valid
        break;
    }
}

} // namespace

class tst_IpcWireFuzz : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { __android_log_set_minimum_priority(ANDROID_LOG_ERROR); }
    void validFramesRoundTrip();
    void mutatedInputNeverMisdecodes();
    void connectionSurvivesMutatedStreams();
    void releasedProxiesLeaveTheTable();
};

void tst_IpcWireFuzz::validFramesRoundTrip()
{
    std::mt19937 rng(1);
    for (int i = 0; i < 2000; ++i) {
        const wire::Frame f = randomFrame(rng);
        const std::vector<uint8_t> bytes = wire::encode(f);
        uint32_t command = 0, size = 0;
        QVERIFY(wire::decodeHeader(bytes.data(), &command, &size));
        QCOMPARE(size_t(size) + wire::kHeaderSize, bytes.size());
        wire::Frame back;
        QVERIFY(wire::decodeBody(command, bytes.data() + wire::kHeaderSize, size, &back));
        QCOMPARE(back.txnId, f.txnId);
        QCOMPARE(back.data, f.data);
        QCOMPARE(back.objects.size(), f.objects.size());
    }
}

void tst_IpcWireFuzz::mutatedInputNeverMisdecodes()
{
    std::mt19937 rng(std::random_device {}());
    QElapsedTimer clock;
    clock.start();
    int rounds = 0;
    while (clock.elapsed() < 7000) {
        std::vector<uint8_t> bytes = wire::encode(randomFrame(rng));
        mutate(bytes, rng);
        if (rng() % 8 == 0) {
            bytes.resize(rng() % 256);
            for (uint8_t &b : bytes)
                b = uint8_t(rng());
        }
        QVERIFY(decodeArbitraryInput(bytes.data(), bytes.size()));
        ++rounds;
    }
    qInfo("%d inputs", rounds);
}

void tst_IpcWireFuzz::connectionSurvivesMutatedStreams()
{
    std::mt19937 rng(std::random_device {}());
    sp<IBinder> root = new Adder;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 7000) {
        int fds[2];
        QCOMPARE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
        std::shared_ptr<Connection> server = Connection::start(fds[0], root);
        std::vector<uint8_t> stream;
        for (int i = 1 + int(rng() % 8); i > 0; --i) {
            std::vector<uint8_t> bytes = wire::encode(randomFrame(rng));
            mutate(bytes, rng);
            stream.insert(stream.end(), bytes.begin(), bytes.end());
        }
        send(fds[1], stream.data(), stream.size(), MSG_NOSIGNAL);
        close(fds[1]);
        QTRY_VERIFY(!server->isAlive());
    }

    // A well-behaved peer is still served by the same root object.
    int fds[2];
    QCOMPARE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    Connection::start(fds[0], root);
    std::shared_ptr<Connection> client = Connection::start(fds[1], nullptr);
    Parcel data, reply;
    data.writeInt32(40);
    data.writeStrongBinder(nullptr);
    data.writeInt32(2);
    QCOMPARE(
        client->proxyFor(0)->transact(IBinder::FIRST_CALL_TRANSACTION, data, &reply), NO_ERROR);
    QCOMPARE(reply.readInt32(), 42);
    client->shutdown("test done");
}

void tst_IpcWireFuzz::releasedProxiesLeaveTheTable()
{
    // A peer that names ever new objects must not grow the receiver's tables without bound.
    int fds[2];
    QCOMPARE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    timeval timeout { 10, 0 };
    setsockopt(fds[1], SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    std::shared_ptr<Connection> server = Connection::start(fds[0], new Adder);
    for (uint64_t round = 0; round < 20; ++round) {
        wire::Frame call;
        call.command = wire::Transact;
        call.txnId = round + 1;
        call.code = IBinder::FIRST_CALL_TRANSACTION;
        Parcel data;
        data.writeInt32(1);
        data.writeStrongBinder(nullptr);
        data.writeInt32(2);
        call.data.assign(data.data(), data.data() + data.dataSize());
        for (uint64_t i = 0; i < wire::kMaxObjects; ++i)
            call.objects.push_back({ wire::SenderObject, round * wire::kMaxObjects + i });
        const std::vector<uint8_t> bytes = wire::encode(call);
        QCOMPARE(send(fds[1], bytes.data(), bytes.size(), MSG_NOSIGNAL), ssize_t(bytes.size()));

        uint8_t in[64];
        size_t got = 0;
        uint32_t command = 0, size = 0;
        while (got < wire::kHeaderSize || got < wire::kHeaderSize + size) {
            const ssize_t n = recv(fds[1], in + got, sizeof in - got, 0);
            QVERIFY(n > 0);
            got += size_t(n);
            if (got >= wire::kHeaderSize)
                QVERIFY(wire::decodeHeader(in, &command, &size) && size < sizeof in);
        }
        wire::Frame reply;
        QVERIFY(wire::decodeBody(command, in + wire::kHeaderSize, size, &reply));
        QCOMPARE(reply.status, int32_t(NO_ERROR));
        QCOMPARE(reply.data.size(), size_t(4));
        QCOMPARE(reply.data[0], uint8_t(3));
    }
    QTRY_COMPARE(server->proxyCount(), size_t(0));
    QVERIFY(server->isAlive());
    close(fds[1]);
    QTRY_VERIFY(!server->isAlive());
}

QTEST_GUILESS_MAIN(tst_IpcWireFuzz)
#include "tst_ipc_wire_fuzz.moc"

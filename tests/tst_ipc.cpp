#include "Connection.h"
#include "FrameIo.h"

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>

#include <QtTest>

#include <future>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace android;

namespace {

enum Code : uint32_t { Add = IBinder::FIRST_CALL_TRANSACTION, Echo, Seq, Nest, Meet };

// Calls `code` with `ints`, `object` and `pad` zero bytes; the reply's first int, or the error.
int32_t ask(const sp<IBinder> &to, uint32_t code, std::initializer_list<int32_t> ints,
    const sp<IBinder> &object = nullptr, size_t pad = 0, uint32_t flags = 0)
{
    Parcel data, reply;
    for (int32_t v : ints)
        data.writeInt32(v);
    data.writeStrongBinder(object);
    data.write(std::vector<char>(pad).data(), pad);
    const status_t err = to->transact(code, data, &reply, flags);
    return err != NO_ERROR ? err : reply.readInt32();
}

// Adds (noting thread and caller), echoes, counts one-way calls in order, calls `peer` back from
// inside a call, waits in a call for eight callers at once; counts the obituaries it is told.
class Obj : public BBinder, public IBinder::DeathRecipient {
public:
    std::mutex lock;
    std::condition_variable cv;
    int inMeet = 0;
    std::atomic<int> seen { 0 }, inOrder { 0 }, told { 0 };
    std::vector<sp<IBinder>> got;
    std::vector<std::tuple<std::thread::id, pid_t, uid_t>> added;
    sp<IBinder> peer;
    void binderDied(const wp<IBinder> &) override { ++told; }

protected:
    status_t onTransact(uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags) override
    {
        std::unique_lock<std::mutex> l(lock);
        const IPCThreadState *ipc = IPCThreadState::self();
        switch (code) {
        case Add:
            added.emplace_back(
                std::this_thread::get_id(), ipc->getCallingPid(), ipc->getCallingUid());
            return reply->writeInt32(data.readInt32() + data.readInt32());
        case Echo:
            got.push_back(data.readStrongBinder());
            return reply->writeStrongBinder(got.back());
        case Seq:
            return reply->writeInt32(inOrder += data.readInt32() == seen++);
        case Nest:
            l.unlock();
            return reply->writeInt32(ask(peer, Add, { data.readInt32(), 1 }) * 10);
        case Meet:
            ++inMeet;
            cv.notify_all();
            return reply->writeBool(
                cv.wait_for(l, std::chrono::seconds(20), [this] { return inMeet >= 8; }));
        }
        return BBinder::onTransact(code, data, reply, flags);
    }
};

// Both ends in this process; b's only with a root, else `fd` is a peer that never reads.
struct Link {
    std::shared_ptr<Connection> a, b;
    int fd[2];
    explicit Link(const sp<IBinder> &rootA, const sp<IBinder> &rootB = nullptr)
    {
        socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd);
        a = Connection::start(fd[0], rootA);
        b = rootB ? Connection::start(fd[1], rootB) : nullptr;
    }
    ~Link() { a->shutdown("closed by the test"); }
};

} // namespace

class tst_Ipc : public QObject {
    Q_OBJECT
    sp<Obj> objA = new Obj, objB = new Obj;
    Link ab { objA, objB };
    const sp<IBinder> toB = ab.a->proxyFor(0), toA = ab.b->proxyFor(0);

private slots:
    void callsAndObjects()
    {
        QCOMPARE(ask(toB, Add, { 20, 22 }), 42);
        Parcel mine, back;
        mine.writeStrongBinder(objA);
        QVERIFY(ask(toB, Echo, {}, objA) == 1 && toB->transact(Echo, mine, &back) == NO_ERROR);
        QVERIFY(back.readStrongBinder() == objA); // our own object, not a proxy of it
        QVERIFY(objB->got[0]->remoteBinder() != nullptr && objB->got[0] == objB->got[1]);
        QCOMPARE(ask(toB, Echo, {}, toA), INVALID_OPERATION); // b's proxy cannot go out on a
        QCOMPARE(ask(toB, Add, {}, nullptr, 2u << 20), FAILED_TRANSACTION);
        QCOMPARE(ask(toB, Add, { 3, 4 }), 7);
    }

    void orderAndNesting()
    {
        for (int32_t seq = 0; seq < 2000; ++seq) // 2 MiB: the caller and the writer share sends
            QCOMPARE(ask(toB, Seq, { seq }, nullptr, 1024, IBinder::FLAG_ONEWAY), 0);
        QTRY_COMPARE_WITH_TIMEOUT(objB->seen.load(), 2000, 20000);
        QCOMPARE(objB->inOrder.load(), 2000);
        objB->peer = toA; // A -> B -> A, twice: run by the waiting thread, for the calling peer
        QVERIFY(ask(toB, Nest, { 1 }) == 20 && ask(toB, Nest, { 2 }) == 30);
        QVERIFY(objA->added
            == decltype(objA->added)(2, { std::this_thread::get_id(), getpid(), getuid() }));
    }

    // Frames of 256 KiB each, pushed onto a socket that takes a few KiB at a time, by turns
    // "abcd"; the peer empties the socket after each push or reads only once all are pushed.
    void outgoing_data()
    {
        QTest::addColumn<bool>("readBetween");
        QTest::newRow("a frame sent directly past a queued one overtakes it") << true;
        QTest::newRow("a partly sent frame is queued whole and repeats its head") << false;
    }
    void outgoing()
    {
        QFETCH(bool, readBetween);
        int fd[2];
        QVERIFY(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd) == 0);
        const int small = 4096;
        const timeval patience { 10, 0 };
        setsockopt(fd[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
        setsockopt(fd[1], SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        Outbox out(fd[0]);
        QByteArray sent, got;
        const auto read = [&](int flags) {
            char b[65536];
            ssize_t n = 0;
            while (got.size() < sent.size() && (n = recv(fd[1], b, sizeof b, flags)) > 0)
                got.append(b, n);
        };
        for (char k = 'a'; k <= 'd'; ++k) {
            sent += QByteArray(256 << 10, k);
            QVERIFY(out.push(std::vector<uint8_t>(256 << 10, uint8_t(k))));
            if (readBetween)
                read(MSG_DONTWAIT);
        }
        std::thread writer([&out] { out.drain(); });
        read(0);
        close(fd[1]); // a writer still sending fails and returns
        out.close();
        writer.join();
        close(fd[0]);
        const auto runs = [](const QByteArray &bytes) { // "a262144 b262144 ..."
            QByteArray text;
            for (qsizetype at = 0, n = 0; at < bytes.size(); at += n) {
                for (n = 1; at + n < bytes.size() && bytes[at + n] == bytes[at];)
                    ++n;
                text += bytes[at] + QByteArray::number(n) + ' ';
            }
            return text;
        };
        QCOMPARE(runs(got), runs(sent));
    }

    void death()
    {
        sp<IBinder> root = new Obj;
        const wp<IBinder> exported = root;
        Link link(root);
        root.clear();
        const sp<IBinder> toPeer = link.a->proxyFor(0);
        sp<Obj> kept = new Obj, dropped = new Obj, unlinked = new Obj;
        for (const sp<Obj> &r : { kept, dropped, unlinked })
            QCOMPARE(toPeer->linkToDeath(r), NO_ERROR);
        QCOMPARE(toPeer->unlinkToDeath(unlinked), NO_ERROR);
        const wp<Obj> droppedWeak = dropped;
        dropped.clear();
        QVERIFY(droppedWeak.promote() == nullptr); // the runtime holds recipients weakly
        close(link.fd[1]); // what a dying peer leaves on our end: EOF
        QTRY_VERIFY_WITH_TIMEOUT(exported.promote() == nullptr, 20000); // after the obituaries
        QVERIFY(kept->told == 1 && unlinked->told == 0);
        QCOMPARE(ask(toPeer, Add, { 1, 1 }), DEAD_OBJECT);
        QCOMPARE(toPeer->linkToDeath(kept), DEAD_OBJECT);
    }

    void bounds()
    {
        std::vector<std::future<int32_t>> meet; // eight callers inside one call at once
        for (int i = 0; i < 8; ++i)
            meet.push_back(std::async(std::launch::async, [this] { return ask(toB, Meet, {}); }));
        for (std::future<int32_t> &f : meet)
            QCOMPARE(f.get(), 1);

        Link peer(nullptr); // a peer that never reads: dropped once its queue is full, told dead
        const sp<IBinder> stuck = peer.a->proxyFor(0);
        QCOMPARE(stuck->linkToDeath(objA), NO_ERROR);
        int32_t err = 0;
        for (int i = 0; i < 320 && err == 0; ++i)
            err = ask(stuck, Seq, {}, nullptr, 64 << 10, IBinder::FLAG_ONEWAY);
        QCOMPARE(err, DEAD_OBJECT);
        QTRY_COMPARE_WITH_TIMEOUT(objA->told.load(), 1, 20000);
        close(peer.fd[1]);

        const size_t proxies = ab.b->proxyCount(); // objects a call names leave with the call
        Parcel many;
        for (int i = 0; i < 1024; ++i)
            many.writeStrongBinder(new BBinder);
        QVERIFY(toB->transact(Add, many, nullptr) == NO_ERROR);
        QTRY_COMPARE_WITH_TIMEOUT(ab.b->proxyCount(), proxies, 20000);
    }
};

QTEST_GUILESS_MAIN(tst_Ipc)
#include "tst_ipc.moc"

#include "Connection.h"

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>

#include <QtTest>

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>

using namespace android;
using namespace std::chrono_literals;

namespace {

enum Code : uint32_t { Add = IBinder::FIRST_CALL_TRANSACTION, Echo, Seq, Nest, Who, Meet };
const uid_t kCallerUid = getuid() == 0 ? 65534 : getuid(); // nobody when we are root

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

// Adds, echoes an object, counts one-way calls in order, calls `peer` back from inside a call,
// names its caller, waits inside a call until eight callers are in it; and counts obituaries.
class Obj : public BBinder, public IBinder::DeathRecipient {
public:
    std::mutex lock;
    std::condition_variable cv;
    int seen = 0, inOrder = 0, inMeet = 0;
    std::vector<sp<IBinder>> got;
    std::vector<std::thread::id> addedOn;
    sp<IBinder> peer;
    std::atomic<int> told { 0 };
    void binderDied(const wp<IBinder> &) override { ++told; }

protected:
    status_t onTransact(uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags) override
    {
        std::unique_lock<std::mutex> l(lock);
        cv.notify_all(); // waiters look again once this call has released the lock
        const IPCThreadState *caller = IPCThreadState::self();
        switch (code) {
        case Add:
            addedOn.push_back(std::this_thread::get_id());
            return reply->writeInt32(data.readInt32() + data.readInt32());
        case Echo:
            got.push_back(data.readStrongBinder());
            return reply->writeStrongBinder(got.back());
        case Seq:
            inOrder += data.readInt32() == seen++;
            return NO_ERROR;
        case Nest:
            l.unlock();
            return reply->writeInt32(ask(peer, Add, { data.readInt32(), 1 }) * 10);
        case Who:
            return reply->writeInt32(
                data.readInt32() ? int32_t(caller->getCallingUid()) : caller->getCallingPid());
        case Meet:
            ++inMeet;
            return reply->writeBool(cv.wait_for(l, 20s, [this] { return inMeet >= 8; }));
        }
        return BBinder::onTransact(code, data, reply, flags);
    }
};

// Both ends in this process; b's end is connected by a child process running as kCallerUid, so
// calls arriving at a carry that child's pid and uid.
struct Link {
    std::shared_ptr<Connection> a, b;
    pid_t child = -1;
    Link(const sp<IBinder> &rootA, const sp<IBinder> &rootB)
    {
        sockaddr_un addr { AF_UNIX, {} };
        auto *sa = reinterpret_cast<sockaddr *>(&addr);
        socklen_t len = sizeof addr.sun_family; // the kernel picks an abstract name
        const int server = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        bind(server, sa, len);
        listen(server, 1);
        getsockname(server, sa, &(len = sizeof addr));
        if ((child = fork()) == 0)
            _exit(setuid(kCallerUid) != 0 || connect(fd, sa, len) != 0);
        waitpid(child, nullptr, 0);
        a = Connection::start(accept4(server, nullptr, nullptr, SOCK_CLOEXEC), rootA);
        b = Connection::start(fd, rootB);
        close(server);
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
        QCOMPARE(ask(toA, Who, { 0 }), ab.child); // the calling process and user
        QCOMPARE(ask(toA, Who, { 1 }), int32_t(kCallerUid));
        Parcel mine, back;
        mine.writeStrongBinder(objA);
        for (int twice = 0; twice < 2; ++twice) {
            QCOMPARE(toB->transact(Echo, mine, &back), NO_ERROR);
            QVERIFY(back.readStrongBinder() == objA); // our own object, not a proxy of it
        }
        QVERIFY(objB->got[0]->remoteBinder() != nullptr && objB->got[0] == objB->got[1]);
        Link other(nullptr, nullptr);
        QCOMPARE(ask(toB, Echo, {}, other.a->proxyFor(0)), INVALID_OPERATION);
        QCOMPARE(ask(toB, Add, {}, nullptr, 2u << 20), FAILED_TRANSACTION);
        QCOMPARE(ask(toB, Add, { 3, 4 }), 7);
    }

    void orderAndNesting()
    {
        // 2 MiB: more than the socket takes at once, so the caller and the writer share sends.
        for (int32_t seq = 0; seq < 2000; ++seq)
            QCOMPARE(ask(toB, Seq, { seq }, nullptr, 1024, IBinder::FLAG_ONEWAY), 0);
        std::unique_lock<std::mutex> l(objB->lock);
        QVERIFY(objB->cv.wait_for(l, 20s, [this] { return objB->seen == 2000; }));
        QCOMPARE(objB->inOrder, 2000);
        l.unlock();
        objB->peer = toA; // A -> B -> A, twice in a row
        QCOMPARE(ask(toB, Nest, { 1 }), 20);
        QCOMPARE(ask(toB, Nest, { 2 }), 30);
        QCOMPARE(objA->addedOn, std::vector<std::thread::id>(2, std::this_thread::get_id()));
    }

    void death()
    {
        sp<IBinder> root = new Obj;
        const wp<IBinder> exported = root;
        Link link(root, nullptr);
        root.clear();
        const sp<IBinder> toPeer = link.a->proxyFor(0);
        sp<Obj> kept = new Obj, dropped = new Obj, unlinked = new Obj;
        for (const sp<Obj> &r : { kept, dropped, unlinked })
            QCOMPARE(toPeer->linkToDeath(r), NO_ERROR);
        QCOMPARE(toPeer->unlinkToDeath(unlinked), NO_ERROR);
        QCOMPARE(kept->linkToDeath(kept), INVALID_OPERATION); // a local object does not die
        const wp<Obj> droppedWeak = dropped;
        dropped.clear();
        QVERIFY(droppedWeak.promote() == nullptr); // the runtime holds recipients weakly
        link.b->shutdown("peer gone"); // what a dying peer leaves on our end: EOF
        // The connection lets its exports go after its obituaries have been told.
        QTRY_VERIFY_WITH_TIMEOUT(exported.promote() == nullptr, 20000);
        QCOMPARE(kept->told.load(), 1);
        QCOMPARE(unlinked->told.load(), 0);
        QCOMPARE(ask(toPeer, Add, { 1, 1 }), DEAD_OBJECT);
        QCOMPARE(toPeer->linkToDeath(kept), DEAD_OBJECT);
    }

    void bounds()
    {
        std::vector<std::thread> callers;
        std::atomic<int> met { 0 };
        for (int i = 0; i < 8; ++i)
            callers.emplace_back([&] { met += ask(toB, Meet, {}) == 1; });
        for (std::thread &t : callers)
            t.join();
        QCOMPARE(met.load(), 8);

        int fd[2]; // a peer that never reads: dropped once its queue is full, and told dead
        QCOMPARE(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fd), 0);
        const sp<IBinder> stuck = Connection::start(fd[0], nullptr)->proxyFor(0);
        QCOMPARE(stuck->linkToDeath(objA), NO_ERROR);
        int32_t err = 0;
        for (int i = 0; i < 320 && err == 0; ++i)
            err = ask(stuck, Seq, {}, nullptr, 64 << 10, IBinder::FLAG_ONEWAY);
        QCOMPARE(err, DEAD_OBJECT);
        QTRY_COMPARE_WITH_TIMEOUT(objA->told.load(), 1, 20000);
        close(fd[1]);

        const size_t proxies = ab.b->proxyCount(); // objects a call names leave with the call
        for (int round = 0; round < 4; ++round) {
            Parcel many;
            for (int i = 0; i < 1024; ++i)
                many.writeStrongBinder(new BBinder);
            QVERIFY(toB->transact(Add, many, nullptr) == NO_ERROR);
        }
        QTRY_COMPARE_WITH_TIMEOUT(ab.b->proxyCount(), proxies, 20000);
    }
};

QTEST_GUILESS_MAIN(tst_Ipc)
#include "tst_ipc.moc"

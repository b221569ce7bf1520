#pragma once

#include "FrameIo.h"
#include "ObjectTable.h"
#include "Wire.h"
#include "WorkLedger.h"

#include <binder/BpBinder.h>
#include <binder/Parcel.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <sys/types.h>

namespace android {

// One socket to one peer process, carrying calls in both directions. A reader thread takes
// frames off the socket; a writer thread sends what the bounded `Outbox` could not send at once.
// Objects we send are exported (kept alive, `ObjectTable`) until the connection closes. Incoming
// calls are counted in the WorkLedger from the moment their body is
// read: past its bounds the reader stops reading (back-pressure). Any read or write failure,
// protocol violation or outgoing overflow shuts the connection down and reports its proxies dead.
class Connection : public std::enable_shared_from_this<Connection> {
public:
    // Takes ownership of `fd`; `root` (may be null) is what the peer reaches as handle 0. `slot`
    // is held until both of the connection's threads have ended. Null (fd closed, one log line)
    // when the peer's identity cannot be read or a thread cannot be started.
    static std::shared_ptr<Connection> start(
        int fd, const sp<IBinder> &root, std::shared_ptr<void> slot = nullptr);
    ~Connection();

    sp<IBinder> proxyFor(uint64_t handle);
    // Called by a proxy's destructor so that the table holds only live proxies.
    void forgetProxy(uint64_t handle, const BpBinder *proxy);
    size_t proxyCount() const;
    status_t transact(
        uint64_t handle, uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags);
    bool isAlive() const;
    void shutdown(const char *reason);

private:
    struct Incoming {
        uint64_t txnId = 0;
        uint32_t code = 0;
        uint32_t flags = 0;
        std::shared_ptr<void> work; // counted in the WorkLedger while held
        sp<IBinder> target;
        Parcel data;
    };
    using IncomingPtr = std::shared_ptr<Incoming>;
    struct Pending {
        std::condition_variable cv;
        bool done = false;
        wire::Frame reply;
        std::deque<IncomingPtr> nested;
    };

    Connection(int fd, const sp<IBinder> &root);
    void readLoop();
    void handleFrame(wire::Frame &&frame, std::shared_ptr<void> work);
    void execute(const IncomingPtr &call);
    void drainOneway(uint64_t target);
    // Queues a decoded call: per-target one-way queue, the waiting parent, or the thread pool.
    void dispatchLocked(IncomingPtr &&call, uint64_t target, uint64_t parentTxn);
    void sendReply(uint64_t txnId, status_t status, const Parcel &reply);
    // False when the outgoing queue overflowed: then `lock` is released and the connection shut.
    bool queueLocked(std::unique_lock<std::mutex> &lock, std::vector<uint8_t> &&bytes);
    // Runs nested calls until `pending` is answered or the connection dies, then decodes the
    // answer into `received` (which the caller releases without the lock).
    status_t awaitReply(std::unique_lock<std::mutex> &lock, Pending &pending, Parcel *received);

    const int mFd;
    pid_t mPeerPid = -1;
    uid_t mPeerUid = uid_t(-1);

    mutable std::mutex mLock;
    bool mDead = false;
    Outbox mOutbox;
    uint64_t mNextTxn = 1;
    std::map<uint64_t, Pending *> mPending;
    ObjectTable mObjects;
    std::map<uint64_t, std::deque<IncomingPtr>> mOneway;
    std::shared_ptr<WorkLedger::Account> mWork;
};

} // namespace android

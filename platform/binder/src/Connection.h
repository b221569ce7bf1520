#pragma once

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
// frames off the socket. A frame with nothing queued ahead of it is sent by the calling thread as
// far as the socket takes it without blocking; a writer thread drains the rest from a bounded
// queue, so no caller blocks on a slow peer. Objects we send are exported (kept alive) until the
// connection closes. Incoming calls are counted in the WorkLedger from the moment their body is
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

    static constexpr size_t kMaxQueuedOutBytes = 8u << 20;
    static constexpr size_t kMaxQueuedOutFrames = 8192;

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
    void writeLoop();
    bool readFully(void *buf, size_t len);
    bool readBody(size_t size, std::vector<uint8_t> *body);
    void handleFrame(wire::Frame &&frame, std::shared_ptr<void> work);
    void execute(const IncomingPtr &call);
    void drainOneway(uint64_t target);
    void sendReply(uint64_t txnId, status_t status, const Parcel &reply);
    bool queueLocked(std::vector<uint8_t> &&bytes);
    status_t toWireLocked(const Parcel &parcel, wire::Frame *frame);
    status_t fromWireLocked(wire::Frame &frame, Parcel *parcel);

    const int mFd;
    pid_t mPeerPid = -1;
    uid_t mPeerUid = uid_t(-1);

    mutable std::mutex mLock;
    bool mDead = false;
    std::condition_variable mWriterCv;
    std::deque<std::vector<uint8_t>> mOut;
    size_t mOutBytes = 0;
    // The writer thread is sending a frame it took off mOut.
    bool mWriting = false;
    uint64_t mNextTxn = 1;
    std::map<uint64_t, Pending *> mPending;
    uint64_t mNextExport = 1;
    std::map<uint64_t, sp<IBinder>> mExports;
    std::map<IBinder *, uint64_t> mExportIds;
    std::map<uint64_t, wp<BpBinder>> mProxies;
    std::map<uint64_t, std::deque<IncomingPtr>> mOneway;
    std::shared_ptr<WorkLedger::Account> mWork;
};

} // namespace android

#include "Connection.h"

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include <android/log.h>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace android {

#define LOG_TAG "binder"
#define LOGW(...) __android_log_print(ANDROID_LOG_WARN, LOG_TAG, __VA_ARGS__)

namespace {
constexpr size_t kCallCost = 256; // an incoming call's bookkeeping besides its body
}

std::shared_ptr<Connection> Connection::start(
    int fd, const sp<IBinder> &root, std::shared_ptr<void> slot)
{
    ucred cred {};
    socklen_t len = sizeof cred;
    if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
        LOGW("dropping a connection whose peer is unknown: %s", std::strerror(errno));
        ::close(fd);
        return nullptr;
    }
    std::shared_ptr<Connection> c(new Connection(fd, root));
    c->mPeerPid = cred.pid;
    c->mPeerUid = cred.uid;
    c->mWork = WorkLedger::open(cred.uid);
    // Thread creation fails when the process runs out of threads or memory: the peer loses
    // this connection, the process goes on.
    try {
        std::thread([c, slot] { c->readLoop(); }).detach();
    } catch (const std::system_error &e) {
        LOGW("dropping connection to pid %d: cannot start its reader: %s", int(cred.pid), e.what());
        return nullptr;
    }
    try {
        std::thread([c, slot] {
            if (!c->mOutbox.drain())
                c->shutdown("write failed");
        }).detach();
    } catch (const std::system_error &) {
        c->shutdown("cannot start its writer");
        return nullptr;
    }
    return c;
}

Connection::Connection(int fd, const sp<IBinder> &root) : mFd(fd), mOutbox(fd), mObjects(root) { }

Connection::~Connection()
{
    ::close(mFd);
}

bool Connection::isAlive() const
{
    std::lock_guard<std::mutex> lock(mLock);
    return !mDead;
}

sp<IBinder> Connection::proxyFor(uint64_t handle)
{
    std::lock_guard<std::mutex> lock(mLock);
    return mObjects.proxyFor(shared_from_this(), handle);
}

void Connection::forgetProxy(uint64_t handle, const BpBinder *proxy)
{
    std::lock_guard<std::mutex> lock(mLock);
    mObjects.forgetProxy(handle, proxy);
}

size_t Connection::proxyCount() const
{
    std::lock_guard<std::mutex> lock(mLock);
    return mObjects.proxyCount();
}

bool Connection::queueLocked(std::unique_lock<std::mutex> &lock, std::vector<uint8_t> &&bytes)
{
    if (mOutbox.push(std::move(bytes)))
        return true;
    lock.unlock();
    shutdown("outgoing queue full");
    return false;
}

status_t Connection::transact(
    uint64_t handle, uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags)
{
    const bool oneway = flags & IBinder::FLAG_ONEWAY;
    wire::Frame frame;
    frame.command = wire::Transact;
    frame.target = handle;
    frame.code = code;
    frame.flags = flags;
    Pending pending;
    std::unique_lock<std::mutex> lock(mLock);
    if (mDead)
        return DEAD_OBJECT;
    if (status_t err = mObjects.toWire(this, data, &frame); err != NO_ERROR)
        return err;
    if (!oneway) {
        frame.txnId = mNextTxn++;
        const auto &serving = IPCThreadState::self()->serving;
        if (!serving.empty() && serving.back().connection == this)
            frame.parentTxn = serving.back().txnId;
    }
    std::vector<uint8_t> bytes = wire::encode(frame);
    if (bytes.empty())
        return FAILED_TRANSACTION;
    if (!queueLocked(lock, std::move(bytes)))
        return DEAD_OBJECT;
    if (oneway)
        return NO_ERROR;
    mPending[frame.txnId] = &pending;
    Parcel received;
    const status_t err = awaitReply(lock, pending, &received);
    mPending.erase(frame.txnId);
    // Proxies released from here on take the lock again.
    lock.unlock();
    if (err != NO_ERROR)
        return err;
    if (reply != nullptr)
        *reply = std::move(received);
    return pending.reply.status;
}

status_t Connection::awaitReply(
    std::unique_lock<std::mutex> &lock, Pending &pending, Parcel *received)
{
    for (;;) {
        pending.cv.wait(lock, [&] { return pending.done || !pending.nested.empty(); });
        if (pending.done)
            break;
        // A call made on our behalf while we wait: run it here so A -> B -> A cannot deadlock.
        IncomingPtr call = std::move(pending.nested.front());
        pending.nested.pop_front();
        lock.unlock();
        execute(call);
        call.reset();
        lock.lock();
    }
    if (mDead && pending.reply.command != wire::Reply)
        return DEAD_OBJECT;
    return mObjects.fromWire(shared_from_this(), pending.reply, received);
}

void Connection::sendReply(uint64_t txnId, status_t status, const Parcel &reply)
{
    wire::Frame frame;
    frame.command = wire::Reply;
    frame.txnId = txnId;
    frame.status = status;
    std::unique_lock<std::mutex> lock(mLock);
    if (mDead)
        return;
    std::vector<uint8_t> bytes;
    if (mObjects.toWire(this, reply, &frame) == NO_ERROR)
        bytes = wire::encode(frame);
    if (bytes.empty()) {
        frame.status = FAILED_TRANSACTION;
        frame.data.clear();
        frame.objects.clear();
        bytes = wire::encode(frame);
    }
    queueLocked(lock, std::move(bytes));
}

void Connection::execute(const IncomingPtr &call)
{
    IPCThreadState *state = IPCThreadState::self();
    state->serving.push_back({ this, call->txnId, mPeerPid, mPeerUid, call->work });
    Parcel reply;
    const status_t status = call->target->transact(call->code, call->data, &reply, call->flags);
    state->serving.pop_back();
    call->work.reset();
    if (!(call->flags & IBinder::FLAG_ONEWAY))
        sendReply(call->txnId, status, reply);
}

void Connection::drainOneway(uint64_t target)
{
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        auto it = mOneway.find(target);
        if (it == mOneway.end())
            return;
        if (it->second.empty()) {
            mOneway.erase(it);
            return;
        }
        IncomingPtr call = std::move(it->second.front());
        it->second.pop_front();
        lock.unlock();
        execute(call);
        call.reset();
        lock.lock();
    }
}

void Connection::handleFrame(wire::Frame &&frame, std::shared_ptr<void> work)
{
    std::unique_lock<std::mutex> lock(mLock);
    // Proxies made now would miss the death notice that has already gone out.
    if (mDead)
        return;
    if (frame.command == wire::Reply) {
        auto it = mPending.find(frame.txnId);
        if (it == mPending.end() || it->second->done) {
            lock.unlock();
            shutdown("reply to an unknown transaction");
            return;
        }
        it->second->reply = std::move(frame);
        it->second->done = true;
        it->second->cv.notify_one();
        return;
    }
    const bool oneway = frame.flags & IBinder::FLAG_ONEWAY;
    auto call = std::make_shared<Incoming>();
    call->txnId = frame.txnId;
    call->code = frame.code;
    call->flags = frame.flags;
    call->work = std::move(work);
    call->target = mObjects.exported(frame.target);
    const status_t err = call->target == nullptr
        ? status_t(BAD_VALUE)
        : mObjects.fromWire(shared_from_this(), frame, &call->data);
    if (err != NO_ERROR) {
        lock.unlock();
        call.reset();
        if (!oneway)
            sendReply(frame.txnId, err, Parcel());
        return;
    }
    dispatchLocked(std::move(call), frame.target, frame.parentTxn);
}

void Connection::dispatchLocked(IncomingPtr &&call, uint64_t target, uint64_t parentTxn)
{
    std::shared_ptr<Connection> self = shared_from_this();
    if (call->flags & IBinder::FLAG_ONEWAY) {
        // One queue per target keeps one-way calls to an object in the order they were sent.
        auto [queue, fresh] = mOneway.try_emplace(target);
        queue->second.push_back(std::move(call));
        if (fresh)
            ProcessState::self()->post([self, target] { self->drainOneway(target); });
        return;
    }
    if (parentTxn != 0) {
        auto parent = mPending.find(parentTxn);
        if (parent != mPending.end() && !parent->second->done) {
            parent->second->nested.push_back(std::move(call));
            parent->second->cv.notify_one();
            return;
        }
    }
    ProcessState::self()->post([self, call] { self->execute(call); });
}

void Connection::readLoop()
{
    FrameReader reader(mFd);
    for (;;) {
        uint32_t command = 0;
        uint32_t size = 0;
        const char *fault = reader.header(&command, &size);
        // A call is counted before its body is read; past a bound the peer waits (back-pressure).
        // Bookkeeping counts too, so floods of empty calls are bounded as well.
        std::shared_ptr<void> work;
        if (!fault && command == wire::Transact
            && !(work = WorkLedger::reserve(mWork, size + kCallCost)))
            return; // shut down while waiting
        wire::Frame frame;
        if (fault || (fault = reader.body(command, size, &frame))) {
            shutdown(fault);
            return;
        }
        handleFrame(std::move(frame), std::move(work));
    }
}

void Connection::shutdown(const char *reason)
{
    std::vector<sp<BpBinder>> proxies;
    auto exports = std::make_shared<std::map<uint64_t, sp<IBinder>>>();
    std::map<uint64_t, std::deque<IncomingPtr>> oneway;
    {
        std::lock_guard<std::mutex> lock(mLock);
        if (mDead)
            return;
        mDead = true;
        if (std::string(reason) != "peer closed")
            LOGW("dropping connection to pid %d: %s", int(mPeerPid), reason);
        ::shutdown(mFd, SHUT_RDWR);
        mOutbox.close();
        WorkLedger::close(*mWork); // opened before either thread started
        for (auto &[txn, pending] : mPending) {
            pending->done = true;
            pending->cv.notify_one();
        }
        mObjects.clear(&proxies, exports.get());
        oneway.swap(mOneway);
    }
    oneway.clear();
    // Obituaries and releases run on a pool thread with no runtime lock held.
    ProcessState::self()->post([proxies = std::move(proxies), exports]() mutable {
        for (const sp<BpBinder> &proxy : proxies)
            proxy->sendObituary();
        proxies.clear();
        exports->clear();
    });
}

} // namespace android

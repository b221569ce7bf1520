#include "Connection.h"

#include <binder/Binder.h>
#include <binder/IPCThreadState.h>
#include <binder/ProcessState.h>

#include <android/log.h>

#include <algorithm>
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
constexpr size_t kKeptBodyBytes = 64 * 1024;
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
        std::thread([c, slot] { c->writeLoop(); }).detach();
    } catch (const std::system_error &) {
        c->shutdown("cannot start its writer");
        return nullptr;
    }
    return c;
}

Connection::Connection(int fd, const sp<IBinder> &root) : mFd(fd)
{
    if (root != nullptr) {
        mExports[0] = root;
        mExportIds[root.get()] = 0;
    }
}

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
    sp<BpBinder> proxy = mProxies[handle].promote();
    if (proxy == nullptr) {
        proxy = new BpBinder(shared_from_this(), handle);
        mProxies[handle] = proxy;
    }
    return proxy;
}

void Connection::forgetProxy(uint64_t handle, const BpBinder *proxy)
{
    std::lock_guard<std::mutex> lock(mLock);
    auto it = mProxies.find(handle);
    if (it != mProxies.end() && it->second.unsafe_get() == proxy)
        mProxies.erase(it);
}

size_t Connection::proxyCount() const
{
    std::lock_guard<std::mutex> lock(mLock);
    return mProxies.size();
}

status_t Connection::toWireLocked(const Parcel &parcel, wire::Frame *frame)
{
    frame->data = parcel.mData;
    for (const sp<IBinder> &object : parcel.mObjects) {
        if (BBinder *local = object->localBinder()) {
            auto it = mExportIds.find(local);
            uint64_t id = 0;
            if (it != mExportIds.end()) {
                id = it->second;
            } else {
                id = mNextExport++;
                mExportIds[local] = id;
                mExports[id] = object;
            }
            frame->objects.push_back({ wire::SenderObject, id });
        } else if (BpBinder *remote = object->remoteBinder();
                   remote && remote->connection().get() == this) {
            frame->objects.push_back({ wire::ReceiverObject, remote->handle() });
        } else {
            // Proxies from another connection cannot be forwarded.
            return INVALID_OPERATION;
        }
    }
    return NO_ERROR;
}

status_t Connection::fromWireLocked(wire::Frame &frame, Parcel *parcel)
{
    parcel->mData = std::move(frame.data);
    for (const wire::Object &object : frame.objects) {
        sp<IBinder> binder;
        if (object.kind == wire::SenderObject) {
            sp<BpBinder> proxy = mProxies[object.id].promote();
            if (proxy == nullptr) {
                proxy = new BpBinder(shared_from_this(), object.id);
                mProxies[object.id] = proxy;
            }
            binder = proxy;
        } else {
            auto it = mExports.find(object.id);
            if (it == mExports.end())
                return BAD_VALUE;
            binder = it->second;
        }
        parcel->mObjects.push_back(binder);
    }
    return NO_ERROR;
}

bool Connection::queueLocked(std::vector<uint8_t> &&bytes)
{
    // Nothing ahead of this frame: the calling thread sends it without blocking, and the writer
    // thread is woken only for what the socket does not take at once.
    if (mOut.empty() && !mWriting) {
        ssize_t n = 0;
        do
            n = ::send(mFd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        while (n < 0 && errno == EINTR);
        if (n == ssize_t(bytes.size()))
            return true;
        // A failed socket fails the writer's send as well, which shuts the connection down.
        if (n > 0)
            bytes.erase(bytes.begin(), bytes.begin() + n);
    }
    if (mOutBytes + bytes.size() > kMaxQueuedOutBytes || mOut.size() >= kMaxQueuedOutFrames)
        return false;
    mOutBytes += bytes.size();
    mOut.push_back(std::move(bytes));
    mWriterCv.notify_one();
    return true;
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
    if (status_t err = toWireLocked(data, &frame); err != NO_ERROR)
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
    if (!queueLocked(std::move(bytes))) {
        lock.unlock();
        shutdown("outgoing queue full");
        return DEAD_OBJECT;
    }
    if (oneway)
        return NO_ERROR;

    mPending[frame.txnId] = &pending;
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
    mPending.erase(frame.txnId);
    if (mDead && pending.reply.command != wire::Reply)
        return DEAD_OBJECT;
    Parcel received;
    status_t err = fromWireLocked(pending.reply, &received);
    lock.unlock();
    if (err != NO_ERROR)
        return err;
    if (reply != nullptr)
        *reply = std::move(received);
    return pending.reply.status;
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
    if (toWireLocked(reply, &frame) == NO_ERROR)
        bytes = wire::encode(frame);
    if (bytes.empty()) {
        frame.status = FAILED_TRANSACTION;
        frame.data.clear();
        frame.objects.clear();
        bytes = wire::encode(frame);
    }
    if (!queueLocked(std::move(bytes))) {
        lock.unlock();
        shutdown("outgoing queue full");
    }
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
    auto target = mExports.find(frame.target);
    status_t err = target == mExports.end() ? status_t(BAD_VALUE) : NO_ERROR;
    if (err == NO_ERROR) {
        call->target = target->second;
        err = fromWireLocked(frame, &call->data);
    }
    if (err != NO_ERROR) {
        lock.unlock();
        call.reset();
        if (!oneway)
            sendReply(frame.txnId, err, Parcel());
        return;
    }
    std::shared_ptr<Connection> self = shared_from_this();
    if (oneway) {
        // One queue per target keeps one-way calls to an object in the order they were sent.
        auto [queue, fresh] = mOneway.try_emplace(frame.target);
        queue->second.push_back(std::move(call));
        if (fresh)
            ProcessState::self()->post([self, t = frame.target] { self->drainOneway(t); });
        return;
    }
    if (frame.parentTxn != 0) {
        auto parent = mPending.find(frame.parentTxn);
        if (parent != mPending.end() && !parent->second->done) {
            parent->second->nested.push_back(std::move(call));
            parent->second->cv.notify_one();
            return;
        }
    }
    ProcessState::self()->post([self, call] { self->execute(call); });
}

bool Connection::readFully(void *buf, size_t len)
{
    auto *p = static_cast<uint8_t *>(buf);
    while (len > 0) {
        const ssize_t n = ::recv(mFd, p, len, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false; // EOF, ECONNRESET and shutdown all mean the peer is gone
        p += n;
        len -= size_t(n);
    }
    return true;
}

// Grows the body only by what has arrived: a header may announce up to kMaxBody bytes that
// never come, and idle connections must not hold that much each.
bool Connection::readBody(size_t size, std::vector<uint8_t> *body)
{
    uint8_t chunk[16 * 1024];
    body->clear();
    while (body->size() < size) {
        const size_t want = std::min(sizeof chunk, size - body->size());
        if (!readFully(chunk, want))
            return false;
        body->insert(body->end(), chunk, chunk + want);
    }
    return true;
}

void Connection::readLoop()
{
    std::vector<uint8_t> body;
    for (;;) {
        uint8_t header[wire::kHeaderSize];
        if (!readFully(header, sizeof header)) {
            shutdown("peer closed");
            return;
        }
        uint32_t command = 0;
        uint32_t size = 0;
        if (!wire::decodeHeader(header, &command, &size)) {
            shutdown("bad frame header");
            return;
        }
        // A call is counted before its body is read; past a bound the peer waits (back-pressure).
        // Bookkeeping counts too, so floods of empty calls are bounded as well.
        std::shared_ptr<void> work;
        if (command == wire::Transact && !(work = WorkLedger::reserve(mWork, size + kCallCost)))
            return; // shut down while waiting
        if (!readBody(size, &body)) {
            shutdown("peer closed");
            return;
        }
        wire::Frame frame;
        if (!wire::decodeBody(command, body.data(), size, &frame)) {
            shutdown("malformed frame");
            return;
        }
        // A large frame's buffer is not kept through the idle time that follows it.
        if (body.capacity() > kKeptBodyBytes)
            std::vector<uint8_t>().swap(body);
        handleFrame(std::move(frame), std::move(work));
    }
}

void Connection::writeLoop()
{
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        mWriting = false;
        mWriterCv.wait(lock, [this] { return mDead || !mOut.empty(); });
        if (mDead)
            return;
        std::vector<uint8_t> bytes = std::move(mOut.front());
        mOut.pop_front();
        mOutBytes -= bytes.size();
        mWriting = true;
        lock.unlock();
        size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t n = ::send(mFd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0) {
                shutdown("write failed");
                return;
            }
            sent += size_t(n);
        }
        lock.lock();
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
        mWriterCv.notify_all();
        if (mWork)
            WorkLedger::close(*mWork);
        for (auto &[txn, pending] : mPending) {
            pending->done = true;
            pending->cv.notify_one();
        }
        for (auto &[handle, weak] : mProxies) {
            if (sp<BpBinder> proxy = weak.promote())
                proxies.push_back(proxy);
        }
        mProxies.clear();
        exports->swap(mExports);
        mExportIds.clear();
        oneway.swap(mOneway);
        mOut.clear();
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

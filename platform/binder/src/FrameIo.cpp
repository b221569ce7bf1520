#include "FrameIo.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>

namespace android {

namespace {
constexpr size_t kKeptBodyBytes = 64 * 1024;
}

bool FrameReader::readFully(void *buf, size_t len)
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

const char *FrameReader::header(uint32_t *command, uint32_t *size)
{
    uint8_t header[wire::kHeaderSize];
    if (!readFully(header, sizeof header))
        return "peer closed";
    return wire::decodeHeader(header, command, size) ? nullptr : "bad frame header";
}

// Grows the body only by what has arrived: a header may announce up to kMaxBody bytes that
// never come, and idle connections must not hold that much each.
const char *FrameReader::body(uint32_t command, uint32_t size, wire::Frame *frame)
{
    uint8_t chunk[16 * 1024];
    mBody.clear();
    while (mBody.size() < size) {
        const size_t want = std::min(sizeof chunk, size - mBody.size());
        if (!readFully(chunk, want))
            return "peer closed";
        mBody.insert(mBody.end(), chunk, chunk + want);
    }
    const bool ok = wire::decodeBody(command, mBody.data(), size, frame);
    // A large frame's buffer is not kept through the idle time that follows it.
    if (mBody.capacity() > kKeptBodyBytes)
        std::vector<uint8_t>().swap(mBody);
    return ok ? nullptr : "malformed frame";
}

bool Outbox::push(std::vector<uint8_t> &&bytes)
{
    std::lock_guard<std::mutex> lock(mLock);
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
    if (mOutBytes + bytes.size() > kMaxQueuedBytes || mOut.size() >= kMaxQueuedFrames)
        return false;
    mOutBytes += bytes.size();
    mOut.push_back(std::move(bytes));
    mCv.notify_one();
    return true;
}

bool Outbox::drain()
{
    std::unique_lock<std::mutex> lock(mLock);
    for (;;) {
        mWriting = false;
        mCv.wait(lock, [this] { return mClosed || !mOut.empty(); });
        if (mClosed)
            return true;
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
            if (n <= 0)
                return false;
            sent += size_t(n);
        }
        lock.lock();
    }
}

void Outbox::close()
{
    std::lock_guard<std::mutex> lock(mLock);
    mClosed = true;
    mOut.clear();
    mOutBytes = 0;
    mCv.notify_all();
}

} // namespace android

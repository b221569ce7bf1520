#pragma once

#include "Wire.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

namespace android {

// Reads whole frames off a connection's socket, on its reader thread only.
class FrameReader {
public:
    explicit FrameReader(int fd) : mFd(fd) { }
    // Each answers null on success, otherwise why the connection must end.
    const char *header(uint32_t *command, uint32_t *size);
    const char *body(uint32_t command, uint32_t size, wire::Frame *frame);

private:
    bool readFully(void *buf, size_t len);

    const int mFd;
    std::vector<uint8_t> mBody;
};

// Frames waiting to go out on a connection's socket, in the order they were pushed. A frame with
// nothing ahead of it is sent by the pushing thread as far as the socket takes it without
// blocking; the writer thread (`drain`) sends the rest, so no caller blocks on a slow peer.
class Outbox {
public:
    explicit Outbox(int fd) : mFd(fd) { }
    // False, keeping nothing, when the queue's bounds are reached.
    bool push(std::vector<uint8_t> &&bytes);
    // The writer thread: true once closed, false when a send failed.
    bool drain();
    // Drops what is queued and ends `drain`.
    void close();

    static constexpr size_t kMaxQueuedBytes = 8u << 20;
    static constexpr size_t kMaxQueuedFrames = 8192;

private:
    const int mFd;
    std::mutex mLock;
    std::condition_variable mCv;
    std::deque<std::vector<uint8_t>> mOut;
    size_t mOutBytes = 0;
    bool mWriting = false; // the writer is sending a frame it took off mOut
    bool mClosed = false;
};

} // namespace android

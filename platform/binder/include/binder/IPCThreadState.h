#pragma once

#include <utils/Errors.h>

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace android {

class Connection;

// Per-thread call state: who is calling the current incoming transaction and which incoming
// transactions this thread is serving (for routing nested calls back to it).
class IPCThreadState {
public:
    static IPCThreadState *self();

    // The peer process of the innermost incoming call this thread is running (as the kernel
    // recorded it when that peer connected); outside any incoming call, this process itself.
    pid_t getCallingPid() const;
    uid_t getCallingUid() const;
    void joinThreadPool(bool isMain = true);
    // Keeps the innermost incoming call counted against its connection and its caller's uid
    // until the last copy is released: for work the call hands on to another thread, so that a
    // caller cannot queue without bound by calls that return at once. Null outside a call.
    std::shared_ptr<void> keepCallCounted() const;

    // Runtime internal.
    struct Serving {
        const Connection *connection;
        uint64_t txnId;
        pid_t pid;
        uid_t uid;
        std::shared_ptr<void> work;
    };
    std::vector<Serving> serving;

private:
    IPCThreadState() = default;
};

} // namespace android

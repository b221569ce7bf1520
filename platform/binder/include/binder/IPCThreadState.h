#pragma once

#include <utils/Errors.h>

#include <sys/types.h>

#include <cstdint>
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

    // Runtime internal.
    struct Serving {
        const Connection *connection;
        uint64_t txnId;
        pid_t pid;
        uid_t uid;
    };
    std::vector<Serving> serving;

private:
    IPCThreadState() = default;
};

} // namespace android

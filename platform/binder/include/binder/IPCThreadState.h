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

    pid_t getCallingPid() const { return mCallingPid; }
    uid_t getCallingUid() const { return mCallingUid; }
    void joinThreadPool(bool isMain = true);

    // Runtime internal.
    struct Serving {
        const Connection *connection;
        uint64_t txnId;
    };
    std::vector<Serving> serving;
    void setCaller(pid_t pid, uid_t uid)
    {
        mCallingPid = pid;
        mCallingUid = uid;
    }

private:
    IPCThreadState();
    pid_t mCallingPid;
    uid_t mCallingUid;
};

} // namespace android

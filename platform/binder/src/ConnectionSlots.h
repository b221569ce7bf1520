#pragma once

#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <sys/types.h>

namespace android {

// Bounds the connections a process accepts, in total and per peer uid: each one costs two
// threads, so no caller may open them without limit. Root (uid 0 and this process's own uid) is
// held only to the total; every other uid to its share, and all of them together to the total
// less a reserve, so root can always connect. A slot is taken before a connection starts and
// given back when the last copy of its token is released (by the connection's two threads).
class ConnectionSlots : public std::enable_shared_from_this<ConnectionSlots> {
public:
    static constexpr size_t kMaxTotal = 256;
    static constexpr size_t kMaxPerUid = 32;
    static constexpr size_t kRootReserve = 32;

    static std::shared_ptr<ConnectionSlots> create(
        size_t maxTotal, size_t maxPerUid, size_t rootReserve);

    // A token holding one slot for `uid`, or null (with one log line naming the peer) when that
    // uid or the process is at its limit.
    std::shared_ptr<void> take(uid_t uid, pid_t pid);

private:
    ConnectionSlots(size_t maxTotal, size_t maxPerUid, size_t rootReserve);
    void give(uid_t uid);

    const size_t mMaxTotal;
    const size_t mMaxPerUid;
    const size_t mRootReserve;
    std::mutex mLock;
    size_t mTotal = 0;
    size_t mOthers = 0; // taken by uids other than root
    std::map<uid_t, size_t> mPerUid;
};

} // namespace android

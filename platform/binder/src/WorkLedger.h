#pragma once

#include <condition_variable>
#include <cstddef>
#include <map>
#include <memory>
#include <mutex>
#include <sys/types.h>
#include <vector>

namespace android {

// Counts the incoming work a process holds for its peers, in bytes and calls: calls read and not
// yet carried out, and what a call handed on to another thread (see
// IPCThreadState::keepCallCounted). A connection's reader asks for room before it reads a call's
// body and waits while a bound is reached, so the peer's writes stop in the kernel
// (back-pressure) instead of the process growing. Bounds: per connection, per peer uid, and in
// all; root (uid 0 and this process's own uid) has no share of its own but may use a reserve of
// the total that the other uids together may not. A call always fits when nothing of its
// connection is counted, so a frame of the largest size still passes.
class WorkLedger {
public:
    struct Bound {
        size_t bytes;
        size_t calls;
    };
    static constexpr Bound kPerConnection { 2u << 20, 256 };
    static constexpr Bound kPerUid { 4u << 20, 1024 };
    static constexpr Bound kTotal { 32u << 20, 8192 };
    static constexpr Bound kRootReserve { 8u << 20, 2048 };

    class Account;
    // One per connection.
    static std::shared_ptr<Account> open(uid_t peerUid);
    // Waits until `bytes` and one call fit, then counts them until the last copy of the returned
    // token is released. Null once the account is closed.
    static std::shared_ptr<void> reserve(const std::shared_ptr<Account> &account, size_t bytes);
    // Wakes a reader waiting in reserve(); later reserves answer null.
    static void close(Account &account);
};

} // namespace android

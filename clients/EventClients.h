#pragma once

#include "IDLClient.h"

#include <mutex>
#include <vector>

namespace dlm {

// The event clients other processes registered, each with the uid of the caller that registered
// it, each registered once. Every cap has a share per connection and per uid below the total,
// and the uids other than root together leave a reserve that only root may use. Thread-safe.
class EventClients {
public:
    static constexpr size_t kMaxPerConnection = 16;
    static constexpr size_t kMaxPerUid = 32;
    static constexpr size_t kMax = 256;
    static constexpr size_t kRootReserve = 32;

    // Null when registered, else why not.
    const char *add(const android::sp<IDLClient> &client, uint uid);
    // The removed client (the caller releases it, outside the lock), or null.
    android::sp<IDLClient> remove(const android::IBinder *binder);
    // Every client, to be released by the caller.
    std::vector<android::sp<IDLClient>> takeAll();
    // The i-th client and its uid; false past the end. The list may change between calls.
    bool at(size_t i, android::sp<IDLClient> *client, uint *uid);

private:
    struct Entry {
        android::sp<IDLClient> client;
        uint uid;
    };
    std::vector<Entry> entries;
    std::mutex mutex;
};

} // namespace dlm

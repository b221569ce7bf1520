#include "EventClients.h"

#include <UserShare.h>
#include <binder/BpBinder.h>

namespace dlm {

using namespace android;

const char *EventClients::add(const sp<IDLClient> &client, uint uid)
{
    const sp<IBinder> binder = IInterface::asBinder(client);
    // A local object would be the service calling itself and keeping itself alive.
    const BpBinder *remote = binder->remoteBinder();
    if (remote == nullptr)
        return "not another process's object";
    std::lock_guard<std::mutex> lock(mutex);
    size_t sameConnection = 0, sameUid = 0, others = 0;
    for (const Entry &entry : entries) {
        const sp<IBinder> known = IInterface::asBinder(entry.client);
        if (known == binder)
            return "already registered";
        if (known->remoteBinder()->connection() == remote->connection())
            ++sameConnection;
        sameUid += entry.uid == uid;
        others += entry.uid != 0;
    }
    if (sameConnection >= kMaxPerConnection)
        return "its connection's limit of event clients is reached";
    constexpr auto share = userShare(kMax, kMaxPerUid, kRootReserve);
    switch (share.judge(uid == 0, sameUid, others, entries.size(), size_t(1))) {
    case share.UserShareReached:
        return "its user's limit of event clients is reached";
    case share.TotalReached:
        return "the limit of event clients is reached";
    case share.Fits:
        break;
    }
    entries.push_back({ client, uid });
    return nullptr;
}

sp<IDLClient> EventClients::remove(const IBinder *binder)
{
    std::lock_guard<std::mutex> lock(mutex);
    for (auto it = entries.begin(); it != entries.end(); ++it) {
        if (IInterface::asBinder(it->client).get() == binder) {
            sp<IDLClient> removed = it->client;
            entries.erase(it);
            return removed;
        }
    }
    return nullptr;
}

std::vector<sp<IDLClient>> EventClients::takeAll()
{
    std::vector<sp<IDLClient>> all;
    std::lock_guard<std::mutex> lock(mutex);
    for (Entry &entry : entries)
        all.push_back(std::move(entry.client));
    entries.clear();
    return all;
}

bool EventClients::at(size_t i, sp<IDLClient> *client, uint *uid)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (i >= entries.size())
        return false;
    *client = entries[i].client;
    *uid = entries[i].uid;
    return true;
}

} // namespace dlm

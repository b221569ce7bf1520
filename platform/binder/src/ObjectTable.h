#pragma once

#include "Wire.h"

#include <binder/BpBinder.h>
#include <binder/Parcel.h>

#include <map>
#include <memory>

namespace android {

class Connection;

// The objects one connection knows: ours that the peer may call (exported, kept alive until the
// connection closes; the root is handle 0) and proxies for the peer's. Translates a parcel's
// objects to and from their wire ids. Not locked: the connection's lock guards it.
class ObjectTable {
public:
    explicit ObjectTable(const sp<IBinder> &root);

    // The live proxy for `handle`, made for `owner` when there is none.
    sp<BpBinder> proxyFor(const std::shared_ptr<Connection> &owner, uint64_t handle);
    void forgetProxy(uint64_t handle, const BpBinder *proxy);
    size_t proxyCount() const { return mProxies.size(); }
    // Null when nothing is exported under `id`.
    sp<IBinder> exported(uint64_t id) const;

    // INVALID_OPERATION for a proxy of another connection, which cannot be forwarded.
    status_t toWire(const Connection *self, const Parcel &parcel, wire::Frame *frame);
    // BAD_VALUE for an id of ours that was never exported.
    status_t fromWire(const std::shared_ptr<Connection> &self, wire::Frame &frame, Parcel *parcel);

    // Empties the table: the live proxies (to be told of the death) and the exports (to be
    // released without the connection's lock).
    void clear(std::vector<sp<BpBinder>> *proxies, std::map<uint64_t, sp<IBinder>> *exports);

private:
    uint64_t mNextExport = 1;
    std::map<uint64_t, sp<IBinder>> mExports;
    std::map<IBinder *, uint64_t> mExportIds;
    std::map<uint64_t, wp<BpBinder>> mProxies;
};

} // namespace android

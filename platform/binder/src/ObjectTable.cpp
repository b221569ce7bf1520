#include "ObjectTable.h"

#include <binder/Binder.h>

namespace android {

ObjectTable::ObjectTable(const sp<IBinder> &root)
{
    if (root != nullptr) {
        mExports[0] = root;
        mExportIds[root.get()] = 0;
    }
}

sp<BpBinder> ObjectTable::proxyFor(const std::shared_ptr<Connection> &owner, uint64_t handle)
{
    sp<BpBinder> proxy = mProxies[handle].promote();
    if (proxy == nullptr) {
        proxy = new BpBinder(owner, handle);
        mProxies[handle] = proxy;
    }
    return proxy;
}

void ObjectTable::forgetProxy(uint64_t handle, const BpBinder *proxy)
{
    auto it = mProxies.find(handle);
    if (it != mProxies.end() && it->second.unsafe_get() == proxy)
        mProxies.erase(it);
}

sp<IBinder> ObjectTable::exported(uint64_t id) const
{
    auto it = mExports.find(id);
    return it == mExports.end() ? nullptr : it->second;
}

status_t ObjectTable::toWire(const Connection *self, const Parcel &parcel, wire::Frame *frame)
{
    frame->data = parcel.mData;
    for (const sp<IBinder> &object : parcel.mObjects) {
        if (BBinder *local = object->localBinder()) {
            auto [it, fresh] = mExportIds.try_emplace(local, mNextExport);
            if (fresh)
                mExports[mNextExport++] = object;
            frame->objects.push_back({ wire::SenderObject, it->second });
        } else if (BpBinder *remote = object->remoteBinder();
                   remote && remote->connection().get() == self) {
            frame->objects.push_back({ wire::ReceiverObject, remote->handle() });
        } else {
            return INVALID_OPERATION;
        }
    }
    return NO_ERROR;
}

status_t ObjectTable::fromWire(
    const std::shared_ptr<Connection> &self, wire::Frame &frame, Parcel *parcel)
{
    parcel->mData = std::move(frame.data);
    for (const wire::Object &object : frame.objects) {
        sp<IBinder> binder;
        if (object.kind == wire::SenderObject)
            binder = proxyFor(self, object.id);
        else if ((binder = exported(object.id)) == nullptr)
            return BAD_VALUE;
        parcel->mObjects.push_back(binder);
    }
    return NO_ERROR;
}

void ObjectTable::clear(
    std::vector<sp<BpBinder>> *proxies, std::map<uint64_t, sp<IBinder>> *exports)
{
    for (auto &[handle, weak] : mProxies) {
        if (sp<BpBinder> proxy = weak.promote())
            proxies->push_back(proxy);
    }
    mProxies.clear();
    exports->swap(mExports);
    mExportIds.clear();
}

} // namespace android

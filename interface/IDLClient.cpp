#include "IDLClient.h"

#include <binder/Parcel.h>

using namespace android;

class BpDLClient : public BpInterface<IDLClient> {
public:
    explicit BpDLClient(const sp<IBinder> &impl) : BpInterface<IDLClient>(impl) { }

    void onDownloadUpdate(IDownload download) override
    {
        Parcel data;
        data.writeInterfaceToken(IDLClient::descriptor);
        download.writeToParcel(&data);
        remote()->transact(ON_DOWNLOAD_UPDATE, data, nullptr, IBinder::FLAG_ONEWAY);
    }
};

IMPLEMENT_META_INTERFACE(DLClient, "com.velta.IDLClient");

status_t BnDLClient::onTransact(uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags)
{
    switch (code) {
    case ON_DOWNLOAD_UPDATE: {
        if (!data.enforceInterface(IDLClient::descriptor))
            return PERMISSION_DENIED;
        IDownload download;
        const status_t err = download.readFromParcel(data);
        if (err != NO_ERROR)
            return err;
        onDownloadUpdate(download);
        return NO_ERROR;
    }
    default:
        return BBinder::onTransact(code, data, reply, flags);
    }
}

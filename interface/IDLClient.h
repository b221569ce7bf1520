#pragma once

#include "IDownload.h"

#include <binder/IInterface.h>

// Callback interface of an event client: told of every change of every download.
class IDLClient : public android::IInterface {
public:
    DECLARE_META_INTERFACE(DLClient);

    enum { ON_DOWNLOAD_UPDATE = android::IBinder::FIRST_CALL_TRANSACTION };

    // One-way: the service never waits for an event client.
    virtual void onDownloadUpdate(IDownload download) = 0;
};

class BnDLClient : public android::BnInterface<IDLClient> {
protected:
    android::status_t onTransact(uint32_t code, const android::Parcel &data, android::Parcel *reply,
        uint32_t flags = 0) override;
};

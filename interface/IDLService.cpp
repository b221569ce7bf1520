#include "IDLService.h"

#include "ParcelText.h"

#include <binder/Parcel.h>

#include <initializer_list>
#include <iterator>
#include <utility>

using namespace android;
using dlparcel::readText;
using dlparcel::writeText;

class BpDLService : public BpInterface<IDLService>
{
public:
    explicit BpDLService(const sp<IBinder> &impl) : BpInterface<IDLService>(impl) {}

    void createDownload(const std::string &clientID, const std::string &url,
                        const std::string &uniqueID, const std::string &name) override
    {
        Parcel data = request();
        writeText(&data, clientID);
        writeText(&data, url);
        writeText(&data, uniqueID);
        writeText(&data, name);
        call(CREATE_DOWNLOAD, data);
    }

    void addClient(const sp<IDLClient> &client) override
    {
        Parcel data = request();
        data.writeStrongBinder(IInterface::asBinder(client));
        call(ADD_CLIENT, data);
    }

    void removeClient(const sp<IDLClient> &client) override
    {
        Parcel data = request();
        data.writeStrongBinder(IInterface::asBinder(client));
        call(REMOVE_CLIENT, data);
    }

    void removeDownload(const std::string &uniqueID) override { callWithText(REMOVE_DOWNLOAD, uniqueID); }
    void pauseDownload(const std::string &uniqueID) override { callWithText(PAUSE_DOWNLOAD, uniqueID); }
    void resumeDownload(const std::string &uniqueID) override { callWithText(RESUME_DOWNLOAD, uniqueID); }

    int getDownloadList(const std::string &clientID, std::vector<IDownload *> &list) override
    {
        list.clear();
        Parcel data = request();
        writeText(&data, clientID);
        Parcel reply;
        status_t err = remote()->transact(GET_DOWNLOAD_LIST, data, &reply);
        if (err != NO_ERROR)
            return err;
        int32_t result = 0;
        std::vector<IDownload> records;
        if ((err = reply.readInt32(&result)) != NO_ERROR
            || (err = IDownload::readList(reply, &records)) != NO_ERROR)
            return err;
        for (IDownload &record : records)
            list.push_back(new IDownload(std::move(record)));
        return result;
    }

    int getDownload(const std::string &uniqueID, IDownload *download) override
    {
        Parcel data = request();
        writeText(&data, uniqueID);
        Parcel reply;
        status_t err = remote()->transact(GET_DOWNLOAD, data, &reply);
        if (err != NO_ERROR)
            return err;
        int32_t result = 0;
        if ((err = reply.readInt32(&result)) != NO_ERROR)
            return err;
        if (result == 1 && download && (err = download->readFromParcel(reply)) != NO_ERROR)
            return err;
        return result;
    }

    int checkSpaceAvailability(const std::string &clientID, const long long &size) override
    {
        Parcel data = request();
        writeText(&data, clientID);
        data.writeInt64(size);
        Parcel reply;
        status_t err = remote()->transact(CHECK_SPACE_AVAILABILITY, data, &reply);
        if (err != NO_ERROR)
            return err;
        int32_t result = 0;
        if ((err = reply.readInt32(&result)) != NO_ERROR)
            return err;
        return result;
    }

    int32_t setDownloadPath(const std::string &clientID, const std::string &downloadPath) override
    {
        Parcel data = request();
        writeText(&data, clientID);
        writeText(&data, downloadPath);
        Parcel reply;
        status_t err = remote()->transact(SET_DOWNLOAD_PATH, data, &reply);
        int32_t result = 0;
        if (err == NO_ERROR)
            err = reply.readInt32(&result);
        return err != NO_ERROR ? err : result;
    }

    int32_t requestDownload(const std::string &clientID, const std::string &url,
                            const std::string &uniqueID, const std::string &name,
                            std::string *uniqueIDOut) override
    {
        Parcel data = createRequest(clientID, url, uniqueID, name);
        return answeredCreate(REQUEST_DOWNLOAD, data, uniqueIDOut);
    }

    int32_t requestDownloadChecked(const std::string &clientID, const std::string &url,
                                   const std::string &uniqueID, const std::string &name,
                                   int64_t expectedSize, const std::string &sha256Hex,
                                   std::string *uniqueIDOut) override
    {
        Parcel data = createRequest(clientID, url, uniqueID, name);
        data.writeInt64(expectedSize);
        writeText(&data, sha256Hex);
        return answeredCreate(REQUEST_DOWNLOAD_CHECKED, data, uniqueIDOut);
    }

    static Parcel createRequest(const std::string &clientID, const std::string &url,
                                const std::string &uniqueID, const std::string &name)
    {
        Parcel data = request();
        for (const std::string *text : {&clientID, &url, &uniqueID, &name})
            writeText(&data, *text);
        return data;
    }

    int32_t answeredCreate(uint32_t code, const Parcel &data, std::string *uniqueIDOut)
    {
        Parcel reply;
        status_t err = remote()->transact(code, data, &reply);
        int32_t result = 0;
        std::string id;
        if (err == NO_ERROR && (err = reply.readInt32(&result)) == NO_ERROR)
            err = readText(reply, &id);
        if (err != NO_ERROR)
            return err;
        if (uniqueIDOut)
            *uniqueIDOut = id;
        return result;
    }

    int listDownloadsPage(const std::string &clientID, const std::string &after,
                          std::vector<IDownload> *page) override
    {
        page->clear();
        Parcel data = request();
        writeText(&data, clientID);
        writeText(&data, after);
        Parcel reply;
        status_t err = remote()->transact(LIST_DOWNLOADS_PAGE, data, &reply);
        if (err != NO_ERROR || (err = IDownload::readList(reply, page)) != NO_ERROR)
            return err;
        return int(page->size());
    }

    int32_t requestPause(const std::string &uniqueID) override { return control(REQUEST_PAUSE, uniqueID); }
    int32_t requestResume(const std::string &uniqueID) override { return control(REQUEST_RESUME, uniqueID); }
    int32_t requestRemove(const std::string &uniqueID) override { return control(REQUEST_REMOVE, uniqueID); }

private:
    static Parcel request()
    {
        Parcel data;
        data.writeInterfaceToken(IDLService::descriptor);
        return data;
    }
    void call(uint32_t code, const Parcel &data)
    {
        Parcel reply;
        remote()->transact(code, data, &reply);
    }
    int32_t control(uint32_t code, const std::string &uniqueID)
    {
        Parcel data = request();
        writeText(&data, uniqueID);
        Parcel reply;
        status_t err = remote()->transact(code, data, &reply);
        int32_t result = 0;
        if (err == NO_ERROR)
            err = reply.readInt32(&result);
        return err != NO_ERROR ? err : result;
    }
    void callWithText(uint32_t code, const std::string &text)
    {
        Parcel data = request();
        writeText(&data, text);
        call(code, data);
    }
};

IMPLEMENT_META_INTERFACE(DLService, "com.velta.IDLService");

int IDLService::listDownloads(const std::string &clientID, std::vector<IDownload> *list)
{
    list->clear();
    std::vector<IDownload> page;
    for (;;) {
        const int count = listDownloadsPage(clientID, list->empty() ? "" : list->back().uniqueID, &page);
        if (count < 0)
            return count;
        if (count == 0)
            return int(list->size());
        list->insert(list->end(), std::make_move_iterator(page.begin()),
                     std::make_move_iterator(page.end()));
    }
}

status_t BnDLService::onTransact(uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags)
{
    if (code < CREATE_DOWNLOAD || code > REQUEST_DOWNLOAD_CHECKED)
        return BBinder::onTransact(code, data, reply, flags);
    if (!data.enforceInterface(IDLService::descriptor))
        return PERMISSION_DENIED;

    // Every text is read against its limit before the call does anything.
    const size_t id = kMaxIdBytes;
    std::string a, b, c, d;
    const auto texts = [&data](std::initializer_list<std::pair<std::string *, size_t>> fields) {
        for (const auto &[text, max] : fields)
            if (status_t err = readText(data, text, max); err != NO_ERROR)
                return err == TEXT_TOO_LONG ? err : status_t(BAD_VALUE);
        return status_t(NO_ERROR);
    };
    status_t err = NO_ERROR;
    switch (code) {
    case CREATE_DOWNLOAD:
        if ((err = texts({ { &a, id }, { &b, kMaxUrlBytes }, { &c, id }, { &d, kMaxNameBytes } })))
            return err;
        createDownload(a, b, c, d);
        return NO_ERROR;
    case ADD_CLIENT:
    case REMOVE_CLIENT: {
        sp<IBinder> binder = data.readStrongBinder();
        sp<IDLClient> client = interface_cast<IDLClient>(binder);
        if (client == nullptr)
            return BAD_VALUE;
        if (code == ADD_CLIENT)
            addClient(client);
        else
            removeClient(client);
        return NO_ERROR;
    }
    case REMOVE_DOWNLOAD:
    case PAUSE_DOWNLOAD:
    case RESUME_DOWNLOAD:
        if ((err = texts({ { &a, id } })))
            return err;
        if (code == REMOVE_DOWNLOAD)
            removeDownload(a);
        else if (code == PAUSE_DOWNLOAD)
            pauseDownload(a);
        else
            resumeDownload(a);
        return NO_ERROR;
    case GET_DOWNLOAD_LIST: {
        if ((err = texts({ { &a, id } })))
            return err;
        std::vector<IDownload *> list;
        const int result = getDownloadList(a, list);
        if (result < 0)
            return result;
        std::vector<IDownload> records;
        for (IDownload *download : list) {
            records.push_back(std::move(*download));
            delete download;
        }
        reply->writeInt32(result);
        return IDownload::writeList(reply, records);
    }
    case GET_DOWNLOAD: {
        if ((err = texts({ { &a, id } })))
            return err;
        IDownload download;
        const int result = getDownload(a, &download);
        reply->writeInt32(result);
        if (result == 1)
            download.writeToParcel(reply);
        return NO_ERROR;
    }
    case CHECK_SPACE_AVAILABILITY: {
        int64_t size = 0;
        // A negative size is no question: it would always "fit".
        if ((err = texts({ { &a, id } })))
            return err;
        if (data.readInt64(&size) || size < 0)
            return BAD_VALUE;
        reply->writeInt32(checkSpaceAvailability(a, size));
        return NO_ERROR;
    }
    case SET_DOWNLOAD_PATH:
        if ((err = texts({ { &a, id }, { &b, kMaxPathBytes } })))
            return err;
        // Clients that expect an empty reply never read this status.
        reply->writeInt32(setDownloadPath(a, b));
        return NO_ERROR;
    case REQUEST_DOWNLOAD:
    case REQUEST_DOWNLOAD_CHECKED: {
        if ((err = texts({ { &a, id }, { &b, kMaxUrlBytes }, { &c, id }, { &d, kMaxNameBytes } })))
            return err;
        int64_t size = -1;
        std::string digest;
        if (code == REQUEST_DOWNLOAD_CHECKED
            && ((err = data.readInt64(&size)) || (err = texts({ { &digest, id } }))))
            return err == TEXT_TOO_LONG ? err : status_t(BAD_VALUE);
        std::string created;
        const int32_t status = code == REQUEST_DOWNLOAD
            ? requestDownload(a, b, c, d, &created)
            : requestDownloadChecked(a, b, c, d, size, digest, &created);
        if (status == TEXT_TOO_LONG)
            return status;
        reply->writeInt32(status);
        writeText(reply, created);
        return NO_ERROR;
    }
    case LIST_DOWNLOADS_PAGE: {
        if ((err = texts({ { &a, id }, { &b, id } })))
            return err;
        std::vector<IDownload> page;
        const int result = listDownloadsPage(a, b, &page);
        if (result < 0)
            return result;
        return IDownload::writeList(reply, page);
    }
    case REQUEST_PAUSE:
    case REQUEST_RESUME:
    case REQUEST_REMOVE:
        if ((err = texts({ { &a, id } })))
            return err;
        reply->writeInt32(code == REQUEST_PAUSE ? requestPause(a)
                : code == REQUEST_RESUME        ? requestResume(a)
                                                : requestRemove(a));
        return NO_ERROR;
    }
    return UNKNOWN_TRANSACTION;
}

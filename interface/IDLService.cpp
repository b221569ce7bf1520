#include "IDLService.h"

#include "ParcelText.h"

#include <binder/Parcel.h>

#include <iterator>
#include <utility>

using namespace android;
using dlparcel::readText;
using dlparcel::writeText;

class BpDLService : public BpInterface<IDLService> {
public:
    explicit BpDLService(const sp<IBinder> &impl) : BpInterface<IDLService>(impl) { }

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

    void removeDownload(const std::string &uniqueID) override
    {
        callWithText(REMOVE_DOWNLOAD, uniqueID);
    }
    void pauseDownload(const std::string &uniqueID) override
    {
        callWithText(PAUSE_DOWNLOAD, uniqueID);
    }
    void resumeDownload(const std::string &uniqueID) override
    {
        callWithText(RESUME_DOWNLOAD, uniqueID);
    }

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
        const std::string &uniqueID, const std::string &name, std::string *uniqueIDOut) override
    {
        Parcel data = createRequest(clientID, url, uniqueID, name);
        return answeredCreate(REQUEST_DOWNLOAD, data, uniqueIDOut);
    }

    int32_t requestDownloadChecked(const std::string &clientID, const std::string &url,
        const std::string &uniqueID, const std::string &name, int64_t expectedSize,
        const std::string &sha256Hex, std::string *uniqueIDOut) override
    {
        Parcel data = createRequest(clientID, url, uniqueID, name);
        data.writeInt64(expectedSize);
        writeText(&data, sha256Hex);
        return answeredCreate(REQUEST_DOWNLOAD_CHECKED, data, uniqueIDOut);
    }

    int32_t requestDownloadOrdered(const std::string &clientID, const std::string &url,
        const std::string &uniqueID, const std::string &name, int64_t expectedSize,
        const std::string &sha256Hex, int64_t rateLimit, int32_t priority,
        std::string *uniqueIDOut) override
    {
        Parcel data = createRequest(clientID, url, uniqueID, name);
        data.writeInt64(expectedSize);
        writeText(&data, sha256Hex);
        data.writeInt64(rateLimit);
        data.writeInt32(priority);
        return answeredCreate(REQUEST_DOWNLOAD_ORDERED, data, uniqueIDOut);
    }

    static Parcel createRequest(const std::string &clientID, const std::string &url,
        const std::string &uniqueID, const std::string &name)
    {
        Parcel data = request();
        for (const std::string *text : { &clientID, &url, &uniqueID, &name })
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

    int32_t requestPause(const std::string &uniqueID) override
    {
        return control(REQUEST_PAUSE, uniqueID);
    }
    int32_t requestResume(const std::string &uniqueID) override
    {
        return control(REQUEST_RESUME, uniqueID);
    }
    int32_t requestRemove(const std::string &uniqueID) override
    {
        return control(REQUEST_REMOVE, uniqueID);
    }

    int32_t setRateLimit(const std::string &uniqueID, int64_t bytesPerSecond) override
    {
        Parcel data = request();
        writeText(&data, uniqueID);
        data.writeInt64(bytesPerSecond);
        return answered(SET_RATE_LIMIT, data);
    }
    int32_t setPriority(const std::string &uniqueID, int32_t priority) override
    {
        Parcel data = request();
        writeText(&data, uniqueID);
        data.writeInt32(priority);
        return answered(SET_PRIORITY, data);
    }
    int32_t setOverallRateLimit(int64_t bytesPerSecond) override
    {
        Parcel data = request();
        data.writeInt64(bytesPerSecond);
        return answered(SET_OVERALL_RATE_LIMIT, data);
    }
    int32_t setBackgroundMode(bool on) override
    {
        Parcel data = request();
        data.writeInt32(on ? 1 : 0);
        return answered(SET_BACKGROUND_MODE, data);
    }

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
        return answered(code, data);
    }
    int32_t answered(uint32_t code, const Parcel &data)
    {
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
        const int count
            = listDownloadsPage(clientID, list->empty() ? "" : list->back().uniqueID, &page);
        if (count < 0)
            return count;
        if (count == 0)
            return int(list->size());
        list->insert(list->end(), std::make_move_iterator(page.begin()),
            std::make_move_iterator(page.end()));
    }
}

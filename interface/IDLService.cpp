#include "IDLService.h"

#include "ParcelText.h"

#include <binder/Parcel.h>

#include <initializer_list>
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

namespace {
using Fields = std::initializer_list<std::pair<std::string *, size_t>>;
constexpr size_t kId = IDLService::kMaxIdBytes;

// Reads the texts in order, each against its limit, before the call does anything.
status_t readTexts(const Parcel &data, Fields fields)
{
    for (const auto &[text, max] : fields)
        if (status_t err = readText(data, text, max); err != NO_ERROR)
            return err == IDLService::TEXT_TOO_LONG ? err : status_t(BAD_VALUE);
    return NO_ERROR;
}

// One handler per transaction code: reads the arguments, calls the service, writes the answer.
using Handler = status_t (*)(IDLService &, uint32_t code, const Parcel &, Parcel *);

status_t onCreate(IDLService &s, uint32_t, const Parcel &data, Parcel *)
{
    std::string client, url, id, name;
    status_t err = readTexts(data,
        { { &client, kId }, { &url, IDLService::kMaxUrlBytes }, { &id, kId },
            { &name, IDLService::kMaxNameBytes } });
    if (err == NO_ERROR)
        s.createDownload(client, url, id, name);
    return err;
}

status_t onEventClient(IDLService &s, uint32_t code, const Parcel &data, Parcel *)
{
    sp<IDLClient> client = interface_cast<IDLClient>(data.readStrongBinder());
    if (client == nullptr)
        return BAD_VALUE;
    if (code == IDLService::ADD_CLIENT)
        s.addClient(client);
    else
        s.removeClient(client);
    return NO_ERROR;
}

status_t onOneWayControl(IDLService &s, uint32_t code, const Parcel &data, Parcel *)
{
    std::string id;
    if (status_t err = readTexts(data, { { &id, kId } }))
        return err;
    if (code == IDLService::REMOVE_DOWNLOAD)
        s.removeDownload(id);
    else if (code == IDLService::PAUSE_DOWNLOAD)
        s.pauseDownload(id);
    else
        s.resumeDownload(id);
    return NO_ERROR;
}

status_t onList(IDLService &s, uint32_t, const Parcel &data, Parcel *reply)
{
    std::string client;
    if (status_t err = readTexts(data, { { &client, kId } }))
        return err;
    std::vector<IDownload *> list;
    const int result = s.getDownloadList(client, list);
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

status_t onGet(IDLService &s, uint32_t, const Parcel &data, Parcel *reply)
{
    std::string id;
    if (status_t err = readTexts(data, { { &id, kId } }))
        return err;
    IDownload download;
    const int result = s.getDownload(id, &download);
    reply->writeInt32(result);
    if (result == 1)
        download.writeToParcel(reply);
    return NO_ERROR;
}

status_t onSpace(IDLService &s, uint32_t, const Parcel &data, Parcel *reply)
{
    std::string client;
    int64_t size = 0;
    if (status_t err = readTexts(data, { { &client, kId } }))
        return err;
    // A negative size is no question: it would always "fit".
    if (data.readInt64(&size) || size < 0)
        return BAD_VALUE;
    reply->writeInt32(s.checkSpaceAvailability(client, size));
    return NO_ERROR;
}

status_t onSetPath(IDLService &s, uint32_t, const Parcel &data, Parcel *reply)
{
    std::string client, path;
    if (status_t err = readTexts(data, { { &client, kId }, { &path, IDLService::kMaxPathBytes } }))
        return err;
    // Clients that expect an empty reply never read this status.
    reply->writeInt32(s.setDownloadPath(client, path));
    return NO_ERROR;
}

status_t onRequest(IDLService &s, uint32_t code, const Parcel &data, Parcel *reply)
{
    std::string client, url, id, name, digest, created;
    status_t err = readTexts(data,
        { { &client, kId }, { &url, IDLService::kMaxUrlBytes }, { &id, kId },
            { &name, IDLService::kMaxNameBytes } });
    if (err)
        return err;
    int64_t size = -1, rate = 0;
    int32_t priority = 0;
    if (code != IDLService::REQUEST_DOWNLOAD
        && ((err = data.readInt64(&size)) || (err = readTexts(data, { { &digest, kId } }))))
        return err == IDLService::TEXT_TOO_LONG ? err : status_t(BAD_VALUE);
    if (code == IDLService::REQUEST_DOWNLOAD_ORDERED
        && (data.readInt64(&rate) || data.readInt32(&priority)))
        return BAD_VALUE;
    const int32_t status = code == IDLService::REQUEST_DOWNLOAD
        ? s.requestDownload(client, url, id, name, &created)
        : code == IDLService::REQUEST_DOWNLOAD_CHECKED
        ? s.requestDownloadChecked(client, url, id, name, size, digest, &created)
        : s.requestDownloadOrdered(client, url, id, name, size, digest, rate, priority, &created);
    if (status == IDLService::TEXT_TOO_LONG)
        return status;
    reply->writeInt32(status);
    writeText(reply, created);
    return NO_ERROR;
}

status_t onPage(IDLService &s, uint32_t, const Parcel &data, Parcel *reply)
{
    std::string client, after;
    if (status_t err = readTexts(data, { { &client, kId }, { &after, kId } }))
        return err;
    std::vector<IDownload> page;
    const int result = s.listDownloadsPage(client, after, &page);
    if (result < 0)
        return result;
    return IDownload::writeList(reply, page);
}

status_t onAnsweredControl(IDLService &s, uint32_t code, const Parcel &data, Parcel *reply)
{
    std::string id;
    if (status_t err = readTexts(data, { { &id, kId } }))
        return err;
    reply->writeInt32(code == IDLService::REQUEST_PAUSE ? s.requestPause(id)
            : code == IDLService::REQUEST_RESUME        ? s.requestResume(id)
                                                        : s.requestRemove(id));
    return NO_ERROR;
}

// A download's limit or priority, the overall limit or the background mode: one number each.
status_t onRates(IDLService &s, uint32_t code, const Parcel &data, Parcel *reply)
{
    std::string id;
    int64_t rate = 0;
    int32_t number = 0;
    const bool named = code == IDLService::SET_RATE_LIMIT || code == IDLService::SET_PRIORITY;
    if (status_t err = named ? readTexts(data, { { &id, kId } }) : NO_ERROR)
        return err;
    const bool wide
        = code == IDLService::SET_RATE_LIMIT || code == IDLService::SET_OVERALL_RATE_LIMIT;
    if (wide ? data.readInt64(&rate) : data.readInt32(&number))
        return BAD_VALUE;
    reply->writeInt32(code == IDLService::SET_RATE_LIMIT ? s.setRateLimit(id, rate)
            : code == IDLService::SET_PRIORITY           ? s.setPriority(id, number)
            : code == IDLService::SET_OVERALL_RATE_LIMIT ? s.setOverallRateLimit(rate)
                                                         : s.setBackgroundMode(number != 0));
    return NO_ERROR;
}

// Indexed by code - CREATE_DOWNLOAD, in the order of the codes.
constexpr Handler kHandlers[] = { onCreate, onEventClient, onEventClient, onOneWayControl,
    onOneWayControl, onOneWayControl, onList, onGet, onSpace, onSetPath, onRequest, onPage,
    onAnsweredControl, onAnsweredControl, onAnsweredControl, onRequest, onRates, onRates, onRates,
    onRates, onRequest };
static_assert(
    std::size(kHandlers) == IDLService::REQUEST_DOWNLOAD_ORDERED - IDLService::CREATE_DOWNLOAD + 1);
} // namespace

status_t BnDLService::onTransact(uint32_t code, const Parcel &data, Parcel *reply, uint32_t flags)
{
    if (code < CREATE_DOWNLOAD || code > REQUEST_DOWNLOAD_ORDERED)
        return BBinder::onTransact(code, data, reply, flags);
    if (!data.enforceInterface(IDLService::descriptor))
        return PERMISSION_DENIED;
    return kHandlers[code - CREATE_DOWNLOAD](*this, code, data, reply);
}

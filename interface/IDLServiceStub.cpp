#include "IDLService.h"

#include "ParcelText.h"

#include <binder/Parcel.h>

#include <initializer_list>
#include <utility>

// The service's side of the interface: each transaction's arguments read against their limits,
// then handed to the implementation.
using namespace android;
using dlparcel::readText;
using dlparcel::writeText;

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

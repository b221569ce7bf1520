#include "Wire.h"

#include <cstring>

namespace android::wire {

namespace {

struct Writer {
    std::vector<uint8_t> out;
    template <typename T> void put(T v)
    {
        const size_t at = out.size();
        out.resize(at + sizeof v);
        std::memcpy(out.data() + at, &v, sizeof v);
    }
};

struct Reader {
    const uint8_t *p;
    size_t left;
    template <typename T> bool get(T *v)
    {
        if (left < sizeof *v)
            return false;
        std::memcpy(v, p, sizeof *v);
        p += sizeof *v;
        left -= sizeof *v;
        return true;
    }
};

} // namespace

std::vector<uint8_t> encode(const Frame &frame)
{
    Writer w;
    w.put<uint32_t>(frame.command);
    w.put<uint32_t>(0);
    w.put(frame.txnId);
    if (frame.command == Transact) {
        w.put(frame.parentTxn);
        w.put(frame.target);
        w.put(frame.code);
        w.put(frame.flags);
    } else {
        w.put(frame.status);
    }
    if (frame.data.size() > kMaxBody || frame.objects.size() > kMaxObjects)
        return {};
    w.put<uint32_t>(static_cast<uint32_t>(frame.data.size()));
    w.out.insert(w.out.end(), frame.data.begin(), frame.data.end());
    w.put<uint32_t>(static_cast<uint32_t>(frame.objects.size()));
    for (const Object &o : frame.objects) {
        w.put(o.kind);
        w.put(o.id);
    }
    const size_t body = w.out.size() - kHeaderSize;
    if (body > kMaxBody)
        return {};
    const uint32_t size32 = static_cast<uint32_t>(body);
    std::memcpy(w.out.data() + 4, &size32, 4);
    return std::move(w.out);
}

bool decodeHeader(const uint8_t *header, uint32_t *command, uint32_t *bodySize)
{
    std::memcpy(command, header, 4);
    std::memcpy(bodySize, header + 4, 4);
    return (*command == Transact || *command == Reply) && *bodySize <= kMaxBody;
}

bool decodeBody(uint32_t command, const uint8_t *body, size_t size, Frame *out)
{
    if (size > kMaxBody)
        return false;
    Reader r { body, size };
    out->command = command;
    if (!r.get(&out->txnId))
        return false;
    if (command == Transact) {
        if (!r.get(&out->parentTxn) || !r.get(&out->target) || !r.get(&out->code)
            || !r.get(&out->flags))
            return false;
    } else if (command == Reply) {
        if (!r.get(&out->status))
            return false;
    } else {
        return false;
    }
    uint32_t dataSize = 0;
    if (!r.get(&dataSize) || dataSize > r.left)
        return false;
    out->data.assign(r.p, r.p + dataSize);
    r.p += dataSize;
    r.left -= dataSize;
    uint32_t count = 0;
    constexpr size_t kObjectSize = sizeof(uint32_t) + sizeof(uint64_t);
    if (!r.get(&count) || count > kMaxObjects || size_t(count) * kObjectSize != r.left)
        return false;
    out->objects.resize(count);
    for (Object &o : out->objects) {
        r.get(&o.kind);
        r.get(&o.id);
        if (o.kind != SenderObject && o.kind != ReceiverObject)
            return false;
    }
    return true;
}

} // namespace android::wire

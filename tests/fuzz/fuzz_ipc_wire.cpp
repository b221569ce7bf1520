#include "Wire.h"

#include <binder/Parcel.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

using namespace android;

// Reads arbitrary bytes as a parcel, in an order the bytes choose, then as a frame: whatever
// decodes must encode to the very same bytes.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Parcel p;
    p.write(data, size);
    p.setDataPosition(0);
    std::string text;
    char buf[64];
    const std::function<void()> reads[] = { [&] { p.readInt64(); }, [&] { p.readCString(); },
        [&] { p.readString8(); }, [&] { p.readString16(); }, [&] { p.readStrongBinder(); },
        [&] { p.enforceInterface(String16("x")); }, [&] { p.readUtf8FromUtf16(&text); },
        [&] { p.read(buf, sizeof buf); } };
    for (size_t i = 0; i < size && i < 64 && p.dataAvail() > 0; ++i)
        reads[data[i] % 8]();

    uint32_t command = 0;
    uint32_t body = 0;
    wire::Frame frame;
    if (size < wire::kHeaderSize || !wire::decodeHeader(data, &command, &body)
        || body != size - wire::kHeaderSize
        || !wire::decodeBody(command, data + wire::kHeaderSize, body, &frame))
        return 0;
    const std::vector<uint8_t> again = wire::encode(frame);
    if (again.size() != size || std::memcmp(again.data(), data, size) != 0)
        std::abort();
    return 0;
}

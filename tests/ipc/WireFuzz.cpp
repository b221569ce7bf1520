#include "WireFuzz.h"
#include "Wire.h"

#include <binder/Parcel.h>

#include <cstring>

using namespace android;

namespace {

// Reads the parcel in an order chosen by the input itself.
void readParcel(const Parcel &p, const uint8_t *script, size_t scriptSize)
{
    for (size_t i = 0; i < scriptSize && p.dataAvail() > 0; ++i) {
        switch (script[i] % 10) {
        case 0:
            p.readInt32();
            break;
        case 1:
            p.readInt64();
            break;
        case 2:
            p.readCString();
            break;
        case 3:
            p.readString8();
            break;
        case 4:
            p.readString16();
            break;
        case 5:
            p.readStrongBinder();
            break;
        case 6:
            p.enforceInterface(String16("com.velta.x"));
            break;
        case 7: {
            std::string s;
            p.readUtf8FromUtf16(&s);
            break;
        }
        case 8: {
            char buf[64];
            p.read(buf, script[i] % sizeof buf);
            break;
        }
        case 9:
            p.setDataPosition(p.dataPosition() + (script[i] >> 4));
            break;
        }
    }
}

} // namespace

bool decodeArbitraryInput(const uint8_t *data, size_t size)
{
    Parcel parcel;
    parcel.write(data, size);
    readParcel(parcel, data, size < 64 ? size : 64);

    if (size < wire::kHeaderSize)
        return true;
    uint32_t command = 0;
    uint32_t bodySize = 0;
    if (!wire::decodeHeader(data, &command, &bodySize))
        return true;
    if (bodySize > size - wire::kHeaderSize)
        return true; // a reader would still be waiting for the rest
    wire::Frame frame;
    if (!wire::decodeBody(command, data + wire::kHeaderSize, bodySize, &frame))
        return true;
    // The encoding is canonical: whatever decodes must encode to the very same bytes.
    const std::vector<uint8_t> again = wire::encode(frame);
    return again.size() == wire::kHeaderSize + bodySize
        && std::memcmp(again.data(), data, again.size()) == 0;
}

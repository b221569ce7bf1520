#pragma once

#include <binder/Parcel.h>

#include <cerrno>
#include <cstdint>
#include <string>

// Text on the wire: an int32 byte count, then the bytes (zero bytes included). The interface
// carries UTF-8; these helpers pass the bytes through unchanged.
namespace dlparcel {

inline android::status_t writeText(android::Parcel *parcel, const std::string &text)
{
    android::status_t err = parcel->writeInt32(int32_t(text.size()));
    if (err == android::NO_ERROR && !text.empty())
        err = parcel->write(text.data(), text.size());
    return err;
}

// -ENAMETOOLONG (IDLService::TEXT_TOO_LONG) when the text is longer than max bytes.
inline android::status_t readText(
    const android::Parcel &parcel, std::string *text, size_t max = SIZE_MAX)
{
    int32_t size = 0;
    android::status_t err = parcel.readInt32(&size);
    if (err != android::NO_ERROR)
        return err;
    // A length beyond what the parcel holds is a lie; refuse before allocating.
    if (size < 0 || size_t(size) > parcel.dataAvail())
        return android::BAD_VALUE;
    if (size_t(size) > max)
        return -ENAMETOOLONG;
    text->assign(size_t(size), '\0');
    return size == 0 ? android::NO_ERROR : parcel.read(&(*text)[0], size_t(size));
}

} // namespace dlparcel

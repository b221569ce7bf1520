#include <binder/IBinder.h>
#include <binder/Parcel.h>

#include <cstring>

namespace android {

namespace {
constexpr size_t pad4(size_t n)
{
    return (n + 3) & ~size_t(3);
}
// Keeps every length computation far from overflow.
constexpr size_t kMaxItem = 64u << 20;
} // namespace

void Parcel::freeData()
{
    mData.clear();
    mObjects.clear();
    mPos = 0;
}

void *Parcel::writeInplace(size_t len)
{
    if (len > kMaxItem)
        return nullptr;
    const size_t padded = pad4(len);
    if (mPos > mData.size())
        mPos = mData.size();
    if (mPos + padded > mData.size())
        mData.resize(mPos + padded);
    uint8_t *out = mData.data() + mPos;
    if (padded > len)
        std::memset(out + len, 0, padded - len);
    mPos += padded;
    return out;
}

const void *Parcel::readInplace(size_t len) const
{
    if (len > kMaxItem || mPos > mData.size() || pad4(len) > mData.size() - mPos)
        return nullptr;
    const void *in = mData.data() + mPos;
    mPos += pad4(len);
    return in;
}

status_t Parcel::write(const void *data, size_t len)
{
    if (len == 0)
        return NO_ERROR;
    void *out = writeInplace(len);
    if (out == nullptr)
        return BAD_VALUE;
    if (len > 0)
        std::memcpy(out, data, len);
    return NO_ERROR;
}

status_t Parcel::read(void *out, size_t len) const
{
    if (len == 0)
        return NO_ERROR;
    const void *in = readInplace(len);
    if (in == nullptr) {
        if (len <= kMaxItem)
            std::memset(out, 0, len);
        return NOT_ENOUGH_DATA;
    }
    std::memcpy(out, in, len);
    return NO_ERROR;
}

status_t Parcel::writeInt32(int32_t v)
{
    return write(&v, sizeof v);
}
status_t Parcel::writeUint32(uint32_t v)
{
    return write(&v, sizeof v);
}
status_t Parcel::writeInt64(int64_t v)
{
    return write(&v, sizeof v);
}
status_t Parcel::writeUint64(uint64_t v)
{
    return write(&v, sizeof v);
}
status_t Parcel::readInt32(int32_t *out) const
{
    return read(out, sizeof *out);
}
status_t Parcel::readUint32(uint32_t *out) const
{
    return read(out, sizeof *out);
}
status_t Parcel::readInt64(int64_t *out) const
{
    return read(out, sizeof *out);
}
status_t Parcel::readUint64(uint64_t *out) const
{
    return read(out, sizeof *out);
}

status_t Parcel::readBool(bool *out) const
{
    int32_t v = 0;
    const status_t err = readInt32(&v);
    *out = v != 0;
    return err;
}

int32_t Parcel::readInt32() const
{
    int32_t v = 0;
    readInt32(&v);
    return v;
}

uint32_t Parcel::readUint32() const
{
    uint32_t v = 0;
    readUint32(&v);
    return v;
}

int64_t Parcel::readInt64() const
{
    int64_t v = 0;
    readInt64(&v);
    return v;
}

uint64_t Parcel::readUint64() const
{
    uint64_t v = 0;
    readUint64(&v);
    return v;
}

bool Parcel::readBool() const
{
    return readInt32() != 0;
}

status_t Parcel::writeCString(const char *str)
{
    return write(str, std::strlen(str) + 1);
}

const char *Parcel::readCString() const
{
    if (mPos >= mData.size())
        return nullptr;
    const char *start = reinterpret_cast<const char *>(mData.data() + mPos);
    const void *end = std::memchr(start, 0, mData.size() - mPos);
    if (end == nullptr)
        return nullptr;
    return static_cast<const char *>(readInplace(static_cast<const char *>(end) - start + 1));
}

status_t Parcel::writeString8(const char *str, size_t len)
{
    if (len > kMaxItem)
        return BAD_VALUE;
    status_t err = writeInt32(static_cast<int32_t>(len));
    char *out = err == NO_ERROR ? static_cast<char *>(writeInplace(len + 1)) : nullptr;
    if (out == nullptr)
        return BAD_VALUE;
    std::memcpy(out, str, len);
    out[len] = 0;
    return NO_ERROR;
}

status_t Parcel::writeString8(const String8 &str)
{
    return writeString8(str.string(), str.size());
}

status_t Parcel::readString8(String8 *out) const
{
    const size_t start = mPos;
    int32_t len = 0;
    const char *chars = nullptr;
    if (readInt32(&len) == NO_ERROR && len >= 0)
        chars = static_cast<const char *>(readInplace(size_t(len) + 1));
    if (chars == nullptr || chars[len] != 0) {
        mPos = start;
        *out = String8();
        return BAD_VALUE;
    }
    *out = String8(chars, size_t(len));
    return NO_ERROR;
}

String8 Parcel::readString8() const
{
    String8 s;
    readString8(&s);
    return s;
}

status_t Parcel::writeString16(const char16_t *str, size_t len)
{
    if (str == nullptr)
        return writeInt32(-1);
    if (len > kMaxItem / 2)
        return BAD_VALUE;
    writeInt32(static_cast<int32_t>(len));
    auto *out = static_cast<char16_t *>(writeInplace((len + 1) * sizeof(char16_t)));
    if (out == nullptr)
        return BAD_VALUE;
    std::memcpy(out, str, len * sizeof(char16_t));
    out[len] = 0;
    return NO_ERROR;
}

status_t Parcel::writeString16(const String16 &str)
{
    return writeString16(str.string(), str.size());
}

status_t Parcel::readString16Chars(const char16_t **chars, int32_t *len) const
{
    const size_t start = mPos;
    *chars = nullptr;
    if (readInt32(len) != NO_ERROR)
        return NOT_ENOUGH_DATA;
    if (*len == -1)
        return UNEXPECTED_NULL;
    if (*len < -1) {
        mPos = start;
        return BAD_VALUE;
    }
    const void *in = *len >= 0 ? readInplace((size_t(*len) + 1) * sizeof(char16_t)) : nullptr;
    if (in == nullptr || static_cast<const char16_t *>(in)[*len] != 0) {
        mPos = start;
        return BAD_VALUE;
    }
    *chars = static_cast<const char16_t *>(in);
    return NO_ERROR;
}

status_t Parcel::readString16(String16 *out) const
{
    const char16_t *chars = nullptr;
    int32_t len = 0;
    const status_t err = readString16Chars(&chars, &len);
    *out = chars ? String16(chars, size_t(len)) : String16();
    return err;
}

String16 Parcel::readString16() const
{
    String16 s;
    readString16(&s);
    return s;
}

status_t Parcel::writeUtf8AsUtf16(const std::string &str)
{
    if (str.size() > kMaxItem / 2)
        return BAD_VALUE;
    return writeString16(String16(str.data(), str.size()));
}

status_t Parcel::readUtf8FromUtf16(std::string *out) const
{
    String16 s;
    const status_t err = readString16(&s);
    out->clear();
    if (err == NO_ERROR) {
        const String8 utf8(s);
        out->assign(utf8.string(), utf8.size());
    }
    return err;
}

status_t Parcel::writeStrongBinder(const sp<IBinder> &binder)
{
    if (binder == nullptr)
        return writeInt32(0);
    writeInt32(1);
    mObjects.push_back(binder);
    return writeInt32(static_cast<int32_t>(mObjects.size() - 1));
}

status_t Parcel::readStrongBinder(sp<IBinder> *out) const
{
    out->clear();
    const size_t start = mPos;
    int32_t kind = 0;
    if (readInt32(&kind) != NO_ERROR)
        return NOT_ENOUGH_DATA;
    if (kind == 0)
        return UNEXPECTED_NULL;
    int32_t index = -1;
    if (kind != 1 || readInt32(&index) != NO_ERROR || index < 0
        || size_t(index) >= mObjects.size()) {
        mPos = start;
        return BAD_TYPE;
    }
    *out = mObjects[size_t(index)];
    return NO_ERROR;
}

sp<IBinder> Parcel::readStrongBinder() const
{
    sp<IBinder> b;
    readStrongBinder(&b);
    return b;
}

status_t Parcel::writeInterfaceToken(const String16 &interface)
{
    return writeString16(interface);
}

bool Parcel::enforceInterface(const String16 &interface, void *) const
{
    const char16_t *chars = nullptr;
    int32_t len = 0;
    if (readString16Chars(&chars, &len) != NO_ERROR)
        return false;
    return size_t(len) == interface.size()
        && std::memcmp(chars, interface.string(), size_t(len) * sizeof(char16_t)) == 0;
}

bool Parcel::checkInterface(IBinder *binder) const
{
    return binder != nullptr && enforceInterface(binder->getInterfaceDescriptor());
}

} // namespace android

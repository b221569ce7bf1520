#pragma once

#include <binder/IBinder.h>
#include <utils/Errors.h>
#include <utils/RefBase.h>
#include <utils/String16.h>
#include <utils/String8.h>

#include <cstdint>
#include <string>
#include <vector>

namespace android {

class Connection;

// A flat message buffer. Reads never go past the end: they fail with NOT_ENOUGH_DATA and yield
// zero. Binder objects live in a side table; the data holds only their index.
class Parcel {
public:
    Parcel() = default;
    Parcel(Parcel &&) = default;
    Parcel &operator=(Parcel &&) = default;
    Parcel(const Parcel &) = delete;
    Parcel &operator=(const Parcel &) = delete;

    const uint8_t *data() const { return mData.data(); }
    size_t dataSize() const { return mData.size(); }
    size_t dataAvail() const { return mPos < mData.size() ? mData.size() - mPos : 0; }
    size_t dataPosition() const { return mPos; }
    void setDataPosition(size_t pos) const { mPos = pos; }
    void freeData();
    size_t objectCount() const { return mObjects.size(); }

    status_t write(const void *data, size_t len);
    status_t writeInt32(int32_t v);
    status_t writeUint32(uint32_t v);
    status_t writeInt64(int64_t v);
    status_t writeUint64(uint64_t v);
    status_t writeBool(bool v) { return writeInt32(v ? 1 : 0); }
    status_t writeCString(const char *str);
    status_t writeString8(const String8 &str);
    status_t writeString8(const char *str, size_t len);
    status_t writeString16(const String16 &str);
    status_t writeString16(const char16_t *str, size_t len);
    status_t writeUtf8AsUtf16(const std::string &str);
    status_t writeStrongBinder(const sp<IBinder> &binder);
    status_t writeInterfaceToken(const String16 &interface);
    status_t writeNoException() { return writeInt32(0); }

    status_t read(void *out, size_t len) const;
    status_t readInt32(int32_t *out) const;
    status_t readUint32(uint32_t *out) const;
    status_t readInt64(int64_t *out) const;
    status_t readUint64(uint64_t *out) const;
    status_t readBool(bool *out) const;
    int32_t readInt32() const;
    uint32_t readUint32() const;
    int64_t readInt64() const;
    uint64_t readUint64() const;
    bool readBool() const;
    // Points into the parcel; null when no terminated string fits in the remaining data.
    const char *readCString() const;
    status_t readString8(String8 *out) const;
    String8 readString8() const;
    status_t readString16(String16 *out) const;
    String16 readString16() const;
    status_t readUtf8FromUtf16(std::string *out) const;
    status_t readStrongBinder(sp<IBinder> *out) const;
    sp<IBinder> readStrongBinder() const;
    int32_t readExceptionCode() const { return readInt32(); }

    bool enforceInterface(const String16 &interface, void *unused = nullptr) const;
    bool checkInterface(IBinder *binder) const;

private:
    friend class ObjectTable; // moves data and objects to and from wire frames
    const void *readInplace(size_t len) const;
    void *writeInplace(size_t len);
    status_t readString16Chars(const char16_t **chars, int32_t *len) const;

    std::vector<uint8_t> mData;
    std::vector<sp<IBinder>> mObjects;
    mutable size_t mPos = 0;
};

} // namespace android

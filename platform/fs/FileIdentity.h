#pragma once

#include <QtGlobal>

namespace dlm {

// The file a download created, by device and inode; inode 0 while it has none. Every stored
// record holds one, so it takes 16 bytes: device numbers use far fewer than 63 bits, and one
// that does not fit (a damaged row) is no identity at all, which matches no file.
struct FileIdentity {
    FileIdentity() : device(0), unrecorded(false), inode(0) { }
    FileIdentity(quint64 device, quint64 inode, bool unrecorded = false)
        : device(device), unrecorded(unrecorded), inode(inode)
    {
        if (device >> 63) {
            this->device = 0;
            this->unrecorded = false;
            this->inode = 0;
        }
    }

    quint64 device : 63;
    // Stored before identities were kept: the owner's own regular file with a single name at
    // the download's path is taken as its file, and recorded from then on.
    bool unrecorded : 1;
    quint64 inode;

    bool operator==(const FileIdentity &o) const
    {
        return device == o.device && inode == o.inode && unrecorded == o.unrecorded;
    }
    bool operator!=(const FileIdentity &o) const { return !(*this == o); }
};
static_assert(sizeof(FileIdentity) == 16);

} // namespace dlm

#pragma once

#include <QtGlobal>

namespace dlm {

// The file a download created, by device and inode; inode 0 while it has none.
struct FileIdentity {
    quint64 device = 0;
    quint64 inode = 0;
    // Stored before identities were kept: the owner's own regular file with a single name at
    // the download's path is taken as its file, and recorded from then on.
    bool unrecorded = false;
    bool operator==(const FileIdentity &o) const
    {
        return device == o.device && inode == o.inode && unrecorded == o.unrecorded;
    }
    bool operator!=(const FileIdentity &o) const { return !(*this == o); }
};

} // namespace dlm

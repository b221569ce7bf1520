#pragma once

#include <sys/types.h>

#include <vector>

namespace dlm {

// For its lifetime, the calling thread acts on files as one user: its file-system uid, its
// primary group and its supplementary groups (from the user database; a uid without an entry gets
// only the overflow group). The kernel then judges every open, create, unlink and access check as
// it would for that user, and new files belong to the user. Other threads keep their identity.
// Root and the service's own uid need no switch.
class FsIdentity {
public:
    explicit FsIdentity(uid_t uid);
    ~FsIdentity();
    FsIdentity(const FsIdentity &) = delete;
    FsIdentity &operator=(const FsIdentity &) = delete;

    // False when the switch was refused (errno says why): nothing may be done in the user's name.
    bool active() const { return ok; }
    // The file-system uid in force while this object lives.
    uid_t uid() const { return effective; }

private:
    void restore();

    bool ok = true;
    bool switched = false;
    uid_t effective;
    uid_t previousUid = 0;
    gid_t previousGid = 0;
    std::vector<gid_t> previousGroups;
};

} // namespace dlm

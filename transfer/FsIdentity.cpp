#include "FsIdentity.h"

#include <cerrno>
#include <grp.h>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace dlm {

namespace {
constexpr gid_t kOverflowGroup = 65534;

// The user's primary group and every group the group database gives it.
std::vector<gid_t> groupsOf(uid_t uid, gid_t *primary)
{
    long size = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> buffer(size > 0 ? size_t(size) : 16384);
    passwd entry {};
    passwd *found = nullptr;
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) != 0 || !found) {
        *primary = kOverflowGroup;
        return { kOverflowGroup };
    }
    *primary = found->pw_gid;
    std::vector<gid_t> groups(32);
    int count = int(groups.size());
    while (getgrouplist(found->pw_name, found->pw_gid, groups.data(), &count) < 0) {
        if (size_t(count) <= groups.size())
            count = int(groups.size()) * 2;
        groups.resize(size_t(count));
    }
    groups.resize(size_t(count));
    return groups;
}

// The raw call: glibc's setgroups() changes the groups of every thread of the process.
int setThreadGroups(const std::vector<gid_t> &groups)
{
#ifdef SYS_setgroups32
    return int(syscall(SYS_setgroups32, groups.size(), groups.data()));
#else
    return int(syscall(SYS_setgroups, groups.size(), groups.data()));
#endif
}
} // namespace

FsIdentity::FsIdentity(uid_t uid) : effective(uid)
{
    if (uid == 0 || uid == geteuid()) {
        effective = geteuid();
        return;
    }
    gid_t gid = kOverflowGroup;
    const std::vector<gid_t> groups = groupsOf(uid, &gid);
    const int count = getgroups(0, nullptr);
    previousGroups.resize(count > 0 ? size_t(count) : 0);
    if (count > 0 && getgroups(count, previousGroups.data()) != count) {
        ok = false;
        return;
    }
    previousGid = gid_t(setfsgid(gid_t(-1)));
    previousUid = uid_t(setfsuid(uid_t(-1)));
    switched = true;
    errno = 0;
    // Groups and group first: once the uid is not root, changing them is no longer allowed.
    // setfsgid and setfsuid answer the previous value; asking again with -1 tells success.
    ok = setThreadGroups(groups) == 0;
    if (ok) {
        setfsgid(gid);
        ok = gid_t(setfsgid(gid_t(-1))) == gid;
    }
    if (ok) {
        setfsuid(uid);
        ok = uid_t(setfsuid(uid_t(-1))) == uid;
    }
    if (!ok) {
        const int why = errno ? errno : EPERM;
        restore();
        errno = why;
    }
}

FsIdentity::~FsIdentity()
{
    const int saved = errno;
    restore();
    errno = saved;
}

void FsIdentity::restore()
{
    if (!switched)
        return;
    switched = false;
    // The uid first: back at root, the groups may be set again.
    setfsuid(previousUid);
    setfsgid(previousGid);
    setThreadGroups(previousGroups);
}

} // namespace dlm

#include "AccessPolicy.h"

#include "Download.h"

#include <algorithm>

namespace dlm {

bool AccessPolicy::mayTouch(uint callerUid, const Download *download)
{
    return callerUid == 0 || download->ownerUid == callerUid;
}

int AccessPolicy::capReached(uint ownerUid, const QList<Download *> &downloads) const
{
    if (ownerUid == 0)
        return -1;
    const auto owned = std::count_if(downloads.cbegin(), downloads.cend(),
        [ownerUid](const Download *d) { return d->ownerUid == ownerUid; });
    return owned >= maxPerUser ? int(owned) : -1;
}

} // namespace dlm

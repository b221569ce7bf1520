#pragma once

#include <QList>

namespace dlm {

class Download;

// Who may see and control which download, and how many downloads a user may have. Uid 0 (root,
// the console, the service's own user) may touch every download and has no cap; any other uid
// only the downloads it created, at most "max_downloads_per_user" at a time.
class AccessPolicy {
public:
    explicit AccessPolicy(int maxDownloadsPerUser) : maxPerUser(maxDownloadsPerUser) { }

    static bool mayTouch(uint callerUid, const Download *download);
    // How many downloads ownerUid has when that reaches its cap, else -1 (always for root).
    int capReached(uint ownerUid, const QList<Download *> &downloads) const;

private:
    int maxPerUser;
};

} // namespace dlm

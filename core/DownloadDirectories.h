#pragma once

#include <QHash>
#include <QPair>
#include <QSet>
#include <QString>

#include "Outcome.h"

namespace dlm {

// Where downloads go: one canonical directory per (owner uid, client id), and "DEFAULT_CLIENT_ID"
// of root as every uid's fallback. Also the file paths of the live downloads, so that a new
// download never shares one with another download or an existing file. Main thread only.
class DownloadDirectories {
public:
    // The values are those the IPC interface sends.
    enum class PathStatus {
        Set = 0,
        NotAbsolute = 1,
        NotADirectory = 2,
        NotPermitted = 3,
        NotWritable = 4
    };

    static const QString kDefaultClientID;

    // A directory the uid chose before (stored canonical; cleaned, never resolved again: a link
    // that appeared since is not followed, and the download's open refuses it).
    void restore(uint ownerUid, const QString &clientID, const QString &path);
    // Resolves path (absolute, a leading "~/" is the home directory) as ownerUid; on Set,
    // *stored is the canonical directory now in use. See DownloadManager::setDownloadPath.
    Outcome<PathStatus> choose(
        const QString &clientID, const QString &path, uint ownerUid, QString *stored);
    // Gives the client this directory unless it has one already.
    void ensure(const QString &clientID, const QString &path, uint ownerUid = 0);
    // The uid's directory for the client, else the default one.
    QString of(const QString &clientID, uint ownerUid = 0) const;
    // Whether filePath lies in the directory the owner chose for the client.
    bool isChosen(uint ownerUid, const QString &clientID, const QByteArray &filePath) const;

    // A free path for the URL's file in the client's directory, reserved at once.
    QString reserveFileName(const QString &clientID, const QString &url, uint ownerUid);
    // Paths are kept by the hash of their UTF-8 bytes, as records keep them.
    void reserve(QByteArrayView filePath) { reserved.insert(qHash(filePath)); }
    void release(QByteArrayView filePath) { reserved.remove(qHash(filePath)); }

private:
    using PathKey = QPair<uint, QString>; // owner uid, client id

    QHash<PathKey, QString> paths;
    QSet<PathKey> chosen; // set by the uid itself, not defaults
    // The paths' hashes (seeded per process): with many stored downloads, a second copy of every
    // path would cost more than the records. Two paths that share a hash share one reservation.
    QSet<size_t> reserved;
};

} // namespace dlm

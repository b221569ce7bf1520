#pragma once

#include <QString>

#include <string>

class IDownload;

namespace dlm {

class Download;
class DownloadManager;

// How a caller over IPC names and sees downloads. An identifier that a caller other than root
// gives is its own: stored as "UID:ID", so it never collides with root's or another user's, and
// shown to that caller without the prefix (root sees the stored form). Every text of a record is
// cut to the interface's limit with a marker, so one oversized stored row cannot break a reply.
// Manager-thread only, except cut().
namespace CallerView {

// The stored identifier for `given` (empty: the service makes one up).
QString storedId(const QString &given, uint caller);
// The download the caller names `id`: one it gave that identifier, else one it may touch whose
// stored identifier is `id`; null when none.
Download *find(DownloadManager *manager, const QString &id, uint caller);
// The identifier as the caller sees it (not cut).
QString shownId(const QString &storedId, uint caller);
void fillRecord(IDownload *record, const Download *download, uint caller);
// At most max bytes: a longer text keeps its start (whole characters) and ends in kCutMarker.
std::string cut(const std::string &text, size_t max);
constexpr char kCutMarker[] = "...(truncated)";

} // namespace CallerView

} // namespace dlm

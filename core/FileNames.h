#pragma once

#include <QByteArrayView>
#include <QString>

namespace dlm {

// Where a download's content goes on disk: the file name a URL gives, and its join to a
// directory. Pure text rules; nothing here looks at the disk.
namespace filenames {

// Longest file name most Linux file systems take, in bytes.
constexpr int kMaxNameBytes = 255;

// The last segment of the URL's decoded path (no query, no fragment) without control characters
// or '/'; "download" when that leaves nothing, ".", or "..".
QString fromUrl(const QString &url);

// name followed by suffix, in at most kMaxNameBytes bytes of UTF-8: a longer name loses the end
// of its stem, before its extension, never part of a character.
QString fit(const QString &name, const QString &suffix = QString());

// True for a name these rules can give: not empty, ".", or "..", no '/' nor control character,
// at most kMaxNameBytes bytes of UTF-8.
bool isPlainName(const QString &name);
// isPlainName decided on the bytes of a UTF-8 name when they are all ASCII (1 or 0); -1 when
// they are not, and only isPlainName can tell.
int isPlainAsciiName(QByteArrayView name);

// directory and name with exactly one '/' between them.
QString join(const QString &directory, const QString &name);

} // namespace filenames

} // namespace dlm

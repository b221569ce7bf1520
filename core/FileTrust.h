#pragma once

#include <QString>

namespace dlm {

// What the service reads its settings and its stored downloads from must be changeable by
// nobody but the service: a file or directory owned by a user other than root or the service's
// own, or writable by its group or by others, is not trusted (as OpenSSH's StrictModes).
namespace filetrust {

// Empty when path is trusted or does not exist; otherwise why it is not.
QString distrust(const QString &path);

} // namespace filetrust

} // namespace dlm

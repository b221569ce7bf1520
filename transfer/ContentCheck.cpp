#include "ContentCheck.h"

#include <QCryptographicHash>

#include <algorithm>

#include <cerrno>
#include <unistd.h>

namespace dlm {

namespace {
bool isLowerHexDigest(const QByteArray &text)
{
    return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    });
}
} // namespace

ContentCheck::ContentCheck(qint64 size, const QByteArray &sha256Hex)
    : size(size), sha256(sha256Hex.toLower())
{
}

ContentCheck::~ContentCheck() = default;
ContentCheck &ContentCheck::operator=(ContentCheck &&other) noexcept = default;

QString ContentCheck::refusal(qint64 size, const QString &sha256Hex)
{
    if (size < -1)
        return QStringLiteral("the expected size is negative");
    if (!sha256Hex.isEmpty() && !isLowerHexDigest(sha256Hex.toLatin1().toLower()))
        return QStringLiteral("the expected SHA-256 is not 64 hexadecimal digits (%1 characters)")
            .arg(sha256Hex.size());
    return QString();
}

qint64 ContentCheck::room(qint64 offset, qint64 n) const
{
    return size < 0 ? n : qBound<qint64>(0, size - offset, n);
}

QString ContentCheck::tooLong(qint64 announced) const
{
    if (size < 0 || announced <= size)
        return QString();
    return QStringLiteral("the body is longer than the expected %1 bytes").arg(size);
}

bool ContentCheck::add(int fd, qint64 offset, const char *data, qint64 n)
{
    if (sha256.isEmpty())
        return true;
    if (!catchUp(fd, offset))
        return false;
    hash->addData(QByteArrayView(data, n));
    hashed += n;
    return true;
}

bool ContentCheck::catchUp(int fd, qint64 offset)
{
    if (hash && hashed == offset)
        return true;
    if (!hash)
        hash = std::make_unique<QCryptographicHash>(QCryptographicHash::Sha256);
    hash->reset();
    hashed = 0;
    // Read once, where the bytes seen are not the file's (a restart, a failed write, a new start).
    QByteArray buffer(256 * 1024, Qt::Uninitialized);
    while (hashed < offset) {
        const ssize_t n = pread(
            fd, buffer.data(), size_t(qMin<qint64>(buffer.size(), offset - hashed)), hashed);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        hash->addData(QByteArrayView(buffer.constData(), n));
        hashed += n;
    }
    return true;
}

QString ContentCheck::mismatch(int fd, qint64 length)
{
    if (size >= 0 && length != size)
        return QStringLiteral("%1 bytes, expected %2").arg(length).arg(size);
    if (sha256.isEmpty())
        return QString();
    if (!catchUp(fd, length))
        return QStringLiteral("the file could not be read back: %1").arg(qt_error_string(errno));
    const QByteArray actual = hash->result().toHex();
    if (actual == sha256)
        return QString();
    return QStringLiteral("SHA-256 %1, expected %2")
        .arg(QString::fromLatin1(actual), QString::fromLatin1(sha256));
}

} // namespace dlm

#pragma once

#include <QByteArray>
#include <QCryptographicHash>
#include <QString>

#include <memory>

namespace dlm {

// What a download's content must be, as its creator said: its size and its SHA-256. The digest
// follows the bytes as they are written, so a finished file is never read again; when the
// bytes in the file are not the ones it has seen (a restart of the service, a failed write, a
// transfer that started over), the committed part is read once to catch up.
class ContentCheck {
public:
    ContentCheck() = default;
    ContentCheck(qint64 size, const QByteArray &sha256Hex);
    ~ContentCheck();
    ContentCheck &operator=(ContentCheck &&other) noexcept;

    // Why a caller's expectation cannot be used (a negative size, a digest that is not 64
    // hexadecimal digits); empty when it can. The caller's text is never repeated.
    static QString refusal(qint64 size, const QString &sha256Hex);

    qint64 expectedSize() const { return size; } // -1: not given
    const QByteArray &expectedSha256() const { return sha256; } // lowercase hex, empty: not given

    // How many of n bytes written at offset stay within the expected size.
    qint64 room(qint64 offset, qint64 n) const;
    // Why a body of `announced` bytes (or n bytes at offset) cannot be the expected content.
    QString tooLong(qint64 announced) const;
    // Feeds n bytes written at offset to the file whose descriptor is fd; false when the bytes
    // before offset could not be read back to catch up.
    bool add(int fd, qint64 offset, const char *data, qint64 n);
    // Empty when the file's first `length` bytes are the expected content, else why not.
    QString mismatch(int fd, qint64 length);

private:
    bool catchUp(int fd, qint64 offset);

    qint64 size = -1;
    QByteArray sha256;
    // Made only for a download that expects a digest; it has seen the file's first `hashed` bytes.
    std::unique_ptr<QCryptographicHash> hash;
    qint64 hashed = 0;
};

} // namespace dlm

#include "TransferFile.h"

#include "Download.h"

namespace dlm {

bool TransferFile::openAt(qint64 offset)
{
    // Unbuffered: a committed byte is in the file before it is counted and stored.
    if (!file.isOpen() && !file.openExisting(d.filePath(), d.ownerUid, &d.fileIdentity))
        return false;
    if (file.size() < offset)
        return false;
    return file.seek(offset);
}

void TransferFile::gatherUpTo(qint64 limit)
{
    gatherLimit = limit;
}

qint64 TransferFile::received() const
{
    return d.amountDownloaded + pending.size();
}

bool TransferFile::take(const char *data, qint64 n, bool writeNow)
{
    if (gatherLimit == 0)
        return commit(data, n);
    // No larger than what is left of a known size: a small file's gather then comes from the
    // heap's free chunks, not a fresh mapping per transfer.
    if (pending.capacity() == 0) {
        const qint64 left = d.totalSize > 0 ? d.totalSize - d.amountDownloaded : gatherLimit;
        pending.reserve(qBound(n, left, gatherLimit));
    }
    pending.append(data, n);
    return (pending.size() < gatherLimit && !writeNow) || writePending();
}

bool TransferFile::writePending()
{
    const bool written = pending.isEmpty() || commit(pending.constData(), pending.size());
    pending.resize(0); // keeps its capacity for the next pieces
    return written;
}

bool TransferFile::commit(const char *data, qint64 n)
{
    if (!save(data, n) || !d.editDetails().content.add(file.handle(), d.amountDownloaded, data, n))
        return false;
    d.amountDownloaded += n;
    return true;
}

bool TransferFile::save(const char *data, qint64 size)
{
    if (!file.isOpen()
        && !file.openFresh(d.filePath(), d.ownerUid, &d.fileIdentity, d.privateFile ? 0600 : 0666))
        return false;
    qint64 written = size == 0 ? 0 : file.write(data, size);
    // A short write sets no error; writing the rest fails with the reason (a full disk, EFBIG).
    if (written >= 0 && written < size)
        written += qMax<qint64>(0, file.write(data + written, size - written));
    return written == size;
}

void TransferFile::rewind()
{
    if (file.isOpen() && !(file.resize(0) && file.seek(0)))
        file.close(); // the first commit then truncates it
}

QString TransferFile::endAt(qint64 length)
{
    if (file.isOpen() && file.size() > length)
        file.resize(length);
    return d.editDetails().content.mismatch(file.handle(), length);
}

} // namespace dlm

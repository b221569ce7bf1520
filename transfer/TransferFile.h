#pragma once

#include "OwnedFile.h"

#include <QByteArray>
#include <QString>

namespace dlm {

class Download;

// The download's file as one attempt writes it: received bytes go in at amountDownloaded, and
// only written bytes are counted (amountDownloaded, the content's running digest), so what is
// reported or stored never runs ahead of the file. curl hands bytes over 16 KiB at a time; while
// few transfers run fast they are gathered into larger writes, far cheaper than one write each.
// Any failed or short write (a full disk, EFBIG) is a false answer; the bytes stay uncounted.
class TransferFile {
public:
    explicit TransferFile(Download &download) : d(download) { }

    // Opens the existing file to go on at offset; false when it cannot continue there.
    bool openAt(qint64 offset);
    // Up to limit received bytes wait to be written together; 0: each piece is written at once.
    void gatherUpTo(qint64 limit);
    // Where the next received byte goes: the written bytes and those waiting.
    qint64 received() const;
    // Takes n received bytes: written now when none may wait, the gather is full or writeNow.
    bool take(const char *data, qint64 n, bool writeNow);
    // Writes what waits, and forgets it either way; true when nothing waited or all was written.
    bool writePending();
    // Creates the file when no byte has (an empty body still leaves its file).
    bool create() { return save(nullptr, 0); }
    // Writes go from byte 0 again: the server ignored the range and sends everything.
    void rewind();
    // The content ends at length: a resumed file's stale bytes past it go. Empty when the file's
    // first length bytes are the expected content, else why not.
    QString endAt(qint64 length);
    void close() { file.close(); }
    QString errorString() const { return file.errorString(); }

private:
    // Writes and counts n bytes at amountDownloaded.
    bool commit(const char *data, qint64 n);
    // Writes size bytes at the file's position, creating the file first; false unless all are.
    bool save(const char *data, qint64 size);

    Download &d;
    OwnedFile file;
    QByteArray pending;
    qint64 gatherLimit = 0;
};

} // namespace dlm

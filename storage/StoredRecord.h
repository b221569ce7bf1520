#pragma once

#include "FileIdentity.h"

#include <QByteArray>
#include <QString>

namespace dlm {

// One download as the database keeps it: the "downloads" row and its "download_extra" values.
// The texts a download keeps as UTF-8 are read and written as UTF-8, with no copy in between.
struct StoredRecord {
    QByteArray uniqueID;
    QString clientID;
    QByteArray name;
    QByteArray contentURL;
    QByteArray filePath;
    unsigned state = 0;
    unsigned failureCode = 0;
    qint64 totalSize = 0;
    qint64 amountDownloaded = 0;
    qint64 startTime = 0;
    uint ownerUid = 0;
    FileIdentity fileIdentity;
    qint64 expectedSize = -1; // -1: none
    QByteArray expectedSha256; // hexadecimal; empty: none
    QByteArray validator;
    QString failureReason;
    int httpStatus = 0;
    qint64 rateLimit = 0; // bytes per second; 0: none
    int priority = 0;
};

} // namespace dlm

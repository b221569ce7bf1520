#pragma once

#include "DownloadDataBase.h"
#include "StoredRecord.h"

namespace dlm {

class Download;
struct DownloadContext;

// The two ways between a download in memory and its stored record.
namespace stored {
// The record the database writes for a download (a DownloadDataBase::RowKey).
StoredRecord recordOf(DownloadDataBase::RowKey download);
// The download a record describes, at canonicalPath, in its stored state: not launched.
Download *downloadOf(
    DownloadContext &context, const StoredRecord &record, const QByteArray &canonicalPath);
} // namespace stored

} // namespace dlm

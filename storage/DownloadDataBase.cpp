#include "DownloadDataBase.h"

// Placeholder bodies; the database is implemented in its own change.
DownloadDataBase::DownloadDataBase(DownloadManager *manager, const QString &) : manager(manager) {}
DownloadDataBase::~DownloadDataBase() = default;
bool DownloadDataBase::open(const QString &) { return false; }
void DownloadDataBase::close() {}
bool DownloadDataBase::isTableInDB() { return false; }
bool DownloadDataBase::isDBEntryAvailable(const QString &) { return false; }
bool DownloadDataBase::addEntry(Download *) { return false; }
bool DownloadDataBase::updateEntry(Download *) { return false; }
bool DownloadDataBase::deleteEntry(Download *) { return false; }
void DownloadDataBase::getDownloadList() {}
void DownloadDataBase::clear() {}

// Cost of storing one download report (existence check, then update), as the manager does on
// every commit of received data, with the service's write-ahead log and with SQLite's default
// rollback journal.
//
// Usage: db_report_cost [directory] [reports]
// Run it on the device's storage: a directory on tmpfs hides the cost of syncing.
#include "DownloadDataBase.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QSqlDatabase>
#include <QSqlQuery>

#include <cstdio>

using namespace dlm;

namespace {
bool useDefaultJournal()
{
    QSqlQuery query;
    return query.exec(QStringLiteral("PRAGMA journal_mode=DELETE"))
        && query.exec(QStringLiteral("PRAGMA synchronous=FULL"));
}

// Microseconds per report, or a negative value when the database could not be used.
double measure(const QString &file, bool writeAheadLog, int reports)
{
    for (const char *suffix : { "", "-wal", "-shm", "-journal" })
        QFile::remove(file + QLatin1String(suffix));
    double perReport = -1;
    {
        DownloadDataBase db(file, {});
        StoredRecord download { "0123456789abcdef0123456789abcdef", QStringLiteral("appA"), "a.zip",
            "http://host/a.zip", "/data/a.zip", 2 /* Progressing */, 4, qint64(reports) * 16384, 0,
            1700000000000LL };
        if (db.addEntry(download) && (writeAheadLog || useDefaultJournal())) {
            QElapsedTimer timer;
            timer.start();
            for (int i = 0; i < reports; ++i) {
                download.amountDownloaded += 16384;
                if (db.isDBEntryAvailable(download.uniqueID))
                    db.updateEntry(download);
                else
                    db.addEntry(download);
            }
            perReport = double(timer.nsecsElapsed()) / 1000.0 / reports;
        }
    }
    QSqlDatabase::removeDatabase(QSqlDatabase::defaultConnection);
    return perReport;
}
} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    const QStringList args = app.arguments();
    const QString directory = args.size() > 1 ? args.at(1) : QDir::currentPath();
    const int reports = args.size() > 2 ? args.at(2).toInt() : 2000;
    if (reports <= 0) {
        std::fprintf(stderr, "reports must be a positive number\n");
        return 2;
    }
    const QString file = directory + QStringLiteral("/db_report_cost.db");

    const double wal = measure(file, true, reports);
    const double journal = measure(file, false, reports);
    for (const char *suffix : { "", "-wal", "-shm", "-journal" })
        QFile::remove(file + QLatin1String(suffix));
    if (wal < 0 || journal < 0) {
        std::fprintf(stderr, "cannot use a database in %s\n", qPrintable(directory));
        return 1;
    }
    std::printf("%d reports in %s\n", reports, qPrintable(directory));
    std::printf("WAL, synchronous=NORMAL: %8.1f us/report\n", wal);
    std::printf("default journal (DELETE, synchronous=FULL): %8.1f us/report\n", journal);
    return 0;
}

#pragma once

// Helpers shared by the fault tests: running dlctl without blocking the event loop, reading
// files, and reading the service's database through a connection of the test's own.
#include "ServiceProcess.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QFile>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QStringList>
#include <QTest>

namespace faults {

// Stored states, as plain numbers so they go into test data and comparisons as they are.
constexpr qint64 Completed = 1;
constexpr qint64 Failed = 8;

struct Result {
    int code = -1;
    QByteArray out;
    QByteArray err;
};

// Runs dlctl against the service's socket directory; the fake server keeps serving meanwhile.
inline Result dlctl(const ServiceProcess &service, const QStringList &args, int timeoutMs = 30000)
{
    QProcess process;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("BINDER_SOCKET_DIR", service.socketDir());
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(DLCTL_BINARY), args);
    Result r;
    if (!process.waitForStarted(5000))
        return r;
    QDeadlineTimer deadline(timeoutMs);
    while (process.state() != QProcess::NotRunning && !deadline.hasExpired())
        QTest::qWait(20);
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished(3000);
        r.code = -1;
    } else {
        r.code = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -2;
    }
    r.out = process.readAllStandardOutput();
    r.err = process.readAllStandardError();
    return r;
}

// "dlctl watch" running beside the test, and every line it printed so far.
class Watcher {
public:
    explicit Watcher(const ServiceProcess &service)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("BINDER_SOCKET_DIR", service.socketDir());
        process.setProcessEnvironment(env);
        process.start(QStringLiteral(DLCTL_BINARY), { "watch" });
    }
    ~Watcher()
    {
        process.kill();
        process.waitForFinished(3000);
    }
    QByteArray out() { return seen += process.readAllStandardOutput(); }
    bool waitFor(const QByteArray &needle, int timeoutMs = 10000)
    {
        QDeadlineTimer deadline(timeoutMs);
        while (!out().contains(needle) && !deadline.hasExpired())
            QTest::qWait(20);
        return seen.contains(needle);
    }

private:
    QProcess process;
    QByteArray seen;
};

// The STATE word of "dlctl status", empty when the service does not answer.
inline QByteArray stateOf(const ServiceProcess &service, const QString &uniqueID)
{
    const Result r = dlctl(service, { "status", uniqueID });
    return r.code == 0 ? r.out.split(' ').value(2) : QByteArray();
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline qint64 fileSize(const QString &path)
{
    QFile file(path);
    return file.exists() ? file.size() : 0;
}

// One short-lived connection per question, so the service's own connection is never shared.
class StoredRows {
public:
    explicit StoredRows(const QString &file) : file(file) { }

    // -1 when the row (or the database) is not there.
    qint64 value(const QString &uniqueID, const char *column) const
    {
        const QVariantList row = query(QStringLiteral("SELECT %1 FROM downloads WHERE uniqueID = ?")
                                           .arg(QLatin1String(column)),
            uniqueID);
        return row.isEmpty() ? -1 : row.first().toLongLong();
    }
    qint64 state(const QString &uniqueID) const { return value(uniqueID, "state"); }
    qint64 failureCode(const QString &uniqueID) const { return value(uniqueID, "failureCode"); }
    qint64 amount(const QString &uniqueID) const { return value(uniqueID, "amountDownloaded"); }
    // Every stored identifier, one entry per row (duplicates stay visible).
    QStringList identifiers() const
    {
        QStringList ids;
        for (const QVariant &v : query(QStringLiteral("SELECT uniqueID FROM downloads"), QString()))
            ids.append(v.toString());
        return ids;
    }

private:
    QVariantList query(const QString &sql, const QString &bound) const
    {
        QVariantList values;
        if (!QFile::exists(file))
            return values; // opening would create it behind the service's back
        {
            QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "faults-check");
            db.setDatabaseName(file);
            if (db.open()) {
                QSqlQuery q(db);
                q.prepare(sql);
                if (!bound.isNull())
                    q.addBindValue(bound);
                if (q.exec())
                    while (q.next())
                        values.append(q.value(0));
            }
        }
        QSqlDatabase::removeDatabase("faults-check");
        return values;
    }

    QString file;
};

} // namespace faults

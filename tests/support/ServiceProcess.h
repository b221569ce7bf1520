#pragma once

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QProcess>
#include <QString>
#include <QTemporaryDir>

// Runs the real downloadmanager executable for end-to-end tests. Each instance has its own
// temporary directory holding a copy of the executable (the settings file is looked for next to
// it), the database, a downloads directory and the IPC socket directory. Standard input is a pipe
// the test writes to; standard output and standard error are collected.
class ServiceProcess : public QObject
{
    Q_OBJECT

public:
    explicit ServiceProcess(QObject *parent = nullptr);
    ~ServiceProcess() override;

    QString root() const { return tmp.path(); }
    QString binDir() const { return tmp.path() + "/bin"; }
    QString downloadsDir() const { return tmp.path() + "/downloads/"; }
    QString databaseDir() const { return tmp.path() + "/db"; }
    QString socketDir() const { return tmp.path() + "/binder"; }
    QString databaseFile() const { return databaseDir() + "/dlm_download.db"; }

    // Settings written to downloadmanager.ini before start. By default the database goes to
    // databaseDir(); call withoutSettingsFile() to start with no settings file at all.
    void setSetting(const QString &key, const QString &value) { settings[key] = value; }
    void withoutSettingsFile() { writeSettings = false; }
    // Environment of the service. Defaults: console on, DEBUG log, socket dir and packet count.
    void setEnv(const QString &name, const QString &value) { env[name] = value; }
    void unsetEnv(const QString &name) { env.remove(name); unset.append(name); }

    bool start();
    // Writes one line (a newline is appended) to the service's standard input.
    void writeLine(const QByteArray &line);
    void closeInput();

    QByteArray stdErr();
    QByteArray stdOut();
    // Waits, running the event loop, until standard error (or output) contains needle.
    bool waitForErr(const QByteArray &needle, int timeoutMs = 10000);
    bool waitForOut(const QByteArray &needle, int timeoutMs = 10000);
    // Waits until needle occurs count times in standard error.
    bool waitForErrCount(const QByteArray &needle, int count, int timeoutMs = 10000);
    bool waitForExit(int timeoutMs = 10000);
    int exitCode() const { return process.exitCode(); }
    QProcess::ExitStatus exitStatus() const { return process.exitStatus(); }
    qint64 pid() const { return process.processId(); }
    bool isRunning() const { return process.state() != QProcess::NotRunning; }
    void kill();
    // Standard error with the platform log's "TAG P date time pid tid " prefixes stripped from
    // log lines, so console output and log messages can be compared as plain text.
    QByteArray consoleLines();

    QProcess process;

private:
    void collect();

    QTemporaryDir tmp;
    QMap<QString, QString> settings;
    QMap<QString, QString> env;
    QStringList unset;
    bool writeSettings = true;
    QByteArray err;
    QByteArray out;
};

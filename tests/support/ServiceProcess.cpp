#include "ServiceProcess.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QSettings>
#include <QTest>

#include <csignal>

ServiceProcess::ServiceProcess(QObject *parent) : QObject(parent)
{
    env["DL_CONSOLE_READER_ENABLE"] = "1";
    env["DLM_LOG_LEVEL"] = "d";
    env["BINDER_SOCKET_DIR"] = socketDir();
    connect(&process, &QProcess::readyReadStandardError, this, &ServiceProcess::collect);
    connect(&process, &QProcess::readyReadStandardOutput, this, &ServiceProcess::collect);
}

ServiceProcess::~ServiceProcess()
{
    if (isRunning()) {
        process.kill();
        process.waitForFinished(5000);
    }
}

bool ServiceProcess::start()
{
    QDir().mkpath(binDir());
    QDir().mkpath(downloadsDir());
    QDir().mkpath(databaseDir());
    const QString exe = binDir() + "/downloadmanager";
    if (!QFile::exists(exe) && !QFile::copy(QStringLiteral(DLM_SERVICE_BINARY), exe))
        return false;
    QFile::setPermissions(exe, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QString ini = binDir() + "/downloadmanager.ini";
    QFile::remove(ini);
    if (writeSettings) {
        QSettings s(ini, QSettings::IniFormat);
        if (!settings.contains("download_database_path"))
            s.setValue("download_database_path", databaseDir());
        for (auto it = settings.cbegin(); it != settings.cend(); ++it)
            s.setValue(it.key(), it.value());
        s.sync();
    }
    QProcessEnvironment e = QProcessEnvironment::systemEnvironment();
    for (const QString &name : unset)
        e.remove(name);
    for (auto it = env.cbegin(); it != env.cend(); ++it)
        e.insert(it.key(), it.value());
    process.setProcessEnvironment(e);
    process.setWorkingDirectory(root());
    process.start(exe, {});
    return process.waitForStarted(5000);
}

void ServiceProcess::writeLine(const QByteArray &line)
{
    process.write(line + '\n');
}

void ServiceProcess::closeInput()
{
    process.closeWriteChannel();
}

void ServiceProcess::collect()
{
    err += process.readAllStandardError();
    out += process.readAllStandardOutput();
}

QByteArray ServiceProcess::stdErr()
{
    collect();
    return err;
}

QByteArray ServiceProcess::stdOut()
{
    collect();
    return out;
}

bool ServiceProcess::waitForErr(const QByteArray &needle, int timeoutMs)
{
    return waitForErrCount(needle, 1, timeoutMs);
}

bool ServiceProcess::waitForErrCount(const QByteArray &needle, int count, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (stdErr().count(needle) < count) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(20);
    }
    return true;
}

bool ServiceProcess::waitForOut(const QByteArray &needle, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (!stdOut().contains(needle)) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(20);
    }
    return true;
}

bool ServiceProcess::waitForExit(int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (isRunning()) {
        if (deadline.hasExpired())
            return false;
        QTest::qWait(20);
    }
    collect();
    return true;
}

void ServiceProcess::kill()
{
    if (isRunning())
        ::kill(pid_t(process.processId()), SIGKILL);
    waitForExit(5000);
}

QByteArray ServiceProcess::consoleLines()
{
    static const QRegularExpression prefix(
        QStringLiteral("^\\S+ [VDIWEF] \\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\S* +\\d+ +\\d+ "),
        QRegularExpression::MultilineOption);
    return QString::fromLatin1(stdErr()).remove(prefix).toLatin1();
}

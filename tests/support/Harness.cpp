#include "Harness.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QTest>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char **environ;

namespace {
// Made before main: the in-process tests' own manager publishes its socket here too.
struct RunDir {
    QTemporaryDir dir { "/tmp/dlmtest-XXXXXX" };
    RunDir()
    {
        chmod(QFile::encodeName(dir.path()), 0755);
        QDir().mkpath(dir.path() + "/bin");
        for (const char *from : { DLCTL_BINARY, DLPROBE_BINARY })
            QFile::copy(from, dir.path() + "/bin/" + QString(from).section('/', -1));
        qputenv("BINDER_SOCKET_DIR", QFile::encodeName(dir.path() + "/binder"));
    }
} const kRun;
} // namespace

QString runPath(const QString &sub)
{
    return kRun.dir.path() + '/' + sub;
}

bool waitFor(const QByteArray &what, const std::function<bool()> &done, int seconds)
{
    for (QDeadlineTimer guard(seconds * 1000); !done(); QTest::qWait(10))
        if (guard.hasExpired()) {
            qWarning("gave up after %d s waiting for %s", seconds, what.constData());
            return false;
        }
    return true;
}

void Child::reset()
{
    mOutNote.reset();
    mErrNote.reset();
    if (mPid > 0 && running()) {
        ::kill(mPid, SIGKILL);
        waitpid(mPid, &mStatus, 0);
    }
    for (int fd : { mIn, mOutFd, mErrFd })
        if (fd >= 0)
            close(fd);
    mPid = mStatus = mIn = mOutFd = mErrFd = -1;
    mOut = mErr = QByteArray();
}

bool Child::start(
    const QStringList &argv, const QStringList &env, const std::function<void()> &beforeExec)
{
    reset();
    std::vector<QByteArray> strings;
    for (const QString &arg : argv)
        strings.push_back(arg.toUtf8());
    std::vector<char *> args;
    for (QByteArray &s : strings)
        args.push_back(s.data());
    args.push_back(nullptr);
    // Later entries win, so env overrides what the test itself runs with.
    QMap<QByteArray, QByteArray> merged;
    for (char **e = environ; *e; ++e)
        merged.insert(QByteArray(*e).split('=').first(), *e);
    for (const QString &e : env)
        merged.insert(e.toUtf8().split('=').first(), e.toUtf8());
    std::vector<QByteArray> envStrings(merged.cbegin(), merged.cend());
    std::vector<char *> envp;
    for (QByteArray &s : envStrings)
        envp.push_back(s.data());
    envp.push_back(nullptr);

    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) || pipe2(out, O_CLOEXEC) || pipe2(err, O_CLOEXEC))
        return false;
    mPid = fork();
    if (mPid == 0) {
        // A test that aborts must not leave its service holding ports, users and locks.
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(in[0], 0);
        dup2(out[1], 1);
        dup2(err[1], 2);
        ::signal(SIGPIPE, SIG_DFL);
        if (beforeExec)
            beforeExec();
        execve(args[0], args.data(), envp.data());
        _exit(127);
    }
    ::signal(SIGPIPE, SIG_IGN); // writing to a child that has ended fails the check, not the test
    close(in[0]);
    close(out[1]);
    close(err[1]);
    mIn = in[1];
    mOutFd = out[0];
    mErrFd = err[0];
    for (int fd : { mOutFd, mErrFd })
        fcntl(fd, F_SETFL, O_NONBLOCK);
    mOutNote.reset(new QSocketNotifier(mOutFd, QSocketNotifier::Read));
    mErrNote.reset(new QSocketNotifier(mErrFd, QSocketNotifier::Read));
    QObject::connect(mOutNote.get(), &QSocketNotifier::activated, [this] { drain(mOutFd, mOut); });
    QObject::connect(mErrNote.get(), &QSocketNotifier::activated, [this] { drain(mErrFd, mErr); });
    return mPid > 0;
}

void Child::drain(int fd, QByteArray &into)
{
    char buf[65536];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        into.append(buf, n);
    if (n == 0) // the other end is closed: stop watching, or the notifier fires forever
        (fd == mOutFd ? mOutNote : mErrNote)->setEnabled(false);
}

void Child::write(const QByteArray &bytes)
{
    for (qsizetype done = 0; mIn >= 0 && done < bytes.size();) {
        const ssize_t n = ::write(mIn, bytes.constData() + done, size_t(bytes.size() - done));
        if (n <= 0 && errno != EINTR)
            return;
        done += qMax<ssize_t>(n, 0);
    }
}

void Child::closeInput()
{
    if (mIn >= 0)
        close(mIn);
    mIn = -1;
}

bool Child::running()
{
    if (mPid > 0 && mStatus == -1 && waitpid(mPid, &mStatus, WNOHANG) != mPid)
        mStatus = -1;
    return mPid > 0 && mStatus == -1;
}

int Child::finish(int seconds)
{
    if (!waitFor(
            "the end of " + QByteArray::number(mPid), [this] { return !running(); }, seconds))
        return -1;
    drain(mOutFd, mOut);
    drain(mErrFd, mErr);
    return WIFEXITED(mStatus) ? WEXITSTATUS(mStatus) : 128 + WTERMSIG(mStatus);
}

void Child::signal(int sig)
{
    if (running())
        ::kill(mPid, sig);
}

QByteArray readFile(const QString &path)
{
    QFile f(path);
    return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

Service::Service(const QMap<QString, QString> &settings, const QStringList &env)
    : settings(settings), env(env)
{
    for (const char *sub : { "bin", "db", "downloads", "binder" })
        QDir().mkpath(path(sub));
    QFile::copy(QStringLiteral(DLM_SERVICE_BINARY), path("bin/downloadmanager"));
    QFile::setPermissions(
        path("bin/downloadmanager"), QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
}

Service::~Service()
{
    if (proc.running() && stop(10) != 0)
        qWarning("the service in %s ended badly (%d so far)", qPrintable(path()), ++badExits);
}

QString Service::path(const QString &sub) const
{
    return sub.isEmpty() ? mDir.path() : mDir.path() + '/' + sub;
}

bool Service::start(const std::function<void()> &beforeExec)
{
    const QString ini = path("bin/downloadmanager.ini");
    QFile::remove(ini);
    {
        QSettings s(ini, QSettings::IniFormat);
        if (!settings.contains("download_database_path"))
            s.setValue("download_database_path", path("db"));
        for (auto it = settings.cbegin(); it != settings.cend(); ++it)
            if (!it.value().isNull())
                s.setValue(it.key(), it.value());
    }
    const QStringList base { "DL_CONSOLE_READER_ENABLE=1", "BINDER_SOCKET_DIR=" + path("binder") };
    if (!proc.start({ path("bin/downloadmanager") }, base + env, beforeExec))
        return false;
    const QStringList all = base + env;
    const bool console
        = all.filter("DL_CONSOLE_READER_ENABLE=").last().section('=', 1).toInt() != 0;
    return waitFor("the service to answer", [&] {
        if (!proc.running())
            return true;
        const int fd = rawConnect();
        if (fd >= 0)
            close(fd);
        return fd >= 0 && (!console || proc.err().contains("Enter your command:"));
    }) && proc.running();
}

int Service::stop(int seconds)
{
    line("quit");
    return proc.finish(seconds);
}

void Service::kill()
{
    proc.signal(SIGKILL);
    proc.finish();
}

void Service::line(const QByteArray &text)
{
    proc.write(text + '\n');
}

static const QRegularExpression kLogPrefix(
    QStringLiteral("^\\S+ [VDIWEF] \\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\S* +\\d+ +\\d+ "));

static QList<QByteArray> errLines(const QByteArray &err, qsizetype from, bool wantLog)
{
    QList<QByteArray> lines = err.mid(from).split('\n'), result;
    lines.removeLast(); // not complete yet
    bool afterLog = false;
    for (const QByteArray &line : lines) {
        const auto match = kLogPrefix.match(QString::fromUtf8(line));
        const qsizetype prefix = match.hasMatch() ? match.captured().toUtf8().size() : -1;
        if (wantLog && prefix >= 0)
            result.append(line.mid(prefix));
        // A log message that ends in its own newline leaves an empty line behind.
        if (!wantLog && prefix < 0 && !(afterLog && line.isEmpty()))
            result.append(line);
        afterLog = prefix >= 0;
    }
    return result;
}

QList<QByteArray> Service::console(qsizetype from) const
{
    return errLines(proc.err(), from, false);
}

QList<QByteArray> Service::log(qsizetype from) const
{
    return errLines(proc.err(), from, true);
}

bool Service::waitErr(const QByteArray &needle, int count, qsizetype from)
{
    const auto seen = [&] { return proc.err().mid(from).count(needle) >= count; };
    const QByteArray what = QByteArray::number(count) + " x \"" + needle + "\" from the service";
    if (waitFor(what, [&] { return seen() || !proc.running(); }) && !seen())
        qWarning("the service ended before %s", what.constData());
    return seen();
}

bool Service::sync()
{
    const int before = int(proc.err().count("No download found."));
    line("status sync");
    return waitErr("No download found.", before + 1);
}

Run Service::dlctl(const QStringList &args, const QString &user)
{
    const std::unique_ptr<Child> c = client(QStringList { "dlctl" } + args, user);
    Run r;
    r.code = c->finish();
    r.out = c->out();
    r.err = c->err();
    return r;
}

std::unique_ptr<Child> Service::client(QStringList argv, const QString &user)
{
    if (!argv[0].startsWith('/'))
        argv[0] = runPath("bin/" + argv[0]);
    auto c = std::make_unique<Child>();
    const QStringList as
        = user.isEmpty() ? argv : QStringList { "/usr/sbin/runuser", "-u", user, "--" } + argv;
    c->start(as, { "BINDER_SOCKET_DIR=" + path("binder") });
    return c;
}

QList<QVariantList> Service::sql(const QString &statement, const QVariantList &bind)
{
    QList<QVariantList> rows;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "harness");
        db.setDatabaseName(path("db/dlm_download.db"));
        QSqlQuery q(db);
        if (db.open() && q.prepare(statement)) {
            for (const QVariant &v : bind)
                q.addBindValue(v);
            if (!q.exec())
                qWarning() << statement << q.lastError().text();
            while (q.next()) {
                QVariantList row;
                for (int i = 0; i < q.record().count(); ++i)
                    row.append(q.value(i));
                rows.append(row);
            }
        }
    }
    QSqlDatabase::removeDatabase("harness");
    return rows;
}

int Service::rawConnect() const
{
    sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    const QByteArray name = QFile::encodeName(path("binder/com.velta.DLService"));
    memcpy(addr.sun_path, name.constData(), qMin<size_t>(name.size(), sizeof addr.sun_path - 1));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval timeout { 10, 0 };
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

bool Service::hangsUp(int fd, const QByteArray &bytes, bool halfClose)
{
    send(fd, bytes.constData(), size_t(bytes.size()), MSG_NOSIGNAL);
    if (halfClose)
        shutdown(fd, SHUT_WR);
    char buf[4096];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0) { } // answers before the hang-up are fine
    // A close with our bytes still unread arrives as a reset instead.
    return n == 0 || (n < 0 && errno == ECONNRESET);
}

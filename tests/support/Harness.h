#pragma once

// What the end-to-end scenarios drive: child processes, and the real service in a directory of
// its own. Every wait runs the Qt event loop, so the in-process fake HTTP server keeps serving.
// All in one directory per run under /tmp that every user may enter: the checkout may be closed.
#include <QByteArray>
#include <QList>
#include <QMap>
#include <QSocketNotifier>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>
#include <QVariant>

#include <functional>
#include <memory>
#include <sys/types.h>

struct Run {
    int code = -1; // exit code, 128 + signal, -1 when the guard ran out
    QByteArray out, err;
};

// One process started by fork and exec (ThreadSanitizer follows that, not QProcess's clone),
// with its standard streams on pipes that are read whenever the event loop runs.
class Child {
public:
    Child() = default;
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;
    ~Child() { reset(); }
    void reset(); // kills and reaps, forgets the run and its output

    // env holds NAME=VALUE entries added to the test's environment; beforeExec runs in the child
    // and may only make async-signal-safe calls (setrlimit, signal, umask). Starting again
    // forgets the previous run and its output.
    bool start(const QStringList &argv, const QStringList &env = {},
        const std::function<void()> &beforeExec = {});
    void write(const QByteArray &bytes);
    void closeInput();
    const QByteArray &out() const { return mOut; }
    const QByteArray &err() const { return mErr; }
    bool running();
    int finish(int seconds = 30); // the exit code, 128 + signal, -1 when still running
    void signal(int sig);
    pid_t pid() const { return mPid; }

private:
    void drain(int fd, QByteArray &into);

    pid_t mPid = -1;
    int mStatus = -1;
    int mIn = -1, mOutFd = -1, mErrFd = -1;
    QByteArray mOut, mErr;
    std::unique_ptr<QSocketNotifier> mOutNote, mErrNote;
};

// Runs the event loop until done; false, with a warning naming what, once seconds have passed.
bool waitFor(const QByteArray &what, const std::function<bool()> &done, int seconds = 30);
QByteArray readFile(const QString &path);
QString runPath(const QString &sub); // in the run's directory; "bin/dlctl", "bin/dlprobe"

// A _data() table of rows that carry their tag as "name": one column, the row's index.
template <typename Row, size_t N> void indexRows(const Row (&table)[N])
{
    QTest::addColumn<int>("i");
    for (size_t i = 0; i < N; ++i)
        QTest::newRow(table[i].name) << int(i);
}

// The real downloadmanager with its own copy of the executable, settings file next to it, and
// the directories "db", "downloads" and "binder" under path().
class Service {
public:
    // The settings written at start; a null value leaves the key out. download_database_path is
    // path("db") unless given.
    explicit Service(const QMap<QString, QString> &settings = {}, const QStringList &env = {});
    ~Service(); // stops it when still running; a bad exit makes the executable fail

    QString path(const QString &sub = {}) const;
    // Waits until the service answers (console prompt, or the socket accepts when the console
    // is off); false when it ended first.
    bool start(const std::function<void()> &beforeExec = {});
    int stop(int seconds = 30); // "quit" on the console; the exit code
    void kill();
    void line(const QByteArray &text); // a newline is added
    qsizetype mark() const { return proc.err().size(); }
    // Standard error from a mark, split into lines; console() without the log's prefixes and
    // the empty line a log message leaves behind, log() only the log messages.
    QList<QByteArray> console(qsizetype from = 0) const;
    QList<QByteArray> log(qsizetype from = 0) const;
    bool waitErr(const QByteArray &needle, int count = 1, qsizetype from = 0);
    // Runs a command and waits for its answer, so every line of earlier commands is in.
    bool sync();

    Run dlctl(const QStringList &args, const QString &user = {});
    // argv[0] "dlctl" or "dlprobe" is the run's copy; a user other than root runs it by runuser.
    std::unique_ptr<Child> client(QStringList argv, const QString &user = {});
    // A statement on the database through a connection of the test's own.
    QList<QVariantList> sql(const QString &statement, const QVariantList &bind = {});
    int rawConnect() const; // a plain socket on the service's address, or -1
    // Sends bytes (then half-closes if asked) and true once the service hangs up; false when it
    // keeps the connection open past the guard.
    static bool hangsUp(int fd, const QByteArray &bytes, bool halfClose = false);

    QMap<QString, QString> settings;
    QStringList env;
    Child proc;
    static inline int badExits = 0;

private:
    QTemporaryDir mDir { runPath("service-XXXXXX") };
};

// QTEST_GUILESS_MAIN that also fails when a service the test left running ended badly.
// clang-format off
#define DLM_TEST_MAIN(T) int main(int argc, char *argv[]) { QCoreApplication app(argc, argv); int failed; \
    { T tc; failed = QTest::qExec(&tc, argc, argv); } return failed ? failed : Service::badExits; }
// clang-format on

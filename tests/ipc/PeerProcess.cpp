#include "PeerProcess.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QThread>
#include <QtDebug>

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

PeerProcess::~PeerProcess()
{
    if (mPid > 0 && !mFinished) {
        kill();
        waitForFinished();
    }
    if (mOutput >= 0)
        close(mOutput);
}

bool PeerProcess::start(
    const QString &program, const QStringList &args, const QByteArray &readyLine)
{
    std::vector<QByteArray> strings { QFile::encodeName(program) };
    for (const QString &arg : args)
        strings.push_back(arg.toLocal8Bit());
    std::vector<char *> argv;
    for (QByteArray &s : strings)
        argv.push_back(s.data());
    argv.push_back(nullptr);

    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0)
        return false;
    mPid = fork();
    if (mPid == 0) {
        // Only async-signal-safe calls between fork and exec.
        dup2(pipeFds[1], STDOUT_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(pipeFds[1]);
    mOutput = pipeFds[0];
    if (mPid < 0)
        return false;

    QByteArray out;
    QDeadlineTimer deadline(10000);
    while (!readyLine.isEmpty() && !out.contains(readyLine)) {
        pollfd p { mOutput, POLLIN, 0 };
        char buf[256];
        ssize_t n = 0;
        if (poll(&p, 1, int(deadline.remainingTime())) <= 0
            || (n = read(mOutput, buf, sizeof buf)) <= 0) {
            qWarning() << "peer" << args << "said" << out;
            return false;
        }
        out.append(buf, int(n));
    }
    return true;
}

void PeerProcess::kill(int signal)
{
    if (mPid > 0 && !mFinished)
        ::kill(mPid, signal);
}

bool PeerProcess::waitForFinished(int msecs)
{
    QDeadlineTimer deadline(msecs);
    while (mPid > 0 && !mFinished) {
        const pid_t r = waitpid(mPid, &mStatus, WNOHANG);
        if (r == mPid || (r < 0 && errno != EINTR))
            mFinished = true;
        else if (deadline.hasExpired())
            return false;
        else
            QThread::msleep(5);
    }
    return mFinished;
}

bool PeerProcess::exitedNormally() const
{
    return mFinished && WIFEXITED(mStatus);
}

int PeerProcess::exitCode() const
{
    return WIFEXITED(mStatus) ? WEXITSTATUS(mStatus) : -1;
}

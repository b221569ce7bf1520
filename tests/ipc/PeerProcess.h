#pragma once

#include <QByteArray>
#include <QStringList>

#include <sys/types.h>

// Runs one ipc_peer with fork() and exec(). QProcess of Qt 6.4 starts children with a vfork-style
// clone that ThreadSanitizer cannot follow, which corrupts its view of the test process.
// Standard error is shared with the test; standard output is read for the peer's ready line.
class PeerProcess {
public:
    PeerProcess() = default;
    PeerProcess(const PeerProcess &) = delete;
    PeerProcess &operator=(const PeerProcess &) = delete;
    ~PeerProcess(); // kills and reaps the peer

    // Starts `program` and waits up to ten seconds for `readyLine` on its output (if not empty).
    bool start(const QString &program, const QStringList &args, const QByteArray &readyLine);
    pid_t processId() const { return mPid; }
    void kill(int signal = 9);
    // True once the peer has ended; then exitedNormally() and exitCode() tell how.
    bool waitForFinished(int msecs = 30000);
    bool exitedNormally() const;
    int exitCode() const;

private:
    pid_t mPid = -1;
    int mOutput = -1;
    bool mFinished = false;
    int mStatus = 0;
};

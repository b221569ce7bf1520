#pragma once

#include "DownloadManager.h"
#include "FrontEnd.h"

#include <QByteArray>
#include <QObject>

class QSocketNotifier;

namespace dlm {

// Operator console: one command per line on standard input, answers and a line for every change
// of any download on standard error, each change's line once the change is stored. Acts as
// client "shell". Main thread only.
class DLConsoleReaderClient : public QObject, public FrontEnd {
    Q_OBJECT

public:
    explicit DLConsoleReaderClient(DownloadManager *manager);
    ~DLConsoleReaderClient() override;

    void HandleText(const QString &line);

    void help() override;
    void updateDownloadEntry(Download *download) override;
    void reportsStored() override;
    void destroy() override { delete this; }
    void getDownloadList(const QString &clientID);
    void getDownload(const QString &uniqueID);

public slots:
    void text();

private:
    // Carries out one line; false when it was "quit" and this client no longer exists.
    bool handleLine(const QByteArray &rawLine);
    void stopListening();
    void setPath(const QString &path);
    // "rate ID|all BPS", "priority ID N", "background on|off"; false for another command.
    bool order(const QStringList &words);

    DownloadManager *manager;

    QSocketNotifier *inputNotifier;
    // Bytes read from standard input that do not yet form a complete line.
    QByteArray pendingInput;
    // Update lines of changes that are not stored yet.
    QByteArray told;
};

} // namespace dlm

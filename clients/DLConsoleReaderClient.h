#pragma once

#include "DLBaseClient.h"

#include <QByteArray>

class QSocketNotifier;

// Operator console: one command per line on standard input, answers and a line for every change
// of any download on standard error (through qDebug). Acts as client "shell". Main thread only.
class DLConsoleReaderClient : public DLBaseClient {
    Q_OBJECT

public:
    explicit DLConsoleReaderClient(DownloadManager *manager);
    ~DLConsoleReaderClient() override;

    void HandleText(const QString &line);

    void help() override;
    void updateDownloadEntry(Download *download) override;
    virtual void getDownloadList(const QString &clientID);
    virtual void getDownload(const QString &uniqueID);

public slots:
    void text();

signals:
    void textReceived(QString message);

private:
    // Carries out one line; false when it was "quit" and this client no longer exists.
    bool handleLine(const QByteArray &rawLine);
    void stopListening();

    QSocketNotifier *inputNotifier;
    // Bytes read from standard input that do not yet form a complete line.
    QByteArray pendingInput;
};

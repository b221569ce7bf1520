#pragma once

#include "DLBaseClient.h"

class QSocketNotifier;

// Operator console: one command per line on standard input, answers and a line for every change
// of any download on standard error (through qDebug). Acts as client "shell". Main thread only.
class DLConsoleReaderClient : public DLBaseClient
{
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
    QSocketNotifier *inputNotifier;
};

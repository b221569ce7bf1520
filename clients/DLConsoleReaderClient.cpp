#include "DLConsoleReaderClient.h"

#include "DownloadManager.h"

#include <QSocketNotifier>
#include <QTextStream>

#include <cstdio>

// Placeholder bodies; the console is implemented in its own change.
DLConsoleReaderClient::DLConsoleReaderClient(DownloadManager *manager)
    : DLBaseClient(manager), inputNotifier(nullptr)
{
    manager->setDownloadPath(QStringLiteral("shell"), QStringLiteral("/tmp/"));
    inputNotifier = new QSocketNotifier(0, QSocketNotifier::Read);
    connect(inputNotifier, &QSocketNotifier::activated, this, &DLConsoleReaderClient::text);
}
DLConsoleReaderClient::~DLConsoleReaderClient() { delete inputNotifier; }
void DLConsoleReaderClient::HandleText(const QString &) {}
void DLConsoleReaderClient::help()
{
    qDebug("Console help:");
    qDebug("help: display help");
    qDebug("quit: quit the application");
    qDebug("create url: download an url");
    qDebug("remove id: remove the download with id");
    qDebug("status id: display download status with id");
    qDebug("list clientID: display download status with id");
    qDebug("download_possible size:");
    qDebug("download_path path:");
    qDebug("Enter your command:");
}
void DLConsoleReaderClient::updateDownloadEntry(Download *) {}
void DLConsoleReaderClient::getDownloadList(const QString &) {}
void DLConsoleReaderClient::getDownload(const QString &) {}
void DLConsoleReaderClient::text()
{
    QTextStream input(stdin);
    const QString line = input.readLine();
    if (line.isNull()) {
        inputNotifier->setEnabled(false);
        return;
    }
    if (line.trimmed() == QLatin1String("quit"))
        manager->quit();
}

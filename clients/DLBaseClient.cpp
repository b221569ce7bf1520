#include "DLBaseClient.h"

#include "DownloadManager.h"

DLBaseClient::DLBaseClient(DownloadManager *manager) : QObject(nullptr), manager(manager) {}

void DLBaseClient::createDownload(const QString &clientID, const QString &url,
                                  const QString &uniqueID, const QString &name)
{
    if (manager)
        manager->createDownload(clientID, url, uniqueID, name);
}

void DLBaseClient::removeDownload(const QString &uniqueID)
{
    if (!manager || uniqueID.isEmpty())
        return;
    if (uniqueID == QLatin1String("all"))
        manager->removeAllDownloads();
    else
        manager->removeDownload(uniqueID);
}

void DLBaseClient::downloadAction(const QString &uniqueID, int action)
{
    if (!manager || uniqueID.isEmpty())
        return;
    switch (action) {
    case 0:
        manager->pauseDownload(uniqueID);
        break;
    case 1:
        manager->resumeDownload(uniqueID);
        break;
    case 2:
        manager->restartDownload(uniqueID);
        break;
    default:
        break;
    }
}

int DLBaseClient::checkDownloadPossible(const QString &clientID, qint64 size)
{
    return manager ? manager->checkDownloadPossible(clientID, size) : 0;
}

DownloadManager::PathStatus DLBaseClient::setDownloadPath(const QString &clientID,
                                                          const QString &path)
{
    return manager ? manager->setDownloadPath(clientID, path)
                   : DownloadManager::PathStatus::NotAbsolute;
}

bool DLBaseClient::init()
{
    return true;
}

void DLBaseClient::help() {}

void DLBaseClient::destroy()
{
    delete this;
}

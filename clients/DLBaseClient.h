#pragma once

#include "DownloadManager.h"
#include "FrontEnd.h"

#include <QObject>
#include <QString>

class Download;

// Base of every front end. Forwards requests to the manager (doing nothing when it has none) and
// gives the manager three hooks. The manager owns its clients and destroys them in quit().
class DLBaseClient : public QObject, public FrontEnd {
    Q_OBJECT

public:
    explicit DLBaseClient(DownloadManager *manager);

    void createDownload(const QString &clientID, const QString &url, const QString &uniqueID,
                        const QString &name);
    // "" is ignored, "all" removes every download of every client.
    void removeDownload(const QString &uniqueID);
    // 0 pause, 1 resume, 2 restart; any other code and "" are ignored.
    void downloadAction(const QString &uniqueID, int action);
    int checkDownloadPossible(const QString &clientID, qint64 size);
    // Refused (NotAbsolute) when there is no manager.
    DownloadManager::PathStatus setDownloadPath(const QString &clientID, const QString &path);

    virtual bool init();
    void help() override;

    // How the manager's quit() ends this client. A plain client is deleted; a client that other
    // owners may still reference (a published Binder object) overrides this to detach instead.
    void destroy() override;

protected:
    DownloadManager *manager;
};

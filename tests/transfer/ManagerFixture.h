#pragma once

#include "DLBaseClient.h"
#include "Download.h"
#include "DownloadManager.h"

#include <QFile>
#include <QFileInfo>
#include <QList>
#include <QNetworkReply>
#include <QSettings>
#include <QTemporaryDir>

// One announcement of a download as every client saw it, with the bytes on disk at that moment.
struct Report {
    QString uniqueID;
    unsigned state = 0;
    unsigned failureCode = 0;
    qint64 totalSize = 0;
    qint64 amountDownloaded = 0;
    qint64 fileSize = -1;
    int notifications = 0; // readyRead notifications the test had counted when this was announced
};

class RecordingClient : public DLBaseClient {
public:
    RecordingClient(DownloadManager *manager, QList<Report> *reports, const int *notifications)
        : DLBaseClient(manager), reports(reports), notifications(notifications)
    {
    }

    void updateDownloadEntry(Download *download) override
    {
        Report r;
        r.uniqueID = download->uniqueID;
        r.state = download->state;
        r.failureCode = download->failureCode;
        r.totalSize = download->totalSize;
        r.amountDownloaded = download->amountDownloaded;
        const QFileInfo info(download->filePath);
        r.fileSize = info.exists() ? info.size() : -1;
        r.notifications = *notifications;
        reports->append(r);
    }

private:
    QList<Report> *reports;
    const int *notifications;
};

// A real manager with its settings and database in a private directory, one recording client,
// and the client "test" writing into that directory. quit() runs on destruction.
class ManagerFixture {
public:
    static constexpr const char *client = "test";

    ManagerFixture()
    {
        const QString settingsPath = dir.filePath(QStringLiteral("downloadmanager.ini"));
        {
            QSettings settings(settingsPath, QSettings::NativeFormat);
            settings.setValue(QStringLiteral("download_database_path"), dir.path());
        }
        manager = new DownloadManager(settingsPath);
        manager->addClient(new RecordingClient(manager, &reports, &notifications));
        manager->setDownloadPath(QLatin1String(client), directory());
    }

    ~ManagerFixture()
    {
        manager->quit();
        delete manager;
    }

    QString directory() const { return dir.path() + QLatin1Char('/'); }
    QString path(const QString &fileName) const { return directory() + fileName; }

    Download *create(const QUrl &url, const QString &id = QStringLiteral("id"))
    {
        manager->createDownload(QLatin1String(client), url.toString(), id, QString());
        return manager->getDownload(id);
    }

    // A stored download put back as the database would, with its file already on disk.
    Download *restore(const QUrl &url, const QString &fileName, const QByteArray &onDisk,
        unsigned state, qint64 totalSize, qint64 amountDownloaded,
        const QString &id = QStringLiteral("id"))
    {
        QFile file(path(fileName));
        if (file.open(QIODevice::WriteOnly))
            file.write(onDisk);
        file.close();
        manager->createDownload(id, QLatin1String(client), fileName, url.toString(), path(fileName),
            state, 4, totalSize, amountDownloaded, 1000);
        return manager->getDownload(id);
    }

    // Counts the readyRead notifications of the download's current reply, after it saw them.
    void countNotifications(Download *download)
    {
        QObject::connect(download->reply, &QIODevice::readyRead, [this] { ++notifications; });
    }

    static QByteArray contents(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
    }

    // No announcement may count bytes that are not yet in the file.
    bool countsOnlyWrittenBytes() const
    {
        for (const Report &r : reports) {
            if (r.amountDownloaded > qMax<qint64>(r.fileSize, 0))
                return false;
        }
        return true;
    }

    QTemporaryDir dir;
    DownloadManager *manager = nullptr;
    QList<Report> reports;
    int notifications = 0;
};

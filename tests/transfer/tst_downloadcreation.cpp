// How the manager brings downloads into being: identifiers, file names, directories and the
// free-space answer.
#include "FakeHttpServer.h"
#include "ManagerFixture.h"

#include <QtTest>

#include <memory>

class tst_DownloadCreation : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void fileNameRules_data();
    void fileNameRules();
    void directoryIsAPlainPrefix();
    void unknownClientUsesDefaultDirectory();
    void homeExpansion_data();
    void homeExpansion();
    void identifierIsDigestOfUrlAndTime();
    void onlyHttpUrlsAreAccepted_data();
    void onlyHttpUrlsAreAccepted();
    void nameAndIdentifierDefaults();
    void restoredDownloadsLaunchUnlessPausedOrFailed_data();
    void restoredDownloadsLaunchUnlessPausedOrFailed();
    void spaceArithmetic_data();
    void spaceArithmetic();
    void spaceMissingDirectory();
    void spaceFromTheFileSystem();

private:
    std::unique_ptr<FakeHttpServer> server;
    std::unique_ptr<ManagerFixture> fx;
};

void tst_DownloadCreation::init()
{
    qunsetenv("DL_CONSOLE_READER_ENABLE");
    server = std::make_unique<FakeHttpServer>();
    fx = std::make_unique<ManagerFixture>();
}

void tst_DownloadCreation::cleanup()
{
    fx.reset();
    server.reset();
}

void tst_DownloadCreation::fileNameRules_data()
{
    QTest::addColumn<QStringList>("existing");
    QTest::addColumn<QString>("url");
    QTest::addColumn<QString>("expected");
    QTest::newRow("free") << QStringList() << "http://h/a.zip"
                          << "a.zip";
    QTest::newRow("taken") << QStringList { "a.zip" } << "http://h/a.zip"
                           << "a.zip.0";
    QTest::newRow("taken twice") << QStringList { "a.zip", "a.zip.0" } << "http://h/a.zip"
                                 << "a.zip.1";
    QTest::newRow("lowest free number") << QStringList { "a.zip", "a.zip.1" } << "http://h/a.zip"
                                        << "a.zip.0";
    QTest::newRow("trailing slash") << QStringList() << "http://h/dir/"
                                    << "download";
    QTest::newRow("download taken") << QStringList { "download" } << "http://h/"
                                    << "download.0";
    QTest::newRow("query kept") << QStringList() << "http://h/a.zip?x=1"
                                << "a.zip?x=1";
}

void tst_DownloadCreation::fileNameRules()
{
    QFETCH(QStringList, existing);
    QFETCH(QString, url);
    QFETCH(QString, expected);
    for (const QString &name : existing) {
        QFile file(fx->path(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
    }
    QCOMPARE(
        fx->manager->getFileName(QLatin1String(ManagerFixture::client), url), fx->path(expected));
}

void tst_DownloadCreation::directoryIsAPlainPrefix()
{
    const QString prefix = fx->dir.path() + QLatin1String("/data");
    fx->manager->setDownloadPath(QStringLiteral("app"), prefix);
    QCOMPARE(fx->manager->getDownloadPath(QStringLiteral("app")), prefix);
    QCOMPARE(fx->manager->getFileName(QStringLiteral("app"), QStringLiteral("http://h/a.zip")),
        prefix + QLatin1String("a.zip"));
}

void tst_DownloadCreation::unknownClientUsesDefaultDirectory()
{
    QCOMPARE(fx->manager->getDownloadPath(QStringLiteral("nobody")), QStringLiteral("/tmp/"));
    const QString name
        = QStringLiteral("dlm-no-such-file-%1").arg(QCoreApplication::applicationPid());
    QCOMPARE(fx->manager->getFileName(QStringLiteral("nobody"), QLatin1String("http://h/") + name),
        QLatin1String("/tmp/") + name);
}

void tst_DownloadCreation::homeExpansion_data()
{
    const QString home = QDir::homePath();
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("stored");
    QTest::newRow("home prefix") << "~/dl/" << home + "/dl/";
    QTest::newRow("every tilde") << "~/a~b/" << home + "/a" + home + "b/";
    QTest::newRow("tilde inside") << "/x/~/y"
                                  << "/x/~/y";
    QTest::newRow("tilde alone") << "~"
                                 << "~";
}

void tst_DownloadCreation::homeExpansion()
{
    QFETCH(QString, path);
    QFETCH(QString, stored);
    fx->manager->setDownloadPath(QStringLiteral("app"), path);
    QCOMPARE(fx->manager->getDownloadPath(QStringLiteral("app")), stored);
}

void tst_DownloadCreation::identifierIsDigestOfUrlAndTime()
{
    const QString url = QStringLiteral("http://h/a.zip");
    for (int attempt = 0; attempt < 3; ++attempt) {
        const QByteArray before = QDateTime::currentDateTime().toString(Qt::TextDate).toLatin1();
        const QString id = fx->manager->getUniqueID(url);
        const QByteArray after = QDateTime::currentDateTime().toString(Qt::TextDate).toLatin1();
        if (before != after)
            continue; // the second changed under us
        QCOMPARE(id.size(), 32);
        QCOMPARE(id, id.toLower());
        const QByteArray expected
            = QCryptographicHash::hash(url.toLatin1() + before, QCryptographicHash::Md5).toHex();
        QCOMPARE(id, QString::fromLatin1(expected));
        return;
    }
    QFAIL("clock kept changing seconds");
}

void tst_DownloadCreation::onlyHttpUrlsAreAccepted_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("ftp") << "ftp://h/f" << false;
    QTest::newRow("upper case") << "HTTP://127.0.0.1:1/f" << false;
    QTest::newRow("empty") << "" << false;
    QTest::newRow("http") << "http://127.0.0.1:1/f" << true;
    QTest::newRow("https") << "https://127.0.0.1:1/f" << true;
}

void tst_DownloadCreation::onlyHttpUrlsAreAccepted()
{
    QFETCH(QString, url);
    QFETCH(bool, accepted);
    fx->manager->createDownload(
        QLatin1String(ManagerFixture::client), url, QStringLiteral("id"), QString());
    Download *d = fx->manager->getDownload(QStringLiteral("id"));
    QCOMPARE(d != nullptr, accepted);
    QCOMPARE(fx->reports.size(), accepted ? 1 : 0);
    if (d)
        QCOMPARE(d->state, unsigned(Download::Pending));
}

void tst_DownloadCreation::nameAndIdentifierDefaults()
{
    server->setBody("/a.zip", "x");
    const QString url = server->url("/a.zip").toString();
    fx->manager->createDownload(QLatin1String(ManagerFixture::client), url, QString(), QString());
    fx->manager->createDownload(QLatin1String(ManagerFixture::client), url, QStringLiteral("mine"),
        QStringLiteral("Shown"));
    const QList<Download *> list
        = fx->manager->getDownloadList(QLatin1String(ManagerFixture::client));
    QCOMPARE(list.size(), 2);
    QCOMPARE(list[0]->uniqueID.size(), 32);
    QCOMPARE(list[0]->name, list[0]->filePath);
    QCOMPARE(list[0]->filePath, fx->path(QStringLiteral("a.zip")));
    QCOMPARE(list[0]->contentURL, url);
    QCOMPARE(list[0]->clientID, QLatin1String(ManagerFixture::client));
    QCOMPARE(list[1]->uniqueID, QStringLiteral("mine"));
    QCOMPARE(list[1]->name, QStringLiteral("Shown"));
    QCOMPARE(list[1]->contentURL, url);
}

void tst_DownloadCreation::restoredDownloadsLaunchUnlessPausedOrFailed_data()
{
    QTest::addColumn<unsigned>("state");
    QTest::addColumn<unsigned>("after");
    QTest::addColumn<int>("requests");
    QTest::newRow("paused") << 4u << 4u << 0;
    QTest::newRow("completed") << 1u << 1u << 0;
    QTest::newRow("failed") << 8u << 8u << 0;
    QTest::newRow("stalled") << 32u << 16u << 1;
    QTest::newRow("progressing") << 2u << 16u << 1;
}

void tst_DownloadCreation::restoredDownloadsLaunchUnlessPausedOrFailed()
{
    QFETCH(unsigned, state);
    QFETCH(unsigned, after);
    QFETCH(int, requests);
    FakeHttpServer::Resource r;
    r.body = FakeHttpServer::makeBody(1000);
    r.stallAfter = 0;
    server->setResource("/f", r);
    fx->manager->createDownload(QStringLiteral("stored"), QStringLiteral("other"),
        QStringLiteral("N"), server->url("/f").toString(), fx->path(QStringLiteral("f")), state, 1,
        1000, 0, 1234);
    Download *d = fx->manager->getDownload(QStringLiteral("stored"));
    QVERIFY(d);
    QCOMPARE(d->state, after);
    QCOMPARE(d->clientID, QStringLiteral("other"));
    QCOMPARE(d->name, QStringLiteral("N"));
    QCOMPARE(d->filePath, fx->path(QStringLiteral("f")));
    QCOMPARE(d->failureCode, 1u);
    QCOMPARE(d->startTime, 1234);
    QCOMPARE(fx->reports.size(), requests);
    if (requests)
        QTRY_COMPARE_WITH_TIMEOUT(server->requestsFor("/f").size(), requests, 5000);
}

void tst_DownloadCreation::spaceArithmetic_data()
{
    QTest::addColumn<long long>("free");
    QTest::addColumn<long long>("size");
    QTest::addColumn<int>("result");
    // One Progressing download reserves 800 - 500 = 300 bytes.
    QTest::newRow("fits exactly") << 1000LL << 700LL << 0;
    QTest::newRow("one byte over") << 1000LL << 701LL << 1;
    QTest::newRow("nothing left, size 0") << 300LL << 0LL << 1;
    QTest::newRow("over-reserved") << 200LL << 0LL << 1;
    QTest::newRow("unknown free space") << -1LL << 0LL << 2;
}

void tst_DownloadCreation::spaceArithmetic()
{
    QFETCH(long long, free);
    QFETCH(long long, size);
    QFETCH(int, result);
    QString probed;
    fx->manager->freeSpaceProbe = [&](const QString &directory) {
        probed = directory;
        return free;
    };
    Download *running = fx->restore(QUrl(QStringLiteral("http://127.0.0.1:1/r")),
        QStringLiteral("r"), QByteArray(), Download::Paused, 0, 0, QStringLiteral("running"));
    running->state = Download::Progressing;
    running->totalSize = 800;
    running->amountDownloaded = 500;
    // Downloads in any other state reserve nothing.
    Download *paused = fx->restore(QUrl(QStringLiteral("http://127.0.0.1:1/p")),
        QStringLiteral("p"), QByteArray(), Download::Paused, 5000, 0, QStringLiteral("paused"));
    QVERIFY(paused);

    QCOMPARE(
        fx->manager->checkDownloadPossible(QLatin1String(ManagerFixture::client), size), result);
    QCOMPARE(probed, fx->directory());
}

void tst_DownloadCreation::spaceMissingDirectory()
{
    bool probed = false;
    fx->manager->freeSpaceProbe = [&](const QString &) {
        probed = true;
        return 1000LL;
    };
    fx->manager->setDownloadPath(QStringLiteral("app"), fx->path(QStringLiteral("missing/")));
    QCOMPARE(fx->manager->checkDownloadPossible(QStringLiteral("app"), 0), 2);
    QVERIFY(!probed);
}

void tst_DownloadCreation::spaceFromTheFileSystem()
{
    const QString client = QLatin1String(ManagerFixture::client);
    QCOMPARE(fx->manager->checkDownloadPossible(client, 1), 0);
    QCOMPARE(fx->manager->checkDownloadPossible(client, 1LL << 62), 1);
}

QTEST_GUILESS_MAIN(tst_DownloadCreation)
#include "tst_downloadcreation.moc"

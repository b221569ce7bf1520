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
    void unknownClientUsesDefaultDirectory();
    void directoryRules_data();
    void directoryRules();
    void identifiersNeverRepeat();
    void onlyHttpUrlsAreAccepted_data();
    void onlyHttpUrlsAreAccepted();
    void nameAndIdentifierDefaults();
    void restoredDownloadsLaunchUnlessPausedOrFailed_data();
    void restoredDownloadsLaunchUnlessPausedOrFailed();
    void spaceArithmetic_data();
    void spaceArithmetic();
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
    QTest::newRow("query and fragment dropped") << QStringList() << "http://h/r.pdf?t=a/b#c"
                                                << "r.pdf";
    QTest::newRow("decoded") << QStringList() << "http://h/d/na%C3%AFve%20f.txt"
                             << "na\u00efve f.txt";
    QTest::newRow("no slash or control") << QStringList() << "http://h/a%2Fb%0A%00.txt"
                                         << "ab.txt";
    QTest::newRow("dot dot") << QStringList() << "http://h/a/%2E%2E"
                             << "download";
    const QString longName = QString(300, QChar(0xe9)) + ".bin"; // two bytes each
    QTest::newRow("cut before the extension")
        << QStringList() << "http://h/" + longName << QString(125, QChar(0xe9)) + ".bin";
    QTest::newRow("cut for the number") << QStringList { QString(125, QChar(0xe9)) + ".bin" }
                                        << "http://h/" + longName
                                        << QString(124, QChar(0xe9)) + ".bin.0";
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
    QVERIFY(QFileInfo(fx->path(expected)).fileName().toUtf8().size() <= 255);
    QCOMPARE(
        fx->manager->getFileName(QLatin1String(ManagerFixture::client), url), fx->path(expected));
}

void tst_DownloadCreation::unknownClientUsesDefaultDirectory()
{
    QCOMPARE(fx->manager->getDownloadPath(QStringLiteral("nobody")), QStringLiteral("/tmp/"));
    const QString name
        = QStringLiteral("dlm-no-such-file-%1").arg(QCoreApplication::applicationPid());
    QCOMPARE(fx->manager->getFileName(QStringLiteral("nobody"), QLatin1String("http://h/") + name),
        QLatin1String("/tmp/") + name);
}

void tst_DownloadCreation::directoryRules_data()
{
    // '@' stands for the test's directory.
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("stored"); // empty: refused, the default directory stays
    QTest::newRow("home prefix") << "~/dl" << "@/home/dl";
    QTest::newRow("absolute, no slash") << "@/dl" << "@/dl";
    QTest::newRow("empty") << "" << QString();
    QTest::newRow("relative") << "dl" << QString();
    QTest::newRow("tilde alone") << "~" << QString();
    QTest::newRow("missing") << "@/missing" << QString();
    QTest::newRow("a file") << "@/dl/f" << QString();
}

void tst_DownloadCreation::directoryRules()
{
    QFETCH(QString, path);
    QFETCH(QString, stored);
    const QString root = fx->dir.path();
    qputenv("HOME", (root + "/home").toLocal8Bit());
    QVERIFY(QDir().mkpath(root + "/home/dl") && QDir().mkpath(root + "/dl"));
    QFile file(root + "/dl/f");
    QVERIFY(file.open(QIODevice::WriteOnly));
    path.replace('@', root);
    stored.replace('@', root);

    const auto status = fx->manager->setDownloadPath(QStringLiteral("app"), path);
    QCOMPARE(status == DownloadManager::PathStatus::Set, !stored.isEmpty());
    if (stored.isEmpty()) {
        QCOMPARE(fx->manager->getDownloadPath(QStringLiteral("app")), QStringLiteral("/tmp/"));
        return;
    }
    QCOMPARE(fx->manager->getDownloadPath(QStringLiteral("app")), stored);
    QCOMPARE(fx->manager->getFileName(QStringLiteral("app"), QStringLiteral("http://h/a.zip")),
        stored + "/a.zip");
}

void tst_DownloadCreation::identifiersNeverRepeat()
{
    QSet<QString> seen;
    for (int i = 0; i < 1000; ++i) {
        const QString id = fx->manager->getUniqueID(QStringLiteral("http://h/a.zip"));
        QVERIFY(QRegularExpression("^[0-9a-f]{32}$").match(id).hasMatch());
        seen.insert(id);
    }
    QCOMPARE(seen.size(), 1000);
}

void tst_DownloadCreation::onlyHttpUrlsAreAccepted_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("ftp") << "ftp://h/f" << false;
    QTest::newRow("upper case") << "HTTP://127.0.0.1:1/f" << false;
    QTest::newRow("scheme that starts with http") << "httpx://127.0.0.1:1/f" << false;
    QTest::newRow("no host") << "http:/f" << false;
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
    // The first one has not written its file yet, and still holds its path.
    QCOMPARE(list[1]->filePath, fx->path(QStringLiteral("a.zip.0")));
    QCOMPARE(fx->manager->createDownload(QLatin1String(ManagerFixture::client), url,
                 QStringLiteral("mine"), QString()),
        DownloadManager::CreateStatus::IdInUse);
    QCOMPARE(fx->manager->getDownloadList(QStringLiteral("*")).size(), 2);
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

void tst_DownloadCreation::spaceFromTheFileSystem()
{
    const QString client = QLatin1String(ManagerFixture::client);
    QCOMPARE(fx->manager->checkDownloadPossible(client, 1), 0);
    QCOMPARE(fx->manager->checkDownloadPossible(client, 1LL << 62), 1);
}

QTEST_GUILESS_MAIN(tst_DownloadCreation)
#include "tst_downloadcreation.moc"

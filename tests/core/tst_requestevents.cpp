// Requests posted from other threads: order, action codes and what reaches the manager.
#include "DLBaseClient.h"
#include "DLMEvents.h"
#include "Download.h"
#include "DownloadManager.h"
#include "FakeHttpServer.h"

#include <android/log.h>

#include <QtTest>

#include <mutex>
#include <thread>

namespace {

std::mutex logMutex;
QStringList logLines;

void captureLog(const struct __android_logger_data *, const char *message)
{
    std::lock_guard<std::mutex> lock(logMutex);
    logLines.append(QString::fromLocal8Bit(message));
}

QStringList logged()
{
    std::lock_guard<std::mutex> lock(logMutex);
    return logLines;
}

// Records the state of every report, in order.
class Recorder : public DLBaseClient
{
public:
    explicit Recorder(DownloadManager *manager, QStringList *seen)
        : DLBaseClient(manager), seen(seen)
    {
    }
    void updateDownloadEntry(Download *d) override
    {
        seen->append(d->uniqueID + ' ' + d->stateAsString());
    }

private:
    QStringList *seen;
};

} // namespace

class tst_RequestEvents : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void eventTypesAndFields();
    void createThenPauseFromOneThreadKeepOrder();
    void unsupportedActionIsLoggedOnly();
    void unknownIdentifierAndRemoveAllChangeNothing();

private:
    QTemporaryDir *dir = nullptr;
    DownloadManager *manager = nullptr;
    QStringList seen;
    FakeHttpServer server;
};

void tst_RequestEvents::initTestCase()
{
    qunsetenv("DL_CONSOLE_READER_ENABLE");
    __android_log_set_logger(captureLog);
    __android_log_set_minimum_priority(ANDROID_LOG_DEBUG);
}

void tst_RequestEvents::init()
{
    dir = new QTemporaryDir;
    QFile ini(dir->path() + "/downloadmanager.ini");
    QVERIFY(ini.open(QIODevice::WriteOnly));
    ini.write("[General]\ndownload_database_path=" + dir->path().toLocal8Bit() + "\n");
    ini.close();
    manager = new DownloadManager(dir->path() + "/downloadmanager.ini");
    manager->setDownloadPath("t", dir->path() + "/");
    manager->addClient(new Recorder(manager, &seen));
    seen.clear();
    std::lock_guard<std::mutex> lock(logMutex);
    logLines.clear();
}

void tst_RequestEvents::cleanup()
{
    manager->quit();
    delete manager;
    delete dir;
}

void tst_RequestEvents::eventTypesAndFields()
{
    QCOMPARE(int(DLMCreateDLEvent::EventType), 1001);
    QCOMPARE(int(DLMActionDLEvent::EventType), 1002);
    DLMCreateDLEvent create("c", "http://x/", "id", "n");
    QCOMPARE(create.type(), QEvent::Type(1001));
    QCOMPARE(create.clientID + create.url + create.uniqueID + create.name, QString("chttp://x/idn"));
}

void tst_RequestEvents::createThenPauseFromOneThreadKeepOrder()
{
    FakeHttpServer::Resource slow;
    slow.body = FakeHttpServer::makeBody(200000);
    slow.chunkSize = 2000;
    slow.chunkDelayMs = 10;
    server.setResource("/slow", slow);
    const QString url = server.url("/slow").toString();
    // Posted from a thread that is not the manager's, as the IPC front end does.
    std::thread poster([this, url] {
        manager->createDownloadEvent("t", url, "job", "");
        manager->actionDownloadEvent("job", 1); // resume: Pending, so nothing happens
    });
    poster.join();
    QVERIFY(manager->getDownload("job") == nullptr); // nothing runs before the loop delivers
    QTRY_VERIFY_WITH_TIMEOUT(manager->getDownload("job") != nullptr, 5000);
    QCOMPARE(seen.value(0), QString("job Pending"));
    QTRY_COMPARE_WITH_TIMEOUT(manager->getDownload("job")->state, unsigned(Download::Progressing), 5000);
    manager->actionDownloadEvent("job", 0);
    QTRY_COMPARE_WITH_TIMEOUT(manager->getDownload("job")->state, unsigned(Download::Paused), 5000);
    QVERIFY(logged().contains("job has been paused."));
    manager->actionDownloadEvent("job", 2);
    QTRY_VERIFY_WITH_TIMEOUT(manager->getDownload("job") == nullptr, 5000);
    QVERIFY(logged().contains("Download successfully deleted."));
}

void tst_RequestEvents::unsupportedActionIsLoggedOnly()
{
    server.setBody("/f", "content");
    manager->createDownload("t", server.url("/f").toString(), "f", "");
    QTRY_COMPARE_WITH_TIMEOUT(manager->getDownload("f")->state, unsigned(Download::Completed), 5000);
    const int reports = seen.size();
    manager->actionDownloadEvent("f", 3);
    manager->actionDownloadEvent("f", -1);
    QTRY_VERIFY_WITH_TIMEOUT(logged().contains("Action -1 not supported"), 5000);
    QVERIFY(logged().contains("Action 3 not supported"));
    QCOMPARE(seen.size(), reports);
    QCOMPARE(manager->getDownload("f")->state, unsigned(Download::Completed));
}

void tst_RequestEvents::unknownIdentifierAndRemoveAllChangeNothing()
{
    server.setBody("/g", "content");
    manager->createDownload("t", server.url("/g").toString(), "g", "");
    QTRY_COMPARE_WITH_TIMEOUT(manager->getDownload("g")->state, unsigned(Download::Completed), 5000);
    manager->actionDownloadEvent("nobody", 0);
    manager->actionDownloadEvent("all", 2); // removal knows no "all"
    QTRY_VERIFY_WITH_TIMEOUT(logged().contains("all not found. Unable to delete."), 5000);
    QVERIFY(!logged().contains("nobody has been paused."));
    QVERIFY(manager->getDownload("g") != nullptr);
}

QTEST_GUILESS_MAIN(tst_RequestEvents)
#include "tst_requestevents.moc"

// End-to-end checks of process entry, settings and lifecycle, on the real executable.
#include "ServiceProcess.h"

#include <QtTest>

class tst_Spine : public QObject
{
    Q_OBJECT

private slots:
    void refusedJoinPrintsOneLineAndExits255();
    void joinsAndQuitsWithStatusZero();
    void settingsFileNextToExecutable();
    void databasePathRules_data();
    void databasePathRules();
    void consoleSwitch_data();
    void consoleSwitch();
    void executeRunsAfterConstruction();
    void applicationManagerCallbacksOnlyPrint();
};

void tst_Spine::refusedJoinPrintsOneLineAndExits255()
{
    ServiceProcess service;
    service.setEnv("APM_REFUSE_JOIN", "1");
    QVERIFY(service.start());
    QVERIFY(service.waitForExit());
    QCOMPARE(service.exitStatus(), QProcess::NormalExit);
    QCOMPARE(service.exitCode(), 255);
    QCOMPARE(service.stdOut(), QByteArray("APM client test program aborted.\n"));
    // Nothing else was built: no settings read, no log line.
    QCOMPARE(service.stdErr(), QByteArray());
}

void tst_Spine::joinsAndQuitsWithStatusZero()
{
    ServiceProcess service;
    QVERIFY(service.start());
    QVERIFY(service.waitForOut("DOWNLOAD APM JOIN SUCCESS!!.\n"));
    QVERIFY(service.waitForErr("Enter your command:"));
    service.writeLine("quit");
    QVERIFY(service.waitForExit());
    QCOMPARE(service.exitStatus(), QProcess::NormalExit);
    QCOMPARE(service.exitCode(), 0);
    QCOMPARE(service.stdOut(), QByteArray("DOWNLOAD APM JOIN SUCCESS!!.\n"));
    QVERIFY(service.stdErr().contains("!!!!QUIT!!!!!!"));
}

void tst_Spine::settingsFileNextToExecutable()
{
    ServiceProcess service;
    QVERIFY(service.start());
    QVERIFY(service.waitForErr("Enter your command:"));
    const QByteArray expected = "settings file : " + service.binDir().toLocal8Bit() +
                                "/downloadmanager.ini\n";
    QVERIFY2(service.stdErr().contains(expected), service.stdErr().constData());
    service.writeLine("quit");
    QVERIFY(service.waitForExit());
}

void tst_Spine::databasePathRules_data()
{
    QTest::addColumn<bool>("withFile");
    QTest::addColumn<QString>("configured");
    QTest::addColumn<QByteArray>("logged");

    QTest::newRow("no settings file") << false << QString() << QByteArray("/tmp/");
    QTest::newRow("file without the key") << true << QString() << QByteArray("/tmp/");
    QTest::newRow("custom directory") << true << QString("@DB@") << QByteArray("@DB@");
}

void tst_Spine::databasePathRules()
{
    QFETCH(bool, withFile);
    QFETCH(QString, configured);
    QFETCH(QByteArray, logged);

    ServiceProcess service;
    configured.replace("@DB@", service.databaseDir());
    logged.replace("@DB@", service.databaseDir().toLocal8Bit());
    if (!withFile)
        service.withoutSettingsFile();
    else if (configured.isEmpty())
        service.setSetting("unrelated_key", "x"); // a file that lacks the key
    else
        service.setSetting("download_database_path", configured);
    if (withFile && configured.isEmpty()) {
        // ServiceProcess puts the database in its own directory unless told otherwise; an
        // empty value would not be "missing", so write the file by hand.
        service.withoutSettingsFile();
        QDir().mkpath(service.binDir());
        QFile ini(service.binDir() + "/downloadmanager.ini");
        QVERIFY(ini.open(QIODevice::WriteOnly));
        ini.write("[General]\nunrelated_key=x\n");
    }
    QVERIFY(service.start());
    QVERIFY(service.waitForErr("Enter your command:"));
    const QByteArray line = "entry download_database_path value " + logged + " \n";
    QVERIFY2(service.stdErr().contains(line), service.stdErr().constData());
    service.writeLine("quit");
    QVERIFY(service.waitForExit());
    QCOMPARE(service.exitCode(), 0);
}

void tst_Spine::consoleSwitch_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<bool>("console");
    QTest::newRow("unset") << QString() << false;
    QTest::newRow("abc") << QString("abc") << false;
    QTest::newRow("0") << QString("0") << false;
    QTest::newRow("empty") << QString("") << false;
    QTest::newRow("-1") << QString("-1") << true;
    QTest::newRow("7") << QString("7") << true;
}

void tst_Spine::consoleSwitch()
{
    QFETCH(QString, value);
    QFETCH(bool, console);

    ServiceProcess service;
    if (value.isNull())
        service.unsetEnv("DL_CONSOLE_READER_ENABLE");
    else
        service.setEnv("DL_CONSOLE_READER_ENABLE", value);
    QVERIFY(service.start());
    QVERIFY(service.waitForErr("entry download_database_path value"));
    if (console) {
        QVERIFY(service.waitForErr("Enter your command:"));
        service.writeLine("quit");
        QVERIFY(service.waitForExit());
        QCOMPARE(service.exitCode(), 0);
    } else {
        // Without a console nothing can stop the service but a signal; it must keep running.
        QTest::qWait(500);
        QVERIFY(service.isRunning());
        QVERIFY(!service.stdErr().contains("Console help:"));
        service.writeLine("quit");
        QTest::qWait(300);
        QVERIFY(service.isRunning());
        service.kill();
    }
}

void tst_Spine::executeRunsAfterConstruction()
{
    ServiceProcess service;
    QVERIFY(service.start());
    QVERIFY(service.waitForErr("Enter your command:"));
    const QByteArray err = service.stdErr();
    // The constructor's last logged step comes before the first help line.
    const int lastConstructionLine = err.lastIndexOf("entry download_database_path value");
    const int firstHelpLine = err.indexOf("Console help:");
    QVERIFY(lastConstructionLine >= 0);
    QVERIFY(firstHelpLine > lastConstructionLine);
    QCOMPARE(err.count("Console help:"), 1);
    service.writeLine("quit");
    QVERIFY(service.waitForExit());
}

void tst_Spine::applicationManagerCallbacksOnlyPrint()
{
    ServiceProcess service;
    service.setEnv("APM_TEST_CALLBACKS", "focus,lose_focus,destroy,resource,lose_resource");
    QVERIFY(service.start());
    QVERIFY(service.waitForOut("[DOWNLOAD]OnResourceUnavailable()\n"));
    QCOMPARE(service.stdOut(), QByteArray("DOWNLOAD APM JOIN SUCCESS!!.\n"
                                          "[DOWNLOAD]OnGetFocus()\n"
                                          "[DOWNLOAD]OnLossFocus()\n"
                                          "[DOWNLOAD]OnDestroy()\n"
                                          "[DOWNLOAD]OnResourceAvailable()\n"
                                          "[DOWNLOAD]OnResourceUnavailable()\n"));
    // OnDestroy does not stop the service.
    QTest::qWait(200);
    QVERIFY(service.isRunning());
    service.writeLine("quit");
    QVERIFY(service.waitForExit());
    QCOMPARE(service.exitCode(), 0);
}

QTEST_GUILESS_MAIN(tst_Spine)
#include "tst_spine.moc"

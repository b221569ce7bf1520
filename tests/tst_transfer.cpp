// Transfers in-process, where every data notification and every report can be counted.
#include "DLBaseClient.h"
#include "Download.h"
#include "FakeHttpServer.h"
#include "Harness.h"

#include <QtTest>

QList<QList<qint64>> reports; // state, total, amount, data notifications seen before the report
int seen = 0;

// No report counts bytes that are not in the file yet.
struct Recorder : DLBaseClient {
    using DLBaseClient::DLBaseClient;
    void updateDownloadEntry(Download *d) override
    {
        QVERIFY(d->amountDownloaded <= QFileInfo(d->filePath).size());
        reports.append({ d->state, d->totalSize, d->amountDownloaded, seen });
    }
};

class tst_Transfer : public QObject {
    Q_OBJECT
    FakeHttpServer server;

private slots:
    void commits_data()
    {
        // A commit at every period-th data notification of a body sent 200 bytes each 10 ms, at
        // none before the end with 0; with -1 only the read buffer's bound commits 20 MiB.
        QTest::addColumn<QString>("limit"); // MAX_PACKET_COUNT
        QTest::addColumn<int>("interval"); // DLM_REPORT_INTERVAL_MS
        QTest::addColumn<int>("period");
        QTest::addColumn<QString>("framing");
        QTest::newRow("no count") << "" << 0 << 11 << "length";
        QTest::newRow("count 0") << "0" << 0 << 11 << "length";
        QTest::newRow("count abc") << "abc" << 0 << 11 << "length";
        QTest::newRow("count 1") << "1" << 0 << 2 << "length";
        QTest::newRow("count 3") << "3" << 0 << 4 << "length";
        QTest::newRow("count -2") << "-2" << 0 << 1 << "length";
        QTest::newRow("count -2, an hour apart") << "-2" << 3600000 << 0 << "length";
        QTest::newRow("length") << "1000000" << 0 << -1 << "length";
        QTest::newRow("chunked") << "-2" << 3600000 << -1 << "chunked";
        QTest::newRow("ended by close") << "1000000" << 0 << -1 << "close";
    }
    void commits()
    {
        QFETCH(QString, limit);
        QFETCH(int, interval);
        QFETCH(int, period);
        QFETCH(QString, framing);
        qputenv("MAX_PACKET_COUNT", limit.toUtf8());
        qputenv("DLM_REPORT_INTERVAL_MS", QByteArray::number(interval));
        FakeHttpServer::Resource &r = server.resource("/f");
        r.body = FakeHttpServer::makeBody(period < 0 ? 20 << 20 : 8000);
        r.chunkSize = period < 0 ? 0 : 200;
        r.chunkDelayMs = period < 0 ? 0 : 10;
        r.chunkedCoding = framing == "chunked";
        r.lengthByClose = framing == "close";
        reports.clear();
        seen = 0;

        QTemporaryDir dir;
        QSettings(dir.filePath("ini"), QSettings::NativeFormat)
            .setValue("download_database_path", dir.path());
        DownloadManager manager(dir.filePath("ini"));
        const auto quit = qScopeGuard([&] { manager.quit(); });
        manager.addClient(new Recorder(&manager));
        manager.createDownload("id", "t", "f", server.url("/f").toString(), dir.filePath("f"),
            Download::Pending, 4, 0, 0, 0);
        Download *d = manager.getDownload("id");
        connect(d->reply, &QIODevice::readyRead, [] { ++seen; });
        QTRY_VERIFY_WITH_TIMEOUT(!d->reply, 30000); // the first attempt is over
        QCOMPARE(d->state, unsigned(Download::Completed));
        QCOMPARE(readFile(d->filePath), r.body);

        QList<qint64> at, expected;
        for (int i = 1; i < reports.size(); ++i) {
            const bool done = reports[i][0] == Download::Completed;
            QCOMPARE(reports[i][1], framing == "length" || done ? r.body.size() : 0);
            if (!done && reports[i][2] > reports[i - 1][2])
                at << reports[i][3] + 1;
        }
        for (int n = period; n > 0 && n <= seen; n += period)
            expected << n;
        QVERIFY(seen >= 2 * period && at.size() >= (period < 0 ? 2 : 0));
        QCOMPARE(period < 0 ? expected : at, expected); // the buffer's commits come where they fit
    }

    void retrySchedule()
    {
        // Failures: bytes committed, Retry-After (-1: none), delay before jitter (-1: given up).
        const QList<QList<qint64>> failures { { 0, -1, 1000 }, { 0, -1, 2000 }, { 0, -1, 4000 },
            { 0, -1, 8000 }, { 0, -1, 16000 }, { 0, -1, 32000 }, { 0, -1, 60000 }, { 0, -1, 60000 },
            { 0, -1, -1 }, { 100, -1, 1000 }, { 50, -1, 2000 }, { 100, 90000, 90000 },
            { 100, 7200000, 3600000 }, { 100, 100, 16000 } };
        RetrySchedule retry;
        retry.setMaxRetries(8);
        for (const QList<qint64> &f : failures) {
            const qint64 v = f[2], delay = retry.schedule(f[0], f[1]);
            QVERIFY2(v < 0 ? delay == -1
                           : delay >= v * 4 / 5 && delay <= qMax(v, qMin(v * 6 / 5, 60000LL)),
                qPrintable(QString::number(delay)));
        }
        // Retry-After 30 s from now, as delay seconds and as each form of an HTTP date.
        const QDateTime now(QDate(2026, 11, 25), QTime(14, 56, 4), Qt::UTC);
        for (const char *text : { " 30", "Wed, 25 Nov 2026 14:56:34 GMT",
                 "Wednesday, 25-Nov-26 14:56:34 GMT", "Wed Nov 25 14:56:34 2026" })
            QVERIFY2(RetrySchedule::retryAfterMs(text, now) == 30000, text);
        for (const char *text : { "", "soon", "-5", "Wed, 25 Nov 2026 14:56:34 CET" })
            QVERIFY2(RetrySchedule::retryAfterMs(text, now) == -1, text);
    }
};

QTEST_GUILESS_MAIN(tst_Transfer)
#include "tst_transfer.moc"

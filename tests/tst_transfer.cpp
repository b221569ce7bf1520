// Transfers in-process, where every data notification and every report can be counted.
#include "Download.h"
#include "DownloadManager.h"
#include "FakeHttpServer.h"
#include "Harness.h"
#include "HttpAnswer.h"
#include "RateShares.h"
#include "RetrySchedule.h"

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QtTest>

#include <sys/resource.h>

using namespace dlm;

QList<QList<qint64>> reports; // state, total, amount, data arrivals up to the report

// No report counts bytes that are not in the file yet, and none goes out before the state it
// tells is stored (read through a connection of its own, as another process would).
struct Recorder final : FrontEnd {
    explicit Recorder(const QString &database)
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE", "recorder");
        db.setDatabaseName(database);
        db.open();
    }
    void destroy() override
    {
        delete this;
        QSqlDatabase::removeDatabase("recorder");
    }
    void updateDownloadEntry(Download *d) override
    {
        QVERIFY(d->amountDownloaded <= QFileInfo(d->filePath()).size());
        reports.append({ d->state, d->totalSize, d->amountDownloaded, d->details().dataArrivals });
    }
    void reportsStored() override
    {
        if (reports.isEmpty())
            return;
        QSqlQuery stored(QSqlDatabase::database("recorder"));
        QVERIFY(stored.exec("SELECT state FROM downloads WHERE uniqueID = 'id'") && stored.next());
        QCOMPARE(stored.value(0).toLongLong(), reports.last()[0]);
    }
};

// A commit at every period-th data arrival of a body sent 200 bytes each 10 ms, at none
// before the end with 0; with -1 only the bound on unreported bytes commits 20 MiB.
struct Commits {
    QByteArray limit = ""; // MAX_PACKET_COUNT
    int interval = 0, period; // DLM_REPORT_INTERVAL_MS
    QString framing = "length";
};

// Downloads limited below an even share of the overall limit leave the rest to the others.
struct Shares {
    int64_t overall;
    std::vector<int64_t> own, expected;
};
// A transfer paced by its bucket, reading whole buffers as fast as the bucket lets it; live, a
// download of 1 MiB on loopback held to the named limit for 2 s, then let go.
struct Pacing {
    int64_t rate, buffer, changeTo = 0;
    QString live = ""; // own, overall, background
};
// An answer's head against the request (Range offset, known total): what becomes of its body.
struct Answer {
    int status;
    qint64 offset = 0, known = 0;
    QByteArray contentRange = "";
    qint64 length = -1;
    http::Verdict verdict;
    qint64 total = -1;
};

class tst_Transfer : public QObject {
    Q_OBJECT
    FakeHttpServer server;

private slots:
    void commits_data()
    {
        QTest::addColumn<Commits>("row");
        QTest::newRow("no count") << Commits { .period = 11 };
        QTest::newRow("count 0") << Commits { .limit = "0", .period = 11 };
        QTest::newRow("count abc") << Commits { .limit = "abc", .period = 11 };
        QTest::newRow("count 1") << Commits { .limit = "1", .period = 2 };
        QTest::newRow("count 3") << Commits { .limit = "3", .period = 4 };
        QTest::newRow("count -2") << Commits { .limit = "-2", .period = 1 };
        QTest::newRow("count -2, an hour apart")
            << Commits { .limit = "-2", .interval = 3600000, .period = 0 };
        QTest::newRow("length") << Commits { .limit = "1000000", .period = -1 };
        QTest::newRow("chunked") << Commits {
            .limit = "-2", .interval = 3600000, .period = -1, .framing = "chunked"
        };
        QTest::newRow("ended by close")
            << Commits { .limit = "1000000", .period = -1, .framing = "close" };
    }
    void commits()
    {
        QFETCH(Commits, row);
        const auto [limit, interval, period, framing] = row;
        qputenv("MAX_PACKET_COUNT", limit);
        qputenv("DLM_REPORT_INTERVAL_MS", QByteArray::number(interval));
        FakeHttpServer::Resource &r = server.resource("/f");
        r.body = FakeHttpServer::makeBody(period < 0 ? 20 << 20 : 8000);
        r.chunkSize = period < 0 ? 0 : 200;
        r.chunkDelayMs = period < 0 ? 0 : 10;
        r.chunkedCoding = framing == "chunked";
        r.lengthByClose = framing == "close";
        reports.clear();

        QTemporaryDir dir;
        QSettings(dir.filePath("ini"), QSettings::NativeFormat)
            .setValue("download_database_path", dir.path());
        DownloadManager manager(dir.filePath("ini"));
        const auto quit = qScopeGuard([&] { manager.quit(); });
        manager.addClient(new Recorder(dir.filePath("dlm_download.db")));
        StoredRecord stored; // a Pending download, launched as it comes back
        stored.uniqueID = "id";
        stored.clientID = "t";
        stored.contentURL = server.url("/f").toEncoded();
        stored.filePath = dir.filePath("f").toUtf8();
        stored.state = Download::Pending;
        manager.restoreDownload(stored);
        Download *d = manager.getDownload("id");
        QVERIFY(d && d->onTheWire());
        QTRY_VERIFY_WITH_TIMEOUT(!d->onTheWire(), 30000); // the first attempt is over
        QCOMPARE(d->state, unsigned(Download::Completed));
        QCOMPARE(readFile(d->filePath()), r.body);

        QList<qint64> at, expected;
        for (int i = 1; i < reports.size(); ++i) {
            const bool done = reports[i][0] == Download::Completed;
            QCOMPARE(reports[i][1], framing == "length" || done ? r.body.size() : 0);
            if (!done && reports[i][2] > reports[i - 1][2])
                at << reports[i][3];
        }
        const qint64 seen = d->details().dataArrivals;
        for (int n = period; n > 0 && n <= seen; n += period)
            expected << n;
        QVERIFY(seen >= 2 * period && at.size() >= (period < 0 ? 2 : 0));
        QCOMPARE(period < 0 ? expected : at, expected); // the buffer's commits come where they fit
    }

    void shares_data()
    {
        QTest::addColumn<Shares>("row");
        QTest::newRow("no overall limit: own limits kept") << Shares { 0, { 100, 0 }, { 100, 0 } };
        QTest::newRow("overall split evenly") << Shares { 1000, { 0, 0 }, { 500, 500 } };
        QTest::newRow("one limited below its share leaves the rest")
            << Shares { 1000, { 100, 0, 0 }, { 100, 450, 450 } };
        QTest::newRow("own limit above the share is cut to it")
            << Shares { 1000, { 800, 0 }, { 500, 500 } };
    }
    void shares()
    {
        QFETCH(Shares, row);
        QCOMPARE(shareRates(row.overall, row.own), row.expected);
    }

    void pacing_data()
    {
        QTest::addColumn<Pacing>("row");
        QTest::newRow("200 KiB/s in 16 KiB buffers, a few rests a second")
            << Pacing { .rate = 200 << 10, .buffer = 16 << 10 };
        QTest::newRow("a rate below one buffer a second")
            << Pacing { .rate = 1024, .buffer = 16 << 10 };
        QTest::newRow("a burst of two seconds paid by one rest")
            << Pacing { .rate = 64 << 10, .buffer = 128 << 10 };
        QTest::newRow("halved on a running transfer")
            << Pacing { .rate = 400 << 10, .buffer = 16 << 10, .changeTo = 200 << 10 };
        QTest::newRow("a live download held to its own limit until it is lifted")
            << Pacing { .rate = 64 << 10, .buffer = 0, .live = "own" };
        QTest::newRow("held to the overall limit until it is lifted")
            << Pacing { .rate = 64 << 10, .buffer = 0, .live = "overall" };
        QTest::newRow("held to the background limit until the mode is off")
            << Pacing { .rate = 64 << 10, .buffer = 0, .live = "background" };
        // 16 B/s: the first buffer alone owes minutes of rest, far past the wait for completion.
        QTest::newRow("resting under its own limit until the old resume time once it is lifted")
            << Pacing { .rate = 16, .buffer = 0, .live = "own" };
        QTest::newRow("resting under the overall limit until the old resume time once it is lifted")
            << Pacing { .rate = 16, .buffer = 0, .live = "overall" };
    }
    void pacing()
    {
        QFETCH(Pacing, row);
        if (!row.live.isEmpty())
            return livePacing(row);
        // Five simulated seconds (the last rate's five when it changes after the first).
        TokenBucket bucket;
        bucket.setRate(row.rate, 0);
        int64_t now = 0, from = 0, received = 0, rests = 0;
        while (now < from + 5000) {
            if (row.changeTo && from == 0 && now >= 1000) {
                bucket.setRate(row.changeTo, now);
                from = now;
                received = rests = 0;
            }
            received += row.buffer;
            const int64_t wait = bucket.take(row.buffer, now);
            now += wait;
            rests += wait > 0;
        }
        const int64_t average = received * 1000 / (now - from),
                      limit = row.changeTo ? row.changeTo : row.rate;
        QVERIFY2(
            average >= limit * 9 / 10 && average <= limit * 11 / 10, QByteArray::number(average));
        QVERIFY2(rests <= 4 * 5 + 1, QByteArray::number(rests)); // each rest is a wake-up
    }

    void livePacing(const Pacing &row)
    {
        server.resource("/m").body = FakeHttpServer::makeBody(1 << 20);
        QTemporaryDir dir;
        QSettings ini(dir.filePath("ini"), QSettings::NativeFormat);
        ini.setValue("download_database_path", dir.path());
        ini.setValue("background_rate_limit", qint64(row.rate));
        ini.sync();
        DownloadManager manager(dir.filePath("ini"));
        const auto quit = qScopeGuard([&] { manager.quit(); });
        const bool own = row.live == "own", background = row.live == "background";
        QVERIFY(row.live != "overall" || manager.setRateLimit("all", row.rate).done());
        QVERIFY(!background || manager.setBackgroundMode(true).done());
        QString id;
        QVERIFY(manager
                    .createDownload("t", server.url("/m").toString(), "", "", &id, 0, {},
                        { own ? row.rate : 0, 0 })
                    .done());
        Download *d = manager.getDownload(id);
        QVERIFY(d);
        const auto cpuMs = [] { // this thread's, where the service's loop runs
            rusage u {};
            getrusage(RUSAGE_THREAD, &u);
            return (u.ru_utime.tv_sec + u.ru_stime.tv_sec) * 1000
                + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1000;
        };
        const auto before = cpuMs();
        QTest::qWait(2000); // a quarter of the file at most would have come (64 KiB/s and bursts)
        QVERIFY2(d->amountDownloaded < (1 << 18), QByteArray::number(d->amountDownloaded));
        // A rest wakes the loop a few times a second; it never spins on the rested socket.
        QVERIFY2(cpuMs() - before < 1000, QByteArray::number(cpuMs() - before) + " ms");
        QVERIFY(background ? manager.setBackgroundMode(false).done()
                           : manager.setRateLimit(own ? id : "all", 0).done());
        QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Completed), 30000);
        QCOMPARE(readFile(d->filePath()), server.resource("/m").body);
    }

    void answers_data()
    {
        using V = http::Verdict;
        QTest::addColumn<Answer>("row");
        QTest::newRow("whole") << Answer {
            .status = 200, .length = 7, .verdict = V::Accept, .total = 7
        };
        QTest::newRow("whole to a Range") << Answer { .status = 200,
            .offset = 5,
            .known = 7,
            .length = 7,
            .verdict = V::AcceptFromZero,
            .total = 7 };
        QTest::newRow("range continues") << Answer { .status = 206,
            .offset = 5,
            .known = 7,
            .contentRange = "bytes 5-6/7",
            .verdict = V::Accept,
            .total = 7 };
        QTest::newRow("range, total unknown") << Answer {
            .status = 206, .offset = 5, .contentRange = "bytes 5-6/*", .verdict = V::Accept
        };
        QTest::newRow("range elsewhere") << Answer { .status = 206,
            .offset = 5,
            .known = 7,
            .contentRange = "bytes 0-6/7",
            .verdict = V::StartOver };
        QTest::newRow("range of a changed file") << Answer { .status = 206,
            .offset = 5,
            .known = 7,
            .contentRange = "bytes 5-8/9",
            .verdict = V::StartOverChanged };
        QTest::newRow("range unreadable") << Answer {
            .status = 206, .offset = 5, .contentRange = "bytes 5-/7", .verdict = V::StartOver
        };
        QTest::newRow("range elsewhere, never asked")
            << Answer { .status = 206, .contentRange = "bytes 3-6/7", .verdict = V::Reject };
        QTest::newRow("416 at the end") << Answer { .status = 416,
            .offset = 7,
            .contentRange = "bytes */7",
            .verdict = V::Complete,
            .total = 7 };
        QTest::newRow("416 short of the end") << Answer {
            .status = 416, .offset = 5, .contentRange = "bytes */7", .verdict = V::Reject
        };
        QTest::newRow("error page") << Answer { .status = 404, .length = 9, .verdict = V::Reject };
        QTest::newRow("redirect not followed") << Answer { .status = 302, .verdict = V::Reject };
    }
    void answers()
    {
        QFETCH(Answer, row);
        const http::Judgement j
            = http::judge(row.status, row.offset, row.known, row.contentRange, row.length);
        QCOMPARE(int(j.verdict), int(row.verdict));
        QCOMPARE(j.total, row.total);
    }

    void retrySchedule()
    {
        // Failures without new bytes: about a second first, then about twice the one before, up
        // to 60 s; the ninth is given up.
        RetrySchedule retry;
        retry.setMaxRetries(8);
        QList<qint64> d;
        QByteArray all; // for a failure's message
        for (int i = 0; i < 9; ++i)
            all += QByteArray::number(d.emplace_back(retry.schedule(0, -1))) + ' ';
        QVERIFY2(d.takeLast() == -1 && d[0] >= 500 && d[0] <= 1500, all);
        for (int i = 1; i < 7; ++i)
            QVERIFY2(d[i] >= d[i - 1] * 5 / 4 && d[i] <= d[i - 1] * 3, all);
        QVERIFY2(*std::max_element(d.begin(), d.end()) <= 60000 && d[7] >= 30000, all);
        // New bytes start again at the first delay, fewer than before do not.
        const qint64 fresh = retry.schedule(100, -1), again = retry.schedule(50, -1);
        QVERIFY(fresh >= 500 && fresh <= 1500 && again >= fresh * 5 / 4);
        // A server's Retry-After is waited for, an hour at most, and never shortens the backoff.
        const qint64 asked = retry.schedule(100, 90000), hour = retry.schedule(100, 7200000);
        QVERIFY(
            asked >= 90000 && hour > 60000 && hour <= 3600000 && retry.schedule(100, 100) > 1500);
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

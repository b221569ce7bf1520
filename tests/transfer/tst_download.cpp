// The transfer against a local HTTP server: the bytes that land on disk, the record and every
// announcement of it.
#include "FakeHttpServer.h"
#include "ManagerFixture.h"

#include <QtTest>

#include <csignal>
#include <memory>
#include <sys/resource.h>

namespace {
constexpr int kWait = 10000;

QByteArray contentRange(qint64 first, qint64 last, qint64 total)
{
    return "bytes " + QByteArray::number(first) + '-' + QByteArray::number(last) + '/'
        + QByteArray::number(total);
}

// Indices (1-based) of the readyRead notifications at which buffered data was committed.
QList<int> commitNotifications(const QList<Report> &reports)
{
    QList<int> result;
    qint64 last = 0;
    for (const Report &r : reports) {
        if (r.state != Download::Completed && r.amountDownloaded > last)
            result.append(r.notifications + 1);
        last = r.amountDownloaded;
    }
    return result;
}
} // namespace

class tst_Download : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void newDownloadIsUndefinedWithCode4();
    void stateText_data();
    void stateText();
    void freshDownloadWritesServedContent();
    void resumeContinuesFile_data();
    void resumeContinuesFile();
    void errorStatusWritesNothing_data();
    void errorStatusWritesNothing();
    void rangeBeyondEndCompletes();
    void rangeAnswerOfOtherSizeFails();
    void stallIsRetriedFromLastCommittedByte();
    void retryScheduleDoublesResetsAndGivesUp();
    void redirectIsFollowed();
    void batching_data();
    void batching();
    void fullReadBufferIsCommitted_data();
    void fullReadBufferIsCommitted();
    void simultaneousDownloadsStaySeparate();
    void queuedDownloadsDoNotTimeOut();
    void pauseWhilePendingPausesOnce();
    void pauseCommitsThenResumeContinues();
    void requestsOutsideTheirStatesAreIgnored();
    void restartFetchesCompletedFileAgain();
    void missingDirectoryFailsThenResumes();
    void writeFailureThenResumeCompletes();

private:
    std::unique_ptr<FakeHttpServer> server;
    std::unique_ptr<ManagerFixture> fx;
};

void tst_Download::init()
{
    qunsetenv("MAX_PACKET_COUNT");
    qunsetenv("DLM_TRANSFER_TIMEOUT_MS");
    qunsetenv("DL_CONSOLE_READER_ENABLE");
    qputenv("DLM_RETRY_BASE_MS", "10");
    qputenv("DLM_REPORT_INTERVAL_MS", "0");
    server = std::make_unique<FakeHttpServer>();
    fx = std::make_unique<ManagerFixture>();
}

void tst_Download::cleanup()
{
    fx.reset();
    server.reset();
}

void tst_Download::newDownloadIsUndefinedWithCode4()
{
    Download download(fx->manager, nullptr, QStringLiteral("u"), QStringLiteral("c"),
        QStringLiteral("http://h/f"), QStringLiteral("n"));
    QCOMPARE(download.state, 0u);
    QCOMPARE(download.stateAsString(), QStringLiteral("Undefined"));
    QCOMPARE(download.failureCode, 4u);
    QCOMPARE(download.contentURL, QStringLiteral("http://h/f"));
    QCOMPARE(download.name, QStringLiteral("n"));
    QCOMPARE(download.filePath, QString());
    QCOMPARE(download.startTime, 0);
    QVERIFY(!download.reply);

    server->setBody("/f", "x");
    Download *launched = fx->create(server->url("/f"));
    QCOMPARE(launched->state, unsigned(Download::Pending));
    QCOMPARE(fx->reports.size(), 1);
    QCOMPARE(fx->reports.first().state, unsigned(Download::Pending));
    QVERIFY(launched->startTime > 0);
}

void tst_Download::stateText_data()
{
    QTest::addColumn<unsigned>("state");
    QTest::addColumn<QString>("text");
    QTest::newRow("0") << 0u << "Undefined";
    QTest::newRow("1") << 1u << "Completed";
    QTest::newRow("2") << 2u << "Progressing";
    QTest::newRow("3") << 3u << "Undefined";
    QTest::newRow("4") << 4u << "Paused";
    QTest::newRow("8") << 8u << "Failed";
    QTest::newRow("16") << 16u << "Pending";
    QTest::newRow("32") << 32u << "Stalled";
    QTest::newRow("64") << 64u << "Undefined";
}

void tst_Download::stateText()
{
    QFETCH(unsigned, state);
    QFETCH(QString, text);
    Download download(fx->manager, nullptr, QString(), QString(), QString(), QString(), QString(),
        state, 4, 0, 0, 0);
    QCOMPARE(download.stateAsString(), text);
}

void tst_Download::freshDownloadWritesServedContent()
{
    const QByteArray body = FakeHttpServer::makeBody(300000);
    FakeHttpServer::Resource r;
    r.body = body;
    r.chunkSize = 8192;
    r.chunkDelayMs = 1;
    server->setResource("/file.bin", r);

    Download *d = fx->create(server->url("/file.bin"));
    QCOMPARE(d->filePath, fx->path("file.bin"));
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Completed), kWait);
    QCOMPARE(ManagerFixture::contents(d->filePath), body);
    QCOMPARE(d->amountDownloaded, body.size());
    QCOMPARE(d->totalSize, body.size());
    QCOMPARE(d->failureCode, 4u);
    QVERIFY(!d->reply); // freed with its buffers

    const auto requests = server->requestsFor("/file.bin");
    QCOMPARE(requests.size(), 1);
    QCOMPARE(requests[0].method, QByteArray("GET"));
    QCOMPARE(requests[0].header("accept-encoding"), QByteArray("identity"));
    QVERIFY(!requests[0].headers.contains("range"));

    QCOMPARE(fx->reports.first().state, unsigned(Download::Pending));
    QCOMPARE(fx->reports.last().state, unsigned(Download::Completed));
    QCOMPARE(fx->reports.last().amountDownloaded, body.size());
    QVERIFY(fx->countsOnlyWrittenBytes());
}

void tst_Download::resumeContinuesFile_data()
{
    const QByteArray body = FakeHttpServer::makeBody(3000);
    QTest::addColumn<QByteArray>("onDisk");
    QTest::addColumn<qint64>("amount");
    QTest::addColumn<qint64>("storedTotal");
    QTest::addColumn<bool>("honorRange");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("forcedContentRange");
    QTest::addColumn<QByteArray>("firstRange");
    QTest::addColumn<int>("requestCount");

    QTest::newRow("continues at its offset")
        << body.left(700) << qint64(700) << qint64(0) << true << 200 << QByteArray()
        << QByteArray("bytes=700-") << 1;
    QTest::newRow("longer file overwritten from its offset")
        << body.left(700) + QByteArray(5000, 'j') << qint64(700) << qint64(3000) << true << 200
        << QByteArray() << QByteArray("bytes=700-") << 1;
    QTest::newRow("short file starts over without range")
        << body.left(500) << qint64(700) << qint64(3000) << true << 200 << QByteArray()
        << QByteArray() << 1;
    QTest::newRow("server ignores range") << body.left(700) << qint64(700) << qint64(3000) << false
                                          << 200 << QByteArray() << QByteArray("bytes=700-") << 1;
    QTest::newRow("partial answer at another offset")
        << body.left(700) << qint64(700) << qint64(3000) << false << 206
        << contentRange(0, 2999, 3000) << QByteArray("bytes=700-") << 2;
    QTest::newRow("partial answer of another size")
        << body.left(700) << qint64(700) << qint64(5000) << true << 200 << QByteArray()
        << QByteArray("bytes=700-") << 2;
}

void tst_Download::resumeContinuesFile()
{
    QFETCH(QByteArray, onDisk);
    QFETCH(qint64, amount);
    QFETCH(qint64, storedTotal);
    QFETCH(bool, honorRange);
    QFETCH(int, status);
    QFETCH(QByteArray, forcedContentRange);
    QFETCH(QByteArray, firstRange);
    QFETCH(int, requestCount);

    const QByteArray body = FakeHttpServer::makeBody(3000);
    FakeHttpServer::Resource r;
    r.body = body;
    r.honorRange = honorRange;
    r.status = status;
    if (!forcedContentRange.isEmpty())
        r.extraHeaders.append({ "Content-Range", forcedContentRange });
    server->setResource("/f", r);

    Download *d = fx->restore(
        server->url("/f"), QStringLiteral("f"), onDisk, Download::Pending, storedTotal, amount);
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Completed), kWait);
    QCOMPARE(ManagerFixture::contents(d->filePath), body);
    QCOMPARE(d->amountDownloaded, body.size());
    QCOMPARE(d->totalSize, body.size());

    const auto requests = server->requestsFor("/f");
    QCOMPARE(requests.size(), requestCount);
    QCOMPARE(requests.first().header("range"), firstRange);
    QVERIFY(!requests.last().headers.contains("range") || requestCount == 1);
    QVERIFY(fx->countsOnlyWrittenBytes());
}

void tst_Download::errorStatusWritesNothing_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<bool>("resumed");
    QTest::addColumn<int>(
        "attempts"); // a passing fault is tried again up to "max_retries" (5) times
    QTest::newRow("404 fresh") << 404 << false << 1;
    QTest::newRow("500 fresh") << 500 << false << 6;
    QTest::newRow("403 fresh") << 403 << false << 1;
    QTest::newRow("503 fresh") << 503 << false << 6;
    QTest::newRow("500 resumed") << 500 << true << 6;
    QTest::newRow("404 resumed") << 404 << true << 1;
}

void tst_Download::errorStatusWritesNothing()
{
    QFETCH(int, status);
    QFETCH(bool, resumed);
    QFETCH(int, attempts);
    FakeHttpServer::Resource r;
    r.status = status;
    r.body = "<html>error page</html>";
    server->setResource("/f", r);

    const QByteArray prefix = FakeHttpServer::makeBody(700);
    Download *d = resumed
        ? fx->restore(server->url("/f"), QStringLiteral("f"), prefix, Download::Pending, 3000, 700)
        : fx->create(server->url("/f"));
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Failed), kWait);
    QCOMPARE(d->failureCode, 2u);
    QCOMPARE(server->requestsFor("/f").size(), attempts);
    QTRY_COMPARE_WITH_TIMEOUT(server->openConnections(), 0, kWait);
    if (resumed) {
        QCOMPARE(ManagerFixture::contents(d->filePath), prefix);
        QCOMPARE(d->amountDownloaded, 700);
        QCOMPARE(d->totalSize, 3000);
    } else {
        QVERIFY(!QFile::exists(d->filePath) || QFileInfo(d->filePath).size() == 0);
        QCOMPARE(d->amountDownloaded, 0);
        QCOMPARE(d->totalSize, 0);
    }
    // Each attempt is announced, then each wait for the next one, then the failure.
    QStringList states;
    for (const Report &report : qAsConst(fx->reports))
        states.append(QString::number(report.state));
    QStringList expected;
    for (int i = 1; i < attempts; ++i)
        expected << "16"
                 << "32";
    QCOMPARE(states,
        expected << "16"
                 << "8");
}

void tst_Download::rangeBeyondEndCompletes()
{
    const QByteArray body = FakeHttpServer::makeBody(3000);
    server->setBody("/f", body);
    Download *d
        = fx->restore(server->url("/f"), QStringLiteral("f"), body, Download::Pending, 0, 3000);
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Completed), kWait);
    QCOMPARE(server->requestsFor("/f").first().header("range"), QByteArray("bytes=3000-"));
    QCOMPARE(ManagerFixture::contents(d->filePath), body);
    QCOMPARE(d->totalSize, 3000);
    QCOMPARE(d->amountDownloaded, 3000);
    QCOMPARE(d->failureCode, 4u);
    QCOMPARE(fx->reports.last().state, unsigned(Download::Completed));
}

void tst_Download::rangeAnswerOfOtherSizeFails()
{
    const QByteArray body = FakeHttpServer::makeBody(3000);
    server->setBody("/f", body);
    const QByteArray onDisk = body + QByteArray(100, 'x');
    Download *d
        = fx->restore(server->url("/f"), QStringLiteral("f"), onDisk, Download::Pending, 0, 3100);
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Failed), kWait);
    QCOMPARE(d->failureCode, 2u);
    QCOMPARE(d->amountDownloaded, 3100);
    QCOMPARE(ManagerFixture::contents(d->filePath), onDisk);
}

void tst_Download::stallIsRetriedFromLastCommittedByte()
{
    // Eight attempts, seven stalls: more than "max_retries", but each one brings new bytes.
    qputenv("DLM_TRANSFER_TIMEOUT_MS", "200");
    qputenv("MAX_PACKET_COUNT", "-1");
    const QByteArray body = FakeHttpServer::makeBody(8000);
    FakeHttpServer::Resource r;
    r.body = body;
    r.chunkSize = 500;
    r.stallAfter = 1000;
    server->setResource("/f", r);

    Download *d = fx->create(server->url("/f"));
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Completed), 4 * kWait);
    QCOMPARE(ManagerFixture::contents(d->filePath), body);
    const auto requests = server->requestsFor("/f");
    QCOMPARE(requests.size(), 8);
    for (int i = 1; i < 8; ++i)
        QCOMPARE(requests[i].header("range"), "bytes=" + QByteArray::number(i * 1000) + '-');
    int stalled = 0;
    for (const Report &report : qAsConst(fx->reports))
        stalled += report.state == Download::Stalled ? 1 : 0;
    QCOMPARE(stalled, 7);
    QCOMPARE(d->failureCode, 1u);
}

void tst_Download::retryScheduleDoublesResetsAndGivesUp()
{
    qputenv("DLM_RETRY_BASE_MS", "1000");
    RetrySchedule retry;
    retry.setMaxRetries(8);
    for (qint64 nominal = 1000, n = 0; n < 8; ++n, nominal = qMin<qint64>(2 * nominal, 60000)) {
        const qint64 delay = retry.schedule(0, -1);
        QVERIFY2(delay >= nominal * 8 / 10 && delay <= qMin<qint64>(nominal * 12 / 10, 60000),
            qPrintable(QString::number(delay)));
    }
    QCOMPARE(retry.schedule(0, -1), -1); // the ninth failure in a row without new bytes
    QVERIFY(retry.schedule(1, -1) <= 1200); // new bytes: the count starts again
    QCOMPARE(retry.schedule(1, 5000), 5000); // the server's Retry-After
    QCOMPARE(retry.schedule(1, 7200 * 1000), 3600 * 1000); // ... but not beyond an hour
    QVERIFY(retry.isWaiting() && retry.nextAttemptTime() > 0);
    retry.cancel();
    QCOMPARE(retry.nextAttemptTime(), 0);
}

void tst_Download::redirectIsFollowed()
{
    const QByteArray body = FakeHttpServer::makeBody(4000);
    server->setBody("/real", body);
    FakeHttpServer::Resource moved;
    moved.redirectTo = server->url("/real").toEncoded();
    server->setResource("/moved", moved);

    Download *d = fx->create(server->url("/moved"));
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Completed), kWait);
    QCOMPARE(d->filePath, fx->path("moved"));
    QCOMPARE(ManagerFixture::contents(d->filePath), body);
    QCOMPARE(d->totalSize, body.size());
    QCOMPARE(server->requestsFor("/real").size(), 1);
    QCOMPARE(
        server->requestsFor("/real").first().header("accept-encoding"), QByteArray("identity"));
}

void tst_Download::batching_data()
{
    QTest::addColumn<QByteArray>("limit");
    QTest::addColumn<QByteArray>("intervalMs");
    QTest::addColumn<int>("period");
    QTest::newRow("unset") << QByteArray() << QByteArray("0") << 11;
    QTest::newRow("0") << QByteArray("0") << QByteArray("0") << 11;
    QTest::newRow("abc") << QByteArray("abc") << QByteArray("0") << 11;
    QTest::newRow("1") << QByteArray("1") << QByteArray("0") << 2;
    QTest::newRow("3") << QByteArray("3") << QByteArray("0") << 4;
    QTest::newRow("-2") << QByteArray("-2") << QByteArray("0") << 1;
    // A batch also waits for the interval since the last report: here only the end reports.
    QTest::newRow("-2, an hour apart") << QByteArray("-2") << QByteArray("3600000") << 0;
}

void tst_Download::batching()
{
    QFETCH(QByteArray, limit);
    QFETCH(QByteArray, intervalMs);
    QFETCH(int, period);
    if (!limit.isNull())
        qputenv("MAX_PACKET_COUNT", limit);
    qputenv("DLM_REPORT_INTERVAL_MS", intervalMs);
    const QByteArray body = FakeHttpServer::makeBody(40 * 200);
    FakeHttpServer::Resource r;
    r.body = body;
    r.chunkSize = 200;
    r.chunkDelayMs = 15;
    server->setResource("/f", r);

    Download *d = fx->create(server->url("/f"));
    fx->countNotifications(d);
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Completed), kWait);
    QCOMPARE(ManagerFixture::contents(d->filePath), body);

    const int notifications = fx->notifications;
    QVERIFY2(notifications >= 2 * period, qPrintable(QString::number(notifications)));
    QList<int> expected;
    for (int n = period; period > 0 && n <= notifications; n += period)
        expected.append(n);
    QCOMPARE(commitNotifications(fx->reports), expected);
}

void tst_Download::fullReadBufferIsCommitted_data()
{
    QTest::addColumn<bool>("chunked");
    QTest::addColumn<bool>("endedByClose");
    QTest::addColumn<int>("chunkSize");
    QTest::newRow("with length") << false << false << 0;
    QTest::newRow("chunked, one chunk") << true << false << 0;
    QTest::newRow("chunked, 8 KiB chunks") << true << false << 8192;
    QTest::newRow("ended by close") << false << true << 0;
    QTest::newRow("ended by close, 8 KiB writes") << false << true << 8192;
}

void tst_Download::fullReadBufferIsCommitted()
{
    QFETCH(bool, chunked);
    QFETCH(bool, endedByClose);
    QFETCH(int, chunkSize);
    // Batches never come due here: only the read buffer's bound can keep the data moving.
    qputenv("MAX_PACKET_COUNT", "1000000");
    qputenv("DLM_TRANSFER_TIMEOUT_MS", "5000");
    const QByteArray body = FakeHttpServer::makeBody(40 * 1024 * 1024);
    FakeHttpServer::Resource r;
    r.body = body;
    r.chunkedCoding = chunked;
    r.lengthByClose = endedByClose;
    r.chunkSize = chunkSize;
    server->setResource("/big", r);

    Download *d = fx->create(server->url("/big"));
    // A transfer stuck on a full buffer stalls and is tried again.
    QTRY_VERIFY_WITH_TIMEOUT(d->state == Download::Completed || d->state == Download::Stalled
            || d->state == Download::Failed,
        30000);
    QCOMPARE(d->state, unsigned(Download::Completed));
    QCOMPARE(server->requestsFor("/big").size(), 1);
    QCOMPARE(ManagerFixture::contents(d->filePath), body);
    // After the launch: Progressing with the header's length from the start, or without one,
    // a total known only at the end, and then exact. Memory stays bounded, except that the
    // close ending a body hands over everything the socket still holds at once.
    const bool lengthKnown = !chunked && !endedByClose;
    qint64 last = 0;
    int commits = 0;
    for (const Report &report : fx->reports.mid(1)) {
        const bool done = report.state == Download::Completed;
        QVERIFY(done || report.state == Download::Progressing);
        QCOMPARE(report.totalSize, lengthKnown || done ? body.size() : 0);
        QVERIFY2(endedByClose || report.amountDownloaded - last <= 16 * 1024 * 1024,
            qPrintable(QString::number(report.amountDownloaded - last)));
        commits += report.amountDownloaded > last ? 1 : 0;
        last = report.amountDownloaded;
    }
    QVERIFY(commits >= 4);
}

void tst_Download::simultaneousDownloadsStaySeparate()
{
    qputenv("MAX_PACKET_COUNT", "2");
    const QByteArray quick = FakeHttpServer::makeBody(20000, 1);
    const QByteArray slow = FakeHttpServer::makeBody(60000, 2);
    FakeHttpServer::Resource r;
    r.chunkSize = 1000;
    r.body = quick;
    r.chunkDelayMs = 2;
    server->setResource("/quick", r);
    r.body = slow;
    r.chunkDelayMs = 20;
    server->setResource("/slow", r);

    Download *s = fx->create(server->url("/slow"), QStringLiteral("slow"));
    Download *q = fx->create(server->url("/quick"), QStringLiteral("quick"));
    QTRY_COMPARE_WITH_TIMEOUT(q->state, unsigned(Download::Completed), kWait);
    QCOMPARE(s->state, unsigned(Download::Progressing));
    QVERIFY(s->amountDownloaded < slow.size());
    QTRY_COMPARE_WITH_TIMEOUT(s->state, unsigned(Download::Completed), kWait);
    QCOMPARE(ManagerFixture::contents(q->filePath), quick);
    QCOMPARE(ManagerFixture::contents(s->filePath), slow);
    QCOMPARE(s->failureCode, 4u);
    QVERIFY(fx->countsOnlyWrittenBytes());
}

void tst_Download::queuedDownloadsDoNotTimeOut()
{
    // Fifty downloads from one host share its six connections: most wait far longer than the
    // stall timeout before their request is sent, and none may fail or be tried again for it.
    qputenv("DLM_TRANSFER_TIMEOUT_MS", "400");
    FakeHttpServer::Resource r;
    r.body = FakeHttpServer::makeBody(4000);
    r.chunkSize = 500;
    r.chunkDelayMs = 60;
    QList<Download *> all;
    for (int i = 0; i < 50; ++i) {
        server->setResource("/q" + QByteArray::number(i), r);
        all.append(fx->create(server->url("/q" + QByteArray::number(i)), QString::number(i)));
    }
    for (Download *d : qAsConst(all)) {
        QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Completed), 6 * kWait);
        QCOMPARE(ManagerFixture::contents(d->filePath), r.body);
        QCOMPARE(server->requestsFor("/q" + d->uniqueID.toLatin1()).size(), 1);
    }
}

void tst_Download::pauseWhilePendingPausesOnce()
{
    FakeHttpServer::Resource r;
    r.neverAnswer = true;
    server->setResource("/f", r);
    Download *d = fx->create(server->url("/f"));
    QTRY_COMPARE_WITH_TIMEOUT(server->requestsFor("/f").size(), 1, kWait);
    QCOMPARE(d->state, unsigned(Download::Pending));
    // Six requests per host are on the wire; the rest wait for a slot, and a paused one takes none.
    QList<Download *> more;
    for (int i = 0; i < 7; ++i)
        more.append(fx->create(server->url("/f"), QString::number(i)));
    QVERIFY(more[4]->reply && !more[5]->reply && !more[6]->reply);
    more[5]->pause();
    d->pause();
    d->pause();
    QCOMPARE(d->state, unsigned(Download::Paused));
    QTRY_VERIFY_WITH_TIMEOUT(more[6]->reply, kWait);
    QVERIFY(!more[5]->reply);
    QTRY_COMPARE_WITH_TIMEOUT(server->openConnections(), 6, kWait);
    d->resume();
    QStringList states;
    for (const Report &report : qAsConst(fx->reports))
        if (report.uniqueID == d->uniqueID)
            states.append(QString::number(report.state));
    QCOMPARE(states, QStringList({ "16", "4", "16" }));
}

void tst_Download::pauseCommitsThenResumeContinues()
{
    qputenv("MAX_PACKET_COUNT", "3");
    const QByteArray body = FakeHttpServer::makeBody(40000);
    FakeHttpServer::Resource r;
    r.body = body;
    r.chunkSize = 500;
    r.chunkDelayMs = 10;
    server->setResource("/f", r);

    Download *d = fx->create(server->url("/f"));
    QTRY_VERIFY_WITH_TIMEOUT(d->amountDownloaded >= 5000, kWait);
    QCOMPARE(d->state, unsigned(Download::Progressing));
    const int reportsBefore = fx->reports.size();
    d->pause();
    QCOMPARE(d->state, unsigned(Download::Paused));
    QCOMPARE(fx->reports.size(), reportsBefore + 1);
    QCOMPARE(fx->reports.last().state, unsigned(Download::Paused));
    QCOMPARE(fx->reports.last().amountDownloaded, d->amountDownloaded);
    QCOMPARE(d->failureCode, 4u);
    QVERIFY(!d->reply); // freed with its buffers
    const qint64 paused = d->amountDownloaded;
    QCOMPARE(ManagerFixture::contents(d->filePath), body.left(paused));

    d->pause();
    QCOMPARE(fx->reports.size(), reportsBefore + 1);
    d->resume();
    QCOMPARE(d->state, unsigned(Download::Pending));
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Completed), kWait);
    QCOMPARE(server->requestsFor("/f").last().header("range"),
        "bytes=" + QByteArray::number(paused) + '-');
    QCOMPARE(ManagerFixture::contents(d->filePath), body);
    QCOMPARE(d->failureCode, 4u);
    QVERIFY(fx->countsOnlyWrittenBytes());
}

void tst_Download::requestsOutsideTheirStatesAreIgnored()
{
    const QByteArray body = FakeHttpServer::makeBody(2000);
    server->setBody("/f", body);
    FakeHttpServer::Resource silent;
    silent.neverAnswer = true;
    server->setResource("/stalled", silent);

    Download *done = fx->create(server->url("/f"), QStringLiteral("done"));
    QTRY_COMPARE_WITH_TIMEOUT(done->state, unsigned(Download::Completed), kWait);
    Download *pending = fx->create(server->url("/stalled"), QStringLiteral("pending"));
    Download *paused = fx->restore(server->url("/f"), QStringLiteral("p"), body.left(100),
        Download::Paused, 2000, 100, QStringLiteral("paused"));
    QTRY_COMPARE_WITH_TIMEOUT(server->requestsFor("/stalled").size(), 1, kWait);
    const int reports = fx->reports.size();

    done->resume();
    pending->resume();
    pending->restart();
    paused->restart();
    paused->pause();
    QCOMPARE(done->state, unsigned(Download::Completed));
    QCOMPARE(pending->state, unsigned(Download::Pending));
    QCOMPARE(paused->state, unsigned(Download::Paused));
    QCOMPARE(fx->reports.size(), reports);
    QCOMPARE(server->requestsFor("/f").size(), 1);
    QCOMPARE(server->requestsFor("/stalled").size(), 1);

    // A restored Completed download is handed to launch() and stays as it is.
    fx->restore(server->url("/f"), QStringLiteral("c"), body, Download::Completed, 2000, 2000,
        QStringLiteral("completed"));
    QCOMPARE(fx->reports.size(), reports);
    QCOMPARE(server->requestsFor("/f").size(), 1);
}

void tst_Download::restartFetchesCompletedFileAgain()
{
    FakeHttpServer::Resource broken;
    broken.status = 500;
    server->setResource("/f", broken);
    Download *d = fx->create(server->url("/f"));
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Failed), kWait);
    d->restart();
    QCOMPARE(d->state, unsigned(Download::Failed));

    const QByteArray first = FakeHttpServer::makeBody(3000, 1);
    server->setBody("/f", first);
    d->resume();
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Completed), kWait);
    QCOMPARE(d->failureCode, 2u);
    QCOMPARE(ManagerFixture::contents(d->filePath), first);

    // The content changed and shrank: the new file must hold exactly the new bytes.
    const QByteArray second = FakeHttpServer::makeBody(2000, 2);
    server->setBody("/f", second);
    const qint64 started = d->startTime;
    d->restart();
    QCOMPARE(d->state, unsigned(Download::Pending));
    QCOMPARE(d->totalSize, 0);
    QCOMPARE(d->amountDownloaded, 0);
    QCOMPARE(fx->reports.last().state, unsigned(Download::Pending));
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Completed), kWait);
    QVERIFY(!server->requestsFor("/f").last().headers.contains("range"));
    QCOMPARE(ManagerFixture::contents(d->filePath), second);
    QCOMPARE(d->totalSize, 2000);
    QCOMPARE(d->startTime, started);
    QCOMPARE(d->failureCode, 2u);
}

void tst_Download::missingDirectoryFailsThenResumes()
{
    qputenv("MAX_PACKET_COUNT", "-1");
    const QByteArray body = FakeHttpServer::makeBody(5000);
    FakeHttpServer::Resource r;
    r.body = body;
    r.chunkSize = 1000;
    server->setResource("/f", r);
    const QString directory = fx->path(QStringLiteral("later/"));
    QVERIFY(QDir().mkpath(directory));
    fx->manager->setDownloadPath(QLatin1String(ManagerFixture::client), directory);
    QVERIFY(QDir().rmdir(directory)); // gone before the download opens its file
    Download *d = fx->create(server->url("/f"));
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Failed), kWait);
    QCOMPARE(d->failureCode, 3u);
    QCOMPARE(d->amountDownloaded, 0);

    QVERIFY(QDir().mkpath(directory));
    d->resume();
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Completed), kWait);
    QCOMPARE(ManagerFixture::contents(directory + QLatin1String("f")), body);
}

void tst_Download::writeFailureThenResumeCompletes()
{
    const QByteArray body = FakeHttpServer::makeBody(400000);
    FakeHttpServer::Resource r;
    r.body = body;
    r.chunkSize = 16384;
    r.chunkDelayMs = 2;
    server->setResource("/f", r);
    qputenv("MAX_PACKET_COUNT", "-1");

    struct rlimit original;
    QCOMPARE(getrlimit(RLIMIT_FSIZE, &original), 0);
    std::signal(SIGXFSZ, SIG_IGN);
    struct rlimit limited = original;
    limited.rlim_cur = 100000;
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &limited), 0);

    Download *d = fx->create(server->url("/f"));
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Failed), kWait);
    QCOMPARE(setrlimit(RLIMIT_FSIZE, &original), 0);
    QCOMPARE(d->failureCode, 3u);
    QVERIFY(d->amountDownloaded > 0);
    QVERIFY(d->amountDownloaded <= 100000);
    const QByteArray partial = ManagerFixture::contents(d->filePath);
    QVERIFY(partial.size() >= d->amountDownloaded);
    QCOMPARE(partial, body.left(partial.size()));
    QVERIFY(fx->countsOnlyWrittenBytes());

    const qint64 committed = d->amountDownloaded;
    d->resume();
    QTRY_COMPARE_WITH_TIMEOUT(d->state, unsigned(Download::Completed), kWait);
    std::signal(SIGXFSZ, SIG_DFL);
    QCOMPARE(server->requestsFor("/f").last().header("range"),
        "bytes=" + QByteArray::number(committed) + '-');
    QCOMPARE(ManagerFixture::contents(d->filePath), body);
}

QTEST_GUILESS_MAIN(tst_Download)
#include "tst_download.moc"

// The shared fake server must itself be right, or every transfer test lies.
#include "FakeHttpServer.h"

#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QtTest>

class tst_FakeHttpServer : public QObject
{
    Q_OBJECT

private:
    QNetworkReply *get(const QUrl &url, const QByteArray &range = QByteArray())
    {
        QNetworkRequest request(url);
        if (!range.isEmpty())
            request.setRawHeader("Range", range);
        return nam.get(request);
    }
    static bool waitFinished(QNetworkReply *reply, int ms = 5000)
    {
        if (reply->isFinished())
            return true;
        QSignalSpy spy(reply, &QNetworkReply::finished);
        return spy.wait(ms);
    }
    QNetworkAccessManager nam;

private slots:
    void servesBodyAndRecordsHeaders();
    void servesRanges();
    void ignoresRangeWhenAsked();
    void errorStatusAndMissingPath();
    void slowChunksArriveInOrder();
    void stallKeepsConnectionSilent();
    void closesMidBody();
    void closesWithoutAnswer();
    void redirects();
};

void tst_FakeHttpServer::servesBodyAndRecordsHeaders()
{
    FakeHttpServer server;
    const QByteArray body = FakeHttpServer::makeBody(100000);
    server.setBody("/a.bin", body);
    QNetworkRequest request(server.url("/a.bin"));
    request.setRawHeader("X-Probe", "42");
    QNetworkReply *reply = nam.get(request);
    QVERIFY(waitFinished(reply));
    QCOMPARE(reply->error(), QNetworkReply::NoError);
    QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
    QCOMPARE(reply->readAll(), body);
    QCOMPARE(server.requests().size(), 1);
    QCOMPARE(server.requests().first().method, QByteArray("GET"));
    QCOMPARE(server.requests().first().header("x-probe"), QByteArray("42"));
    reply->deleteLater();
}

void tst_FakeHttpServer::servesRanges()
{
    FakeHttpServer server;
    const QByteArray body = FakeHttpServer::makeBody(1000, 7);
    server.setBody("/r", body);
    QNetworkReply *reply = get(server.url("/r"), "bytes=700-");
    QVERIFY(waitFinished(reply));
    QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 206);
    QCOMPARE(reply->rawHeader("Content-Range"), QByteArray("bytes 700-999/1000"));
    QCOMPARE(reply->readAll(), body.mid(700));
    reply->deleteLater();

    reply = get(server.url("/r"), "bytes=1000-");
    QVERIFY(waitFinished(reply));
    QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 416);
    QCOMPARE(reply->rawHeader("Content-Range"), QByteArray("bytes */1000"));
    reply->deleteLater();
}

void tst_FakeHttpServer::ignoresRangeWhenAsked()
{
    FakeHttpServer server;
    FakeHttpServer::Resource r;
    r.body = FakeHttpServer::makeBody(500);
    r.honorRange = false;
    server.setResource("/r", r);
    QNetworkReply *reply = get(server.url("/r"), "bytes=100-");
    QVERIFY(waitFinished(reply));
    QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
    QCOMPARE(reply->readAll(), r.body);
    reply->deleteLater();
}

void tst_FakeHttpServer::errorStatusAndMissingPath()
{
    FakeHttpServer server;
    FakeHttpServer::Resource r;
    r.status = 500;
    r.body = "boom";
    server.setResource("/e", r);
    QNetworkReply *reply = get(server.url("/e"));
    QVERIFY(waitFinished(reply));
    QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 500);
    QVERIFY(reply->error() != QNetworkReply::NoError);
    reply->deleteLater();

    reply = get(server.url("/nothing"));
    QVERIFY(waitFinished(reply));
    QCOMPARE(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 404);
    reply->deleteLater();
}

void tst_FakeHttpServer::slowChunksArriveInOrder()
{
    FakeHttpServer server;
    FakeHttpServer::Resource r;
    r.body = FakeHttpServer::makeBody(10000, 3);
    r.chunkSize = 1000;
    r.chunkDelayMs = 20;
    server.setResource("/slow", r);
    QNetworkReply *reply = get(server.url("/slow"));
    QSignalSpy ready(reply, &QNetworkReply::readyRead);
    QVERIFY(waitFinished(reply));
    QVERIFY(ready.count() >= 5); // many notifications, not one
    QCOMPARE(reply->readAll(), r.body);
    reply->deleteLater();
}

void tst_FakeHttpServer::stallKeepsConnectionSilent()
{
    FakeHttpServer server;
    FakeHttpServer::Resource r;
    r.body = FakeHttpServer::makeBody(10000);
    r.stallAfter = 4000;
    r.chunkSize = 1000;
    server.setResource("/stall", r);
    QNetworkReply *reply = get(server.url("/stall"));
    QTRY_COMPARE_WITH_TIMEOUT(reply->bytesAvailable(), qint64(4000), 5000);
    QTest::qWait(300);
    QVERIFY(!reply->isFinished());
    QCOMPARE(server.openConnections(), 1);
    server.dropAll();
    QVERIFY(waitFinished(reply));
    QVERIFY(reply->error() != QNetworkReply::NoError);
    reply->deleteLater();
}

void tst_FakeHttpServer::closesMidBody()
{
    FakeHttpServer server;
    FakeHttpServer::Resource r;
    r.body = FakeHttpServer::makeBody(10000);
    r.closeAfter = 2500;
    r.chunkSize = 1000;
    server.setResource("/cut", r);
    QNetworkReply *reply = get(server.url("/cut"));
    QVERIFY(waitFinished(reply));
    QVERIFY(reply->error() != QNetworkReply::NoError);
    QCOMPARE(reply->readAll(), r.body.left(2500));
    reply->deleteLater();
}

void tst_FakeHttpServer::closesWithoutAnswer()
{
    FakeHttpServer server;
    FakeHttpServer::Resource r;
    r.closeWithoutAnswer = true;
    server.setResource("/x", r);
    QNetworkReply *reply = get(server.url("/x"));
    QVERIFY(waitFinished(reply));
    QVERIFY(reply->error() != QNetworkReply::NoError);
    QVERIFY(server.requests().size() >= 1); // Qt retries once on a connection closed unanswered
    reply->deleteLater();
}

void tst_FakeHttpServer::redirects()
{
    FakeHttpServer server;
    FakeHttpServer::Resource r;
    r.redirectTo = server.url("/target").toEncoded();
    server.setResource("/from", r);
    server.setBody("/target", "payload");
    QNetworkReply *reply = get(server.url("/from"));
    QVERIFY(waitFinished(reply));
    QCOMPARE(reply->error(), QNetworkReply::NoError);
    QCOMPARE(reply->readAll(), QByteArray("payload"));
    QCOMPARE(server.requestsFor("/target").size(), 1);
    reply->deleteLater();
}

QTEST_GUILESS_MAIN(tst_FakeHttpServer)
#include "tst_fakehttpserver.moc"

#pragma once

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QObject>
#include <QPair>
#include <QTcpServer>
#include <QUrl>

#include <functional>

class QTcpSocket;

// In-process HTTP/1.1 server on 127.0.0.1 for tests. Serves registered resources with byte
// ranges and a set of misbehaviours, and records every request it received. Lives on the thread
// that created it; it only works while that thread runs an event loop (QTRY_*, QSignalSpy::wait).
class FakeHttpServer : public QObject {
    Q_OBJECT

public:
    struct Resource {
        QByteArray body {};
        int status = 200; // a status other than 200 serves body as the error page
        bool honorRange = true; // false: answer every Range request with 200 and the full body
        int chunkSize = 0; // 0: the whole body in one write
        int chunkDelayMs = 0; // pause between chunks, driven by a timer
        qint64 stallAfter = -1; // send headers and this many body bytes, then stay silent
        qint64 closeAfter = -1; // send this many body bytes, then drop the connection
        int faultyAnswers = -1; // stallAfter, closeAfter, endlessHeader: this many answers
        bool endlessHeader = false; // header lines, one each chunkDelayMs, until turned off
        bool neverAnswer = false; // read the request, then say nothing at all
        QByteArray redirectTo {}; // answer 302 with this Location
        qint64 contentLength = -1; // advertise this length instead of the real one
        bool chunkedCoding = false; // "Transfer-Encoding: chunked", one chunk per write
        bool lengthByClose = false; // no length at all: the body ends when the connection closes
        QList<QPair<QByteArray, QByteArray>> extraHeaders {};
        QByteArray etag {}; // sent as ETag; a Range whose If-Range differs gets it all
    };

    struct Request {
        QByteArray method;
        QByteArray path;
        QHash<QByteArray, QByteArray> headers; // names in lower case
        QByteArray header(const QByteArray &name) const { return headers.value(name.toLower()); }
    };

    explicit FakeHttpServer(QObject *parent = nullptr);
    ~FakeHttpServer() override;

    quint16 port() const;
    QUrl url(const QByteArray &path) const;

    void setResource(const QByteArray &path, const Resource &resource);
    void setBody(const QByteArray &path, const QByteArray &body);
    Resource &resource(const QByteArray &path);

    QList<Request> requests() const { return received; }
    QList<Request> requestsFor(const QByteArray &path) const;
    void clearRequests() { received.clear(); }
    int mostConnections = 0; // open at once, at most, so far

    // Deterministic pseudo-random content, so tests can compare exact bytes.
    static QByteArray makeBody(qint64 size, quint32 seed = 1);

private:
    struct Connection;
    void onNewConnection();
    void onReadyRead(QTcpSocket *socket);
    Resource resourceFor(const QByteArray &path); // counts down its faulty answers
    // The status line and what goes with it (Location, Content-Range); the body to send.
    static QByteArray headStart(const Resource &r, const Request &request, QByteArray *body);
    void answer(Connection *connection, const Request &request);
    void respond(Connection *connection);
    bool sendNextChunk(Connection *connection); // false once the connection is done or stalled
    void finish(Connection *connection, bool close);
    void writeBody(Connection *connection, const QByteArray &bytes); // framed when chunked

    QTcpServer server;
    QHash<QByteArray, Resource> resources;
    QList<Request> received;
    QHash<QTcpSocket *, Connection *> connections;
};

#include "FakeHttpServer.h"

#include <QPointer>
#include <QTcpSocket>
#include <QTimer>
#include <cctype>

struct FakeHttpServer::Connection {
    QPointer<QTcpSocket> socket;
    QByteArray buffer;
    QByteArray body; // what is left to send
    qint64 sent = 0;
    Resource resource;
    QTimer *timer = nullptr;
};

FakeHttpServer::FakeHttpServer(QObject *parent) : QObject(parent)
{
    connect(&server, &QTcpServer::newConnection, this, &FakeHttpServer::onNewConnection);
    server.listen(QHostAddress::LocalHost, 0);
}

FakeHttpServer::~FakeHttpServer()
{
    const auto open = connections.values();
    for (Connection *c : open)
        finish(c, true);
}

quint16 FakeHttpServer::port() const
{
    return server.serverPort();
}

QUrl FakeHttpServer::url(const QByteArray &path) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(port()).arg(QString::fromLatin1(path)));
}

void FakeHttpServer::setResource(const QByteArray &path, const Resource &resource)
{
    resources.insert(path, resource);
}

void FakeHttpServer::setBody(const QByteArray &path, const QByteArray &body)
{
    Resource r;
    r.body = body;
    resources.insert(path, r);
}

FakeHttpServer::Resource &FakeHttpServer::resource(const QByteArray &path)
{
    return resources[path];
}

QList<FakeHttpServer::Request> FakeHttpServer::requestsFor(const QByteArray &path) const
{
    QList<Request> result;
    for (const Request &r : received) {
        if (r.path == path)
            result.append(r);
    }
    return result;
}

QByteArray FakeHttpServer::makeBody(qint64 size, quint32 seed)
{
    QByteArray out(size, Qt::Uninitialized);
    quint32 x = seed * 2654435761u + 1;
    for (qint64 i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        out[i] = char(x & 0xff);
    }
    return out;
}

void FakeHttpServer::onNewConnection()
{
    while (QTcpSocket *socket = server.nextPendingConnection()) {
        auto *c = new Connection;
        c->socket = socket;
        connections.insert(socket, c);
        mostConnections = qMax(mostConnections, int(connections.size()));
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            if (Connection *c = connections.value(socket))
                finish(c, true);
        });
    }
}

void FakeHttpServer::onReadyRead(QTcpSocket *socket)
{
    Connection *c = connections.value(socket);
    if (!c)
        return;
    c->buffer += socket->readAll();
    // Bytes that cannot start a request (a TLS greeting, say) get what real servers answer.
    if (!c->buffer.isEmpty() && !isalpha(static_cast<unsigned char>(c->buffer.at(0)))) {
        socket->write("HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n");
        finish(c, false);
        return;
    }
    const int end = c->buffer.indexOf("\r\n\r\n");
    if (end < 0 || c->timer || !c->body.isEmpty())
        return;
    const QList<QByteArray> lines = c->buffer.left(end).split('\n');
    c->buffer.remove(0, end + 4);
    Request request;
    const QList<QByteArray> first = lines.value(0).trimmed().split(' ');
    request.method = first.value(0);
    request.path = first.value(1);
    for (int i = 1; i < lines.size(); ++i) {
        const int colon = lines[i].indexOf(':');
        if (colon > 0)
            request.headers.insert(
                lines[i].left(colon).trimmed().toLower(), lines[i].mid(colon + 1).trimmed());
    }
    received.append(request);
    c->resource = resourceFor(request.path);
    if (!c->resource.neverAnswer)
        answer(c, request);
}

FakeHttpServer::Resource FakeHttpServer::resourceFor(const QByteArray &path)
{
    if (!resources.contains(path)) {
        Resource missing;
        missing.status = 404;
        missing.body = "<html>not found</html>";
        return missing;
    }
    Resource &stored = resources[path];
    Resource served = stored;
    if (stored.faultyAnswers == 0) {
        served.stallAfter = -1;
        served.closeAfter = -1;
        served.endlessHeader = false;
    } else if (stored.faultyAnswers > 0) {
        --stored.faultyAnswers;
    }
    return served;
}

QByteArray FakeHttpServer::headStart(const Resource &r, const Request &request, QByteArray *body)
{
    *body = r.body;
    const qint64 total = r.body.size();
    if (!r.redirectTo.isEmpty()) {
        body->clear();
        return "HTTP/1.1 302 Found\r\nLocation: " + r.redirectTo + "\r\n";
    }
    if (r.status != 200)
        return "HTTP/1.1 " + QByteArray::number(r.status) + " Error\r\n";
    const QByteArray range = request.header("range"), ifRange = request.header("if-range");
    const bool sameVersion = ifRange.isEmpty() || ifRange == r.etag; // a date never matches
    if (!r.honorRange || !sameVersion || !range.startsWith("bytes=") || !range.endsWith('-'))
        return "HTTP/1.1 200 OK\r\n";
    const qint64 from = range.mid(6, range.size() - 7).toLongLong();
    if (from >= total) {
        body->clear();
        return "HTTP/1.1 416 Range Not Satisfiable\r\nContent-Range: bytes */"
            + QByteArray::number(total) + "\r\n";
    }
    *body = r.body.mid(from);
    return "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + QByteArray::number(from) + '-'
        + QByteArray::number(total - 1) + '/' + QByteArray::number(total) + "\r\n";
}

void FakeHttpServer::answer(Connection *c, const Request &request)
{
    const Resource &r = c->resource;
    QTcpSocket *socket = c->socket;
    QByteArray body;
    QByteArray head = headStart(r, request, &body);
    const qint64 length = r.contentLength >= 0 ? r.contentLength : body.size();
    if (r.chunkedCoding)
        head += "Transfer-Encoding: chunked\r\n";
    else if (!r.lengthByClose)
        head += "Content-Length: " + QByteArray::number(length) + "\r\n";
    head += "Content-Type: application/octet-stream\r\nConnection: close\r\n";
    if (!r.etag.isEmpty())
        head += "ETag: " + r.etag + "\r\n";
    for (const auto &h : r.extraHeaders)
        head += h.first + ": " + h.second + "\r\n";
    if (r.endlessHeader) { // never more than 64 KiB on their way
        c->timer = new QTimer(this);
        connect(c->timer, &QTimer::timeout, socket, [this, c, socket, path = request.path] {
            if (!resources.value(path).endlessHeader) // ended by the test
                finish(c, false);
            else if (socket->bytesToWrite() < 65536)
                socket->write("X-Pad: " + QByteArray(1000, 'x') + "\r\n");
        });
        c->timer->start(r.chunkDelayMs);
        socket->write(head);
        return;
    }
    socket->write(head + "\r\n");
    c->body = body;
    respond(c);
}

void FakeHttpServer::respond(Connection *c)
{
    if (c->resource.chunkSize <= 0 && c->resource.stallAfter < 0 && c->resource.closeAfter < 0) {
        writeBody(c, c->body);
        c->body.clear();
        finish(c, false);
        return;
    }
    c->timer = new QTimer(this);
    c->timer->setInterval(c->resource.chunkDelayMs);
    connect(c->timer, &QTimer::timeout, this, [this, c] { sendNextChunk(c); });
    if (sendNextChunk(c))
        c->timer->start();
}

bool FakeHttpServer::sendNextChunk(Connection *c)
{
    if (!c->socket)
        return false;
    const Resource &r = c->resource;
    qint64 n = r.chunkSize > 0 ? r.chunkSize : c->body.size();
    n = qMin<qint64>(n, c->body.size());
    if (r.stallAfter >= 0)
        n = qMin(n, r.stallAfter - c->sent);
    if (r.closeAfter >= 0)
        n = qMin(n, r.closeAfter - c->sent);
    if (n > 0) {
        writeBody(c, c->body.left(n));
        c->body.remove(0, n);
        c->sent += n;
    }
    if (r.closeAfter >= 0 && c->sent >= r.closeAfter) {
        finish(c, false); // graceful close: the client gets the bytes, then a short body
        return false;
    }
    if (r.stallAfter >= 0 && c->sent >= r.stallAfter) {
        c->timer->stop(); // stay connected, say nothing more
        return false;
    }
    if (c->body.isEmpty()) {
        finish(c, false);
        return false;
    }
    return true;
}

void FakeHttpServer::writeBody(Connection *c, const QByteArray &bytes)
{
    if (!c->resource.chunkedCoding) {
        c->socket->write(bytes);
        return;
    }
    if (!bytes.isEmpty())
        c->socket->write(QByteArray::number(bytes.size(), 16) + "\r\n" + bytes + "\r\n");
    if (c->body.size() == bytes.size())
        c->socket->write("0\r\n\r\n");
}

void FakeHttpServer::finish(Connection *c, bool abortive)
{
    QTcpSocket *socket = c->socket;
    connections.remove(socket);
    if (c->timer) {
        c->timer->stop();
        c->timer->deleteLater();
    }
    delete c;
    if (!socket)
        return;
    socket->disconnect(this);
    if (abortive || socket->state() != QAbstractSocket::ConnectedState) {
        socket->abort();
        socket->deleteLater();
        return;
    }
    // Graceful close: the socket goes once its write buffer has reached the client.
    connect(socket, &QAbstractSocket::disconnected, socket, &QObject::deleteLater);
    socket->disconnectFromHost();
}

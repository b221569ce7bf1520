#pragma once

#include <QObject>
#include <QString>
#include <QTimer>

#include <curl/curl.h>

#include <unordered_map>
#include <vector>

class QSocketNotifier;

namespace dlm {

// HTTP for every download, on the thread that owns the engine: libcurl's multi socket interface
// driven by that thread's event loop (one QSocketNotifier per direction of each socket curl
// watches, one single-shot timer for curl's own time-outs). No other thread touches a transfer's
// bytes: curl hands each block it reads straight to the transfer's callbacks. One engine owns the
// multi handle; each running request owns one easy handle, made by open() and given back by
// release().
class CurlEngine : public QObject {
    Q_OBJECT

public:
    // What a request tells its owner; every call comes from inside the engine, on its thread.
    class Transfer {
    public:
        // The request (or a redirected one) is going out on a connection of its own.
        virtual void requestSent() = 0;
        // One header line of an answer, with its line end; false ends the request.
        virtual bool headerLine(const char *data, size_t size) = 0;
        // A block of the body; false ends the request (curl reports a write error).
        virtual bool bodyData(const char *data, size_t size) = 0;
        // The request is over: CURLE_OK or why not, with curl's own detail text.
        virtual void requestDone(CURLcode result, const QString &detail) = 0;

    protected:
        ~Transfer() = default;
    };

    // maxPerHost: connections curl may open to one host (curl's queue holds the other requests).
    explicit CurlEngine(int maxPerHost, QObject *parent = nullptr);
    ~CurlEngine() override;

    // A request for url with the service's rules (http and https only, redirects, identity
    // encoding, TLS verified against the system's CA store), speaking for owner until release().
    // headers: extra request lines, owned by the request from now. Not started yet.
    CURL *open(Transfer *owner, const QByteArray &url, curl_slist *headers);
    // Puts an opened request on the wire; false (and released) when curl refuses it.
    bool start(CURL *easy);
    // Ends the request at once, wherever it is; the owner hears nothing more from it.
    void release(CURL *easy);
    // Closes connections no request uses, after a burst.
    void dropIdleConnections();

    // Today's words for a curl failure and whether it may pass (worth another attempt).
    static QString failureText(CURLcode result, const QString &detail, bool *passing);

private:
    struct Request;
    struct Watch {
        QSocketNotifier *read = nullptr;
        QSocketNotifier *write = nullptr;
    };
    static int onSocket(CURL *easy, curl_socket_t fd, int what, void *engine, void *);
    static int onTimer(CURLM *multi, long timeoutMs, void *engine);
    static size_t onHeader(char *data, size_t size, size_t count, void *request);
    static size_t onBody(char *data, size_t size, size_t count, void *request);
    static int onPrereq(void *request, char *, char *, int, int);
    void makeMulti();
    void watch(curl_socket_t fd, int what);
    // Lets curl act on fd (or on its time-outs), then hands finished requests to their owners.
    void act(curl_socket_t fd, int events);
    void finishRequests();
    void free(Request *request);

    CURLM *multi = nullptr; // made by the first request, and again after dropIdleConnections
    int hostLimit;
    int live = 0; // requests opened and not yet freed
    QTimer timer;
    std::unordered_map<curl_socket_t, Watch> watches;
    // Inside act(): curl must not be re-entered, so released requests wait in doomed until it
    // returns.
    int depth = 0;
    std::vector<Request *> doomed;
};

} // namespace dlm

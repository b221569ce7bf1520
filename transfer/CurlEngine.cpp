#include "CurlEngine.h"

#include <QSocketNotifier>

namespace dlm {

struct CurlEngine::Request {
    CurlEngine *engine;
    Transfer *owner; // null once released: curl's late calls then end the request
    CURL *easy;
    curl_slist *headers;
    bool added = false;
    char error[CURL_ERROR_SIZE] = {};
};

namespace {
// Today's words for the faults curl reports, and whether another attempt may get through.
struct Failure {
    CURLcode code;
    const char *words;
    bool passing;
};
constexpr Failure kFailures[] = {
    { CURLE_COULDNT_CONNECT, "Connection refused", true },
    { CURLE_COULDNT_RESOLVE_HOST, "Host not found", true },
    { CURLE_COULDNT_RESOLVE_PROXY, "Proxy not found", true },
    { CURLE_OPERATION_TIMEDOUT, "Socket operation timed out", true },
    { CURLE_PARTIAL_FILE, "Remote host closed the connection", true },
    { CURLE_GOT_NOTHING, "Remote host closed the connection", true },
    { CURLE_RECV_ERROR, "Network error while receiving", true },
    { CURLE_SEND_ERROR, "Network error while sending", true },
    { CURLE_HTTP2, "HTTP/2 error", true },
    { CURLE_HTTP2_STREAM, "HTTP/2 stream error", true },
    { CURLE_SSL_CONNECT_ERROR, "SSL handshake failed", false },
    { CURLE_PEER_FAILED_VERIFICATION, "SSL certificate not trusted", false },
    { CURLE_SSL_CACERT_BADFILE, "SSL CA store unreadable", false },
    { CURLE_TOO_MANY_REDIRECTS, "Too many redirects", false },
    { CURLE_UNSUPPORTED_PROTOCOL, "Redirect to a protocol other than http or https", false },
    { CURLE_URL_MALFORMAT, "Invalid URL", false },
    { CURLE_WEIRD_SERVER_REPLY, "Protocol failure", false },
};
} // namespace

CurlEngine::CurlEngine(int maxPerHost, QObject *parent) : QObject(parent), hostLimit(maxPerHost)
{
    timer.setSingleShot(true);
    connect(&timer, &QTimer::timeout, this, [this] { act(CURL_SOCKET_TIMEOUT, 0); });
}

void CurlEngine::makeMulti()
{
    // At the first request, not at start: curl's TLS library costs megabytes once initialized,
    // and a service that restores its downloads may run none.
    static const bool initialized = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
    Q_UNUSED(initialized);
    multi = curl_multi_init();
    curl_multi_setopt(multi, CURLMOPT_MAX_HOST_CONNECTIONS, long(hostLimit));
    curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, &CurlEngine::onSocket);
    curl_multi_setopt(multi, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(multi, CURLMOPT_TIMERFUNCTION, &CurlEngine::onTimer);
    curl_multi_setopt(multi, CURLMOPT_TIMERDATA, this);
}

CurlEngine::~CurlEngine()
{
    if (multi)
        curl_multi_cleanup(multi); // requests were released by their owners
}

void CurlEngine::dropIdleConnections()
{
    // A fresh multi handle is the one way to close curl's idle connections at once.
    if (depth > 0 || live > 0 || !multi)
        return;
    curl_multi_cleanup(multi);
    for (auto &[fd, w] : watches) {
        delete w.read;
        delete w.write;
    }
    watches.clear();
    timer.stop();
    multi = nullptr; // made again by the next request
}

CURL *CurlEngine::open(Transfer *owner, const QByteArray &url, curl_slist *headers)
{
    if (!multi)
        makeMulti();
    CURL *easy = curl_easy_init();
    auto *request = new Request { this, owner, easy, headers };
    ++live;
    curl_easy_setopt(easy, CURLOPT_PRIVATE, request);
    curl_easy_setopt(easy, CURLOPT_URL, url.constData());
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, request->error);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &CurlEngine::onHeader);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, request);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &CurlEngine::onBody);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, request);
    curl_easy_setopt(easy, CURLOPT_PREREQFUNCTION, &CurlEngine::onPrereq);
    curl_easy_setopt(easy, CURLOPT_PREREQDATA, request);
    return easy;
}

bool CurlEngine::start(CURL *easy)
{
    Request *request = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIVATE, &request);
    request->added = curl_multi_add_handle(multi, easy) == CURLM_OK;
    if (!request->added)
        release(easy);
    return request->added;
}

void CurlEngine::release(CURL *easy)
{
    Request *request = nullptr;
    if (!easy || curl_easy_getinfo(easy, CURLINFO_PRIVATE, &request) != CURLE_OK || !request)
        return;
    request->owner = nullptr;
    if (depth > 0)
        doomed.push_back(request);
    else
        free(request);
}

void CurlEngine::free(Request *request)
{
    if (request->added)
        curl_multi_remove_handle(multi, request->easy);
    curl_easy_cleanup(request->easy);
    curl_slist_free_all(request->headers);
    delete request;
    --live;
}

void CurlEngine::act(curl_socket_t fd, int events)
{
    if (!multi)
        return;
    ++depth;
    int running = 0;
    curl_multi_socket_action(multi, fd, events, &running);
    finishRequests();
    if (--depth == 0) {
        const std::vector<Request *> released = std::move(doomed);
        doomed.clear();
        for (Request *request : released)
            free(request);
    }
}

void CurlEngine::finishRequests()
{
    int left = 0;
    while (CURLMsg *message = curl_multi_info_read(multi, &left)) {
        if (message->msg != CURLMSG_DONE)
            continue;
        const CURLcode result = message->data.result;
        Request *request = nullptr;
        curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &request);
        if (!request || !request->owner)
            continue; // released: freed when act() returns
        curl_multi_remove_handle(multi, request->easy);
        request->added = false;
        request->owner->requestDone(result, QString::fromUtf8(request->error));
    }
}

int CurlEngine::onTimer(CURLM *, long timeoutMs, void *engine)
{
    QTimer &timer = static_cast<CurlEngine *>(engine)->timer;
    if (timeoutMs < 0)
        timer.stop();
    else
        timer.start(int(qMin<long>(timeoutMs, INT_MAX))); // 0: act from the event loop, not here
    return 0;
}

int CurlEngine::onSocket(CURL *, curl_socket_t fd, int what, void *engine, void *)
{
    static_cast<CurlEngine *>(engine)->watch(fd, what);
    return 0;
}

void CurlEngine::watch(curl_socket_t fd, int what)
{
    // A removed socket's notifiers stay, disabled, for the next socket with its number: a rested
    // transfer's socket leaves and comes back at every rest, and a notifier freed each time
    // woke the event loop for its deferred deletion.
    Watch &w = watches[fd];
    if (what == CURL_POLL_REMOVE) {
        if (w.read) {
            w.read->setEnabled(false);
            w.write->setEnabled(false);
        }
        return;
    }
    if (!w.read) {
        w.read = new QSocketNotifier(fd, QSocketNotifier::Read, this);
        w.write = new QSocketNotifier(fd, QSocketNotifier::Write, this);
        connect(
            w.read, &QSocketNotifier::activated, this, [this, fd] { act(fd, CURL_CSELECT_IN); });
        connect(
            w.write, &QSocketNotifier::activated, this, [this, fd] { act(fd, CURL_CSELECT_OUT); });
    }
    w.read->setEnabled(what & CURL_POLL_IN);
    w.write->setEnabled(what & CURL_POLL_OUT);
}

size_t CurlEngine::onHeader(char *data, size_t size, size_t count, void *request)
{
    Transfer *owner = static_cast<Request *>(request)->owner;
    return owner && owner->headerLine(data, size * count) ? size * count : 0;
}

size_t CurlEngine::onBody(char *data, size_t size, size_t count, void *request)
{
    Transfer *owner = static_cast<Request *>(request)->owner;
    return owner && owner->bodyData(data, size * count) ? size * count : CURL_WRITEFUNC_ERROR;
}

int CurlEngine::onPrereq(void *request, char *, char *, int, int)
{
    Transfer *owner = static_cast<Request *>(request)->owner;
    if (!owner)
        return CURL_PREREQFUNC_ABORT;
    owner->requestSent();
    return CURL_PREREQFUNC_OK;
}

QString CurlEngine::failureText(CURLcode result, const QString &detail, bool *passing)
{
    QString words = QString::fromUtf8(curl_easy_strerror(result));
    *passing = false;
    for (const Failure &f : kFailures) {
        if (f.code == result) {
            words = QString::fromUtf8(f.words);
            *passing = f.passing;
        }
    }
    return detail.isEmpty() ? words : words + QStringLiteral(": ") + detail;
}

} // namespace dlm

#pragma once

#include <QByteArray>

#include <curl/curl.h>

namespace dlm {

// What an HTTP answer's head says about a download's bytes, judged from header values alone,
// before any body byte reaches the file; and the request's own headers that such an answer
// answers.
namespace http {

// "bytes 100-199/200", "bytes 100-199/*" or "bytes */200"; first is -1 for the last form.
struct ContentRange {
    qint64 first = -1;
    qint64 total = -1;
};
bool parseContentRange(const QByteArray &header, ContentRange *range);

// The status line of an answer: "HTTP/1.1 206 Partial Content", "HTTP/2 200"; 0 if none.
int parseStatusLine(const QByteArray &line, QByteArray *reasonPhrase);

// The head of one answer, read line by line as curl hands the lines over: only these headers
// decide what happens to the body.
struct Head {
    int status = 0;
    QByteArray reason, contentRange, retryAfter, etag, lastModified;
    qint64 contentLength = -1;
    bool hasLocation = false;

    // One line with its line end; a status line starts a new head. True for the empty line
    // that ends the head.
    bool addLine(const QByteArray &line);
    // Whether the ended head is the answer's own: not an informational one (100), nor a
    // redirect that curl follows.
    bool isFinal() const;
};

// Answers worth asking again: the server is busy, overloaded or timed out.
bool isPassingStatus(int status);

enum class Verdict {
    Accept, // the body continues the file at the requested offset
    AcceptFromZero, // a whole answer to a Range request: the file starts over at byte 0
    StartOver, // a partial answer elsewhere: drop it, ask again for the whole resource
    StartOverChanged, // the same, and the resource's length changed: learn the total anew
    Complete, // 416 at exactly the bytes on disk: the file is whole
    Reject, // an error or unusable answer: no byte reaches the file
};
struct Judgement {
    Verdict verdict;
    qint64 total = -1; // the resource's complete length as this answer tells it, -1 unknown
};
// offset: the request's Range start (0: none); knownTotal: the download's total (0: unknown);
// contentLength: -1 when absent.
Judgement judge(int status, qint64 offset, qint64 knownTotal, const QByteArray &contentRange,
    qint64 contentLength);

// Identity encoding always (offsets count the resource's own bytes); from offset > 0 a Range,
// and with a validator an If-Range, so that only that version continues the bytes on disk.
// CurlEngine::open takes the list and frees it with its request.
curl_slist *requestHeaders(qint64 offset, const QByteArray &validator);

} // namespace http

} // namespace dlm

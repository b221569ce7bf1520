#pragma once

#include <QtGlobal>

namespace dlm {

// A transfer's place among those with a request on the wire, which share one budget of receive
// buffers (32 MiB). Each request gets an equal share as curl's buffer (CURLOPT_BUFFERSIZE,
// chosen when it goes out) within curl's bounds, so the peak stays bounded at any concurrency
// while a single large file reads in large blocks. Main thread only.
class ReadBudget {
public:
    ReadBudget() = default;
    ReadBudget(const ReadBudget &) = delete;
    ReadBudget &operator=(const ReadBudget &) = delete;
    ~ReadBudget() { setReceiving(false); }

    // Joins (true) or leaves (false) the transfers sharing the budget; repeating changes nothing.
    void setReceiving(bool on);
    // curl's receive buffer for a request going out now (held to rate, bytes per second, 0 for
    // none), and how many received bytes it gathers into one write (0: a write per 16 KiB piece
    // curl hands over). Only while few transfers run, so the copies stay small beside the
    // budget: an unlimited one gathers half of its share, taken from curl's buffer; a limited
    // one gathers one whole read, which it writes before the rest that follows it.
    struct Buffers {
        qint64 read;
        qint64 gather;
    };
    static Buffers buffers(qint64 rate);
    // Written bytes not reported yet that make a report due at once, whatever the batch count
    // or the time: half a share, never below a slow link's batch.
    static qint64 reportBound();

private:
    bool receiving = false;
};

} // namespace dlm

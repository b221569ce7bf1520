#pragma once

#include <QHash>
#include <QList>
#include <QString>

#include <functional>

namespace dlm {

// Lets at most perOrigin() requests per origin (scheme, host and port) be on the wire, as many as
// curl opens connections per host, and at most the active limit in all; the others wait here, by
// their downloads' priority (higher first) and then creation, with no clock running. Curl would
// fetch every request handed to it as fast as the network allows, whether or not the service keeps
// up with writing the bodies out. Users share the slots: each holds two thirds of them at most,
// users other than root leave one for root, and a freed slot of an origin goes to the next user in
// turn, so one user's backlog never blocks another's first request. Main thread only.
class RequestQueue {
public:
    static constexpr int kDefaultPerOrigin = 6;

    // The one queue of the process, as curl's connections are shared.
    static RequestQueue &instance();
    // "scheme://host:port" of a URL: what one set of connections serves.
    static QString originOf(const QString &url);

    // Slots per origin (setting "max_connections_per_host", at least 2).
    void setPerOrigin(int limit);
    int perOrigin() const { return perOriginLimit; }
    // Requests on the wire in all (setting "max_active_downloads"): 0 for no limit, else at
    // least 2.
    void setActiveLimit(int limit);

    // Runs start at once when uid may take a free slot and no request it could overtake waits,
    // else from the event loop in uid's turn. An owner (a download, acting for uid) holds or
    // waits for one slot at a time; priority and then order (its creation) place it among the
    // waiting. Turns between users stay: a priority orders one user's requests and the origins.
    void enter(const void *owner, uint uid, const QString &origin, quint64 order,
        std::function<void()> start, int priority = 0);
    // A waiting owner takes its new place; one that holds a slot or is unknown is left alone.
    void setPriority(const void *owner, int priority);
    // Gives the owner's slot back to the next waiting request, or drops the owner's wait.
    // Nothing happens for an owner that neither holds nor waits.
    void leave(const void *owner);

private:
    struct Waiter {
        const void *owner;
        quint64 order;
        std::function<void()> start;
        int priority;
        // Comes before other among the waiting.
        bool before(const Waiter &other) const
        {
            return priority != other.priority ? priority > other.priority : order < other.order;
        }
    };
    // Slots held, by uid and in all, of one origin or of the whole queue.
    struct Holders {
        int running = 0;
        QHash<uint, int> held;
        bool mayStart(uint uid, int limit) const;
        void add(uint uid, int count);
    };
    struct Origin : Holders {
        // Uids with waiting requests, the next one's turn first; each one's requests in order.
        QList<uint> turns;
        QHash<uint, QList<Waiter>> waiting;
    };
    struct Owner {
        QString origin;
        uint uid;
        bool waiting;
    };
    // Starts waiting requests while any may start: the first in order among each origin's
    // next in turn.
    void startWaiting();

    QHash<QString, Origin> origins;
    QHash<const void *, Owner> owners; // every owner that holds or waits for a slot
    Holders all;
    int perOriginLimit = kDefaultPerOrigin;
    int allLimit = 0;
};

} // namespace dlm

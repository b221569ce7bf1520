#pragma once

#include <QHash>
#include <QList>
#include <QPair>
#include <QString>

#include <functional>

// Lets at most perOrigin() requests per origin (scheme, host and port) be on the wire, as many as
// curl opens connections per host; the others wait here. The library would fetch
// every request handed to it as fast as the network allows, whether or not the service keeps up
// with writing the bodies out, and the bodies would pile up in memory. Users share an origin's
// slots: each holds fewer than all of them, users other than root leave one for root, and a freed
// slot goes to the next user in turn, so one user's backlog never blocks another's first request.
// Main thread only.
class RequestQueue {
public:
    static constexpr int kDefaultPerOrigin = 6;

    // Slots per origin (setting "max_connections_per_host", at least 2). Of them a user other than
    // root may hold two thirds, and all such users together all but one.
    void setPerOrigin(int limit);
    int perOrigin() const { return perOriginSlots; }

    // The one queue of the process, as the network library's connections are shared.
    static RequestQueue &instance();
    // "scheme://host:port" of a URL: what one set of connections serves.
    static QString originOf(const QString &url);

    // Runs start at once when uid may take a free slot of the origin and no request it could
    // overtake waits, else from the event loop in uid's turn. An owner (a download, acting for
    // uid) holds or waits for one slot at a time.
    void enter(const void *owner, uint uid, const QString &origin, std::function<void()> start);
    // Gives the owner's slot back to the next waiting request, or drops the owner's wait.
    // Nothing happens for an owner that neither holds nor waits.
    void leave(const void *owner);

private:
    struct Origin {
        int running = 0;
        QHash<uint, int> held; // slots per uid
        // Uids with waiting requests, the next one's turn first; each one's requests in order.
        QList<uint> turns;
        QHash<uint, QList<QPair<const void *, std::function<void()>>>> waiting;
        bool mayStart(uint uid, int limit) const;
    };
    struct Owner {
        QString origin;
        uint uid;
        bool waiting;
    };
    void startWaiting(const QString &origin);

    QHash<QString, Origin> origins;
    QHash<const void *, Owner> owners; // every owner that holds or waits for a slot
    int perOriginSlots = kDefaultPerOrigin;
};

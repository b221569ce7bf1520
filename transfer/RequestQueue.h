#pragma once

#include <QHash>
#include <QList>
#include <QPair>
#include <QString>

#include <functional>

// Lets at most kPerOrigin requests per origin (scheme, host and port) be on the wire, as many as
// the network library opens connections per host; the others wait here in the order they came.
// The library would fetch every request handed to it as fast as the network allows, whether or
// not the service keeps up with writing the bodies out, and the bodies would pile up in memory.
// Main thread only.
class RequestQueue {
public:
    static constexpr int kPerOrigin = 6;

    // The one queue of the process, as the network library's connections are shared.
    static RequestQueue &instance();
    // "scheme://host:port" of a URL: what one set of connections serves.
    static QString originOf(const QString &url);

    // Runs start at once when the origin has a free slot and nothing waits for one, else from
    // the event loop once a slot is given back. An owner holds or waits for one slot at a time.
    void enter(const void *owner, const QString &origin, std::function<void()> start);
    // Gives the owner's slot back to the next waiting request, or drops the owner's wait.
    // Nothing happens for an owner that neither holds nor waits.
    void leave(const void *owner);

private:
    void startWaiting(const QString &origin);

    struct Origin {
        int running = 0;
        QList<QPair<const void *, std::function<void()>>> waiting;
    };

    QHash<QString, Origin> origins;
    // Owner -> (origin, still waiting), for every owner that holds or waits for a slot.
    QHash<const void *, QPair<QString, bool>> owners;
};

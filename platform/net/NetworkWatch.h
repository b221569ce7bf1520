#pragma once

#include <QObject>

#include <memory>

class QSocketNotifier;

namespace dlm {

// Tells when the kernel's routes or addresses change, and whether a host can be reached by a
// route right now. Listens on an rtnetlink socket through a socket notifier on the caller's
// event loop: nothing polls, and an idle network costs no wake-up.
class NetworkWatch : public QObject {
    Q_OBJECT

public:
    explicit NetworkWatch(QObject *parent = nullptr);
    ~NetworkWatch() override;

    // False when the kernel refused the netlink socket: then changed() never comes and callers
    // should treat the network as always up.
    bool isWatching() const;

    // The rule for a download's host: a numeric one by its own route, a name by any route, as
    // resolving the name here could block the event loop.
    static bool hasRouteFor(const QString &host);

signals:
    // Routes, addresses or links changed; one signal for a burst of kernel messages.
    void changed();

private:
    // True when the kernel has a route to this numeric address (IPv4 or IPv6) now. Asks by
    // connecting a UDP socket, which sends nothing. An address that does not parse counts as
    // reachable, so that a caller never waits for a route it cannot name.
    static bool hasRouteTo(const QString &address);
    // True when any address outside the loopback networks is reachable: a default route or a
    // route to the wider network exists.
    static bool hasAnyRoute();
    void drain();

    int fd = -1;
    std::unique_ptr<QSocketNotifier> notifier;
};

} // namespace dlm

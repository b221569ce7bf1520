#include "NetworkWatch.h"

#include <QSocketNotifier>

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace dlm {

NetworkWatch::NetworkWatch(QObject *parent) : QObject(parent)
{
    fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0)
        return;
    sockaddr_nl local {};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR
        | RTMGRP_IPV6_ROUTE;
    if (::bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0) {
        ::close(fd);
        fd = -1;
        return;
    }
    notifier = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Read);
    connect(notifier.get(), &QSocketNotifier::activated, this, &NetworkWatch::drain);
}

NetworkWatch::~NetworkWatch()
{
    notifier.reset();
    if (fd >= 0)
        ::close(fd);
}

bool NetworkWatch::isWatching() const
{
    return fd >= 0;
}

// The messages' content does not matter: any of them may change what hasRouteTo answers, so
// read them all and say so once. An overrun (ENOBUFS) means changes were lost: also a change.
void NetworkWatch::drain()
{
    char buffer[8192];
    bool any = false;
    for (;;) {
        const ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
        if (got > 0 || (got < 0 && errno == ENOBUFS)) {
            any = true;
            continue;
        }
        if (got < 0 && errno == EINTR)
            continue;
        break;
    }
    if (any)
        emit changed();
}

namespace {
// The address as a socket address (port 9, discard); 0 when it is not a numeric address.
socklen_t socketAddress(const QString &address, sockaddr_storage *target)
{
    const QByteArray text = address.toLatin1();
    auto *in = reinterpret_cast<sockaddr_in *>(target);
    auto *in6 = reinterpret_cast<sockaddr_in6 *>(target);
    if (inet_pton(AF_INET, text.constData(), &in->sin_addr) == 1) {
        in->sin_family = AF_INET;
        in->sin_port = htons(9);
        return sizeof *in;
    }
    if (inet_pton(AF_INET6, text.constData(), &in6->sin6_addr) == 1) {
        in6->sin6_family = AF_INET6;
        in6->sin6_port = htons(9);
        return sizeof *in6;
    }
    return 0;
}
} // namespace

bool NetworkWatch::hasRouteTo(const QString &address)
{
    sockaddr_storage target {};
    const socklen_t length = socketAddress(address, &target);
    if (length == 0)
        return true;
    const int probe = ::socket(target.ss_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0)
        return target.ss_family != AF_INET6; // a kernel without IPv6 has no route there
    const bool routed = ::connect(probe, reinterpret_cast<sockaddr *>(&target), length) == 0
        || (errno != ENETUNREACH && errno != EHOSTUNREACH && errno != EADDRNOTAVAIL);
    ::close(probe);
    return routed;
}

bool NetworkWatch::hasAnyRoute()
{
    // Documentation addresses: never used on a real network, routed only by a default route.
    return hasRouteTo(QStringLiteral("192.0.2.1")) || hasRouteTo(QStringLiteral("2001:db8::1"));
}

bool NetworkWatch::hasRouteFor(const QString &host)
{
    sockaddr_storage target {};
    return socketAddress(host, &target) != 0 ? hasRouteTo(host) : hasAnyRoute();
}

} // namespace dlm

#include "RawSocket.h"

#include <QFile>

#include <cstring>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

int connectRawUnixSocket(const QString &path)
{
    sockaddr_un addr {};
    addr.sun_family = AF_UNIX;
    const QByteArray native = QFile::encodeName(path);
    if (size_t(native.size()) >= sizeof addr.sun_path)
        return -1;
    memcpy(addr.sun_path, native.constData(), size_t(native.size()));
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    timeval timeout { 10, 0 };
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    if (::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

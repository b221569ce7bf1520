#include "Connection.h"
#include "ConnectionSlots.h"

#include <binder/IServiceManager.h>

#include <android/log.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace android {

#define LOG_TAG "binder"

namespace {

std::string socketDir()
{
    const char *dir = std::getenv("BINDER_SOCKET_DIR");
    return dir != nullptr && *dir != '\0' ? dir : "/run/downloadmanager";
}

// False (with a log line) when the path does not fit into sun_path.
bool socketAddress(const String16 &name, sockaddr_un *addr, std::string *path)
{
    const String8 name8(name);
    *path = socketDir() + "/" + name8.string();
    std::memset(addr, 0, sizeof *addr);
    addr->sun_family = AF_UNIX;
    if (name8.size() == 0 || std::strchr(name8.string(), '/') != nullptr
        || path->size() >= sizeof addr->sun_path) {
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG,
            "service socket path \"%s\" is empty, nested or longer than %zu bytes", path->c_str(),
            sizeof addr->sun_path - 1);
        return false;
    }
    std::memcpy(addr->sun_path, path->c_str(), path->size());
    return true;
}

// Long enough for a busy service to accept, short enough that a caller never hangs on a full
// backlog: a connect to a Unix socket otherwise waits until the server accepts.
constexpr int kConnectTimeoutSeconds = 5;

// The connected descriptor, or -1 with errno telling why: ENOENT or ECONNREFUSED nobody serves
// the path, EACCES the caller may not reach it, EAGAIN the server did not accept in time.
int connectTo(const sockaddr_un &addr)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    timeval timeout { kConnectTimeoutSeconds, 0 };
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        const int err = errno;
        ::close(fd);
        errno = err;
        return -1;
    }
    // Writes on the connection must not time out: a slow peer is the writer thread's business.
    timeout = {};
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout);
    return fd;
}

// Mode set explicitly, whatever the umask: every user must be able to reach a service.
void setMode(const char *path, mode_t mode, bool directory)
{
    int err = 0;
    if (directory) {
        const int fd = ::open(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        err = fd < 0 || ::fchmod(fd, mode) != 0 ? errno : 0;
        if (fd >= 0)
            ::close(fd);
    } else if (::fchmodat(AT_FDCWD, path, mode, AT_SYMLINK_NOFOLLOW) != 0) {
        err = errno;
    }
    if (err != 0)
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "cannot set mode %o on %s: %s",
            unsigned(mode), path, std::strerror(err));
}

void makeDirs(const std::string &dir)
{
    for (size_t at = dir.find('/', 1);; at = dir.find('/', at + 1)) {
        const std::string part = dir.substr(0, at);
        if (::mkdir(part.c_str(), 0755) == 0)
            setMode(part.c_str(), 0755, true);
        if (at == std::string::npos)
            return;
    }
}

// Socket path -> the object that new connections reach as handle 0. Never destroyed: detached
// accept threads may still read it during exit.
struct Published {
    std::mutex lock;
    std::map<std::string, sp<IBinder>> roots;
};

Published &published()
{
    static Published *const p = new Published;
    return *p;
}

void unlinkPublished()
{
    std::lock_guard<std::mutex> lock(published().lock);
    for (const auto &root : published().roots)
        ::unlink(root.first.c_str());
}

class SocketServiceManager : public IServiceManager {
public:
    status_t addService(const String16 &name, const sp<IBinder> &service, bool, int) override;
    sp<IBinder> getService(const String16 &name) const override;
    sp<IBinder> checkService(const String16 &name) const override;

private:
    mutable std::mutex mLock;
    mutable std::map<std::string, std::shared_ptr<Connection>> mClients;
};

namespace {
// Accepts connections to a published name until the listening socket fails; each connection
// takes a slot of its uid's share first, and is ended at once without one.
void acceptConnections(int fd, const std::string &path)
{
    // Never destroyed, as the published roots.
    static const auto &slots = *new std::shared_ptr<ConnectionSlots>(ConnectionSlots::create(
        ConnectionSlots::kMaxTotal, ConnectionSlots::kMaxPerUid, ConnectionSlots::kRootReserve));
    for (;;) {
        const int client = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (client >= 0) {
            ucred cred {};
            socklen_t len = sizeof cred;
            std::shared_ptr<void> slot;
            if (::getsockopt(client, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0)
                slot = slots->take(cred.uid, cred.pid);
            if (slot == nullptr) {
                ::close(client); // the peer sees the connection end at once
                continue;
            }
            std::unique_lock<std::mutex> lock(published().lock);
            sp<IBinder> root = published().roots[path];
            lock.unlock();
            Connection::start(client, root, std::move(slot));
        } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100)); // out of resources
        } else if (errno != EINTR && errno != ECONNABORTED) {
            return;
        }
    }
}

// A listening socket at path, or a negative status; a live service there is ALREADY_EXISTS.
int listenAt(const sockaddr_un &addr, const std::string &path)
{
    makeDirs(socketDir());
    const int probe = connectTo(addr);
    if (probe >= 0 || errno == EAGAIN) { // a live service, perhaps too busy to accept
        if (probe >= 0)
            ::close(probe);
        return ALREADY_EXISTS;
    }
    if (errno == ECONNREFUSED)
        ::unlink(path.c_str()); // nobody answers: a stale socket of a dead process
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -errno;
    if (::bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0
        || ::listen(fd, 64) != 0) {
        const status_t err = errno == EADDRINUSE ? ALREADY_EXISTS : -errno;
        __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, "cannot publish %s: %s", path.c_str(),
            std::strerror(errno));
        ::close(fd);
        return err;
    }
    setMode(path.c_str(), 0666, false);
    return fd;
}
} // namespace

status_t SocketServiceManager::addService(
    const String16 &name, const sp<IBinder> &service, bool, int)
{
    sockaddr_un addr;
    std::string path;
    if (service == nullptr || service->localBinder() == nullptr)
        return BAD_VALUE;
    if (!socketAddress(name, &addr, &path))
        return BAD_VALUE;
    {
        // Publishing a name again from the same process replaces the object, as on Android.
        sp<IBinder> previous = service;
        std::unique_lock<std::mutex> lock(published().lock);
        if (auto it = published().roots.find(path); it != published().roots.end()) {
            std::swap(it->second, previous);
            lock.unlock();
            return NO_ERROR;
        }
    }
    const int fd = listenAt(addr, path);
    if (fd < 0)
        return fd;
    {
        std::lock_guard<std::mutex> lock(published().lock);
        if (published().roots.empty())
            std::atexit(unlinkPublished);
        published().roots[path] = service;
    }
    try {
        std::thread(acceptConnections, fd, path).detach();
    } catch (const std::system_error &e) {
        __android_log_print(
            ANDROID_LOG_ERROR, LOG_TAG, "cannot serve %s: %s", path.c_str(), e.what());
        {
            std::lock_guard<std::mutex> lock(published().lock);
            published().roots.erase(path);
        }
        ::unlink(path.c_str());
        ::close(fd);
        return NO_MEMORY;
    }
    return NO_ERROR;
}

sp<IBinder> SocketServiceManager::checkService(const String16 &name) const
{
    sockaddr_un addr;
    std::string path;
    if (!socketAddress(name, &addr, &path)) {
        errno = EINVAL;
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(mLock);
    auto it = mClients.find(path);
    if (it == mClients.end() || !it->second->isAlive()) {
        const int fd = connectTo(addr);
        if (fd < 0)
            return nullptr;
        std::shared_ptr<Connection> connection = Connection::start(fd, nullptr);
        if (connection == nullptr) {
            errno = EAGAIN;
            return nullptr;
        }
        it = mClients.insert_or_assign(path, std::move(connection)).first;
    }
    return it->second->proxyFor(0);
}

sp<IBinder> SocketServiceManager::getService(const String16 &name) const
{
    using namespace std::chrono;
    const auto deadline = steady_clock::now() + seconds(5);
    for (;;) {
        if (sp<IBinder> service = checkService(name))
            return service;
        const int why = errno;
        if (steady_clock::now() >= deadline || why == EINTR) {
            errno = why;
            return nullptr;
        }
        std::this_thread::sleep_for(milliseconds(100));
    }
}

} // namespace

sp<IServiceManager> defaultServiceManager()
{
    static IServiceManager *const instance = [] {
        auto *sm = new SocketServiceManager;
        sm->incStrong(sm);
        return sm;
    }();
    return instance;
}

} // namespace android

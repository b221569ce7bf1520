#include "Connection.h"

#include <binder/IServiceManager.h>

#include <android/log.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace android {

#define LOG_TAG "binder"

namespace {

std::string socketDir()
{
    const char *dir = std::getenv("BINDER_SOCKET_DIR");
    return dir != nullptr && *dir != '\0' ? dir : "/run/binder";
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

int connectTo(const sockaddr_un &addr)
{
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    if (::connect(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

void makeDirs(const std::string &dir)
{
    for (size_t at = 1; at != std::string::npos; at = dir.find('/', at + 1))
        ::mkdir(dir.substr(0, at).c_str(), 0755);
    ::mkdir(dir.c_str(), 0755);
}

// Socket path -> the object that new connections reach as handle 0.
std::mutex gPublishedLock;
std::map<std::string, sp<IBinder>> gPublished;

void unlinkPublished()
{
    std::lock_guard<std::mutex> lock(gPublishedLock);
    for (const auto &published : gPublished)
        ::unlink(published.first.c_str());
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
        std::unique_lock<std::mutex> lock(gPublishedLock);
        if (auto it = gPublished.find(path); it != gPublished.end()) {
            std::swap(it->second, previous);
            lock.unlock();
            return NO_ERROR;
        }
    }
    makeDirs(socketDir());
    if (const int probe = connectTo(addr); probe >= 0) {
        ::close(probe);
        return ALREADY_EXISTS;
    }
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
    {
        std::lock_guard<std::mutex> lock(gPublishedLock);
        if (gPublished.empty())
            std::atexit(unlinkPublished);
        gPublished[path] = service;
    }
    std::thread([fd, path] {
        for (;;) {
            const int client = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (client >= 0) {
                std::unique_lock<std::mutex> lock(gPublishedLock);
                sp<IBinder> root = gPublished[path];
                lock.unlock();
                Connection::start(client, root);
            } else if (errno == EMFILE || errno == ENFILE) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100)); // out of descriptors
            } else if (errno != EINTR && errno != ECONNABORTED) {
                return;
            }
        }
    }).detach();
    return NO_ERROR;
}

sp<IBinder> SocketServiceManager::checkService(const String16 &name) const
{
    sockaddr_un addr;
    std::string path;
    if (!socketAddress(name, &addr, &path))
        return nullptr;
    std::lock_guard<std::mutex> lock(mLock);
    auto it = mClients.find(path);
    if (it == mClients.end() || !it->second->isAlive()) {
        const int fd = connectTo(addr);
        if (fd < 0)
            return nullptr;
        mClients[path] = Connection::start(fd, nullptr);
        it = mClients.find(path);
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
        if (steady_clock::now() >= deadline)
            return nullptr;
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

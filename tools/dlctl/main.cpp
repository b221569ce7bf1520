// dlctl: command-line client of the download service.
#include "IDLService.h"
#include "ProgressView.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>

using namespace android;

namespace {

const char kServiceName[] = "com.velta.DLService";
volatile sig_atomic_t interrupted = 0;

int usage(FILE *out, int status)
{
    fprintf(out,
            "usage: dlctl COMMAND [ARGS]\n"
            "  create URL [--client ID] [--id ID] [--name NAME] [--wait]\n"
            "  pause ID|all        resume ID|all        remove ID\n"
            "  list [CLIENT]       status ID\n"
            "  space SIZE [--client ID]\n"
            "  set-path CLIENT PATH\n"
            "  watch\n"
            "Records print as: ID CLIENT STATE BYTES TOTAL FILE\n"
            "watch and create --wait add after FILE, in parentheses, the meaning of a Failed\n"
            "download's failure code or the time of a Stalled download's next attempt.\n"
            "Failure codes: 1 network or transfer fault (connection, DNS, TLS, timeout, cut body),\n"
            "  2 the server answered with an error status, 3 the local file could not be opened\n"
            "  or written, 4 none (a new download).\n"
            "The service is found in $BINDER_SOCKET_DIR (default /run/binder).\n"
            "Exit status: 0 done, 1 failed or unknown download, 2 service not reachable, 64 usage.\n");
    return status;
}

// Collects update callbacks, which arrive on IPC pool threads, for the main thread.
class UpdateQueue : public BnDLClient, public IBinder::DeathRecipient
{
public:
    void onDownloadUpdate(IDownload download) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        updates.push_back(std::move(download));
        ready.notify_all();
    }
    void binderDied(const wp<IBinder> &) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        serviceDied = true;
        ready.notify_all();
    }
    // False on time-out, interruption or the service's death.
    bool next(IDownload *out, int timeoutMs)
    {
        std::unique_lock<std::mutex> lock(mutex);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (updates.empty() && !serviceDied && !interrupted) {
            if (timeoutMs >= 0 && std::chrono::steady_clock::now() >= deadline)
                return false;
            ready.wait_for(lock, std::chrono::milliseconds(100));
        }
        if (updates.empty())
            return false;
        *out = std::move(updates.front());
        updates.pop_front();
        return true;
    }
    bool died()
    {
        std::lock_guard<std::mutex> lock(mutex);
        return serviceDied;
    }

private:
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<IDownload> updates;
    bool serviceDied = false;
};

struct Options
{
    std::vector<std::string> positional;
    std::string client;
    std::string id;
    std::string name;
    bool wait = false;
    bool clientGiven = false;
};

bool parseOptions(int argc, char **argv, Options *o)
{
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string *target) {
            if (i + 1 >= argc)
                return false;
            *target = argv[++i];
            return true;
        };
        if (arg == "--client") {
            if (!value(&o->client))
                return false;
            o->clientGiven = true;
        } else if (arg == "--id") {
            if (!value(&o->id))
                return false;
        } else if (arg == "--name") {
            if (!value(&o->name))
                return false;
        } else if (arg == "--wait") {
            o->wait = true;
        } else if (arg.rfind("--", 0) == 0) {
            return false;
        } else {
            o->positional.push_back(arg);
        }
    }
    return true;
}

bool parseSize(const std::string &text, long long *size)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    *size = strtoll(text.c_str(), &end, 10);
    return errno == 0 && end && *end == '\0';
}

void onSignal(int)
{
    interrupted = 1;
}

sp<IDLService> connectService(sp<UpdateQueue> *events)
{
    ProcessState::self()->startThreadPool();
    sp<IBinder> binder = defaultServiceManager()->checkService(String16(kServiceName));
    if (binder == nullptr)
        return nullptr;
    *events = new UpdateQueue;
    binder->linkToDeath(*events);
    return interface_cast<IDLService>(binder);
}

bool exists(const sp<IDLService> &service, const std::string &id)
{
    IDownload record;
    return service->getDownload(id, &record) == 1;
}

// Follows one download through the update stream: prints progress, returns its final state.
int follow(const sp<IDLService> &service, const sp<UpdateQueue> &events, const std::string &url,
           const std::string &client, std::string id, bool toEnd)
{
    const bool terminal = isatty(STDOUT_FILENO);
    ProgressView view(stdout);
    IDownload update;
    for (int waited = 0;;) {
        if (!events->next(&update, 1000)) {
            if (events->died() || interrupted)
                break;
            // Nothing heard: give up on a download that never came (a refused create).
            if (id.empty() ? ++waited >= 10 : !exists(service, id))
                break;
            continue;
        }
        if (id.empty()) {
            if (update.contentURL != url || update.clientID != client)
                continue;
            id = update.uniqueID;
            if (!toEnd) {
                printf("%s\n", id.c_str());
                return 0;
            }
        }
        if (update.uniqueID != id)
            continue;
        if (terminal)
            view.update(update);
        else
            printf("%s%s\n", recordLine(update).c_str(), stateNote(update).c_str());
        if (update.state == 1 || update.state == 8)
            return update.state == 1 ? 0 : 1;
    }
    if (events->died()) {
        fprintf(stderr, "dlctl: the download service went away\n");
        return 2;
    }
    if (id.empty())
        fprintf(stderr, "dlctl: the service did not start the download (see its log)\n");
    return 1;
}

} // namespace

int run(int argc, char **argv);

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const int status = run(argc, argv);
    // Callbacks may still be arriving on pool threads: skip the static destructors they use.
    fflush(nullptr);
    _exit(status);
}

int run(int argc, char **argv)
{
    if (argc < 2)
        return usage(stderr, 64);
    const std::string command = argv[1];
    if (command == "--help" || command == "-h" || command == "help")
        return usage(stdout, 0);
    Options o;
    if (!parseOptions(argc, argv, &o))
        return usage(stderr, 64);
    if (!o.clientGiven)
        o.client = "dlctl";
    const size_t n = o.positional.size();
    const bool known =
        (command == "create" && n == 1) || ((command == "pause" || command == "resume" ||
                                             command == "remove" || command == "status") && n == 1) ||
        (command == "list" && n <= 1) || (command == "space" && n == 1) ||
        (command == "set-path" && n == 2) || (command == "watch" && n == 0);
    if (!known)
        return usage(stderr, 64);

    signal(SIGINT, onSignal);
    signal(SIGTERM, onSignal);
    signal(SIGPIPE, SIG_IGN);

    sp<UpdateQueue> events;
    const sp<IDLService> service = connectService(&events);
    if (service == nullptr) {
        const char *dir = getenv("BINDER_SOCKET_DIR");
        fprintf(stderr, "dlctl: the download service is not running (no %s in %s)\n", kServiceName,
                dir && *dir ? dir : "/run/binder");
        return 2;
    }
    const std::string arg = n ? o.positional[0] : std::string();

    if (command == "create") {
        // Register first so that the download's first update cannot be missed.
        service->addClient(events);
        service->createDownload(o.client, arg, o.id, o.name);
        int status = 0;
        if (!o.wait && !o.id.empty())
            printf("%s\n", o.id.c_str());
        else
            status = follow(service, events, arg, o.client, o.id, o.wait);
        service->removeClient(events);
        return status;
    }
    if (command == "pause" || command == "resume") {
        if (arg != "all" && !exists(service, arg)) {
            fprintf(stderr, "dlctl: no download %s\n", arg.c_str());
            return 1;
        }
        command == "pause" ? service->pauseDownload(arg) : service->resumeDownload(arg);
        return 0;
    }
    if (command == "remove") {
        if (!exists(service, arg)) {
            fprintf(stderr, "dlctl: no download %s\n", arg.c_str());
            return 1;
        }
        service->removeDownload(arg);
        return 0;
    }
    if (command == "status") {
        IDownload record;
        const int found = service->getDownload(arg, &record);
        if (found < 0) {
            fprintf(stderr, "dlctl: the download service went away\n");
            return 2;
        }
        if (found != 1) {
            fprintf(stderr, "dlctl: no download %s\n", arg.c_str());
            return 1;
        }
        printf("%s\n", recordLine(record).c_str());
        return 0;
    }
    if (command == "list") {
        std::vector<IDownload *> list;
        const int result = service->getDownloadList(n ? arg : "*", list);
        for (IDownload *record : list) {
            printf("%s\n", recordLine(*record).c_str());
            delete record;
        }
        return result < 0 ? 2 : 0;
    }
    if (command == "space") {
        long long size = 0;
        if (!parseSize(arg, &size)) {
            fprintf(stderr, "dlctl: SIZE must be a whole number of bytes\n");
            return 64;
        }
        const int result = service->checkSpaceAvailability(o.client, size);
        if (result < 0) {
            fprintf(stderr, "dlctl: the download service went away\n");
            return 2;
        }
        static const char *meaning[] = {"fits", "does not fit", "directory missing or unreadable"};
        printf("%d %s\n", result, result >= 0 && result <= 2 ? meaning[result] : "unknown");
        return 0;
    }
    if (command == "set-path") {
        service->setDownloadPath(o.positional[0], o.positional[1]);
        return 0;
    }
    // watch
    service->addClient(events);
    const bool terminal = isatty(STDOUT_FILENO);
    ProgressView view(stdout);
    IDownload update;
    while (!interrupted) {
        if (!events->next(&update, 500)) {
            if (events->died()) {
                fprintf(stderr, "dlctl: the download service went away\n");
                return 2;
            }
            continue;
        }
        if (terminal)
            view.update(update);
        else
            printf("%s%s\n", recordLine(update).c_str(), stateNote(update).c_str());
    }
    service->removeClient(events);
    return 0;
}

// dlctl: command-line client of the download service.
#include "IDLService.h"
#include "ProgressView.h"
#include "TextEscape.h"

#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <pthread.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace android;

namespace {

const char kServiceName[] = "com.velta.DLService";
std::atomic<bool> interrupted { false };
// Set while a loop ends by itself on SIGINT or SIGTERM; otherwise a signal ends dlctl at once,
// wherever it waits (a connect, or a call to a service that does not answer).
std::atomic<bool> endsByItself { false };

int usage(FILE *out, int status)
{
    fprintf(out,
        "usage: dlctl COMMAND [ARGS]\n"
        "       dlctl --help | --version\n"
        "  create URL [--client ID] [--id ID] [--name NAME] [--sha256 HEX] [--size N] [--wait]\n"
        "  pause ID|all        resume ID|all        remove ID\n"
        "  list [CLIENT]       status ID\n"
        "  space SIZE [--client ID]\n"
        "  set-path CLIENT PATH\n"
        "  watch\n"
        "create prints the new download's identifier; with --sha256 (64 hexadecimal digits)\n"
        "  and --size (bytes) the download fails with code 5 unless its content is that.\n"
        "Records print as:\n"
        "  ID CLIENT STATE BYTES TOTAL FILE\n"
        "watch and create --wait add after FILE, in parentheses, the meaning of a Failed\n"
        "download's failure code or the time of a Stalled download's next attempt; they and\n"
        "status add \"(verified)\" to a Completed download whose SHA-256 was given.\n"
        "Failure codes: 1 network or transfer fault (connection, DNS, TLS, timeout, cut body),\n"
        "  2 the server answered with an error status, 3 the local file could not be opened\n"
        "  or written, 4 none (a new download), 5 content does not match the given size or\n"
        "  SHA-256 (the file is kept; the console's restart fetches it anew).\n"
        "The service is found in $BINDER_SOCKET_DIR (default /run/downloadmanager). Each call "
        "waits at\n"
        "most $DLCTL_TIMEOUT_MS milliseconds for its answer (default 15000).\n"
        "Exit status: 0 done, 1 failed, refused or unknown download, 2 service not reachable\n"
        "or not answering, 64 usage, 128+N ended by signal N.\n");
    return status;
}

// Every call to the service has a deadline: a service that accepted the connection but does not
// answer (stopped, or stuck) ends dlctl with status 2 instead of holding it for ever. One thread
// waits for the armed deadline; waiting for updates is not a call and is not armed.
class CallDeadline {
public:
    static void arm(const char *call)
    {
        static std::once_flag started;
        std::call_once(started, [] { std::thread(watch).detach(); });
        std::lock_guard<std::mutex> lock(mutex);
        armed = call;
        deadline = std::chrono::steady_clock::now() + timeout();
        changed.notify_all();
    }
    static void disarm()
    {
        std::lock_guard<std::mutex> lock(mutex);
        armed = nullptr;
        changed.notify_all();
    }

private:
    static std::chrono::milliseconds timeout()
    {
        const char *text = getenv("DLCTL_TIMEOUT_MS");
        const long ms = text && *text ? strtol(text, nullptr, 10) : 0;
        return std::chrono::milliseconds(ms > 0 ? ms : 15000);
    }
    static void watch()
    {
        std::unique_lock<std::mutex> lock(mutex);
        for (;;) {
            if (!armed)
                changed.wait(lock);
            else if (changed.wait_until(lock, deadline) == std::cv_status::timeout && armed
                && std::chrono::steady_clock::now() >= deadline) {
                fprintf(stderr, "dlctl: the download service did not answer %s within %lld ms\n",
                    armed, static_cast<long long>(timeout().count()));
                fflush(nullptr);
                _exit(2);
            }
        }
    }
    static inline std::mutex mutex;
    static inline std::condition_variable changed;
    static inline const char *armed = nullptr;
    static inline std::chrono::steady_clock::time_point deadline;
};

// Collects update callbacks, which arrive on IPC pool threads, for the main thread, or hands
// them to a sink on the thread they arrive on.
class UpdateQueue : public BnDLClient, public IBinder::DeathRecipient
{
public:
    void onDownloadUpdate(IDownload download) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (sink) {
            sink(download);
            return;
        }
        updates.push_back(std::move(download));
        ready.notify_all();
    }
    // From now on, updates go to sink (none when empty), one at a time and in order.
    void setSink(std::function<void(const IDownload &)> f)
    {
        std::lock_guard<std::mutex> lock(mutex);
        sink = std::move(f);
    }
    void binderDied(const wp<IBinder> &) override
    {
        std::lock_guard<std::mutex> lock(mutex);
        serviceDied = true;
        ready.notify_all();
    }
    // Wakes a waiting next() once `interrupted` is set.
    void interrupt()
    {
        std::lock_guard<std::mutex> lock(mutex);
        ready.notify_all();
    }
    // Waits until an update arrives, without a time-out when timeoutMs is negative. False on
    // time-out, interruption or the service's death.
    bool next(IDownload *out, int timeoutMs)
    {
        std::unique_lock<std::mutex> lock(mutex);
        const auto woken = [this] { return !updates.empty() || serviceDied || interrupted; };
        if (timeoutMs < 0)
            ready.wait(lock, woken);
        else
            ready.wait_for(lock, std::chrono::milliseconds(timeoutMs), woken);
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
    std::function<void(const IDownload &)> sink;
    bool serviceDied = false;
};

struct Options
{
    std::vector<std::string> positional;
    std::string client;
    std::string id;
    std::string name;
    std::string sha256;
    long long size = -1;
    bool checked = false; // --sha256 or --size given
    bool wait = false;
    bool clientGiven = false;
};

bool parseSize(const std::string &text, long long *size)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    *size = strtoll(text.c_str(), &end, 10);
    return errno == 0 && end && *end == '\0' && *size >= 0;
}

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
        } else if (arg == "--sha256") {
            if (!value(&o->sha256))
                return false;
            o->checked = true;
        } else if (arg == "--size") {
            std::string text;
            if (!value(&text) || !parseSize(text, &o->size)) {
                fprintf(stderr, "dlctl: --size must be a whole, non-negative number of bytes\n");
                return false;
            }
            o->checked = true;
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

// SIGINT and SIGTERM are blocked in every thread and taken by one that waits for them, so the
// others wait without polling. Call before any other thread starts: they inherit the mask.
void handleSignals(const sp<UpdateQueue> &events)
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread([set, events] {
        int signal = 0;
        while (sigwait(&set, &signal) == 0) {
            if (!endsByItself)
                _exit(128 + signal);
            interrupted = true;
            events->interrupt();
        }
    }).detach();
}

sp<IDLService> connectService(const sp<UpdateQueue> &events)
{
    ProcessState::self()->startThreadPool();
    sp<IBinder> binder = defaultServiceManager()->checkService(String16(kServiceName));
    if (binder == nullptr) {
        const int why = errno;
        const char *dir = getenv("BINDER_SOCKET_DIR");
        const std::string path = std::string(dir && *dir ? dir : "/run/downloadmanager") + "/" + kServiceName;
        if (why == EACCES || why == EPERM)
            fprintf(stderr, "dlctl: permission denied: this user may not reach %s\n", path.c_str());
        else if (why == EAGAIN || why == ETIMEDOUT)
            fprintf(stderr, "dlctl: the download service is not answering (%s accepts no "
                            "connection)\n", path.c_str());
        else if (why == ENOENT || why == ECONNREFUSED || why == ENOTDIR)
            fprintf(stderr, "dlctl: the download service is not running (no %s)\n", path.c_str());
        else
            fprintf(stderr, "dlctl: cannot reach the download service at %s: %s\n", path.c_str(),
                    strerror(why));
        return nullptr;
    }
    binder->linkToDeath(events);
    return interface_cast<IDLService>(binder);
}

// Every call that did not reach the service ends dlctl with status 2 and says so.
int notAnswered(const char *call, int status)
{
    if (status == IDLService::TEXT_TOO_LONG) {
        fprintf(stderr,
            "dlctl: refused: an argument is longer than the service accepts (%zu bytes "
            "for an identifier or client, %zu for a URL, %zu for a path)\n",
            IDLService::kMaxIdBytes, IDLService::kMaxUrlBytes, IDLService::kMaxPathBytes);
        return 1;
    }
    fprintf(stderr, "dlctl: the download service did not answer %s (status %d)\n", call, status);
    return 2;
}

// 1 found, 0 not found, negative: the call did not reach the service.
int exists(const sp<IDLService> &service, const std::string &id)
{
    IDownload record;
    return service->getDownload(id, &record);
}

// Follows one download through the update stream: prints progress, returns its final state.
// Nothing heard for a second, it asks for the record, so it ends also when the service refused
// its event client (a user at its limit of watchers).
int follow(const sp<IDLService> &service, const sp<UpdateQueue> &events, const std::string &id)
{
    const bool terminal = isatty(STDOUT_FILENO);
    ProgressView view(stdout);
    IDownload update;
    for (;;) {
        CallDeadline::disarm();
        if (!events->next(&update, 1000)) {
            if (events->died() || interrupted)
                break;
            CallDeadline::arm("getDownload");
            const int found = service->getDownload(id, &update);
            if (found < 0)
                return notAnswered("getDownload", found);
            if (found == 0) {
                fprintf(stderr, "dlctl: download %s is gone\n", id.c_str());
                break;
            }
            if (update.state != 1 && update.state != 8)
                continue;
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
    return 1;
}

const char *refusal(int32_t status)
{
    switch (status) {
    case IDLService::REQUEST_BAD_URL:
        return "not an http or https URL";
    case IDLService::REQUEST_ID_IN_USE:
        return "the identifier belongs to another download";
    case IDLService::REQUEST_BAD_ARGUMENT:
        return "an argument is unusable (see the service's log)";
    case IDLService::REQUEST_REFUSED:
        return "refused: not permitted, or this user has reached its limit of downloads";
    default:
        return "refused by the service (see its log)";
    }
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
    if (command == "--version") {
        printf("dlctl %s\n", DLM_VERSION);
        return 0;
    }
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

    signal(SIGPIPE, SIG_IGN);
    const sp<UpdateQueue> events = new UpdateQueue;
    handleSignals(events);
    const sp<IDLService> service = connectService(events);
    if (service == nullptr)
        return 2;
    CallDeadline::arm(argv[1]);
    const std::string arg = n ? o.positional[0] : std::string();

    if (command == "create") {
        // Register first so that the download's first update cannot be missed.
        if (o.wait)
            service->addClient(events);
        std::string id;
        const int32_t created = o.checked
            ? service->requestDownloadChecked(o.client, arg, o.id, o.name, o.size, o.sha256, &id)
            : service->requestDownload(o.client, arg, o.id, o.name, &id);
        int status = 0;
        if (created < 0) {
            status = notAnswered("requestDownload", created);
        } else if (created != IDLService::REQUEST_CREATED) {
            fprintf(stderr, "dlctl: cannot create %s: %s\n", arg.c_str(),
                created == IDLService::REQUEST_BAD_ARGUMENT && !o.sha256.empty()
                    ? "--sha256 must be 64 hexadecimal digits"
                    : refusal(created));
            status = 1;
        } else {
            printf("%s\n", escapeText(id).c_str());
            if (o.wait)
                status = follow(service, events, id);
        }
        if (o.wait) {
            CallDeadline::arm("removeClient");
            service->removeClient(events);
        }
        return status;
    }
    if (command == "pause" || command == "resume" || command == "remove") {
        const int found = arg == "all" && command != "remove" ? 1 : exists(service, arg);
        if (found < 0)
            return notAnswered("getDownload", found);
        if (found != 1) {
            fprintf(stderr, "dlctl: no download %s\n", arg.c_str());
            return 1;
        }
        if (command == "remove")
            service->removeDownload(arg);
        else
            command == "pause" ? service->pauseDownload(arg) : service->resumeDownload(arg);
        return 0;
    }
    if (command == "status") {
        IDownload record;
        const int found = service->getDownload(arg, &record);
        if (found < 0)
            return notAnswered("getDownload", found);
        if (found != 1) {
            fprintf(stderr, "dlctl: no download %s\n", arg.c_str());
            return 1;
        }
        printf("%s%s\n", recordLine(record).c_str(),
            record.state == 1 ? stateNote(record).c_str() : "");
        return 0;
    }
    if (command == "list") {
        // Page by page, so any number of downloads can be listed.
        std::vector<IDownload> page;
        for (std::string after;; after = page.back().uniqueID) {
            CallDeadline::arm("listDownloadsPage");
            const int result = service->listDownloadsPage(n ? arg : "*", after, &page);
            if (result < 0)
                return notAnswered("listDownloadsPage", result);
            if (page.empty() || page.back().uniqueID == after)
                return 0;
            for (const IDownload &record : page)
                printf("%s\n", recordLine(record).c_str());
        }
    }
    if (command == "space") {
        long long size = 0;
        if (!parseSize(arg, &size)) {
            fprintf(stderr, "dlctl: SIZE must be a whole, non-negative number of bytes\n");
            return 64;
        }
        const int result = service->checkSpaceAvailability(o.client, size);
        if (result < 0)
            return notAnswered("checkSpaceAvailability", result);
        static const char *meaning[] = {"fits", "does not fit", "directory missing or unreadable"};
        printf("%d %s\n", result, result >= 0 && result <= 2 ? meaning[result] : "unknown");
        return 0;
    }
    if (command == "set-path") {
        const std::string &path = o.positional[1];
        const int32_t result = service->setDownloadPath(o.positional[0], path);
        switch (result) {
        case IDLService::PATH_SET:
            return 0;
        case IDLService::PATH_NOT_ABSOLUTE:
            fprintf(stderr, "dlctl: %s is not an absolute path\n", path.c_str());
            return 1;
        case IDLService::PATH_NOT_A_DIRECTORY:
            fprintf(stderr, "dlctl: %s is not a directory\n", path.c_str());
            return 1;
        case IDLService::PATH_NOT_PERMITTED:
            fprintf(stderr, "dlctl: %s is not permitted: this user may not write there, or "
                            "only root sets this client's directory\n", path.c_str());
            return 1;
        default:
            return notAnswered("setDownloadPath", result);
        }
    }
    // watch: ends with SIGINT or SIGTERM. Updates are printed by the thread that receives them:
    // handing each to the main thread cost a third thread wake-up per update.
    const bool terminal = isatty(STDOUT_FILENO);
    ProgressView view(stdout);
    events->setSink([&](const IDownload &update) {
        if (terminal)
            view.update(update);
        else
            printf("%s%s\n", recordLine(update).c_str(), stateNote(update).c_str());
    });
    service->addClient(events);
    CallDeadline::disarm();
    endsByItself = true;
    IDownload none;
    events->next(&none, -1); // returns on interruption or the service's death
    events->setSink(nullptr);
    if (events->died()) {
        fprintf(stderr, "dlctl: the download service went away\n");
        return 2;
    }
    endsByItself = false;
    CallDeadline::arm("removeClient");
    service->removeClient(events);
    return 0;
}

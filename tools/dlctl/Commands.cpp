#include "Commands.h"

#include "ProgressView.h"
#include "TextEscape.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace dlm {

using namespace android;

bool parseWhole(const std::string &text, long long *value)
{
    if (text.empty())
        return false;
    char *end = nullptr;
    errno = 0;
    *value = strtoll(text.c_str(), &end, 10);
    return errno == 0 && end && *end == '\0';
}

bool parseSize(const std::string &text, long long *size)
{
    return parseWhole(text, size) && *size >= 0;
}

namespace {

bool finished(const IDownload &r)
{
    return r.state == STATE_COMPLETED || r.state == STATE_FAILED;
}

// Records and updates as JSON lines, progress bars on a terminal, or plain lines.
class Printer {
public:
    explicit Printer(bool json) : json(json), terminal(!json && isatty(STDOUT_FILENO)) { }
    void operator()(const IDownload &r)
    {
        if (json)
            printf("%s\n", recordJson(r).c_str());
        else if (terminal)
            view.update(r);
        else
            printf("%s%s\n", recordLine(r).c_str(), stateNote(r).c_str());
    }

private:
    bool json, terminal;
    ProgressView view { stdout };
};

// Follows one download through the update stream: prints progress, returns its final state.
// Nothing heard for a second, it asks for the record, so it ends also when the service refused
// its event client (a user at its limit of watchers).
int follow(Command &c, const std::string &id)
{
    const sp<IDLService> &service = c.service;
    const sp<UpdateQueue> &events = c.events;
    Printer print(c.options.json);
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
            if (!finished(update))
                continue;
        }
        if (update.uniqueID != id)
            continue;
        print(update);
        if (finished(update))
            return update.state == STATE_COMPLETED ? 0 : 1;
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

int createCommand(Command &c)
{
    const Options &o = c.options;
    // Register first so that the download's first update cannot be missed.
    if (o.wait)
        c.service->addClient(c.events);
    std::string id;
    const int32_t created = o.ordered
        ? c.service->requestDownloadOrdered(o.client, c.arg(0), o.id, o.name, o.size, o.sha256,
            o.rate, int32_t(std::clamp<long long>(o.priority, INT32_MIN, INT32_MAX)), &id)
        : o.checked
        ? c.service->requestDownloadChecked(o.client, c.arg(0), o.id, o.name, o.size, o.sha256, &id)
        : c.service->requestDownload(o.client, c.arg(0), o.id, o.name, &id);
    int status = 0;
    if (created < 0) {
        status = notAnswered("requestDownload", created);
    } else if (created != IDLService::REQUEST_CREATED) {
        fprintf(stderr, "dlctl: cannot create %s: %s\n", c.arg(0).c_str(),
            created != IDLService::REQUEST_BAD_ARGUMENT ? refusal(created)
                : !o.sha256.empty()                     ? "--sha256 must be 64 hexadecimal digits"
                : o.ordered ? "--rate must be 0 to 10000000000 and --priority -100 to 100"
                            : refusal(created));
        status = 1;
    } else {
        printf("%s\n", escapeText(id).c_str());
        if (o.wait)
            status = follow(c, id);
    }
    if (o.wait) {
        CallDeadline::arm("removeClient");
        c.service->removeClient(c.events);
    }
    return status;
}

int controlCommand(Command &c, const std::string &what)
{
    const std::string &id = c.arg(0);
    if (what == "remove" && id == "all") {
        fprintf(stderr, "dlctl: no download all\n");
        return 1;
    }
    const int32_t status = what == "pause" ? c.service->requestPause(id)
        : what == "resume"                 ? c.service->requestResume(id)
                                           : c.service->requestRemove(id);
    switch (status) {
    case IDLService::CONTROL_DONE:
        return 0;
    case IDLService::CONTROL_NOT_FOUND:
        fprintf(stderr, "dlctl: no download %s\n", escapeText(id).c_str());
        return 1;
    case IDLService::CONTROL_NOT_PERMITTED:
        fprintf(stderr,
            "dlctl: %s is not permitted: its stored record is unusable (see the "
            "service's log)\n",
            escapeText(id).c_str());
        return 1;
    case IDLService::CONTROL_WRONG_STATE:
        fprintf(stderr, "dlctl: %s cannot be %s: %s\n", escapeText(id).c_str(),
            what == "pause" ? "paused" : "resumed",
            what == "pause" ? "it is not Pending, Progressing or Stalled"
                            : "it is not Paused or Failed");
        return 1;
    default:
        return notAnswered(what.c_str(), status);
    }
}

int orderCommand(Command &c, const std::string &what)
{
    const std::string &id = c.arg(0), shown = escapeText(id);
    long long value = 0;
    const bool background = what == "background";
    if (background ? id != "on" && id != "off" : !parseWhole(c.arg(1), &value)) {
        fprintf(stderr, "dlctl: %s\n",
            background ? "background takes on or off"
                       : (what == "rate" ? "BPS must be a whole number of bytes per second"
                                         : "N must be a whole number"));
        return 64;
    }
    const bool overall = what == "rate" && id == "all";
    // A priority beyond 32 bits is as far out of range as one just past it.
    const int32_t priority = int32_t(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
    const int32_t status = background ? c.service->setBackgroundMode(id == "on")
        : overall                     ? c.service->setOverallRateLimit(value)
        : what == "rate"              ? c.service->setRateLimit(id, value)
                                      : c.service->setPriority(id, priority);
    switch (status) {
    case IDLService::CONTROL_DONE:
        return 0;
    case IDLService::CONTROL_NOT_FOUND:
        fprintf(stderr, "dlctl: no download %s\n", shown.c_str());
        return 1;
    case IDLService::CONTROL_NOT_PERMITTED:
        fprintf(stderr, "dlctl: only root changes %s\n",
            background ? "the background mode" : "the overall rate limit");
        return 1;
    case IDLService::CONTROL_BAD_VALUE:
        fprintf(stderr, "dlctl: %s %lld refused: %s\n", what.c_str(), value,
            what == "rate" ? "a rate is 0 (none) to 10000000000 bytes per second"
                           : "a priority is -100 to 100");
        return 1;
    default:
        return notAnswered(what.c_str(), status);
    }
}

int statusCommand(Command &c)
{
    IDownload record;
    const int found = c.service->getDownload(c.arg(0), &record);
    if (found < 0)
        return notAnswered("getDownload", found);
    if (found != IDLService::DOWNLOAD_FOUND) {
        fprintf(stderr, "dlctl: no download %s\n", escapeText(c.arg(0)).c_str());
        return 1;
    }
    if (c.options.json)
        printf("%s\n", recordJson(record).c_str());
    else
        printf("%s%s\n", recordLine(record).c_str(), stateNote(record).c_str());
    return 0;
}

int listCommand(Command &c)
{
    // Page by page, so any number of downloads can be listed.
    std::vector<IDownload> page;
    for (std::string after;; after = page.back().uniqueID) {
        CallDeadline::arm("listDownloadsPage");
        const int result = c.service->listDownloadsPage(
            c.options.positional.empty() ? "*" : c.arg(0), after, &page);
        if (result < 0)
            return notAnswered("listDownloadsPage", result);
        if (page.empty() || page.back().uniqueID == after)
            return 0;
        for (const IDownload &record : page)
            printf("%s\n", (c.options.json ? recordJson(record) : recordLine(record)).c_str());
    }
}

int spaceCommand(Command &c)
{
    long long size = 0;
    if (!parseSize(c.arg(0), &size)) {
        fprintf(stderr, "dlctl: SIZE must be a whole, non-negative number of bytes\n");
        return 64;
    }
    const int result = c.service->checkSpaceAvailability(c.options.client, size);
    if (result < 0)
        return notAnswered("checkSpaceAvailability", result);
    static const char *meaning[] = { "fits", "does not fit", "directory missing or unreadable" };
    printf("%d %s\n", result, result <= IDLService::SPACE_UNKNOWN ? meaning[result] : "unknown");
    return 0;
}

int setPathCommand(Command &c)
{
    const std::string path = escapeText(c.arg(1));
    const int32_t result = c.service->setDownloadPath(c.arg(0), c.arg(1));
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
        fprintf(stderr,
            "dlctl: %s is not permitted: this user may not write there, or "
            "only root sets this client's directory\n",
            path.c_str());
        return 1;
    case IDLService::PATH_NOT_WRITABLE:
        fprintf(stderr,
            "dlctl: %s is not writable for the service: a read-only file system, or "
            "outside its ReadWritePaths= (systemctl edit downloadmanager)\n",
            path.c_str());
        return 1;
    default:
        return notAnswered("setDownloadPath", result);
    }
}

int watchCommand(Command &c)
{
    // Updates are printed by the thread that receives them: handing each to the main thread
    // cost a third thread wake-up per update.
    Printer print(c.options.json);
    c.events->setSink([&](const IDownload &update) { print(update); });
    c.service->addClient(c.events);
    CallDeadline::disarm();
    endsByItself = true;
    IDownload none;
    c.events->next(&none, -1); // returns on interruption or the service's death
    c.events->setSink(nullptr);
    if (c.events->died()) {
        fprintf(stderr, "dlctl: the download service went away\n");
        return 2;
    }
    endsByItself = false;
    CallDeadline::arm("removeClient");
    c.service->removeClient(c.events);
    return 0;
}

} // namespace dlm

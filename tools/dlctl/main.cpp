// dlctl: command-line client of the download service.
#include "Commands.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

namespace dlm {

using namespace android;

namespace {

int usage(FILE *out, int status)
{
    fprintf(out,
        "usage: dlctl COMMAND [ARGS]\n"
        "       dlctl --help | --version\n"
        "  create URL [--client ID] [--id ID] [--name NAME] [--sha256 HEX] [--size N]\n"
        "         [--rate BPS] [--priority N] [--wait]\n"
        "  pause ID|all        resume ID|all        remove ID\n"
        "  rate ID|all BPS     priority ID N        background on|off\n"
        "  list [CLIENT]       status ID\n"
        "  space SIZE [--client ID]\n"
        "  set-path CLIENT PATH\n"
        "  watch\n"
        "--json (list, status, watch, create --wait): one JSON object per record or update and\n"
        "  line, with the fields id, client, name, url, file, state, stateCode, failureCode,\n"
        "  failureReason, httpStatus, bytes, total, bytesPerSecond, startTime, nextAttemptTime,\n"
        "  expectedSha256, rateLimit, priority.\n"
        "Options follow the command; \"--\" ends them (for an identifier that starts with \"-\").\n"
        "create prints the new download's identifier; with --sha256 (64 hexadecimal digits)\n"
        "  and --size (bytes) the download fails with code 5 unless its content is that.\n"
        "Rates are bytes per second, 0 for no limit, at most 10000000000: rate ID limits one\n"
        "  download (also while it runs), rate all every download together (root only; until\n"
        "  the service restarts, then the setting rate_limit). background on puts the setting\n"
        "  background_rate_limit in its place until background off (root only; off at start).\n"
        "  Downloads beyond max_active_downloads wait by priority (-100 to 100, default 0,\n"
        "  higher first), then in order of creation.\n"
        "Records print as:\n"
        "  ID CLIENT STATE BYTES TOTAL FILE\n"
        "status, watch and create --wait add after FILE, in parentheses, the meaning of a Failed\n"
        "download's failure code or the time of a Stalled download's next attempt, and why;\n"
        "  they add \"(verified)\" to a Completed download whose SHA-256 was given, and\n"
        "  \"(rate BPS)\" and \"(priority N)\" to one that has them.\n"
        "On a terminal, watch and create --wait draw a progress line per download instead.\n"
        "Failure codes: 1 network or transfer fault (connection, DNS, TLS, timeout, cut body),\n"
        "  2 the server answered with an error status, 3 the local file could not be opened\n"
        "  or written, 4 none (a new download), 5 content does not match the given size or\n"
        "  SHA-256 (the file is kept; the console's restart fetches it anew).\n"
        "The service is found in $BINDER_SOCKET_DIR (default /run/downloadmanager). Each call "
        "waits at\n"
        "most $DLCTL_TIMEOUT_MS milliseconds for its answer (default 15000).\n"
        "Exit status: 0 done, 1 failed, refused, unknown download or not in a state that allows\n"
        "it, 2 service not reachable\n"
        "or not answering, 64 usage, 128+N ended by signal N.\n");
    return status;
}

bool commandTakesNumber(const std::string &command)
{
    return command == "space" || command == "rate" || command == "priority";
}

// Options follow the command. Anything else that starts with "-" is a usage error, unless it
// comes after "--".
bool parseOptions(int argc, char **argv, Options *o)
{
    bool optionsEnd = false;
    for (int i = 2; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](std::string *target) {
            if (i + 1 >= argc)
                return false;
            *target = argv[++i];
            return true;
        };
        if (optionsEnd || arg.empty() || arg[0] != '-') {
            o->positional.push_back(arg);
        } else if (arg == "--") {
            optionsEnd = true;
        } else if (arg == "--client") {
            if (!value(&o->client))
                return false;
            o->clientGiven = true;
        } else if (arg == "--id" || arg == "--name") {
            if (!value(arg == "--id" ? &o->id : &o->name))
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
        } else if (arg == "--rate" || arg == "--priority") {
            std::string text;
            if (!value(&text) || !parseWhole(text, arg == "--rate" ? &o->rate : &o->priority)) {
                fprintf(stderr, "dlctl: %s must be a whole number\n", arg.c_str());
                return false;
            }
            o->ordered = true;
        } else if (arg == "--wait") {
            o->wait = true;
        } else if (arg == "--json") {
            o->json = true;
        } else if (long long n; !parseWhole(arg, &n) || !commandTakesNumber(argv[1])) {
            return false; // "space -1", "rate ID -5" are answered by the command
        } else {
            o->positional.push_back(arg);
        }
    }
    return true;
}

// Every command: its arguments, the options it takes besides those of create alone, and what
// runs it once the service is reached.
struct CommandEntry {
    const char *name;
    size_t minArgs, maxArgs;
    bool json, client; // takes --json, takes --client
    int (*run)(Command &c, const std::string &name);
};

const CommandEntry kCommands[] = {
    { "create", 1, 1, true, true,
        [](Command &c, const std::string &) { return createCommand(c); } },
    { "pause", 1, 1, false, false, controlCommand },
    { "resume", 1, 1, false, false, controlCommand },
    { "remove", 1, 1, false, false, controlCommand },
    { "rate", 2, 2, false, false, orderCommand },
    { "priority", 2, 2, false, false, orderCommand },
    { "background", 1, 1, false, false, orderCommand },
    { "status", 1, 1, true, false,
        [](Command &c, const std::string &) { return statusCommand(c); } },
    { "list", 0, 1, true, false, [](Command &c, const std::string &) { return listCommand(c); } },
    { "space", 1, 1, false, true, [](Command &c, const std::string &) { return spaceCommand(c); } },
    { "set-path", 2, 2, false, false,
        [](Command &c, const std::string &) { return setPathCommand(c); } },
    { "watch", 0, 0, true, false, [](Command &c, const std::string &) { return watchCommand(c); } },
};

// The command's entry when the options and the number of arguments fit it, else null.
const CommandEntry *findCommand(const std::string &name, const Options &o)
{
    for (const CommandEntry &entry : kCommands) {
        if (name != entry.name)
            continue;
        const size_t n = o.positional.size();
        const bool createOnly
            = o.wait || o.checked || o.ordered || !o.id.empty() || !o.name.empty();
        if ((o.json && !entry.json) || (o.clientGiven && !entry.client)
            || (createOnly && name != "create") || n < entry.minArgs || n > entry.maxArgs)
            return nullptr;
        return &entry;
    }
    return nullptr;
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
    Command c;
    const CommandEntry *entry = nullptr;
    if (!parseOptions(argc, argv, &c.options) || !(entry = findCommand(command, c.options)))
        return usage(stderr, 64);

    signal(SIGPIPE, SIG_IGN);
    c.events = new UpdateQueue;
    handleSignals(c.events);
    c.service = connectService(c.events);
    if (c.service == nullptr)
        return 2;
    CallDeadline::arm(argv[1]);
    return entry->run(c, command);
}

} // namespace

} // namespace dlm

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    const int status = dlm::run(argc, argv);
    // Callbacks may still be arriving on pool threads: skip the static destructors they use.
    fflush(nullptr);
    _exit(status);
}

#pragma once

#include "Session.h"

#include <string>
#include <vector>

namespace dlm {

// dlctl's commands, one function each; each returns dlctl's exit status.
struct Options {
    std::vector<std::string> positional;
    std::string client = "dlctl";
    std::string id;
    std::string name;
    std::string sha256;
    long long size = -1;
    bool checked = false; // --sha256 or --size given
    long long rate = 0, priority = 0;
    bool ordered = false; // --rate or --priority given
    bool wait = false;
    bool clientGiven = false;
    bool json = false; // one JSON object per record or update and line
};

// A whole, non-negative number of bytes.
bool parseSize(const std::string &text, long long *size);
// A whole number, of either sign (the service judges its range).
bool parseWhole(const std::string &text, long long *value);

struct Command {
    android::sp<IDLService> service;
    android::sp<UpdateQueue> events;
    Options options;
    const std::string &arg(size_t i) const { return options.positional[i]; }
};

int createCommand(Command &c);
// pause, resume or remove: the service's answer decides the status.
int controlCommand(Command &c, const std::string &what);
// rate ID|all BPS, priority ID N, background on|off.
int orderCommand(Command &c, const std::string &what);
int statusCommand(Command &c);
int listCommand(Command &c);
int spaceCommand(Command &c);
int setPathCommand(Command &c);
// Ends with SIGINT or SIGTERM.
int watchCommand(Command &c);

} // namespace dlm

#pragma once

#include "IDownload.h"

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

const char *stateText(int32_t state);
const char *failureText(int32_t failureCode);
// "ID CLIENT STATE BYTES TOTAL FILE": one download on one line, for pipes and scripts.
std::string recordLine(const IDownload &record);
// What a Failed or Stalled state needs said, as " (...)": the failure's meaning, or when the
// next attempt starts; "verified" for a Completed download that matched its SHA-256. Empty for
// the other states.
std::string stateNote(const IDownload &record);

// Live progress bars on a terminal, one line per download, redrawn in place on each update.
class ProgressView
{
public:
    explicit ProgressView(FILE *out) : out(out) {}
    void update(const IDownload &record);

private:
    struct Row
    {
        IDownload record;
        double rate = 0; // bytes per second, smoothed
        int64_t lastBytes = 0;
        std::chrono::steady_clock::time_point lastTime;
    };
    void redraw();

    FILE *out;
    std::vector<std::string> order;
    std::map<std::string, Row> rows;
    size_t drawn = 0;
};

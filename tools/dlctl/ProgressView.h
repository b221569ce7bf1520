#pragma once

#include "RecordText.h"

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace dlm {

// Live progress bars on a terminal, one line per download, redrawn in place on each update.
// Each line fits the terminal's width at that redraw (a wrapped line would garble the next
// redraw): the bar shrinks first, then the line is cut.
class ProgressView {
public:
    explicit ProgressView(FILE *out) : out(out) { }
    void update(const IDownload &record);

private:
    struct Row {
        IDownload record;
        double rate = 0; // bytes per second, smoothed; the service's when it sends one
        int64_t lastBytes = 0;
        std::chrono::steady_clock::time_point lastTime;
    };
    void redraw();
    // Columns of the terminal, 80 when it does not say.
    int columns() const;

    FILE *out;
    std::vector<std::string> order;
    std::map<std::string, Row> rows;
    size_t drawn = 0;
};

} // namespace dlm

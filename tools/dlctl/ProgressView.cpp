#include "ProgressView.h"

#include "TextEscape.h"

#include <cinttypes>
#include <ctime>

const char *stateText(int32_t state)
{
    switch (state) {
    case 1: return "Completed";
    case 2: return "Progressing";
    case 4: return "Paused";
    case 8: return "Failed";
    case 16: return "Pending";
    case 32: return "Stalled";
    default: return "Undefined";
    }
}

const char *failureText(int32_t failureCode)
{
    switch (failureCode) {
    case FAILURE_NETWORK: return "network or transfer fault";
    case FAILURE_HTTP_STATUS: return "the server answered with an error status";
    case FAILURE_LOCAL_FILE: return "the local file could not be opened or written";
    case FAILURE_NONE: return "none";
    case FAILURE_CONTENT_MISMATCH:
        return "content does not match";
    default: return "unknown";
    }
}

std::string stateNote(const IDownload &r)
{
    char text[128];
    if (r.state == 8) {
        snprintf(text, sizeof text, " (failure %d: %s)", int(r.failureCode), failureText(r.failureCode));
        return text;
    }
    if (r.state == 1 && !r.expectedSha256.empty())
        return " (verified)"; // a mismatch fails
    if (r.state != 32)
        return std::string();
    const time_t when = time_t(r.nextAttemptTime / 1000);
    struct tm local;
    if (r.nextAttemptTime <= 0 || !localtime_r(&when, &local))
        return " (waiting to try again)";
    strftime(text, sizeof text, " (next attempt at %H:%M:%S)", &local);
    return text;
}

std::string recordLine(const IDownload &r)
{
    char numbers[64];
    snprintf(numbers, sizeof numbers, " %" PRId64 " %" PRId64 " ", r.amountDownloaded, r.totalSize);
    // Other users' texts reach root's terminal: escaped as the service's log does.
    return escapeText(r.uniqueID) + ' ' + escapeText(r.clientID) + ' ' + stateText(r.state)
        + numbers + escapeText(r.filePath);
}

namespace {

std::string humanBytes(double bytes)
{
    const char *units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int unit = 0;
    while (bytes >= 1024 && unit < 4) {
        bytes /= 1024;
        ++unit;
    }
    char text[32];
    snprintf(text, sizeof text, unit ? "%.1f %s" : "%.0f %s", bytes, units[unit]);
    return text;
}

} // namespace

void ProgressView::update(const IDownload &record)
{
    const auto now = std::chrono::steady_clock::now();
    auto found = rows.find(record.uniqueID);
    if (found == rows.end()) {
        order.push_back(record.uniqueID);
        found = rows.emplace(record.uniqueID, Row()).first;
        found->second.lastTime = now;
        found->second.lastBytes = record.amountDownloaded;
    }
    Row &row = found->second;
    const double seconds = std::chrono::duration<double>(now - row.lastTime).count();
    if (seconds >= 0.2) {
        const double instant = double(record.amountDownloaded - row.lastBytes) / seconds;
        row.rate = row.rate == 0 ? instant : 0.7 * row.rate + 0.3 * instant;
        row.lastTime = now;
        row.lastBytes = record.amountDownloaded;
    }
    if (record.state != 2 && record.state != 16)
        row.rate = 0;
    row.record = record;
    redraw();
}

void ProgressView::redraw()
{
    if (drawn)
        fprintf(out, "\033[%zuA", drawn);
    const int width = 30;
    for (const std::string &id : order) {
        const Row &row = rows[id];
        const IDownload &r = row.record;
        const double fraction =
            r.totalSize > 0 ? double(r.amountDownloaded) / double(r.totalSize) : 0.0;
        const int filled = int(fraction * width + 0.5);
        std::string bar(size_t(filled > width ? width : filled), '#');
        bar.resize(width, '.');
        std::string name = escapeText(r.filePath.substr(r.filePath.find_last_of('/') + 1));
        if (name.size() > 24)
            name = name.substr(0, 21) + "...";
        fprintf(out, "\033[2K%-24s [%s] %3d%% %s / %s %s/s %s%s\n", name.c_str(), bar.c_str(),
                int(fraction * 100), humanBytes(double(r.amountDownloaded)).c_str(),
                r.totalSize > 0 ? humanBytes(double(r.totalSize)).c_str() : "?",
                humanBytes(row.rate).c_str(), stateText(r.state), stateNote(r).c_str());
    }
    drawn = order.size();
    fflush(out);
}

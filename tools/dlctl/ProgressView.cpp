#include "ProgressView.h"

#include "TextEscape.h"

#include <sys/ioctl.h>

#include <algorithm>
#include <cinttypes>

namespace dlm {

namespace {

std::string humanBytes(double bytes)
{
    const char *units[] = { "B", "KiB", "MiB", "GiB", "TiB" };
    int unit = 0;
    while (bytes >= 1024 && unit < 4) {
        bytes /= 1024;
        ++unit;
    }
    char text[32];
    snprintf(text, sizeof text, unit ? "%.1f %s" : "%.0f %s", bytes, units[unit]);
    return text;
}

std::string duration(double seconds)
{
    char text[32];
    const long long s = (long long)(seconds + 0.5);
    if (s >= 100 * 3600)
        return ">99h";
    if (s >= 3600)
        snprintf(text, sizeof text, "%lldh%02lldm", s / 3600, s / 60 % 60);
    else
        snprintf(text, sizeof text, "%lldm%02llds", s / 60, s % 60);
    return text;
}

// Columns a UTF-8 text takes, one per character.
size_t width(const std::string &text)
{
    return size_t(
        std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

// At most `columns` characters, cut at a character's start.
std::string fit(const std::string &text, size_t columns)
{
    size_t seen = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if ((text[i] & 0xc0) != 0x80 && seen++ == columns)
            return text.substr(0, i);
    }
    return text;
}

} // namespace

int ProgressView::columns() const
{
    struct winsize size { };
    return ioctl(fileno(out), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
}

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
    if (record.bytesPerSecond > 0)
        row.rate = double(record.bytesPerSecond);
    if (record.state != STATE_PROGRESSING && record.state != STATE_PENDING)
        row.rate = 0;
    row.record = record;
    redraw();
}

void ProgressView::redraw()
{
    if (drawn)
        fprintf(out, "\033[%zuA", drawn);
    // One column stays free: a line that fills the last one wraps on some terminals.
    const size_t cols = size_t(std::max(columns() - 1, 20));
    for (const std::string &id : order) {
        const Row &row = rows[id];
        const IDownload &r = row.record;
        const double fraction
            = r.totalSize > 0 ? double(r.amountDownloaded) / double(r.totalSize) : 0.0;
        std::string name = escapeText(r.filePath.substr(r.filePath.find_last_of('/') + 1));
        if (width(name) > 20)
            name = fit(name, 17) + "...";
        std::string figures = " " + std::to_string(int(fraction * 100)) + "% "
            + humanBytes(double(r.amountDownloaded)) + " / "
            + (r.totalSize > 0 ? humanBytes(double(r.totalSize)) : "?");
        if (row.rate > 0) {
            figures += " " + humanBytes(row.rate) + "/s";
            if (r.totalSize > r.amountDownloaded)
                figures += " ETA " + duration(double(r.totalSize - r.amountDownloaded) / row.rate);
        }
        figures += std::string(" ") + downloadStateName(r.state) + stateNote(r);
        // The bar takes what is left, up to 30 columns; under 5 it is left out.
        const size_t fixed = width(name) + 3 + width(figures);
        const size_t barWidth = cols > fixed ? std::min<size_t>(30, cols - fixed) : 0;
        std::string bar;
        if (barWidth >= 5) {
            bar.assign(size_t(std::min(double(barWidth), fraction * double(barWidth) + 0.5)), '#');
            bar.resize(barWidth, '.');
            bar = " [" + bar + "]";
        }
        fprintf(out, "\033[2K%s\n", fit(name + bar + figures, cols).c_str());
    }
    drawn = order.size();
    fflush(out);
}

} // namespace dlm

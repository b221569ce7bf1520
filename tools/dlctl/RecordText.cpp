#include "RecordText.h"

#include "TextEscape.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cinttypes>
#include <ctime>

namespace dlm {

const char *failureText(int32_t failureCode)
{
    switch (failureCode) {
    case FAILURE_NETWORK:
        return "network or transfer fault";
    case FAILURE_HTTP_STATUS:
        return "the server answered with an error status";
    case FAILURE_LOCAL_FILE:
        return "the local file could not be opened or written";
    case FAILURE_NONE:
        return "none";
    case FAILURE_CONTENT_MISMATCH:
        return "content does not match";
    default:
        return "unknown";
    }
}

namespace {
// The note of the state alone.
std::string stateOnlyNote(const IDownload &r)
{
    char text[128];
    // The reason may carry a caller's URL: escaped as every caller's text is.
    const std::string reason = r.failureReason.empty() ? "" : "; " + escapeText(r.failureReason);
    if (r.state == STATE_FAILED) {
        snprintf(
            text, sizeof text, " (failure %d: %s", int(r.failureCode), failureText(r.failureCode));
        return text + reason + ")";
    }
    if (r.state == STATE_COMPLETED && !r.expectedSha256.empty())
        return " (verified)"; // a mismatch fails
    if (r.state != STATE_STALLED)
        return std::string();
    const time_t when = time_t(r.nextAttemptTime / 1000);
    struct tm local;
    // No attempt planned: the reason alone says what it waits for ("waiting for network").
    if (r.nextAttemptTime <= 0 || !localtime_r(&when, &local))
        return r.failureReason.empty() ? " (waiting to try again)" : " (" + reason.substr(2) + ")";
    strftime(text, sizeof text, " (next attempt at %H:%M:%S", &local);
    return text + reason + ")";
}
} // namespace

std::string stateNote(const IDownload &r)
{
    std::string note = stateOnlyNote(r);
    if (r.rateLimit > 0)
        note += " (rate " + std::to_string(r.rateLimit) + ")";
    if (r.priority != 0)
        note += " (priority " + std::to_string(r.priority) + ")";
    return note;
}

std::string recordLine(const IDownload &r)
{
    char numbers[64];
    snprintf(numbers, sizeof numbers, " %" PRId64 " %" PRId64 " ", r.amountDownloaded, r.totalSize);
    // Other users' texts reach root's terminal: escaped as the service's log does.
    return escapeText(r.uniqueID) + ' ' + escapeText(r.clientID) + ' ' + downloadStateName(r.state)
        + numbers + escapeText(r.filePath);
}

std::string recordJson(const IDownload &r)
{
    const auto text
        = [](const std::string &t) { return QString::fromUtf8(t.data(), qsizetype(t.size())); };
    const QJsonObject object {
        { "id", text(r.uniqueID) },
        { "client", text(r.clientID) },
        { "name", text(r.name) },
        { "url", text(r.contentURL) },
        { "file", text(r.filePath) },
        { "state", downloadStateName(r.state) },
        { "stateCode", r.state },
        { "failureCode", r.failureCode },
        { "failureReason", text(r.failureReason) },
        { "httpStatus", r.httpStatus },
        { "bytes", qint64(r.amountDownloaded) },
        { "total", qint64(r.totalSize) },
        { "bytesPerSecond", qint64(r.bytesPerSecond) },
        { "startTime", qint64(r.startTime) },
        { "nextAttemptTime", qint64(r.nextAttemptTime) },
        { "expectedSha256", text(r.expectedSha256) },
        { "rateLimit", qint64(r.rateLimit) },
        { "priority", r.priority },
    };
    return QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}

} // namespace dlm

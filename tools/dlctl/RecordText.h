#pragma once

#include "IDownload.h"

#include <string>

namespace dlm {

// How dlctl prints a record: texts for people, one line for pipes and scripts, one JSON object.
const char *failureText(int32_t failureCode);
// "ID CLIENT STATE BYTES TOTAL FILE": one download on one line, for pipes and scripts.
std::string recordLine(const IDownload &record);
// What a Failed or Stalled state needs said, as " (...)": the failure's meaning and reason, or
// when the next attempt starts and why; then " (rate BPS)" and " (priority N)" of a download
// that has them. Empty for the other states and values.
std::string stateNote(const IDownload &record);
// One JSON object on one line. Its field names are kept from release to release: id, client,
// name, url, file, state (text), stateCode, failureCode, failureReason, httpStatus, bytes,
// total, bytesPerSecond, startTime, nextAttemptTime (ms since the epoch), expectedSha256,
// rateLimit, priority.
std::string recordJson(const IDownload &record);

} // namespace dlm

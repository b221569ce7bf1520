#pragma once

#include <QString>

namespace dlm {

// The answer of an operation that may be refused: its status and, when refused, why, in the
// words the log and the console show. Every Status names "done" 0 and keeps the values the IPC
// interface sends, so a front end passes the status on and never words a refusal itself.
template <typename Status> struct Outcome {
    Status status = Status {};
    QString reason; // empty when done

    bool done() const { return status == Status {}; }
};

// The statuses of the service's refusable calls beside DownloadDirectories::PathStatus.
enum class CreateStatus { Created = 0, BadUrl = 1, IdInUse = 2, BadArgument = 3, Refused = 4 };
enum class SpaceStatus { Fits = 0, DoesNotFit = 1, Unknown = 2 };
enum class ControlStatus { Done = 0, NotFound = 1, NotPermitted = 2, WrongState = 3, BadValue = 4 };

} // namespace dlm

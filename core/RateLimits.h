#pragma once

#include "Outcome.h"

#include <QtGlobal>

namespace dlm {

class RateGovernor;
class ServiceSettings;

// The overall rate limits ("rate_limit", "background_rate_limit"; bytes per second, 0: none)
// and the background mode, and the bounds of every rate and priority a caller gives. While the
// background mode is on its limit replaces the overall one; the mode starts off and is never
// stored, nor is an overall limit changed at run time. The limit in effect reaches the governor
// at every change.
class RateLimits {
public:
    // Faster than any link the device has: such a value is a mistake, not a limit.
    static constexpr qint64 kMaxRate = 10'000'000'000;
    static constexpr int kMinPriority = -100, kMaxPriority = 100;
    static bool validRate(qint64 bytesPerSecond)
    {
        return bytesPerSecond >= 0 && bytesPerSecond <= kMaxRate;
    }
    static bool validPriority(int priority)
    {
        return priority >= kMinPriority && priority <= kMaxPriority;
    }

    // BadValue with the bounds in words for a value out of them, else done.
    static Outcome<ControlStatus> checkRate(qint64 bytesPerSecond);
    static Outcome<ControlStatus> checkPriority(int priority);

    RateLimits(const ServiceSettings &settings, RateGovernor *governor);

    // Only root changes them (NotPermitted for another uid); each answer is logged.
    Outcome<ControlStatus> setOverall(qint64 bytesPerSecond, uint callerUid);
    Outcome<ControlStatus> setBackground(bool on, uint callerUid);
    bool background() const { return backgroundOn; }

private:
    void apply();
    Outcome<ControlStatus> asRoot(
        uint callerUid, const QByteArray &what, Outcome<ControlStatus> outcome);

    RateGovernor *governor;
    qint64 overall;
    qint64 backgroundLimit;
    bool backgroundOn = false;
};

} // namespace dlm

#include "RateLimits.h"

#include "DlmLog.h"
#include "RateGovernor.h"
#include "ServiceSettings.h"

namespace dlm {

namespace {
// A setting beyond the bounds is no limit at all, said once in the log.
qint64 rateSetting(const ServiceSettings &settings, const char *key)
{
    const qint64 value = settings.amount(QLatin1String(key), 0);
    if (RateLimits::validRate(value))
        return value;
    DLM_LOGW("Setting %s ignored: more than %lld bytes per second", key, RateLimits::kMaxRate);
    return 0;
}
} // namespace

RateLimits::RateLimits(const ServiceSettings &settings, RateGovernor *governor)
    : governor(governor),
      overall(rateSetting(settings, "rate_limit")),
      backgroundLimit(rateSetting(settings, "background_rate_limit"))
{
    apply();
}

Outcome<ControlStatus> RateLimits::checkRate(qint64 bytesPerSecond)
{
    if (validRate(bytesPerSecond))
        return {};
    return { ControlStatus::BadValue,
        QStringLiteral("a rate is 0 (none) to %1 bytes per second").arg(kMaxRate) };
}

Outcome<ControlStatus> RateLimits::checkPriority(int priority)
{
    if (validPriority(priority))
        return {};
    return { ControlStatus::BadValue,
        QStringLiteral("a priority is %1 to %2").arg(kMinPriority).arg(kMaxPriority) };
}

Outcome<ControlStatus> RateLimits::setOverall(qint64 bytesPerSecond, uint callerUid)
{
    const Outcome<ControlStatus> outcome = asRoot(callerUid,
        "limited to " + QByteArray::number(bytesPerSecond) + " bytes/s", checkRate(bytesPerSecond));
    if (outcome.done()) {
        overall = bytesPerSecond;
        apply();
    }
    return outcome;
}

Outcome<ControlStatus> RateLimits::setBackground(bool on, uint callerUid)
{
    const Outcome<ControlStatus> outcome
        = asRoot(callerUid, on ? "switched to background mode" : "switched to normal mode", {});
    if (outcome.done()) {
        backgroundOn = on;
        apply();
    }
    return outcome;
}

Outcome<ControlStatus> RateLimits::asRoot(
    uint callerUid, const QByteArray &what, Outcome<ControlStatus> outcome)
{
    if (callerUid != 0)
        outcome
            = { ControlStatus::NotPermitted, QStringLiteral("only root changes every download") };
    if (outcome.done())
        DLM_LOGI("all has been %s.", what.constData());
    else
        DLM_LOGW("all not %s: %s", what.constData(), qUtf8Printable(outcome.reason));
    return outcome;
}

void RateLimits::apply()
{
    governor->setOverall(backgroundOn ? backgroundLimit : overall);
}

} // namespace dlm

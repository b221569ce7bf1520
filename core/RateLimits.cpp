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

void RateLimits::setOverall(qint64 bytesPerSecond)
{
    overall = bytesPerSecond;
    apply();
}

void RateLimits::setBackground(bool on)
{
    backgroundOn = on;
    apply();
}

void RateLimits::apply()
{
    governor->setOverall(backgroundOn ? backgroundLimit : overall);
}

} // namespace dlm

#include "RateShares.h"

#include <algorithm>
#include <numeric>

namespace dlm {

std::vector<int64_t> shareRates(int64_t overall, const std::vector<int64_t> &ownLimits)
{
    std::vector<int64_t> shares(ownLimits);
    if (overall <= 0 || ownLimits.empty())
        return shares;
    // Settle the downloads limited lowest first; each one settled leaves the rest more.
    std::vector<size_t> order(ownLimits.size());
    std::iota(order.begin(), order.end(), 0);
    const auto unlimitedLast = [&](size_t a, size_t b) {
        const int64_t la = ownLimits[a] > 0 ? ownLimits[a] : INT64_MAX;
        const int64_t lb = ownLimits[b] > 0 ? ownLimits[b] : INT64_MAX;
        return la < lb;
    };
    std::stable_sort(order.begin(), order.end(), unlimitedLast);
    int64_t left = overall;
    for (size_t i = 0; i < order.size(); ++i) {
        const int64_t even = std::max<int64_t>(1, left / int64_t(order.size() - i));
        const int64_t own = ownLimits[order[i]];
        shares[order[i]] = own > 0 ? std::min(own, even) : even;
        left = std::max<int64_t>(0, left - shares[order[i]]);
    }
    return shares;
}

void TokenBucket::setRate(int64_t bytesPerSecond, int64_t nowMs)
{
    refill(nowMs);
    perSecond = std::max<int64_t>(0, bytesPerSecond);
    tokens = std::min(tokens, perSecond / 4);
}

void TokenBucket::refill(int64_t nowMs)
{
    // A debt of many seconds (a burst the socket held) is paid in full by a rest as long; an
    // hour bounds the product below overflow at the highest rate.
    if (perSecond > 0 && nowMs > lastMs)
        tokens = std::min(perSecond / 4,
            tokens + std::min<int64_t>(nowMs - lastMs, 3600 * 1000) * perSecond / 1000);
    lastMs = std::max(lastMs, nowMs);
}

int64_t TokenBucket::take(int64_t bytes, int64_t nowMs)
{
    if (perSecond <= 0)
        return 0;
    refill(nowMs);
    tokens -= bytes;
    // Rest until the bucket is full again, not just out of debt: the next burst may then be a
    // quarter second long, so a transfer rests at most about four times a second whatever the
    // size of its buffers. Every byte is still counted; the average stays the rate.
    return tokens >= 0 ? 0 : ((perSecond / 4 - tokens) * 1000 + perSecond - 1) / perSecond;
}

} // namespace dlm

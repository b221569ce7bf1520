#pragma once

#include <cstdint>
#include <vector>

// Rates in bytes per second; 0 means no limit.

namespace dlm {

// Each running download's share of an overall limit, given its own limit: downloads limited
// below an even share keep their limit and leave the rest to the others, who split it evenly
// (water-filling). Without an overall limit each keeps its own.
std::vector<int64_t> shareRates(int64_t overall, const std::vector<int64_t> &ownLimits);

// Paces one transfer at a rate: bytes that arrive are always taken (libcurl hands over a whole
// buffer), and the debt they leave says how long the transfer must then rest: until a quarter
// second's bytes may pass again unpaced.
class TokenBucket {
public:
    void setRate(int64_t bytesPerSecond, int64_t nowMs);
    int64_t rate() const { return perSecond; }
    // Counts bytes received at nowMs; returns how many ms to rest before reading more, 0 for none.
    int64_t take(int64_t bytes, int64_t nowMs);

private:
    void refill(int64_t nowMs);

    int64_t perSecond = 0;
    int64_t tokens = 0; // may go below zero: the debt of the last buffer
    int64_t lastMs = 0;
};

} // namespace dlm

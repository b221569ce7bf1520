#pragma once

#include <cstddef>
#include <cstdint>

// Feeds arbitrary bytes through frame decoding and parcel reads; shared by the randomized test
// and the libFuzzer target. Returns false when a decoded frame does not re-encode to its bytes.
bool decodeArbitraryInput(const uint8_t *data, size_t size);

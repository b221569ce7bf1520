#include "WireFuzz.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (!decodeArbitraryInput(data, size))
        std::abort();
    return 0;
}

// Parsers of the descriptors that a device sends. The first byte chooses the parser, the rest is the descriptor, in a
// block of exactly its size so that a read behind the end traps.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "usb/Descriptors.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    if (size < 1)
        return 0;
    const size_t n = size - 1;
    const std::unique_ptr<uint8_t[]> p(new uint8_t[n]);
    std::copy(pData + 1, pData + size, p.get());
    try {
        if (pData[0] % 3 == 2)
            delete ParseBos(p.get(), uint32_t(n));
        else
            delete ParseConfig(1, p.get(), uint32_t(n), pData[0] % 3 == 1);
    } catch (const char*) {
        // A block that cannot be walked.
    }
    return 0;
}

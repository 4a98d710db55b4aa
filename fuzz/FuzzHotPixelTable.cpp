// The hot-pixel table as it comes out of a camera's flash. What the reader makes of any bytes has to survive a round
// through the writer.
#include <cstdlib>
#include <cstring>
#include <vector>

#include "fuzz/FuzzCamera.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    constexpr int BYTES = 64 * 48 / 8;  // of the bitmap; odd sizes of the area included
    static FuzzCamera cam(64, 48);
    if (size > 4096)
        return 0;
    // Exactly what the reader may touch: one byte more for an odd length.
    std::vector<uint8_t> ab(pData, pData + size);
    ab.resize(size + size % 2);
    uint8_t* const pBits = cam.Uncompress(ab.data(), static_cast<int>(size));
    if (!pBits)
        return 0;
    int iLength = 0;
    uint8_t* const pArea = cam.Compress(pBits, BYTES, &iLength);
    if (iLength > BYTES)
        std::abort();
    uint8_t* const pAgain = cam.Uncompress(pArea, iLength);
    // A table that is too full is cut off, all others come back.
    if (!pAgain || (iLength < BYTES - 4 && std::memcmp(pAgain, pBits, BYTES) != 0))
        std::abort();
    std::free(pBits);
    std::free(pArea);
    std::free(pAgain);
    return 0;
}

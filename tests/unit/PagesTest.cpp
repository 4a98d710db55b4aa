#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "platform/Pages.h"

namespace {

// Bytes that this process holds in memory.
size_t Resident()
{
    size_t total = 0, resident = 0;
    if (std::FILE* f = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(f, "%zu %zu", &total, &resident) != 2)
            resident = 0;
        std::fclose(f);
    }
    return resident * 4096;
}

TEST(Pages, AreZeroAndCostNothingAlsoTheSecondTime)
{
    for (const size_t bytes : { size_t{ 80 }, size_t{ 1 } << 20, (size_t{ 31 } << 20) + 64 }) {
        for (int i = 0; i < 4; ++i) {
            const size_t before = Resident();
            auto* const p = static_cast<uint8_t*>(platform::AllocPages(bytes));
            ASSERT_NE(p, nullptr);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
            EXPECT_LT(Resident(), before + bytes / 2 + (size_t{ 1 } << 19));
#else
            (void)before;
#endif
            EXPECT_EQ(std::count(p, p + bytes, uint8_t{ 0 }), static_cast<std::ptrdiff_t>(bytes));
            std::memset(p, 0xFF, bytes);
            platform::FreePages(p, bytes);
        }
    }
    platform::FreePages(nullptr, 80);
    platform::FreePages(nullptr, size_t{ 1 } << 20);
}

}  // namespace

// Each fuzzer over its seeds, among them every input that ever failed, and over pieces and disturbed copies of them.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <vector>

#define FUZZER(name) extern "C" int name(const uint8_t* data, size_t size);
#include "Fuzzers.inc"
#undef FUZZER

namespace {

using Fuzzer = int (*)(const uint8_t*, size_t);

void Replay(const char* name, Fuzzer fuzzer)
{
    std::mt19937 random(1);
    int files = 0;
    for (const auto& file : std::filesystem::directory_iterator(std::filesystem::path(KOV_SEEDS) / name)) {
        SCOPED_TRACE(file.path());
        std::ifstream in(file.path(), std::ios::binary);
        const std::vector<uint8_t> seed{ std::istreambuf_iterator<char>(in), {} };
        fuzzer(seed.data(), seed.size());
        for (int i = 0; i < 20; ++i) {
            std::vector<uint8_t> bytes(seed.begin(), seed.begin() + static_cast<long>(random() % (seed.size() + 1)));
            for (size_t n = bytes.empty() ? 0 : random() % 4; n > 0; --n)
                bytes[random() % bytes.size()] = static_cast<uint8_t>(random());
            fuzzer(bytes.data(), bytes.size());
        }
        ++files;
    }
    EXPECT_GT(files, 0);
}

}  // namespace

#define FUZZER(name) \
  TEST(Fuzz, name) { Replay(#name, name); }
#include "Fuzzers.inc"

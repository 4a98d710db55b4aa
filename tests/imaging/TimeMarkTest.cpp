// The time mark at a fixed time.
#include "imaging/TimeMark.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

constexpr platform::LocalTime g_Time = { 2024, 1, 3, 4, 5, 6, 7 };
using Bytes = std::vector<uint8_t>;

// The character cell at (left, 7), lowest row last, as it looks upright: '#' where the level stands.
std::string Glyph(const Bytes& image, int width, int left, uint8_t level)
{
    std::string s;
    for (int r = 15; r >= 0; --r) {
        for (int c = 0; c < 8; ++c)
            s += image[static_cast<size_t>((7 + r) * width + left + c)] == level ? '#' : '.';
        s += '\n';
    }
    return s;
}

TEST(TimeMark, LevelStandsOutFromTheBackground)
{
    struct {
        uint8_t background, level;
    } rows[] = { { 0, 180 }, { 129, 180 }, { 130, 220 }, { 179, 220 }, { 180, 120 }, { 255, 120 } };
    for (const auto& row : rows) {
        for (int bytes : { 1, 3 }) {
            const int width = 640, height = 40;
            Bytes image(static_cast<size_t>(width * height * bytes), 7);
            for (int y = 7; y < 23; ++y)
                for (int x = width - 200; x < width - 72; ++x)
                    for (int k = 0; k < bytes; ++k)
                        image[static_cast<size_t>((y * width + x) * bytes + k)] = row.background;
            imaging::DrawTimeMark(image.data(), width, height, bytes, g_Time);
            // Foot of the 2, date column 0: row 2 of the glyph, bits 1 to 7.
            for (int c = 0; c < 8; ++c)
                for (int k = 0; k < bytes; ++k)
                    ASSERT_EQ(image[static_cast<size_t>((9 * width + width - 200 + c) * bytes + k)],
                              c == 0 ? row.background : row.level)
                        << int{ row.background } << ' ' << bytes;
        }
    }
}

// On a colour image each pixel counts a third of its sum, cut.
TEST(TimeMark, ColourBackgroundIsCutPerPixel)
{
    Bytes image(640 * 40 * 3);
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = i % 3 == 2 ? 129 : 130;  // 389 / 3 = 129
    imaging::DrawTimeMark(image.data(), 640, 40, 3, g_Time);
    EXPECT_EQ(image[3 * (9 * 640 + 441)], 180);
}

TEST(TimeMark, DrawsDateAndTime)
{
    const int width = 300;
    Bytes image(static_cast<size_t>(width * 30), 10);
    imaging::DrawTimeMark(image.data(), width, 30, 1, g_Time);
    EXPECT_EQ(Glyph(image, width, 100, 180),
              "........\n........\n........\n"
              "..#####.\n.##...##\n.##...##\n.##...##\n.....##.\n.....##.\n....##..\n...##...\n..##....\n.##...##\n.#######\n"
              "........\n........\n");
    // Equal characters look alike, others do not: the text is read back through the glyphs of its own digits.
    const std::string date = "20240103", time = "04:05:06:007";
    for (size_t i = 0; i < date.size(); ++i)
        for (size_t j = 0; j < time.size(); ++j)
            EXPECT_EQ(Glyph(image, width, 100 + 8 * static_cast<int>(i), 180) ==
                          Glyph(image, width, 172 + 8 * static_cast<int>(j), 180),
                      date[i] == time[j])
                << i << ' ' << j;
    for (int x : { 164, 171, 268, 299 })
        for (int y = 7; y < 23; ++y)
            EXPECT_EQ(image[static_cast<size_t>(y * width + x)], 10);  // the gap and the right edge stay free
    for (int x = 0; x < width; ++x)
        EXPECT_EQ(image[static_cast<size_t>(8 * width + x)], 10);  // unset rows of the glyphs
}

// QUIRK: on an image narrower than 200 columns the mark begins in the row above.
TEST(TimeMark, QuirkNarrowImagesTakeTheRowAbove)
{
    const int width = 176;
    Bytes wide(640 * 40, 10), image(static_cast<size_t>(width * 40), 10);
    imaging::DrawTimeMark(wide.data(), 640, 40, 1, g_Time);
    imaging::DrawTimeMark(image.data(), width, 40, 1, g_Time);
    for (int y = 7; y < 23; ++y)
        for (int x = -200; x < -32; ++x)
            ASSERT_EQ(image[static_cast<size_t>(y * width + width + x)], wide[static_cast<size_t>(y * 640 + 640 + x)])
                << x << ' ' << y;
}

// What does not fit is left out; nothing outside the image is touched.
TEST(TimeMark, SmallImages)
{
    for (const auto& [w, h] : { std::pair{ 1, 1 }, { 8, 8 }, { 60, 40 }, { 150, 12 }, { 199, 23 }, { 200, 22 }, { 640, 4 } }) {
        for (int bytes : { 1, 3 }) {
            const size_t n = static_cast<size_t>(w * h * bytes), guard = 4096;
            Bytes image(n + 2 * guard, 10);
            imaging::DrawTimeMark(image.data() + guard, w, h, bytes, g_Time);
            for (size_t i = 0; i < guard; ++i)
                ASSERT_TRUE(image[i] == 10 && image[n + guard + i] == 10) << w << " x " << h;
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x)
                    ASSERT_TRUE(y * w + x >= 7 * w + w - 200 || image[guard + static_cast<size_t>((y * w + x) * bytes)] == 10)
                        << w << " x " << h;
        }
    }
}

}  // namespace

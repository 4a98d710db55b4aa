#include "imaging/TimeMark.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>

namespace imaging {

namespace {

constexpr int TOP = 7, GLYPH_WIDTH = 8, GLYPH_HEIGHT = 16;
constexpr int DATE_FROM_RIGHT = 200, TIME_FROM_RIGHT = 128;  // left end, columns before the right edge
constexpr int DATE_CHARS = 8, TIME_CHARS = 12;
constexpr int BACKGROUND_WIDTH = 128;  // from the left end of the date

// '0' to '9' and ':'. Bit 0 is the leftmost column; the first row is the bottom of the character.
constexpr uint8_t g_Font[11][GLYPH_HEIGHT] = {
    { 0x00, 0x00, 0x38, 0x6C, 0xC6, 0xC6, 0xC6, 0xC6, 0xC6, 0xC6, 0xC6, 0x6C, 0x38, 0x00, 0x00, 0x00 },
    { 0x00, 0x00, 0x7E, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x1E, 0x18, 0x00, 0x00, 0x00 },
    { 0x00, 0x00, 0xFE, 0xC6, 0x0C, 0x18, 0x30, 0x60, 0x60, 0xC6, 0xC6, 0xC6, 0x7C, 0x00, 0x00, 0x00 },
    { 0x00, 0x00, 0x3C, 0x66, 0xC6, 0xC0, 0xC0, 0x60, 0x38, 0x60, 0xC6, 0xC6, 0x7C, 0x00, 0x00, 0x00 },
    { 0x00, 0x00, 0xF8, 0x60, 0x60, 0xFE, 0x66, 0x66, 0x6C, 0x6C, 0x78, 0x70, 0x60, 0x00, 0x00, 0x00 },
    { 0x00, 0x00, 0x3C, 0x66, 0xC6, 0xC0, 0xC0, 0x6E, 0x3E, 0x06, 0x06, 0x06, 0xFE, 0x00, 0x00, 0x00 },
    { 0x00, 0x00, 0x38, 0x6C, 0xC6, 0xC6, 0xC6, 0x6E, 0x3E, 0x06, 0x06, 0x6C, 0x78, 0x00, 0x00, 0x00 },
    { 0x00, 0x00, 0x18, 0x18, 0x18, 0x18, 0x18, 0x18, 0x30, 0x30, 0x66, 0x66, 0xFE, 0x00, 0x00, 0x00 },
    { 0x00, 0x00, 0x7C, 0xC6, 0xC6, 0xC6, 0x6C, 0x38, 0x6C, 0xC6, 0xC6, 0xC6, 0x7C, 0x00, 0x00, 0x00 },
    { 0x00, 0x00, 0x3C, 0x6C, 0xC0, 0xC0, 0xF8, 0xEC, 0xC6, 0xC6, 0xC6, 0x6C, 0x38, 0x00, 0x00, 0x00 },
    { 0x00, 0x00, 0x38, 0x38, 0x00, 0x00, 0x00, 0x00, 0x38, 0x38, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00 },
};

class Canvas {
public:
    Canvas(uint8_t* image, int width, int height, int bytesPerPixel)
        : m_image(image), m_width(width), m_height(height), m_bytes(bytesPerPixel)
    {
    }

    // QUIRK: rows follow each other without a gap, so on an image narrower than 200 columns the mark begins in the row
    // above. nullptr outside the image.
    uint8_t* Pixel(int x, int y) const
    {
        const ptrdiff_t at = static_cast<ptrdiff_t>(y) * m_width + x;
        if (at < 0 || at >= static_cast<ptrdiff_t>(m_width) * m_height)
            return nullptr;
        return m_image + at * m_bytes;
    }

    int Background() const
    {
        int sum = 0, count = 0;
        for (int y = TOP; y < TOP + GLYPH_HEIGHT; ++y) {
            for (int x = m_width - DATE_FROM_RIGHT; x < m_width - DATE_FROM_RIGHT + BACKGROUND_WIDTH; ++x) {
                if (const uint8_t* p = Pixel(x, y)) {
                    sum += m_bytes == 3 ? (p[0] + p[1] + p[2]) / 3 : p[0];
                    ++count;
                }
            }
        }
        return count == 0 ? 0 : sum / count;
    }

    // Only the strokes are drawn; between them the picture stays.
    void Text(const char* text, int chars, int left, uint8_t level) const
    {
        for (int k = 0; k < chars; ++k) {
            const int glyph = text[k] - '0';
            if (glyph < 0 || glyph > 10)
                continue;
            for (int r = 0; r < GLYPH_HEIGHT; ++r) {
                for (int c = 0; c < GLYPH_WIDTH; ++c) {
                    uint8_t* p = Pixel(left + k * GLYPH_WIDTH + c, TOP + r);
                    if (p && (g_Font[glyph][r] >> c & 1))
                        std::fill_n(p, m_bytes, level);
                }
            }
        }
    }

private:
    uint8_t* m_image;
    int m_width, m_height, m_bytes;
};

}  // namespace

void DrawTimeMark(uint8_t* image, int width, int height, int bytesPerPixel, const platform::LocalTime& t)
{
    const Canvas canvas(image, width, height, bytesPerPixel);
    const int background = canvas.Background();
    const uint8_t level = background < 130 ? 180 : background < 180 ? 220 : 120;
    char date[40], time[60];
    std::snprintf(date, sizeof date, "%4d%02d%02d", t.year, t.month, t.day);
    std::snprintf(time, sizeof time, "%02d:%02d:%02d:%03d", t.hour, t.minute, t.second, t.millisecond);
    canvas.Text(date, DATE_CHARS, width - DATE_FROM_RIGHT, level);
    canvas.Text(time, TIME_CHARS, width - TIME_FROM_RIGHT, level);
}

}  // namespace imaging

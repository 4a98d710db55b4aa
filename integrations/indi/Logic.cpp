#include "Logic.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace kovindi {

std::string IdText(const KOV_ID& id)
{
    const auto* end = std::find(std::begin(id.id), std::end(id.id), 0);
    const bool printable = end != std::begin(id.id) && std::all_of(std::begin(id.id), end, [](uint8_t c) {
                               return std::isalnum(c) || c == '-' || c == '_' || c == ' ';
                           });
    if (printable && std::all_of(end, std::end(id.id), [](uint8_t c) { return c == 0; }))
        return { std::begin(id.id), end };
    static constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t c : id.id) {
        text += DIGITS[c >> 4];
        text += DIGITS[c & 15];
    }
    return text;
}

std::string DeviceName(const std::string& model, const std::string& id, int ordinal)
{
    std::string name = id.empty() ? model : model + " (" + id + ")";
    return ordinal > 1 ? name + " " + std::to_string(ordinal) : name;
}

namespace {

int FreeOrdinal(const std::vector<KnownCamera>& known, const std::vector<KnownCamera>& appeared, const std::string& id)
{
    for (int ordinal = 1;; ++ordinal) {
        const auto taken = [&](const KnownCamera& k) { return k.id == id && k.ordinal == ordinal; };
        if (std::none_of(known.begin(), known.end(), taken) && std::none_of(appeared.begin(), appeared.end(), taken))
            return ordinal;
    }
}

}  // namespace

Changes Compare(const std::vector<KnownCamera>& known, const std::vector<std::optional<std::string>>& ids)
{
    Changes c;
    const auto isOnBus = [&](const KnownCamera& k) { return std::find(ids.begin(), ids.end(), k.id) != ids.end(); };
    size_t surplus = ids.size() > known.size() ? ids.size() - known.size() : 0;
    const auto add = [&](const std::string& id) {
        c.appeared.push_back({ id, FreeOrdinal(known, c.appeared, id) });
        --surplus;
    };
    for (const auto& id : ids)
        if (surplus > 0 && id && !id->empty() &&
            std::none_of(known.begin(), known.end(), [&](const KnownCamera& k) { return k.id == *id; }))
            add(*id);
    while (surplus > 0)
        add("");

    size_t missing = known.size() > ids.size() ? known.size() - ids.size() : 0;
    const auto remove = [&](auto&& which) {
        for (size_t i = known.size(); i-- > 0 && missing > 0;)
            if (std::find(c.gone.begin(), c.gone.end(), i) == c.gone.end() && which(known[i])) {
                c.gone.push_back(i);
                --missing;
            }
    };
    if (ids.empty())
        remove([](const KnownCamera&) { return true; });
    remove([](const KnownCamera& k) { return k.failed; });
    if (std::find(ids.begin(), ids.end(), std::nullopt) == ids.end())
        remove([&](const KnownCamera& k) { return !isOnBus(k); });
    for (size_t i = 0; i < known.size() && missing > 0; ++i)
        if (known[i].open && !known[i].failed && !known[i].verified)
            c.doubtful.push_back(i);
    if (c.doubtful.empty())
        remove([](const KnownCamera& k) { return !k.open; });  // all that are open have answered
    return c;
}

std::string ElementName(const KOV_CONTROL_CAPS& caps)
{
    if (caps.ControlType == CTRL_BRIGHTNESS)
        return "Offset";
    std::string name = caps.Name;
    std::erase(name, ' ');
    return name;
}

std::vector<std::pair<int, int>> SizesToTry(const Region& wish, int bin, int maxWidth, int maxHeight)
{
    std::vector<std::pair<int, int>> sizes;
    const auto add = [&](int width, int height) {
        if (width > 0 && height > 0 && (sizes.empty() || sizes.back() != std::pair(width, height)))
            sizes.emplace_back(width, height);
    };
    const int width = std::min(wish.width, maxWidth) / bin, height = std::min(wish.height, maxHeight) / bin;
    if (wish.width >= maxWidth && wish.height >= maxHeight && bin == 1)
        add(maxWidth, maxHeight);  // what every camera opens with
    for (const auto& [columns, rows] : { std::pair(8, 2), std::pair(16, 16), std::pair(32, 32) })
        add(width - width % columns, height - height % rows);
    return sizes;
}

int StartInForce(int asked, int reported, int bin, int size, int max)
{
    constexpr int COARSEST = 16;  // more than any camera rounds by
    const int start = reported * bin;
    const bool believed = start >= 0 && start + size <= max && std::abs(start - asked) <= COARSEST * bin;
    return std::clamp(believed ? start : asked, 0, std::max(0, max - size));
}

void ToPlanes(const uint8_t* bgr, size_t pixels, uint8_t* planes)
{
    uint8_t *red = planes, *green = planes + pixels, *blue = green + pixels;
    for (size_t i = 0; i < pixels; ++i) {
        blue[i] = bgr[3 * i];
        green[i] = bgr[3 * i + 1];
        red[i] = bgr[3 * i + 2];
    }
}

void SwapRedBlue(uint8_t* bgr, size_t pixels)
{
    for (size_t i = 0; i < pixels; ++i)
        std::swap(bgr[3 * i], bgr[3 * i + 2]);
}

DarkMean::DarkMean(int width, int height)
    : m_width(width), m_height(height), m_sum(static_cast<size_t>(width) * static_cast<size_t>(height))
{
}

void DarkMean::Add(const uint8_t* frame)
{
    for (size_t i = 0; i < m_sum.size(); ++i)
        m_sum[i] += frame[i];
    ++m_count;
}

std::vector<uint8_t> DarkMean::Bmp() const
{
    constexpr uint32_t HEADER = 54, PALETTE = 1024;
    const auto pixels = static_cast<uint32_t>(m_sum.size());
    std::vector<uint8_t> file(HEADER + PALETTE);
    const auto put = [&](size_t at, uint32_t value, int bytes) {
        for (int i = 0; i < bytes; ++i)
            file[at + static_cast<size_t>(i)] = static_cast<uint8_t>(value >> (8 * i));
    };
    std::memcpy(file.data(), "BM", 2);
    put(2, HEADER + PALETTE + pixels, 4);
    put(10, HEADER + PALETTE, 4);
    put(14, 40, 4);
    put(18, static_cast<uint32_t>(m_width), 4);
    put(22, static_cast<uint32_t>(m_height), 4);
    put(26, 1, 2);
    put(28, 8, 2);
    put(34, pixels, 4);
    put(46, 256, 4);
    for (uint32_t i = 0; i < 256; ++i)
        put(HEADER + 4 * i, i * 0x010101, 4);
    file.reserve(file.size() + pixels);
    for (const uint32_t sum : m_sum)
        file.push_back(static_cast<uint8_t>(m_count == 0 ? 0 : sum / static_cast<uint32_t>(m_count)));
    return file;
}

int WarmUpTarget(double start, double minutes, double slope) { return static_cast<int>(std::floor(start + minutes * slope)); }

}  // namespace kovindi

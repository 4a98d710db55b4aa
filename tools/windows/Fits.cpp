// Debian has no CFITSIO for Windows: a plain writer of one image, cards in the fixed format.
#include "common/Fits.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <vector>

#include "common/Files.h"

namespace kovtools {

namespace {

constexpr size_t CARD = 80, BLOCK = 2880, LONGEST_TEXT = 68;

std::string Padded(std::string s, size_t n)
{
    s.resize(n, ' ');
    return s;
}

}  // namespace

struct FitsFile::Impl {
    std::ofstream file;
    std::string path, head;
    bool is16 = false;
    size_t pixels = 0, written = 0;

    void Card(const char* name, const std::string& value, const char* comment)
    {
        head += Padded(Padded(name, 8) + "= " + value + " / " + comment, CARD);
    }
    void Number(const char* name, const std::string& value, const char* comment)
    {
        Card(name, std::string(value.size() < 20 ? 20 - value.size() : 0, ' ') + value, comment);
    }
    void Remark(const char* name, const std::string& text)
    {
        constexpr size_t ROOM = CARD - 8;
        for (size_t at = 0; at == 0 || at < text.size(); at += ROOM)
            head += Padded(Padded(name, 8) + text.substr(at, ROOM), CARD);
    }
    void Test()
    {
        if (!file)
            FailToWrite(path);
    }
    void FillBlock(char c)
    {
        while (written % BLOCK != 0) {
            file.put(c);
            ++written;
        }
    }
};

FitsFile::FitsFile(const std::string& path, int width, int height, int planes, bool is16) : m_impl(std::make_unique<Impl>())
{
    m_impl->path = path;
    m_impl->is16 = is16;
    m_impl->pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    m_impl->file.open(PathOf(path), std::ios::binary | std::ios::trunc);
    m_impl->Test();
    m_impl->Number("SIMPLE", "T", "file does conform to FITS standard");
    m_impl->Number("BITPIX", std::to_string(is16 ? 16 : 8), "number of bits per data pixel");
    m_impl->Number("NAXIS", std::to_string(planes > 1 ? 3 : 2), "number of data axes");
    m_impl->Number("NAXIS1", std::to_string(width), "length of data axis 1");
    m_impl->Number("NAXIS2", std::to_string(height), "length of data axis 2");
    if (planes > 1)
        m_impl->Number("NAXIS3", std::to_string(planes), "length of data axis 3");
    m_impl->Number("EXTEND", "T", "FITS dataset may contain extensions");
    if (is16) {
        m_impl->Number("BZERO", std::to_string(32768), "offset data range to that of unsigned short");
        m_impl->Number("BSCALE", std::to_string(1), "default scaling factor");
    }
}

FitsFile::~FitsFile() = default;

void FitsFile::Add(const FitsCard& card)
{
    const char* const key = card.key.c_str();
    const char* const comment = card.comment.c_str();
    if (const auto* text = std::get_if<std::string>(&card.value)) {
        if (card.key == "HISTORY" || card.key == "COMMENT") {
            m_impl->Remark(key, *text);
            return;
        }
        std::string quoted = "'";
        for (const char c : text->substr(0, LONGEST_TEXT))
            quoted += c == '\'' ? std::string("''") : std::string(1, c);
        m_impl->Card(key,
                     Padded(Padded(quoted, std::max<size_t>(quoted.size(), 9)) + "'", std::max<size_t>(quoted.size() + 1, 20)),
                     comment);
    } else if (const auto* real = std::get_if<double>(&card.value)) {
        char buffer[64];
        if (card.decimals < 0)
            std::snprintf(buffer, sizeof buffer, "%.15G", *real);
        else
            std::snprintf(buffer, sizeof buffer, "%.*f", card.decimals, *real);
        m_impl->Number(key, buffer, comment);
    } else if (const auto* whole = std::get_if<int64_t>(&card.value)) {
        m_impl->Number(key, std::to_string(*whole), comment);
    } else {
        m_impl->Number(key, std::get<bool>(card.value) ? "T" : "F", comment);
    }
}

void FitsFile::Plane(const void* samples)
{
    if (m_impl->written == 0) {
        m_impl->head += Padded("END", CARD);
        m_impl->file.write(m_impl->head.data(), static_cast<std::streamsize>(m_impl->head.size()));
        m_impl->written = m_impl->head.size();
        m_impl->FillBlock(' ');
    }
    const auto* const p = static_cast<const uint8_t*>(samples);
    const size_t n = m_impl->pixels * (m_impl->is16 ? 2 : 1);
    if (m_impl->is16) {
        // High byte first, less 32768: the highest bit turned round.
        std::vector<uint8_t> big(n);
        for (size_t i = 0; i < n; i += 2) {
            big[i] = static_cast<uint8_t>(p[i + 1] ^ 0x80);
            big[i + 1] = p[i];
        }
        m_impl->file.write(reinterpret_cast<const char*>(big.data()), static_cast<std::streamsize>(n));
    } else {
        m_impl->file.write(reinterpret_cast<const char*>(p), static_cast<std::streamsize>(n));
    }
    m_impl->written += n;
}

void FitsFile::Close()
{
    m_impl->FillBlock(0);
    m_impl->file.close();
    m_impl->Test();
}

}  // namespace kovtools

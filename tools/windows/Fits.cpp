// Debian has no CFITSIO for Windows: a plain writer of one image, cards in the fixed format.
#include "common/Fits.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace kovtools {

namespace {

constexpr size_t CARD = 80, BLOCK = 2880;

std::string Padded(std::string s, size_t n)
{
    s.resize(n, ' ');
    return s;
}

}  // namespace

struct FitsFile::Impl {
    std::ofstream file;
    std::string sPath, sHead;
    bool b16 = false;
    size_t nPixels = 0, nWritten = 0;

    void Card(const char* name, const std::string& value, const char* comment)
    {
        sHead += Padded(Padded(name, 8) + "= " + value + " / " + comment, CARD);
    }
    void Number(const char* name, const std::string& value, const char* comment)
    {
        Card(name, std::string(value.size() < 20 ? 20 - value.size() : 0, ' ') + value, comment);
    }
    void Test()
    {
        if (!file)
            throw std::runtime_error("cannot write " + sPath + ". Is the folder there and writable, and the disk not full?");
    }
    void FillBlock(char c)
    {
        while (nWritten % BLOCK != 0) {
            file.put(c);
            ++nWritten;
        }
    }
};

FitsFile::FitsFile(const std::string& path, int width, int height, int planes, bool b16) : m_p(std::make_unique<Impl>())
{
    m_p->sPath = path;
    m_p->b16 = b16;
    m_p->nPixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    m_p->file.open(std::filesystem::u8path(path), std::ios::binary | std::ios::trunc);
    m_p->Test();
    m_p->Number("SIMPLE", "T", "file does conform to FITS standard");
    Key("BITPIX", b16 ? 16 : 8, "number of bits per data pixel");
    Key("NAXIS", planes > 1 ? 3 : 2, "number of data axes");
    Key("NAXIS1", width, "length of data axis 1");
    Key("NAXIS2", height, "length of data axis 2");
    if (planes > 1)
        Key("NAXIS3", planes, "length of data axis 3");
    m_p->Number("EXTEND", "T", "FITS dataset may contain extensions");
    if (b16) {
        Key("BZERO", 32768, "offset data range to that of unsigned short");
        Key("BSCALE", 1, "default scaling factor");
    }
}

FitsFile::~FitsFile() = default;

void FitsFile::Key(const char* name, const std::string& v, const char* comment)
{
    std::string quoted = "'";
    for (const char c : v)
        quoted += c == '\'' ? std::string("''") : std::string(1, c);
    m_p->Card(name, Padded(Padded(quoted, std::max<size_t>(quoted.size(), 9)) + "'", std::max<size_t>(quoted.size() + 1, 20)), comment);
}
void FitsFile::Key(const char* name, double v, int decimals, const char* comment)
{
    char sz[64];
    std::snprintf(sz, sizeof sz, "%.*f", decimals, v);
    m_p->Number(name, sz, comment);
}
void FitsFile::Key(const char* name, int v, const char* comment) { m_p->Number(name, std::to_string(v), comment); }

void FitsFile::Plane(const void* samples)
{
    if (m_p->nWritten == 0) {
        m_p->sHead += Padded("END", CARD);
        m_p->file.write(m_p->sHead.data(), static_cast<std::streamsize>(m_p->sHead.size()));
        m_p->nWritten = m_p->sHead.size();
        m_p->FillBlock(' ');
    }
    const auto* const p = static_cast<const uint8_t*>(samples);
    const size_t n = m_p->nPixels * (m_p->b16 ? 2 : 1);
    if (m_p->b16) {
        // High byte first, less 32768: the highest bit turned round.
        std::vector<uint8_t> big(n);
        for (size_t i = 0; i < n; i += 2) {
            big[i] = static_cast<uint8_t>(p[i + 1] ^ 0x80);
            big[i + 1] = p[i];
        }
        m_p->file.write(reinterpret_cast<const char*>(big.data()), static_cast<std::streamsize>(n));
    } else {
        m_p->file.write(reinterpret_cast<const char*>(p), static_cast<std::streamsize>(n));
    }
    m_p->nWritten += n;
}

void FitsFile::Close()
{
    m_p->FillBlock(0);
    m_p->file.close();
    m_p->Test();
}

}  // namespace kovtools

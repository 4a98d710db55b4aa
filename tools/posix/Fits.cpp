#include "common/Fits.h"

#include <fitsio.h>

#include <cstdint>
#include <cstdio>
#include <variant>

#include "common/Files.h"

namespace kovtools {

// Calls report through a status that sticks.
struct FitsFile::Impl {
    std::string path;
    bool is16 = false;
    LONGLONG pixels = 0, next = 1;
    fitsfile* file = nullptr;
    int status = 0;

    void Test() const
    {
        if (status == 0)
            return;
        char text[FLEN_STATUS] = {};
        fits_get_errstatus(status, text);
        FailToWrite(path, text);
    }
};

FitsFile::FitsFile(const std::string& path, int width, int height, int planes, bool is16) : m_impl(std::make_unique<Impl>())
{
    m_impl->path = path;
    m_impl->is16 = is16;
    m_impl->pixels = LONGLONG{ width } * height;
    std::remove(path.c_str());                                           // CFITSIO refuses to replace a file
    fits_create_diskfile(&m_impl->file, path.c_str(), &m_impl->status);  // the path as it stands, without its own syntax
    m_impl->Test();
    long axes[3] = { width, height, planes };
    fits_create_img(m_impl->file, is16 ? USHORT_IMG : BYTE_IMG, planes > 1 ? 3 : 2, axes, &m_impl->status);
}

FitsFile::~FitsFile()
{
    int ignored = 0;
    if (m_impl->file != nullptr)
        fits_close_file(m_impl->file, &ignored);
}

void FitsFile::Add(const FitsCard& card)
{
    fitsfile* const f = m_impl->file;
    int* const status = &m_impl->status;
    const char* const key = card.key.c_str();
    const char* const comment = card.comment.c_str();
    if (const auto* text = std::get_if<std::string>(&card.value)) {
        if (card.key == "HISTORY")
            fits_write_history(f, text->c_str(), status);
        else if (card.key == "COMMENT")
            fits_write_comment(f, text->c_str(), status);
        else
            fits_update_key_longstr(f, key, text->c_str(), comment, status);
    } else if (const auto* real = std::get_if<double>(&card.value)) {
        if (card.decimals < 0)
            fits_update_key_dbl(f, key, *real, -15, comment, status);
        else
            fits_update_key_fixdbl(f, key, *real, card.decimals, comment, status);
    } else if (const auto* whole = std::get_if<int64_t>(&card.value)) {
        fits_update_key_lng(f, key, *whole, comment, status);
    } else {
        fits_update_key_log(f, key, std::get<bool>(card.value), comment, status);
    }
}

void FitsFile::Plane(const void* samples)
{
    fits_write_img(m_impl->file, m_impl->is16 ? TUSHORT : TBYTE, m_impl->next, m_impl->pixels, const_cast<void*>(samples),
                   &m_impl->status);
    m_impl->next += m_impl->pixels;
}

void FitsFile::Close()
{
    m_impl->Test();
    fits_close_file(m_impl->file, &m_impl->status);
    m_impl->file = nullptr;
    m_impl->Test();
}

}  // namespace kovtools

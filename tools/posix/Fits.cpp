#include "common/Fits.h"

#include <fitsio.h>

#include <stdexcept>

namespace kovtools {

// Calls report through a status that sticks.
struct FitsFile::Impl {
    std::string sPath;
    bool b16 = false;
    LONGLONG lPixels = 0, lNext = 1;
    fitsfile* pFile = nullptr;
    int iStatus = 0;

    void Test() const
    {
        if (iStatus == 0)
            return;
        char text[FLEN_STATUS] = {};
        fits_get_errstatus(iStatus, text);
        throw std::runtime_error("cannot write " + sPath + ": " + text + ". Is the folder there and writable, and the disk not full?");
    }
};

FitsFile::FitsFile(const std::string& path, int width, int height, int planes, bool b16) : m_p(std::make_unique<Impl>())
{
    m_p->sPath = path;
    m_p->b16 = b16;
    m_p->lPixels = LONGLONG{ width } * height;
    fits_create_file(&m_p->pFile, ("!" + path).c_str(), &m_p->iStatus);
    m_p->Test();
    long axes[3] = { width, height, planes };
    fits_create_img(m_p->pFile, b16 ? USHORT_IMG : BYTE_IMG, planes > 1 ? 3 : 2, axes, &m_p->iStatus);
}

FitsFile::~FitsFile()
{
    int ignored = 0;
    if (m_p->pFile != nullptr)
        fits_close_file(m_p->pFile, &ignored);
}

void FitsFile::Key(const char* name, const std::string& v, const char* comment)
{
    fits_update_key_str(m_p->pFile, name, v.c_str(), comment, &m_p->iStatus);
}
void FitsFile::Key(const char* name, double v, int decimals, const char* comment)
{
    fits_update_key_fixdbl(m_p->pFile, name, v, decimals, comment, &m_p->iStatus);
}
void FitsFile::Key(const char* name, int v, const char* comment)
{
    fits_update_key_lng(m_p->pFile, name, v, comment, &m_p->iStatus);
}

void FitsFile::Plane(const void* samples)
{
    fits_write_img(m_p->pFile, m_p->b16 ? TUSHORT : TBYTE, m_p->lNext, m_p->lPixels, const_cast<void*>(samples), &m_p->iStatus);
    m_p->lNext += m_p->lPixels;
}

void FitsFile::Close()
{
    m_p->Test();
    fits_close_file(m_p->pFile, &m_p->iStatus);
    m_p->pFile = nullptr;
    m_p->Test();
}

}  // namespace kovtools

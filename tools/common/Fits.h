// A FITS file with one image. Written with CFITSIO where it is to be had.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

#include "common/FitsHeader.h"

namespace kovtools {

// Rows from the top. All cards come before the first plane. Everything but the destructor throws std::runtime_error.
class FitsFile {
public:
    FitsFile(const std::string& path, int width, int height, int planes, bool is16);
    ~FitsFile();
    FitsFile(const FitsFile&) = delete;
    FitsFile& operator=(const FitsFile&) = delete;
    void Add(const FitsCard& card);
    void Plane(const void* samples);  // bytes, or 16-bit words of this machine
    void Close();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace kovtools

// A FITS file with one image. Written with CFITSIO where it is to be had.
#pragma once
#include <cstdint>
#include <memory>
#include <string>

namespace kovtools {

// Rows from the top. All keywords come before the first plane. Everything but the destructor throws std::runtime_error.
class FitsFile {
public:
    FitsFile(const std::string& path, int width, int height, int planes, bool b16);  // an existing file is replaced
    ~FitsFile();
    FitsFile(const FitsFile&) = delete;
    FitsFile& operator=(const FitsFile&) = delete;
    void Key(const char* name, const std::string& value, const char* comment);
    void Key(const char* name, double value, int decimals, const char* comment);
    void Key(const char* name, int value, const char* comment);
    void Plane(const void* samples);  // bytes, or 16-bit words of this machine
    void Close();

private:
    struct Impl;
    std::unique_ptr<Impl> m_p;
};

}  // namespace kovtools

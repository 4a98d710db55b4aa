// Debian has no libtiff for Windows.
#include "common/Tiff.h"

#include <stdexcept>

namespace kovtools {

extern const bool WRITES_TIFF = false;

void WriteTiffFile(const std::string&, const TiffShape&, const uint8_t*)
{
    throw std::runtime_error("TIFF files are written on Linux only; FITS has the same samples");
}

}  // namespace kovtools

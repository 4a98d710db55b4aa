// A TIFF file with one image. Written with libtiff where it is to be had.
#pragma once
#include <cstdint>
#include <string>

namespace kovtools {

struct TiffShape {
    int width, height, channels, bits;  // channels 1 (grey) or 3 (red, green, blue), bits 8 or 16
    std::string model, description;
};
// Rows from the top, 16-bit samples little-endian. Throws std::runtime_error.
void WriteTiffFile(const std::string& path, const TiffShape& shape, const uint8_t* samples);

}  // namespace kovtools

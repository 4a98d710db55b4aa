// PNG files with 8 bits a sample. Written with libpng where it is to be had.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace kovtools {

// Rows from the top; channels 1 (grey) or 3 (red, green, blue). An existing file is replaced. Both throw
// std::runtime_error.
void WritePngFile(const std::string& path, int width, int height, int channels, const uint8_t* pixels);
std::vector<uint8_t> ReadPngFile(const std::string& path, int* width, int* height);  // 3 channels

}  // namespace kovtools

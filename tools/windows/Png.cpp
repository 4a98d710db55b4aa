// Debian has zlib for Windows but no libpng: a plain writer, every row without a filter. Reading is not offered.
#include "common/Png.h"

#include <zlib.h>

#include <fstream>
#include <stdexcept>

#include "common/Files.h"

namespace kovtools {

namespace {

void Put32(std::vector<uint8_t>& out, size_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<uint8_t>(value >> shift));
}

void Chunk(std::ofstream& file, const char* szType, const uint8_t* data, size_t n)
{
    std::vector<uint8_t> head, tail;
    Put32(head, n);
    head.insert(head.end(), szType, szType + 4);
    uLong crc = crc32(0, head.data() + 4, 4);
    if (n != 0)  // without data the function starts anew
        crc = crc32(crc, data, static_cast<uInt>(n));
    Put32(tail, crc);
    file.write(reinterpret_cast<const char*>(head.data()), 8);
    file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(n));
    file.write(reinterpret_cast<const char*>(tail.data()), 4);
}

}  // namespace

void WritePngFile(const std::string& path, int width, int height, int channels, const uint8_t* pixels)
{
    const size_t pitch = static_cast<size_t>(width) * static_cast<size_t>(channels);
    std::vector<uint8_t> rows;
    rows.reserve((pitch + 1) * static_cast<size_t>(height));
    for (int y = 0; y < height; ++y) {
        rows.push_back(0);
        const uint8_t* const row = pixels + pitch * static_cast<size_t>(y);
        rows.insert(rows.end(), row, row + pitch);
    }
    uLongf n = compressBound(static_cast<uLong>(rows.size()));
    std::vector<uint8_t> packed(n);
    if (compress2(packed.data(), &n, rows.data(), static_cast<uLong>(rows.size()), 3) != Z_OK)
        throw std::runtime_error("cannot write " + path + ": not enough memory");

    std::vector<uint8_t> head;
    Put32(head, static_cast<size_t>(width));
    Put32(head, static_cast<size_t>(height));
    head.insert(head.end(), { 8, static_cast<uint8_t>(channels == 3 ? 2 : 0), 0, 0, 0 });
    WholeFile whole(path);
    std::ofstream file(PathOf(whole.Temporary()), std::ios::binary | std::ios::trunc);
    file.write("\x89PNG\r\n\x1a\n", 8);
    Chunk(file, "IHDR", head.data(), head.size());
    Chunk(file, "IDAT", packed.data(), n);
    Chunk(file, "IEND", nullptr, 0);
    file.close();
    if (!file)
        FailToWrite(path);
    whole.Commit();
}

std::vector<uint8_t> ReadPngFile(const std::string& path, int*, int*)
{
    throw std::runtime_error(path + ": this build reads no pictures");
}

}  // namespace kovtools

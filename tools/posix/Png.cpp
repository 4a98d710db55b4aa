#include "common/Png.h"

#include <png.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "common/Files.h"

namespace kovtools {

void WritePngFile(const std::string& path, int width, int height, int channels, const uint8_t* pixels)
{
    WholeFile whole(path);
    std::unique_ptr<FILE, int (*)(FILE*)> file(std::fopen(whole.Temporary().c_str(), "wb"), &std::fclose);
    if (file == nullptr)
        FailToWrite(path, std::strerror(errno));
    png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    png_infop info = png_create_info_struct(png);
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_write_struct(&png, &info);
        FailToWrite(path);
    }
    png_init_io(png, file.get());
    png_set_compression_level(png, 3);
    png_set_IHDR(png, info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), 8,
                 channels == 3 ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_GRAY, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT,
                 PNG_FILTER_TYPE_DEFAULT);
    png_write_info(png, info);
    const size_t pitch = static_cast<size_t>(width) * static_cast<size_t>(channels);
    for (int y = 0; y < height; ++y)
        png_write_row(png, pixels + pitch * static_cast<size_t>(y));
    png_write_end(png, nullptr);
    png_destroy_write_struct(&png, &info);
    if (std::fclose(file.release()) != 0)  // where a full disk shows at the latest
        FailToWrite(path, std::strerror(errno));
    whole.Commit();
}

std::vector<uint8_t> ReadPngFile(const std::string& path, int* width, int* height)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    std::vector<uint8_t> rgb;
    if (png_image_begin_read_from_file(&image, path.c_str())) {
        image.format = PNG_FORMAT_RGB;
        rgb.resize(PNG_IMAGE_SIZE(image));
        *width = static_cast<int>(image.width);
        *height = static_cast<int>(image.height);
        if (png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr))
            return rgb;
    }
    throw std::runtime_error(path + ": " + image.message);
}

}  // namespace kovtools

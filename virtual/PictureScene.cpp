// A PNG file as a scene, read with libpng.
#include <png.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "virtual/Scene.h"

namespace kovsim {
namespace {

class PictureScene final : public Scene {
public:
    PictureScene(int w, int h, std::vector<Light> pixels) : m_iW(w), m_iH(h), m_pixels(std::move(pixels)) {}
    void Render(const ScreenGeometry& g, int firstRow, int rows, Light* out) const override
    {
        for (int y = firstRow; y < firstRow + rows; ++y) {
            const Light* row = &m_pixels[size_t(int64_t(y) * m_iH / g.iHeight) * size_t(m_iW)];
            for (int x = 0; x < g.iWidth; ++x)
                *out++ = row[int64_t(x) * m_iW / g.iWidth];
        }
    }

private:
    int m_iW, m_iH;
    std::vector<Light> m_pixels;
};

}  // namespace

std::shared_ptr<const Scene> Scene::Picture(const std::string& path, float white, std::string* error)
{
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (!png_image_begin_read_from_file(&image, path.c_str())) {
        if (error)
            *error = path + ": " + image.message;
        return nullptr;
    }
    // The linear 16-bit form: a picture's gamma is undone, so that its numbers are light.
    image.format = PNG_FORMAT_LINEAR_RGB;
    std::vector<uint16_t> samples(PNG_IMAGE_SIZE(image) / 2);
    if (!png_image_finish_read(&image, nullptr, samples.data(), 0, nullptr)) {
        if (error)
            *error = path + ": " + image.message;
        png_image_free(&image);
        return nullptr;
    }
    std::vector<Light> pixels(size_t(image.width) * image.height);
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = { white * float(samples[3 * i]) / 65535, white * float(samples[3 * i + 1]) / 65535,
                      white * float(samples[3 * i + 2]) / 65535 };
    return std::make_shared<PictureScene>(int(image.width), int(image.height), std::move(pixels));
}

}  // namespace kovsim

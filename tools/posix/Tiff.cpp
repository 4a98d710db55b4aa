#include "common/Tiff.h"

#include <tiffio.h>

#include <memory>

#include "common/Files.h"

namespace kovtools {

extern const bool WRITES_TIFF = true;

void WriteTiffFile(const std::string& path, const TiffShape& shape, const uint8_t* samples)
{
    TIFFSetErrorHandler(nullptr);  // what it would print comes as an exception
    const auto size = static_cast<uint64_t>(shape.width) * static_cast<uint64_t>(shape.height * shape.channels * shape.bits / 8);
    constexpr uint64_t CLASSIC_LIMIT = 0xFFF00000;  // offsets have 32 bits there
    const std::unique_ptr<TIFF, void (*)(TIFF*)> file(TIFFOpen(path.c_str(), size < CLASSIC_LIMIT ? "wl" : "w8l"), &TIFFClose);
    TIFF* const f = file.get();
    if (f == nullptr)
        FailToWrite(path);
    TIFFSetField(f, TIFFTAG_IMAGEWIDTH, static_cast<uint32_t>(shape.width));
    TIFFSetField(f, TIFFTAG_IMAGELENGTH, static_cast<uint32_t>(shape.height));
    TIFFSetField(f, TIFFTAG_SAMPLESPERPIXEL, shape.channels);
    TIFFSetField(f, TIFFTAG_BITSPERSAMPLE, shape.bits);
    TIFFSetField(f, TIFFTAG_SAMPLEFORMAT, SAMPLEFORMAT_UINT);
    TIFFSetField(f, TIFFTAG_PHOTOMETRIC, shape.channels == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK);
    TIFFSetField(f, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(f, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
    TIFFSetField(f, TIFFTAG_MODEL, shape.model.c_str());
    TIFFSetField(f, TIFFTAG_IMAGEDESCRIPTION, shape.description.c_str());
    TIFFSetField(f, TIFFTAG_ROWSPERSTRIP, static_cast<uint32_t>(shape.height));
    // One strip of the whole image; the machine's order is that of the samples.
    if (TIFFWriteRawStrip(f, 0, const_cast<uint8_t*>(samples), static_cast<tmsize_t>(size)) != static_cast<tmsize_t>(size) ||
        !TIFFFlush(f))
        FailToWrite(path);
}

}  // namespace kovtools

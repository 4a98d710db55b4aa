#include "common/Pictures.h"

#include <fmt/format.h>
#include <cstdint>
#include <utility>

#include "common/Files.h"
#include "common/Fits.h"
#include "common/Png.h"
#include "common/Text.h"
#include "common/Tiff.h"

namespace kovtools {

void WriteFits(const std::string& path, const FrameView& frame, const std::vector<FitsCard>& cards)
{
    WholeFile whole(path);
    FitsFile file(whole.Temporary(), frame.width, frame.height, frame.Channels(), frame.Is16());
    whole.HoldAgain();
    for (const FitsCard& card : cards)
        file.Add(card);
    if (frame.Channels() == 3) {
        std::vector<uint8_t> plane(frame.Pixels());
        for (size_t c = 0; c < 3; ++c) {  // the library delivers blue, green, red
            for (size_t i = 0; i < plane.size(); ++i)
                plane[i] = frame.data[3 * i + 2 - c];
            file.Plane(plane.data());
        }
    } else {
        file.Plane(frame.data);
    }
    file.Close();
    whole.Commit();
}

void WritePng(const std::string& path, const FrameView& frame, const CameraState& state, Stretch stretch)
{
    const ScreenPicture shown = RenderForScreen(frame, state, stretch);
    WritePngFile(path, shown.width, shown.height, shown.channels, shown.pixels.data());
}

void WriteTiff(const std::string& path, const FrameView& frame, const CameraState& state, const FrameTimes& times)
{
    std::vector<uint8_t> rgb;
    const uint8_t* samples = frame.data;
    if (frame.Channels() == 3) {
        rgb.assign(frame.data, frame.data + frame.Bytes());
        for (size_t i = 0; i < rgb.size(); i += 3)
            std::swap(rgb[i], rgb[i + 2]);
        samples = rgb.data();
    }
    const std::string mosaic = IsMosaic(state) ? fmt::format(", mosaic {}", PatternName(DeliveredPattern(state))) : "";
    const std::string about = fmt::format("{}, exposure {} s, gain {}, bin {}{}, from {} UTC", state.info.Name, state.exposure,
                                          state.gain, state.bin, mosaic, UtcText(times.start));
    WholeFile whole(path);
    WriteTiffFile(whole.Temporary(),
                  { frame.width, frame.height, frame.Channels(), frame.Is16() ? 16 : 8, state.info.Name, about }, samples);
    whole.Commit();
}

}  // namespace kovtools

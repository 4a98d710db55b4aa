// Date and time, burnt into a delivered image.
#pragma once
#include <cstdint>

#include "base/LocalTime.h"

namespace imaging {

// `image` holds width * height pixels of 1 or 3 bytes. Date and time stand in rows 7 to 22, from column width - 200 on:
// of a narrower image they begin in the row above. What falls outside the image is left out.
void DrawTimeMark(uint8_t* image, int width, int height, int bytesPerPixel, const platform::LocalTime& time);

}  // namespace imaging

// Frames column by column, as Alpaca wants its images: the second index is the row.
#pragma once

#include <string>

#include "kovcam/serve/Frame.h"

namespace kovserve {

// The samples as ImageBytes wants them, one column after the other, colours as red, green, blue: numbers of the frame's own
// width (8 or 16 bits), or of 32 bits where `wide` says so.
std::string Columns(const Frame& f, bool wide);

// Column x (0 to width - 1) as a JSON array, at the end of `out`.
void AppendColumn(const Frame& f, int x, std::string& out);

}  // namespace kovserve

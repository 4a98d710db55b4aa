// Debian has no Cairo for Windows.
#include "common/Plot.h"

#include <stdexcept>

namespace kovtools {

extern const bool DRAWS_PLOTS = false;

void DrawPlots(const std::string&, const std::vector<Plot>&, bool)
{
    throw std::runtime_error("plots are drawn on Linux only; --json gives the numbers");
}

void DrawSheet(const std::string&, const Sheet&) { throw std::runtime_error("sheets are drawn on Linux only"); }

}  // namespace kovtools

#include "common/Doctor.h"

#include <fmt/format.h>

namespace kovtools {

const char* SeverityText(Finding::Severity severity)
{
    return severity == Finding::Severity::Problem ? "PROBLEM" : severity == Finding::Severity::Note ? "note" : "ok";
}

Finding SlowLink(const std::string& camera, int speed)
{
    return { Finding::Severity::Problem, "link",
             fmt::format("{} is a USB 3 camera on a USB 2 link{}: frames come at a tenth of the rate", camera,
                         speed > 0 ? fmt::format(" of {} Mbit/s", speed) : ""),
             "plug it into a blue or SS port with a USB 3 cable, push the plug in fully, and leave hubs out" };
}

}  // namespace kovtools

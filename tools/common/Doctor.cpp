#include "common/Doctor.h"

namespace kovtools {

const char* SeverityText(Finding::Severity severity)
{
    return severity == Finding::Severity::Problem ? "PROBLEM" : severity == Finding::Severity::Note ? "note" : "ok";
}

}  // namespace kovtools

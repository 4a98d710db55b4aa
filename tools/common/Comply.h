// Whether a camera does what its interface promises: named checks with figures, for every owner and every model.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "KOVCamera2.h"

namespace kovtools {

struct CheckResult {
    enum class Verdict { Pass, Warn, Fail, Skipped } verdict = Verdict::Pass;
    std::string check, what;     // "gain.law", "level against gain"
    double measured = 0, limit = 0;
    std::string unit, hint;      // what to do or where to look, unless it passed
};
const char* VerdictText(CheckResult::Verdict verdict);

struct Compliance {
    std::vector<CheckResult> results;
    std::vector<double> exposures, levels;    // the linearity curve: ms, samples
    std::vector<double> means, variances;     // the noise curve, samples
};

struct ComplianceOptions {
    bool full = false;       // longer and more of each: about twenty minutes on a slow camera
    std::string only;        // the check of that name, such as "gain", and "light"; empty: all
    double clockRate = 1;    // of virtual cameras that run faster than time
    std::function<void(const std::string& check)> onCheck;  // told before each
    std::function<bool()> cancelled;                        // looked at between checks
};
// The camera is open and idle; it is left with the controls and region that it had. Checks that want light are skipped where
// there is none: point the camera at something evenly bright. Throws nothing but std::bad_alloc.
Compliance RunCompliance(int32_t id, const ComplianceOptions& options = {});

}  // namespace kovtools

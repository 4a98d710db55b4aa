// Whether a camera does what its interface promises: named checks with figures, for every owner and every model.
#pragma once
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "KOVCamera2.h"

namespace kovtools {

struct CheckResult {
    enum class Verdict { Pass, Warn, Fail, Skipped } verdict = Verdict::Pass;
    std::string check, what;  // "gain.law", "level against gain"
    double measured = 0, limit = 0;
    std::string unit, hint;  // what to do or where to look, unless it passed
};
const char* VerdictText(CheckResult::Verdict verdict);

struct Compliance {
    std::vector<CheckResult> results;
    std::vector<double> exposures, levels;  // the linearity curve: ms, samples
    double slope = 0, zero = 0;             // of the straight line through it
    std::vector<double> means, variances;   // the noise curve, samples
    double electronsPerSample = 0;          // that the model tells; 0: none
};

struct ComplianceOptions {
    bool full = false;              // longer and more of each: eight minutes, more on large and cooled cameras
    bool writeId = false;           // writes the user ID in the camera's flash, and then the old one again
    std::vector<std::string> only;  // the checks of these groups, such as "gain"; empty: all
    double clockRate = 1;           // of virtual cameras that run faster than time
    // Switches the repair by the hot-pixel table that the camera holds, which the C interface does not reach; false: there
    // is no table. Empty: not checked.
    std::function<bool(bool on)> repair;
    std::function<void(const std::string& check)> onCheck;  // told before each
    std::function<bool()> cancelled;                        // looked at between checks
};
// The names of the groups, in their order.
std::vector<std::string> ComplianceGroups();

// The camera is open and idle; it is left with the controls and region that it had. Checks that want light are skipped where
// there is none: point the camera at something evenly bright. Throws nothing but std::bad_alloc.
Compliance RunCompliance(int32_t id, const ComplianceOptions& options = {});

}  // namespace kovtools

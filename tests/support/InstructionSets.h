// Tests that run once for each instruction set of this machine for which the pixel kernels are compiled.
#pragma once
#include <gtest/gtest.h>

#include <string>
#include <vector>

#ifndef _WIN32
#  include "imaging/Kernels.h"

#  include <hwy/highway.h>
#endif

class OnInstructionSet : public testing::TestWithParam<int64_t> {
#ifndef _WIN32
protected:
    void SetUp() override { Choose(GetParam()); }
    void TearDown() override { Choose(0); }

private:
    static void Choose(int64_t set)
    {
        hwy::SetSupportedTargetsForTest(set);
        hwy::GetChosenTarget().Update(hwy::SupportedTargets());
    }
#endif
};

#ifdef _WIN32  // one set, without a choice
inline std::vector<int64_t> InstructionSets() { return { 0 }; }
inline std::string InstructionSetName(const testing::TestParamInfo<int64_t>&) { return "Only"; }
#else
inline std::vector<int64_t> InstructionSets()
{
    std::vector<int64_t> out;
    for (int64_t rest = hwy::SupportedTargets() & HWY_TARGETS; rest != 0; rest &= rest - 1)
        out.push_back(rest & -rest);
    return out;
}
inline std::string InstructionSetName(const testing::TestParamInfo<int64_t>& p) { return hwy::TargetName(p.param); }
#endif

// How the settings lie in the registry.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "camera/TestCamera.h"
#include "platform/SettingsStore.h"
#include "support/TempStore.h"

#include <windows.h>  // last: it makes macros of names that our headers declare

using namespace platform;

namespace {

constexpr wchar_t KEY[] = L"SOFTWARE\\KOVTest";

struct Value {
    DWORD dwType = 0;
    std::vector<uint8_t> ab;
};

std::map<std::wstring, Value> Values()
{
    std::map<std::wstring, Value> all;
    HKEY h;
    if (RegOpenKeyW(HKEY_CURRENT_USER, KEY, &h) != ERROR_SUCCESS)
        return all;
    for (DWORD i = 0;; ++i) {
        wchar_t szName[64];
        Value v;
        v.ab.resize(1024);
        DWORD dwName = 64, dwSize = 1024;
        if (RegEnumValueW(h, i, szName, &dwName, nullptr, &v.dwType, v.ab.data(), &dwSize) != ERROR_SUCCESS)
            break;
        v.ab.resize(dwSize);
        all[szName] = v;
    }
    RegCloseKey(h);
    return all;
}

class Registry : public testing::Test {
protected:
    TempStore m_store;
};

}  // namespace

TEST_F(Registry, TypesAndSizesOfASave)
{
    TestCamera cam;
    cam.m_lExposure = 0x123456789;
    cam.m_iBL_OO = 0xFE;
    cam.m_bFlipRow = true;
    cam.m_bUSB3Host = false;
    cam.m_iFPSPerc = 77;
    std::strcpy(cam.m_szBMPPath, "C:\\dark.bmp");
    cam.SaveSetting(KEY);
    const auto all = Values();
    EXPECT_EQ(all.size(), 32u);
    for (const auto& [sName, v] : all) {
        const std::string sShown(sName.begin(), sName.end());
        static const std::wstring flags[] = { L"AutoBL",   L"FlipRow",     L"FlipColumn", L"AutoFPS",   L"AutoExp",
                                              L"AutoGain", L"AutoWB",      L"RawOutput",  L"HighSpeed", L"TimeMark",
                                              L"HPC",      L"HardwareBin", L"CutDark" };
        static const std::wstring levels[] = { L"OO", L"EE", L"OE", L"EO" };
        const bool bFlag = std::find(std::begin(flags), std::end(flags), sName) != std::end(flags);
        const bool bLevel = std::find(std::begin(levels), std::end(levels), sName) != std::end(levels);
        EXPECT_EQ(v.dwType, bFlag || sName == L"BMPPATH" ? DWORD{ REG_BINARY } : DWORD{ REG_DWORD }) << sShown;
        EXPECT_EQ(v.ab.size(), sName == L"BMPPATH" ? 256u : bFlag || bLevel ? 1u : 4u) << sShown;
    }
    EXPECT_EQ(all.at(L"Exposure").ab, (std::vector<uint8_t>{ 0x89, 0x67, 0x45, 0x23 }));
    EXPECT_EQ(all.at(L"FPSPercentageUSB2").ab[0], 77);
    EXPECT_EQ(all.count(L"FPSPercentageUSB3"), 0u);
    EXPECT_EQ(all.at(L"FlipRow").ab[0], 1);
    EXPECT_EQ(all.at(L"OO").ab[0], 0xFE);
    cam.SaveSetting(KEY);
    EXPECT_EQ(Values().size(), 32u);
}

TEST_F(Registry, AKeyThatCannotBeWrittenIsNoError)
{
    TestCamera cam, other;
    const std::wstring sTooLong = L"SOFTWARE\\" + std::wstring(300, L'k');
    EXPECT_FALSE(CreateSettings(sTooLong.c_str()));
    cam.SaveSetting(sTooLong.c_str());
    other.m_iGain = 8;
    other.LoadSetting(sTooLong.c_str());
    EXPECT_EQ(other.m_iGain, 8);

    // Deleted by another program while it is open.
    const auto pKey = CreateSettings(KEY);
    ASSERT_TRUE(pKey);
    ASSERT_EQ(RegDeleteKeyW(HKEY_CURRENT_USER, KEY), ERROR_SUCCESS);
    uint32_t dw = 5, dwCount = sizeof dw;
    EXPECT_EQ(pKey->Set(L"Gain", SETTING_DWORD, &dw, sizeof dw), uint32_t{ ERROR_KEY_DELETED });
    EXPECT_NE(pKey->Query(L"Gain", &dw, &dwCount), STORE_OK);
    EXPECT_EQ(dw, 5u);
    EXPECT_TRUE(Values().empty());
}

#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "core/TestCamera.h"
#include "platform/SettingsStore.h"

namespace fs = std::filesystem;
using namespace platform;

namespace {

constexpr wchar_t KEY[] = L"SOFTWARE\\KOVTest";

class Settings : public testing::Test {
protected:
    Settings()
    {
        char sz[] = "/tmp/kovsettingsXXXXXX";
        m_dir = mkdtemp(sz);
        setenv("XDG_CONFIG_HOME", sz, 1);
    }
    ~Settings() override
    {
        unsetenv("XDG_CONFIG_HOME");
        fs::remove_all(m_dir);
    }
    fs::path Database() const { return m_dir / "kovcamera2" / "settings.db"; }
    fs::path m_dir;
};

void SetValue(const wchar_t* szName, std::vector<uint8_t> ab)
{
    CreateSettings(KEY)->Set(szName, SETTING_BINARY, ab.data(), static_cast<uint32_t>(ab.size()));
}

constexpr wchar_t const* NAMES[] = { L"a", L"b", L"c", L"d", L"e", L"f", L"g", L"h" };

void SaveGeneration(uint32_t dw)
{
    auto pKey = OpenSettings(KEY);
    if (!pKey)
        pKey = CreateSettings(KEY);
    for (const wchar_t* sz : NAMES)
        pKey->Set(sz, SETTING_DWORD, &dw, sizeof dw);
}

// The generation that all values are of; -1 when they are mixed, 0 when there are none.
int64_t LoadGeneration()
{
    const auto pKey = OpenSettings(KEY);
    if (!pKey)
        return 0;
    uint32_t dwFirst = 0;
    for (const wchar_t* sz : NAMES) {
        uint32_t dw = 0, dwCount = sizeof dw;
        if (pKey->Query(sz, &dw, &dwCount) != STORE_OK || (sz != NAMES[0] && dw != dwFirst))
            return -1;
        dwFirst = dw;
    }
    return dwFirst;
}

pid_t Child(void (*fn)())
{
    const pid_t pid = fork();
    if (pid == 0) {
        fn();
        _exit(0);
    }
    return pid;
}

}  // namespace

TEST_F(Settings, StoreAnswersLikeTheRegistry)
{
    EXPECT_FALSE(OpenSettings(KEY));
    EXPECT_FALSE(fs::exists(Database())) << "looking creates nothing";
    SetValue(L"Name", { 1, 2, 3, 4 });

    const auto pKey = OpenSettings(L"software\\kovTEST");  // names do not tell case apart
    ASSERT_TRUE(pKey);
    uint8_t ab[8] = { 9, 9, 9, 9, 9 };
    uint32_t dwCount = 3;
    EXPECT_EQ(pKey->Query(L"NAME", ab, &dwCount), STORE_MORE_DATA);
    EXPECT_EQ(dwCount, 4u);
    EXPECT_EQ(ab[0], 9);
    dwCount = 8;
    EXPECT_EQ(pKey->Query(L"name", ab, &dwCount), STORE_OK);
    EXPECT_EQ(dwCount, 4u);
    EXPECT_EQ(ab[3], 4);
    EXPECT_EQ(ab[4], 9);
    dwCount = 8;
    EXPECT_EQ(pKey->Query(L"other", ab, &dwCount), STORE_NOT_FOUND);
    EXPECT_EQ(dwCount, 8u);
    EXPECT_FALSE(OpenSettings(L"SOFTWARE\\KOVOther"));
}

TEST_F(Settings, RoundTripButForTheQuirks)
{
    TestCamera a, b;
    a.m_lExposure = 50000;
    a.m_iGain = 12;
    a.m_iFPSPerc = 80;
    a.m_bUSB3Host = true;
    a.m_fCoolPowerPerc = 41.7f;
    a.m_iBL_OO = 200;
    a.m_bAutoBL = a.m_bFlipColumn = a.m_bHPCEnable = a.m_bTimeMark = true;
    a.m_iAutoExpMax = 7;
    a.m_iAutoGainMax = 123;
    a.m_iWB_B = 66;
    std::strcpy(a.m_szBMPPath, "/some/where");
    a.SaveSetting(KEY);

    b.m_iFPSPerc = 40;
    b.m_bFlipRow = true;
    b.LoadSetting(KEY);
    EXPECT_EQ(b.m_lExposure, 50000u);
    EXPECT_EQ(b.m_iGain, 12);
    EXPECT_EQ(b.m_iFPSPercUSB3, 80);  // under the name of the port in use; the other one is untouched
    EXPECT_EQ(b.m_iFPSPerc, 40);
    EXPECT_EQ(b.m_fCoolPowerPerc, 41.0f);
    EXPECT_EQ(b.m_iBL_OO, 200);
    EXPECT_TRUE(b.m_bAutoBL && b.m_bFlipColumn && b.m_bHPCEnable && b.m_bTimeMark);
    EXPECT_FALSE(b.m_bFlipRow);
    EXPECT_EQ(b.m_iAutoExpMax, 30);   // QUIRK: never restored
    EXPECT_EQ(b.m_iAutoGainMax, 123);
    EXPECT_EQ(b.m_iWB_B, 66);
    EXPECT_STREQ(b.m_szBMPPath, "/some/where");

    a.m_lExposure = 5000000;
    a.SaveSetting(KEY);
    b.LoadSetting(KEY);
    EXPECT_EQ(b.m_lExposure, 100000u);
}

TEST_F(Settings, AbsentValuesLeaveTheFields)
{
    TestCamera cam;
    cam.m_fCoolPowerPerc = 50.0f;
    cam.m_iGain = 33;
    cam.LoadSetting(KEY);
    EXPECT_EQ(cam.m_fCoolPowerPerc, 50.0f);
    EXPECT_EQ(cam.m_lExposure, 10000u);
    SetValue(L"Brightness", { 5, 0, 0, 0 });
    cam.LoadSetting(KEY);
    EXPECT_EQ(cam.m_fCoolPowerPerc, 0.0f);  // a key without the value clears it
    EXPECT_EQ(cam.m_iGain, 33);
    EXPECT_EQ(cam.m_iBrightness, 5);
}

TEST_F(Settings, TheCountOfOneReadServesTheNext)
{
    // Without the four 1-byte values the count stands at 1 after AutoBL alone, and at 4 without that.
    SetValue(L"AutoExpMax", { 9, 0, 0, 0 });
    TestCamera a;
    a.LoadSetting(KEY);
    EXPECT_EQ(a.m_iAutoExpMax, 9);
    SetValue(L"AutoBL", { 1 });
    TestCamera b;
    b.LoadSetting(KEY);
    EXPECT_EQ(b.m_iAutoExpMax, 30);
    // Values of odd sizes: neither the fields nor their neighbours are overrun.
    SetValue(L"Exposure", std::vector<uint8_t>(1000, 1));
    SetValue(L"Gain", std::vector<uint8_t>(300, 2));
    SetValue(L"Gamma", std::vector<uint8_t>(200, 3));
    SetValue(L"Brightness", { 7 });
    SetValue(L"BMPPATH", std::vector<uint8_t>(256, 'x'));
    TestCamera c;
    c.m_iBrightness = 0x0100;
    c.LoadSetting(KEY);
    EXPECT_EQ(c.m_lExposure, 10000u);
    EXPECT_EQ(c.m_iGamma, 0x03030303);
    EXPECT_EQ(c.m_iBrightness, 0x0107);
    EXPECT_EQ(std::strlen(c.m_szBMPPath), 255u);
}

TEST_F(Settings, DarkFileThatIsGone)
{
    TestCamera a, b;
    a.m_bUsingDark = true;
    std::strcpy(a.m_szBMPPath, "/nowhere/dark.bmp");
    a.SaveSetting(KEY);
    b.m_iWidth = 20;
    b.m_iHeight = 10;
    b.m_iBin = 2;
    b.LoadSetting(KEY);
    EXPECT_FALSE(b.m_bUsingDark);
    EXPECT_EQ(b.m_iWidth, 160);
    EXPECT_EQ(b.m_iHeight, 120);
    EXPECT_EQ(b.m_iBin, 1);
}

TEST_F(Settings, AnUnusableStoreIsNoError)
{
    TestCamera cam;
    cam.m_iGain = 5;
    const auto unusable = [&](const char* what) {
        SCOPED_TRACE(what);
        cam.SaveSetting(KEY);
        TestCamera other;
        other.m_iGain = 8;
        other.LoadSetting(KEY);
        EXPECT_EQ(other.m_iGain, 8);
    };
    fs::create_directories(Database().parent_path());
    std::ofstream(Database()) << std::string(5000, 'x');
    unusable("not a database");
    setenv("XDG_CONFIG_HOME", "/dev/null/x", 1);
    unusable("folder cannot be made");
    const std::string sHome = getenv("HOME") ? getenv("HOME") : "";
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("HOME");
    unusable("no home");
    setenv("HOME", m_dir.c_str(), 1);
    cam.SaveSetting(KEY);
    EXPECT_TRUE(fs::exists(m_dir / ".config" / "kovcamera2" / "settings.db"));
    setenv("HOME", sHome.c_str(), 1);
}

TEST_F(Settings, TwoProcessesSavingAtOnceNeverMix)
{
    const pid_t a = Child([] { for (uint32_t i = 1; i <= 60; ++i) SaveGeneration(2 * i); });
    const pid_t b = Child([] { for (uint32_t i = 1; i <= 60; ++i) SaveGeneration(2 * i + 1); });
    int iStatus = 0, iRunning = 2;
    while (iRunning > 0) {
        ASSERT_NE(LoadGeneration(), -1);
        while (iRunning > 0 && waitpid(-1, &iStatus, WNOHANG) > 0) {
            EXPECT_EQ(iStatus, 0);
            --iRunning;
        }
    }
    const int64_t lLast = LoadGeneration();
    EXPECT_TRUE(lLast == 120 || lLast == 121) << lLast << ", of " << a << " and " << b;
}

TEST_F(Settings, AKilledProcessLeavesTheOldValues)
{
    SaveGeneration(1);
    for (int i = 0; i < 8; ++i) {
        const int64_t lBefore = LoadGeneration();
        const pid_t pid = Child([] { for (auto n = static_cast<uint32_t>(LoadGeneration()) + 1;; ++n) SaveGeneration(n); });
        const auto t0 = std::chrono::steady_clock::now();
        while (LoadGeneration() == lBefore && std::chrono::steady_clock::now() - t0 < std::chrono::seconds(20))
            usleep(1000);
        usleep(static_cast<useconds_t>(700 * i));
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        ASSERT_GT(LoadGeneration(), lBefore);
    }
}

TEST_F(Settings, AStoreThatIsHeldDelaysASaveAndNoMore)
{
    SaveGeneration(1);
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(Database().c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    TestCamera cam;
    const auto t0 = std::chrono::steady_clock::now();
    cam.SaveSetting(KEY);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(4));
    sqlite3_close(db);
    EXPECT_EQ(LoadGeneration(), 1);
}

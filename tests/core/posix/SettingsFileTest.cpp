// The store as a file that several processes share.
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>

#include "core/TestCamera.h"
#include "platform/SettingsStore.h"
#include "support/TempStore.h"

namespace fs = std::filesystem;
using namespace platform;

namespace {

constexpr wchar_t KEY[] = L"SOFTWARE\\KOVTest";

class SettingsFile : public testing::Test {
protected:
    fs::path Database() const { return m_store.Dir() / "kovcamera2" / "settings.db"; }
    TempStore m_store;
};

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

TEST_F(SettingsFile, LookingCreatesNone)
{
    EXPECT_FALSE(OpenSettings(KEY));
    EXPECT_FALSE(fs::exists(Database()));
    SaveGeneration(1);
    EXPECT_TRUE(fs::exists(Database()));
}

TEST_F(SettingsFile, AnUnusableStoreIsNoError)
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
    setenv("HOME", m_store.Dir().c_str(), 1);
    cam.SaveSetting(KEY);
    EXPECT_TRUE(fs::exists(m_store.Dir() / ".config" / "kovcamera2" / "settings.db"));
    setenv("HOME", sHome.c_str(), 1);
}

TEST_F(SettingsFile, TwoProcessesSavingAtOnceNeverMix)
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

TEST_F(SettingsFile, AKilledProcessLeavesTheOldValues)
{
    SaveGeneration(1);
    for (int i = 0; i < 4; ++i) {
        const int64_t lBefore = LoadGeneration();
        const pid_t pid = Child([] { for (auto n = static_cast<uint32_t>(LoadGeneration()) + 1;; ++n) SaveGeneration(n); });
        const auto t0 = std::chrono::steady_clock::now();
        while (LoadGeneration() == lBefore && std::chrono::steady_clock::now() - t0 < std::chrono::seconds(20))
            usleep(1000);
        usleep(static_cast<useconds_t>(1500 * i));
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        ASSERT_GT(LoadGeneration(), lBefore);
    }
}

TEST_F(SettingsFile, AStoreThatIsHeldDelaysASaveAndNoMore)
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

// The store as a file that several processes share.
#include <gtest/gtest.h>
#include <pwd.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <new>
#include <thread>
#include <vector>

#include "camera/TestCamera.h"
#include "platform/SettingsStore.h"
#include "support/TempStore.h"

namespace fs = std::filesystem;
using namespace platform;

// Comes before the system's: the home of a user without HOME.
static char g_szPasswdHome[256];
extern "C" int getpwuid_r(uid_t, passwd* pEntry, char*, size_t, passwd** ppResult)
{
    pEntry->pw_dir = g_szPasswdHome;
    *ppResult = pEntry;
    return 0;
}

// Memory that has run out on every thread but the tests' own.
static std::atomic<bool> g_bNoMemory{ false };
static const std::thread::id g_Main = std::this_thread::get_id();
[[gnu::noinline]] void* operator new(size_t n)
{
    void* const p = g_bNoMemory && std::this_thread::get_id() != g_Main ? nullptr : std::malloc(n);
    return p ? p : throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(size_t n, const std::nothrow_t&) noexcept { return std::malloc(n); }
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, size_t) noexcept { std::free(p); }

namespace {

constexpr wchar_t KEY[] = L"SOFTWARE\\KOVTest";

class SettingsFile : public testing::Test {
protected:
    fs::path Database() const { return m_store.Dir() / "kovcamera2" / "settings.db"; }
    TempStore m_store;
};

constexpr wchar_t const* NAMES[] = { L"a", L"b", L"c", L"d", L"e", L"f", L"g", L"h" };

void SaveLater(const wchar_t* szKey, uint32_t dw)
{
    const auto pKey = CreateSettings(szKey);
    for (const wchar_t* sz : NAMES)
        pKey->Set(sz, SETTING_DWORD, &dw, sizeof dw);
}

void SaveGeneration(uint32_t dw, const wchar_t* szKey = KEY)
{
    SaveLater(szKey, dw);
    FlushSettings();
}

// The generation that all values are of; -1 when they are mixed, 0 when there are none.
int64_t LoadGeneration(const wchar_t* szKey = KEY)
{
    const auto pKey = OpenSettings(szKey);
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

// The child ends as a host does, its writer with it.
pid_t Child(void (*fn)())
{
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        fn();
        exit(0);
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
    const auto saved = [&] {
        cam.SaveSetting(KEY);
        FlushSettings();
        TestCamera other;
        other.m_iGain = 8;
        other.LoadSetting(KEY);
        return other.m_iGain == 5;
    };
    const std::string sHome = getenv("HOME") ? getenv("HOME") : "";
    setenv("XDG_CONFIG_HOME", "/dev/null/x", 1);
    EXPECT_FALSE(saved()) << "folder cannot be made";
    unsetenv("XDG_CONFIG_HOME");
    unsetenv("HOME");
    EXPECT_FALSE(saved()) << "no home";
    strcpy(g_szPasswdHome, (m_store.Dir() / "passwd").c_str());
    EXPECT_TRUE(saved());
    EXPECT_TRUE(fs::exists(m_store.Dir() / "passwd" / ".config" / "kovcamera2" / "settings.db"));
    setenv("HOME", m_store.Dir().c_str(), 1);
    EXPECT_TRUE(saved());
    EXPECT_TRUE(fs::exists(m_store.Dir() / ".config" / "kovcamera2" / "settings.db"));
    setenv("HOME", sHome.c_str(), 1);
}

TEST_F(SettingsFile, AWriterWithoutMemoryIsNoError)
{
    for (const uint32_t dw : { 1u, 2u, 3u }) {
        g_bNoMemory = dw == 2;
        SaveGeneration(dw);
        g_bNoMemory = false;
        EXPECT_NE(LoadGeneration(), -1);
    }
    EXPECT_EQ(LoadGeneration(), 3);
}

TEST_F(SettingsFile, ADamagedFileIsPutAsideAndANewOneBegun)
{
    for (const bool bReadFirst : { true, false }) {
        fs::create_directories(Database().parent_path());
        std::ofstream(Database()) << std::string(5000, 'x');
        if (bReadFirst) {
            EXPECT_EQ(LoadGeneration(), 0);
        }
        SaveGeneration(7);
        EXPECT_EQ(LoadGeneration(), 7);
        size_t uAside = 0;
        for (const auto& entry : fs::directory_iterator(Database().parent_path()))
            uAside += entry.path().extension() == ".damaged" && entry.file_size() == 5000;
        EXPECT_EQ(uAside, 1u);
        fs::remove_all(Database().parent_path());
    }
}

TEST_F(SettingsFile, SixProcessesSavingAtOnceLoseNothing)
{
    static std::wstring s_sKey;
    std::vector<pid_t> pids;
    for (int i = 0; i < 6; ++i) {
        s_sKey = std::wstring(KEY) + std::to_wstring(i);
        pids.push_back(Child([] {
            for (uint32_t n = 1; n <= 50; ++n) {
                SaveGeneration(n, s_sKey.c_str());
                if (LoadGeneration(s_sKey.c_str()) != n)
                    _exit(1);
            }
        }));
    }
    for (const pid_t pid : pids) {
        int iStatus = -1;
        waitpid(pid, &iStatus, 0);
        EXPECT_EQ(iStatus, 0);
    }
}

TEST_F(SettingsFile, TwoProcessesSavingAtOnceNeverMix)
{
    const pid_t a = Child([] {
        for (uint32_t i = 1; i <= 60; ++i)
            SaveGeneration(2 * i);
    });
    const pid_t b = Child([] {
        for (uint32_t i = 1; i <= 60; ++i)
            SaveGeneration(2 * i + 1);
    });
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

// Longer than a reader waits: what cannot be read is not taken for nothing, and a save neither waits nor gets lost.
TEST_F(SettingsFile, AStoreThatIsHeld)
{
    TestCamera cam;
    cam.m_iGain = 5;
    cam.SaveSetting(KEY);
    FlushSettings();
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(Database().c_str(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "PRAGMA locking_mode = EXCLUSIVE; BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);
    TestCamera late;
    late.m_iGain = 8;
    late.LoadSetting(KEY);
    EXPECT_EQ(late.m_iGain, 8);
    const auto t0 = std::chrono::steady_clock::now();
    late.SaveSetting(KEY);
    SaveLater(L"SOFTWARE\\KOVOther", 3);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(100));
    usleep(1200000);
    sqlite3_close(db);
    FlushSettings();
    EXPECT_EQ(LoadGeneration(L"SOFTWARE\\KOVOther"), 3);
    late.LoadSetting(KEY);
    EXPECT_EQ(late.m_iGain, 5) << "it was there all the time";
}

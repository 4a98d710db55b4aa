// A damaged settings database: it is read, or put aside, and what is no database never keeps values from being kept. Keeping
// takes as long as twenty readings and hands over to a thread, so of the engine's inputs one in 32 goes on to that; all of those
// that the suite replays do.
#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <numeric>
#include <string>

#include "platform/SettingsStore.h"

namespace fs = std::filesystem;

namespace {

#ifdef LLVMFuzzerTestOneInput
constexpr unsigned KEPT = 1;
#else
constexpr unsigned KEPT = 32;
#endif

std::string Folder()
{
    // In memory where there is such a folder: a disk that has to be waited for is not what is tried. Nor are the locks against
    // other processes, of which there are none.
    std::string dir = ((fs::exists("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path()) / "kovfuzzXXXXXX").string();
    if (mkdtemp(dir.data()) == nullptr)
        std::abort();
    setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
    if (sqlite3_vfs* const vfs = sqlite3_vfs_find("unix-excl"))
        sqlite3_vfs_register(vfs, 1);
    return dir + "/kovcamera2";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 16384)
        return 0;
    static const std::string folder = Folder(), file = folder + "/settings.db";
    static unsigned s_runs = 0;
    const bool keep = std::accumulate(data, data + size, 0u) % KEPT == 0;
    if (keep || s_runs++ % 1024 == 0) {  // what was put aside stays till then
        fs::remove_all(folder);
        fs::create_directories(folder);
    }
    for (const char* const suffix : { "-wal", "-journal" })
        unlink((file + suffix).c_str());
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || write(fd, data, size) != static_cast<ssize_t>(size) || close(fd) != 0)
        std::abort();
    if (const auto key = platform::OpenSettings(L"SOFTWARE\\KOVQuartzCol")) {
        uint8_t value[64];
        for (const wchar_t* const name : { L"Gain", L"BMPPATH" }) {
            uint32_t n = sizeof value;
            if (key->Query(name, value, &n) == platform::STORE_OK && n > sizeof value)
                std::abort();
        }
    }
    if (!keep)
        return 0;
    const uint32_t told = 4711;
    if (const auto key = platform::CreateSettings(L"SOFTWARE\\KOVQuartzCol"))
        key->Set(L"Gain", platform::SETTING_DWORD, &told, sizeof told);
    platform::FlushSettings();
    const auto key = platform::OpenSettings(L"SOFTWARE\\KOVQuartzCol");
    uint32_t now = 0, n = sizeof now;
    const bool kept = key && key->Query(L"Gain", &now, &n) == platform::STORE_OK && now == told;
    if (!kept)
        std::abort();
    return 0;
}

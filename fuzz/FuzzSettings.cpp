// A damaged settings database: it is read, or put aside, and what is no database never keeps values from being kept.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "platform/SettingsStore.h"

namespace fs = std::filesystem;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 65536)
        return 0;
    static const std::string home = [] {
        // In memory where there is such a folder: a disk that has to be waited for is not what is tried.
        std::string dir =
            ((fs::exists("/dev/shm") ? fs::path("/dev/shm") : fs::temp_directory_path()) / "kovfuzzXXXXXX").string();
        if (mkdtemp(dir.data()) == nullptr)
            std::abort();
        setenv("XDG_CONFIG_HOME", dir.c_str(), 1);
        return dir;
    }();
    const fs::path folder = fs::path(home) / "kovcamera2";
    fs::remove_all(folder);
    fs::create_directories(folder);
    std::ofstream(folder / "settings.db", std::ios::binary)
        .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    {
        const auto key = platform::OpenSettings(L"SOFTWARE\\KOVQuartzCol");
        uint8_t value[64];
        for (const wchar_t* const name : { L"Gain", L"BMPPATH" }) {
            uint32_t n = sizeof value;
            if (key && key->Query(name, value, &n) == platform::STORE_OK && n > sizeof value)
                std::abort();
        }
    }
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

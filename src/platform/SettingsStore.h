// The per-user settings store: keys with named values. The Windows registry there, an SQLite database elsewhere.
#pragma once
#include <cstdint>
#include <memory>

namespace platform {

constexpr uint32_t SETTING_BINARY = 3;  // REG_BINARY
constexpr uint32_t SETTING_DWORD = 4;   // REG_DWORD

// Results, with the registry's numbers.
constexpr uint32_t STORE_OK = 0;
constexpr uint32_t STORE_NOT_FOUND = 2;
constexpr uint32_t STORE_MORE_DATA = 234;
constexpr uint32_t STORE_FAILED = 31;

// An open key. Not shared between threads. Destroying it closes it; what was set is kept then at the latest, all of it
// or (when the process is killed) none.
class SettingsKey {
public:
    virtual ~SettingsKey() = default;
    // *pdwCount holds the size of pData on entry. A value that fits is copied and *pdwCount becomes its size
    // (STORE_OK); one that does not fit copies nothing and *pdwCount becomes the size needed (STORE_MORE_DATA); one
    // that is absent changes nothing (STORE_NOT_FOUND).
    virtual uint32_t Query(const wchar_t* szName, void* pData, uint32_t* pdwCount) = 0;
    virtual uint32_t Set(const wchar_t* szName, uint32_t dwType, const void* pData, uint32_t dwSize) = 0;
};

// nullptr when the key does not exist or the store cannot be used. szKey as in L"SOFTWARE\\KOVQuartzCol".
std::unique_ptr<SettingsKey> OpenSettings(const wchar_t* szKey);
std::unique_ptr<SettingsKey> CreateSettings(const wchar_t* szKey);

}  // namespace platform

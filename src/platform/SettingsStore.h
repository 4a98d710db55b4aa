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

// An open key. Not shared between threads. Destroying it closes it and hands over what was set, without waiting for a store
// that another process holds. All of it is kept or none (when the process is killed, or the store cannot be used, which
// the log tells). Keys opened afterwards in this process see it at once.
class SettingsKey {
public:
    virtual ~SettingsKey() = default;
    // *count holds the size of data on entry. A value that fits is copied and *count becomes its size
    // (STORE_OK); one that does not fit copies nothing and *count becomes the size needed (STORE_MORE_DATA); one
    // that is absent changes nothing (STORE_NOT_FOUND).
    virtual uint32_t Query(const wchar_t* name, void* data, uint32_t* count) = 0;
    virtual uint32_t Set(const wchar_t* name, uint32_t type, const void* data, uint32_t size) = 0;
};

// nullptr when the key does not exist or cannot be read. key as in L"SOFTWARE\\KOVQuartzCol". A key that is there but
// could not be read stays as it is: until it has been read, values set in this process only join those it has.
std::unique_ptr<SettingsKey> OpenSettings(const wchar_t* key);
// Opens the key for setting; makes it where it does not exist. nullptr when the store cannot be used.
std::unique_ptr<SettingsKey> CreateSettings(const wchar_t* key);
// Returns when everything handed over is kept, or has been given up and told in the log. Waits some seconds at most.
void FlushSettings();

}  // namespace platform

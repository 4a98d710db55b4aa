// The settings store is the registry under HKEY_CURRENT_USER. Values are written one by one as they are set.
#include "platform/SettingsStore.h"

#include <windows.h>

namespace platform {
namespace {

static_assert(SETTING_BINARY == REG_BINARY && SETTING_DWORD == REG_DWORD);
static_assert(STORE_OK == ERROR_SUCCESS && STORE_NOT_FOUND == ERROR_FILE_NOT_FOUND && STORE_MORE_DATA == ERROR_MORE_DATA);

class RegistryKey final : public SettingsKey {
public:
    explicit RegistryKey(HKEY h) : m_h(h) {}
    ~RegistryKey() override { RegCloseKey(m_h); }

    uint32_t Query(const wchar_t* name, void* data, uint32_t* count) override
    {
        DWORD bytes = *count;
        const LSTATUS result = RegQueryValueExW(m_h, name, nullptr, nullptr, static_cast<BYTE*>(data), &bytes);
        if (result == ERROR_SUCCESS || result == ERROR_MORE_DATA)
            *count = bytes;
        return static_cast<uint32_t>(result);
    }
    uint32_t Set(const wchar_t* name, uint32_t type, const void* data, uint32_t size) override
    {
        return static_cast<uint32_t>(RegSetValueExW(m_h, name, 0, type, static_cast<const BYTE*>(data), size));
    }

private:
    const HKEY m_h;
};

template <class Operation>
std::unique_ptr<SettingsKey> Key(Operation operation, const wchar_t* key)
{
    HKEY h = nullptr;
    return operation(HKEY_CURRENT_USER, key, &h) == ERROR_SUCCESS ? std::make_unique<RegistryKey>(h) : nullptr;
}

}  // namespace

std::unique_ptr<SettingsKey> OpenSettings(const wchar_t* key) { return Key(&RegOpenKeyW, key); }
std::unique_ptr<SettingsKey> CreateSettings(const wchar_t* key) { return Key(&RegCreateKeyW, key); }
void FlushSettings() {}  // every value is written when it is set

}  // namespace platform

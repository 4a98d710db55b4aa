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

    uint32_t Query(const wchar_t* szName, void* pData, uint32_t* pdwCount) override
    {
        DWORD dwCount = *pdwCount;
        const LSTATUS lResult = RegQueryValueExW(m_h, szName, nullptr, nullptr, static_cast<BYTE*>(pData), &dwCount);
        if (lResult == ERROR_SUCCESS || lResult == ERROR_MORE_DATA)
            *pdwCount = dwCount;
        return static_cast<uint32_t>(lResult);
    }
    uint32_t Set(const wchar_t* szName, uint32_t dwType, const void* pData, uint32_t dwSize) override
    {
        return static_cast<uint32_t>(RegSetValueExW(m_h, szName, 0, dwType, static_cast<const BYTE*>(pData), dwSize));
    }

private:
    const HKEY m_h;
};

template <class Operation>
std::unique_ptr<SettingsKey> Key(Operation operation, const wchar_t* szKey)
{
    HKEY h = nullptr;
    return operation(HKEY_CURRENT_USER, szKey, &h) == ERROR_SUCCESS ? std::make_unique<RegistryKey>(h) : nullptr;
}

}  // namespace

std::unique_ptr<SettingsKey> OpenSettings(const wchar_t* szKey) { return Key(&RegOpenKeyW, szKey); }
std::unique_ptr<SettingsKey> CreateSettings(const wchar_t* szKey) { return Key(&RegCreateKeyW, szKey); }
void FlushSettings() {}  // every value is written when it is set

}  // namespace platform

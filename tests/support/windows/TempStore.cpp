#include "support/TempStore.h"

#include <windows.h>

#include <atomic>
#include <string>

// HKEY_CURRENT_USER of this process is led to a key that is deleted afterwards.
struct TempStore::Impl {
    std::wstring sKey;
    HKEY h = nullptr;
};

TempStore::TempStore() : m_p(std::make_unique<Impl>())
{
    static std::atomic<int> s_n = 0;
    const std::wstring sName = L"kovtest-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(s_n++);
    m_dir = std::filesystem::temp_directory_path() / sName;
    std::filesystem::create_directories(m_dir);
    m_p->sKey = L"Software\\" + sName;
    RegCreateKeyW(HKEY_CURRENT_USER, m_p->sKey.c_str(), &m_p->h);
    RegOverridePredefKey(HKEY_CURRENT_USER, m_p->h);
}

TempStore::~TempStore()
{
    RegOverridePredefKey(HKEY_CURRENT_USER, nullptr);
    RegCloseKey(m_p->h);
    RegDeleteTreeW(HKEY_CURRENT_USER, m_p->sKey.c_str());
    std::error_code ec;
    std::filesystem::remove_all(m_dir, ec);
}

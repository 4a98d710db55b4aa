#include "support/TempStore.h"

#include <cstdlib>
#include <string>

#include "platform/SettingsStore.h"

struct TempStore::Impl {};

TempStore::TempStore()
{
    std::string s = (std::filesystem::temp_directory_path() / "kovXXXXXX").string();
    m_dir = ::mkdtemp(s.data());
    ::setenv("XDG_CONFIG_HOME", s.c_str(), 1);
}

TempStore::~TempStore()
{
    platform::FlushSettings();
    ::unsetenv("XDG_CONFIG_HOME");
    std::error_code ec;
    std::filesystem::remove_all(m_dir, ec);
}

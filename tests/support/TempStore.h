// A fresh folder and a settings store that nobody else sees, for the span of a test.
#pragma once
#include <filesystem>
#include <memory>

class TempStore {
public:
    TempStore();
    ~TempStore();
    TempStore(const TempStore&) = delete;
    TempStore& operator=(const TempStore&) = delete;
    const std::filesystem::path& Dir() const { return m_dir; }

private:
    std::filesystem::path m_dir;
    struct Impl;
    std::unique_ptr<Impl> m_p;
};

// Paths as the tools write them, and files that appear whole or not at all.
#pragma once
#include <filesystem>
#include <string>

namespace kovtools {

// Paths are UTF-8 text in the tools.
inline std::filesystem::path PathOf(const std::string& text) { return { std::u8string(text.begin(), text.end()) }; }
inline std::string TextOf(const std::filesystem::path& path)
{
    const std::u8string s = path.u8string();
    return { s.begin(), s.end() };
}
inline std::string AbsolutePath(const std::string& text) { return TextOf(std::filesystem::absolute(PathOf(text))); }

// A file under a temporary name beside its own, "NAME.part", until Commit renames it. Without Commit the destructor removes
// it, and an older file of the name is as it was. What a killed program has left is overwritten by the next one.
class WholeFile {
public:
    explicit WholeFile(const std::string& path);  // creates nothing yet
    ~WholeFile();
    WholeFile(const WholeFile&) = delete;
    WholeFile& operator=(const WholeFile&) = delete;

    const std::string& Temporary() const { return m_temporary; }
    // The file must be closed. Throws std::runtime_error.
    void Commit();

private:
    std::string m_path, m_temporary;
    bool m_done = false;
};

// "cannot write PATH. Is the folder there...": what every writer says.
[[noreturn]] void FailToWrite(const std::string& path, const std::string& reason = {});

}  // namespace kovtools

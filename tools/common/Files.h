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

// A file under a temporary name beside its own, "NAME.kov.part", until Commit renames it. Without Commit the destructor removes
// it, and an older file of the name is as it was. Its writer holds it (not on Windows): what a killed program has left in the
// folder is held by nobody, and a program removes it with its first file there.
class WholeFile {
public:
    explicit WholeFile(const std::string& path);  // an empty file, where the folder is writable
    ~WholeFile();
    WholeFile(const WholeFile&) = delete;
    WholeFile& operator=(const WholeFile&) = delete;

    const std::string& Temporary() const { return m_temporary; }
    // After a writer that does not write into the file but makes another one of the name.
    void HoldAgain();
    // The file must be closed. Throws std::runtime_error.
    void Commit();

private:
    std::string m_path, m_temporary;
    int m_hold;
    bool m_done = false;
};

// --- one source file a platform ---

// Makes an empty file, or takes one that nobody holds, and holds it: a descriptor for LetGo. ALREADY_HELD: by another writer.
// NOT_HELD: the folder or the file system does not allow it.
constexpr int NOT_HELD = -1, ALREADY_HELD = -2;
int Hold(const std::string& path);
void LetGo(int hold);
void RemoveUnheld(const std::filesystem::path& folder, bool (*chosen)(const std::string& name));

// "cannot write PATH. Is the folder there...": what every writer says.
[[noreturn]] void FailToWrite(const std::string& path, const std::string& reason = {});

}  // namespace kovtools

#include "common/Files.h"

#include <mutex>
#include <set>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace kovtools {

namespace {

constexpr char MIDDLE[] = ".kov", SUFFIX[] = ".part";

std::string NameOfPart(const std::string& path, int number)
{
    return path + MIDDLE + (number > 1 ? std::to_string(number) : "") + SUFFIX;
}

// "x.fits.kov.part", "x.fits.kov2.part"; of other programs none is called so.
bool IsPart(const std::string& name)
{
    const size_t middle = name.rfind(MIDDLE);
    if (!name.ends_with(SUFFIX) || middle == std::string::npos)
        return false;
    const size_t from = middle + sizeof MIDDLE - 1;
    return name.find_first_not_of("0123456789", from) == name.size() - (sizeof SUFFIX - 1);
}

// Once a process and folder: a folder may hold very many pictures.
void CleanOnce(const fs::path& folder)
{
    static std::mutex s_mutex;
    static std::set<fs::path> s_cleaned;
    const std::lock_guard lock(s_mutex);
    if (s_cleaned.insert(folder).second)
        RemoveUnheld(folder, IsPart);
}

}  // namespace

WholeFile::WholeFile(const std::string& path) : m_path(path)
{
    const fs::path folder = PathOf(path).parent_path();
    CleanOnce(folder.empty() ? "." : folder);
    for (int number = 1; number == 1 || m_hold == ALREADY_HELD; ++number) {
        m_temporary = NameOfPart(path, number);
        m_hold = Hold(m_temporary);
    }
}

WholeFile::~WholeFile()
{
    std::error_code ignored;
    if (!m_done)
        fs::remove(PathOf(m_temporary), ignored);
    LetGo(m_hold);
}

void WholeFile::HoldAgain()
{
    LetGo(m_hold);
    m_hold = Hold(m_temporary);
}

void WholeFile::Commit()
{
    std::error_code error;
    fs::rename(PathOf(m_temporary), PathOf(m_path), error);
    if (error)
        FailToWrite(m_path, error.message());
    m_done = true;
}

void FailToWrite(const std::string& path, const std::string& reason)
{
    const std::string name = path.substr(0, IsPart(path) ? path.rfind(MIDDLE) : path.size());
    throw std::runtime_error("cannot write " + name + (reason.empty() ? "" : ": " + reason) +
                             ". Is the folder there and writable, and the disk not full?");
}

}  // namespace kovtools

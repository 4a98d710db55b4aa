#include "common/Files.h"

#include <stdexcept>
#include <string_view>

namespace fs = std::filesystem;

namespace kovtools {

static constexpr std::string_view SUFFIX = ".part";

WholeFile::WholeFile(const std::string& path) : m_path(path), m_temporary(path + std::string(SUFFIX)) {}

WholeFile::~WholeFile()
{
    std::error_code ignored;
    if (!m_done)
        fs::remove(PathOf(m_temporary), ignored);
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
    const std::string name = path.ends_with(SUFFIX) ? path.substr(0, path.size() - SUFFIX.size()) : path;
    throw std::runtime_error("cannot write " + name + (reason.empty() ? "" : ": " + reason) +
                             ". Is the folder there and writable, and the disk not full?");
}

}  // namespace kovtools

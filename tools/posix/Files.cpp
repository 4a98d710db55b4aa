#include "common/Files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace fs = std::filesystem;

namespace kovtools {

// A lock on the open file: it ends with the process, however that ends. Somebody who removes the file has the lock meanwhile,
// so that a file which has no name any more is the only thing to look for.
int Hold(const std::string& path)
{
    for (;;) {
        const int fd = open(path.c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666);
        if (fd < 0)
            return NOT_HELD;
        struct stat about = {};
        if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
            const bool held = errno == EWOULDBLOCK;
            close(fd);
            return held ? ALREADY_HELD : NOT_HELD;
        }
        if (fstat(fd, &about) == 0 && about.st_nlink != 0)
            return fd;
        close(fd);
    }
}

void LetGo(int hold)
{
    if (hold >= 0)
        close(hold);
}

void RemoveUnheld(const fs::path& folder, bool (*chosen)(const std::string& name))
{
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(folder, ec)) {
        const std::string name = entry.path().filename();
        if (!chosen(name))
            continue;
        const int fd = open(entry.path().c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        if (fd < 0)
            continue;
        if (flock(fd, LOCK_EX | LOCK_NB) == 0)
            fs::remove(entry.path(), ec);
        close(fd);
    }
}

}  // namespace kovtools

// Put before every file of a build with mutants. KOV_MUTANT=N sets mutant N loose; KOV_MUTANT_HITS=PATH notes in a file which
// mutants were passed by, a byte each, so that a killed process leaves its notes too.
#pragma once
#ifdef __cplusplus
#  include <fcntl.h>
#  include <sys/mman.h>
#  include <unistd.h>

#  include <cstdlib>

namespace mutants {

inline const int g_iLoose = std::getenv("KOV_MUTANT") ? std::atoi(std::getenv("KOV_MUTANT")) : -1;
inline unsigned char* const g_pHits = []() -> unsigned char* {
    const char* szPath = std::getenv("KOV_MUTANT_HITS");
    const int fd = szPath ? ::open(szPath, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0)
        return nullptr;
    const off_t bytes = ::lseek(fd, 0, SEEK_END);
    void* p = ::mmap(nullptr, static_cast<size_t>(bytes), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    ::close(fd);
    return p == MAP_FAILED ? nullptr : static_cast<unsigned char*>(p);
}();

[[gnu::always_inline]] constexpr bool Loose(int n)
{
    if (__builtin_is_constant_evaluated())
        return false;
    if (g_pHits) [[unlikely]]
        g_pHits[n] = 1;
    return g_iLoose == n;
}

}  // namespace mutants
#endif

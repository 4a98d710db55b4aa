// The reader of dark files, over any bytes.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "fuzz/FuzzCamera.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    static FuzzCamera cam(16, 12);
    static const int s_fd = memfd_create("dark", 0);
    static const std::string s_sPath = "/proc/self/fd/" + std::to_string(s_fd);
    if (ftruncate(s_fd, 0) != 0 || pwrite(s_fd, pData, size, 0) != static_cast<ssize_t>(size))
        return 0;
    const int iCode = cam.LoadBMPFromFile(s_sPath.c_str());
    if (iCode != 0 && iCode != 1 && iCode != 7)
        std::abort();
    return 0;
}

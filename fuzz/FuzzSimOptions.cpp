// The text that names the virtual cameras, as it comes out of the environment. Pictures and flash files are left out:
// their names would be looked for on the disk.
#include <cstdlib>
#include <string>

#include "virtual/SimOptions.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* pData, size_t size)
{
    const std::string text(reinterpret_cast<const char*>(pData), size);
    if (size > 256 || text.find(".p") != std::string::npos || text.find("flash") != std::string::npos)
        return 0;
    kovsim::SimOptions options;
    std::string error;
    const bool ok = kovsim::ParseSimOptions(text, &options, &error);
    if (ok == options.cameras.empty() || ok != error.empty())
        std::abort();
    return 0;
}

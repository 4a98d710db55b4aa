#include "common/Host.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <system_error>

namespace fs = std::filesystem;

namespace kovtools {

std::vector<std::string> Arguments(int argc, char** argv) { return { argv + 1, argv + argc }; }

fs::path ProgramFolder()
{
    std::error_code ec;
    return fs::read_symlink("/proc/self/exe", ec).parent_path();
}

const usbstack::Plugin* LoadedPlugin()
{
    void* const pSymbol = dlsym(RTLD_DEFAULT, "KOVUsbStackPlugin");
    return pSymbol ? reinterpret_cast<usbstack::PluginEntry>(pSymbol)() : nullptr;
}

void SetVariable(const char* name, const std::string& value) { setenv(name, value.c_str(), 1); }

bool IsTerminal(std::FILE* f) { return isatty(fileno(f)) != 0; }

const char* const HOW_TO_SEE_A_CAMERA = "'lsusb -d 0e5a:' lists the camera";
const bool READS_PICTURES = true;
const char* const PLUGIN_FILE = "libkovsim.so";

// Preloaded; the program takes this process's place.
int RunWithPlugin(const std::vector<std::string>& program, const fs::path& plugin, const std::string& simText)
{
    std::string preload = plugin.string();
    if (const char* szOthers = std::getenv("LD_PRELOAD"); szOthers != nullptr && *szOthers != 0)
        preload += std::string(":") + szOthers;
    setenv("KOVSIM", simText.c_str(), 1);
    setenv("LD_PRELOAD", preload.c_str(), 1);
    std::vector<char*> argv;
    argv.reserve(program.size() + 1);
    for (const std::string& a : program)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    std::error_code ec;
    if (const fs::path beside = ProgramFolder() / "kovcam"; program[0] == "kovcam" && fs::exists(beside, ec))
        execv(beside.c_str(), argv.data());
    execvp(argv[0], argv.data());
    const int iErr = errno;
    std::fprintf(stderr, "kovsim: cannot run %s: %s\n", program[0].c_str(), std::strerror(iErr));
    return iErr == ENOENT ? 127 : 126;
}

}  // namespace kovtools

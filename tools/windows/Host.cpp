#include "common/Host.h"

#include <windows.h>

#include <io.h>
#include <shellapi.h>

namespace fs = std::filesystem;

namespace kovtools {

namespace {

std::string Utf8(const std::wstring& s)
{
    const int n = WideCharToMultiByte(CP_UTF8, 0, s.data(), int(s.size()), nullptr, 0, nullptr, nullptr);
    std::string out(size_t(n), '\0');
    WideCharToMultiByte(CP_UTF8, 0, s.data(), int(s.size()), out.data(), n, nullptr, nullptr);
    return out;
}

std::wstring Wide(const std::string& s) { return fs::u8path(s).wstring(); }

// As the run-time library of the program takes a command line apart again.
std::wstring Quoted(const std::wstring& s)
{
    if (!s.empty() && s.find_first_of(L" \t\"") == std::wstring::npos)
        return s;
    std::wstring out = L"\"";
    size_t slashes = 0;
    for (const wchar_t c : s) {
        if (c == L'"')
            out.append(slashes + 1, L'\\');
        slashes = c == L'\\' ? slashes + 1 : 0;
        out += c;
    }
    out.append(slashes, L'\\');
    return out + L'"';
}

std::string ErrorText(DWORD dwError)
{
    char sz[256] = {};
    FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, dwError, 0, sz, sizeof sz - 1, nullptr);
    std::string s(sz);
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == '.'))
        s.pop_back();
    return s.empty() ? "error " + std::to_string(dwError) : s;
}

// Lets a thread of the process load the library before its main thread runs.
bool Inject(HANDLE hProcess, const std::wstring& sLibrary)
{
    const size_t n = (sLibrary.size() + 1) * sizeof(wchar_t);
    void* const p = VirtualAllocEx(hProcess, nullptr, n, MEM_COMMIT | MEM_RESERVE, PAGE_READWRITE);
    if (!p || !WriteProcessMemory(hProcess, p, sLibrary.c_str(), n, nullptr))
        return false;
    // kernel32 stands at one address in all processes of a width.
    const FARPROC load = GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "LoadLibraryW");
    const HANDLE h = CreateRemoteThread(hProcess, nullptr, 0,
                                        reinterpret_cast<LPTHREAD_START_ROUTINE>(reinterpret_cast<void*>(load)), p, 0, nullptr);
    if (!h)
        return false;
    WaitForSingleObject(h, INFINITE);
    DWORD dwLoaded = 0;
    GetExitCodeThread(h, &dwLoaded);
    CloseHandle(h);
    VirtualFreeEx(hProcess, p, 0, MEM_RELEASE);
    return dwLoaded != 0;
}

}  // namespace

std::vector<std::string> Arguments(int argc, char** argv)
{
    SetConsoleOutputCP(CP_UTF8);
    std::vector<std::string> out;
    int n = 0;
    wchar_t** const aWide = CommandLineToArgvW(GetCommandLineW(), &n);
    if (!aWide)
        return { argv + 1, argv + argc };
    for (int i = 1; i < n; ++i)
        out.push_back(Utf8(aWide[i]));
    LocalFree(aWide);
    return out;
}

fs::path ProgramFolder()
{
    wchar_t sz[MAX_PATH] = {};
    return GetModuleFileNameW(nullptr, sz, MAX_PATH) < MAX_PATH ? fs::path(sz).parent_path() : fs::path();
}

const usbstack::Plugin* LoadedPlugin()
{
    const HMODULE h = GetModuleHandleW(L"kovsim.dll");
    const FARPROC p = h ? GetProcAddress(h, "KOVUsbStackPlugin") : nullptr;
    return p ? reinterpret_cast<usbstack::PluginEntry>(reinterpret_cast<void*>(p))() : nullptr;
}

void SetVariable(const char* name, const std::string& value) { _putenv_s(name, value.c_str()); }

bool IsTerminal(std::FILE* f) { return _isatty(_fileno(f)) != 0; }

const char* const HOW_TO_SEE_A_CAMERA = "the Device Manager shows the camera, with a driver";
const bool READS_PICTURES = false;
const char* const PLUGIN_FILE = "kovsim.dll";

int RunWithPlugin(const std::vector<std::string>& program, const fs::path& plugin, const std::string& simText)
{
    SetEnvironmentVariableW(L"KOVSIM", Wide(simText).c_str());
    std::wstring sLine;
    for (const std::string& a : program)
        sLine += (sLine.empty() ? L"" : L" ") + Quoted(Wide(a));
    STARTUPINFOW start{};
    start.cb = sizeof start;
    PROCESS_INFORMATION info{};
    std::error_code ec;
    const fs::path beside = ProgramFolder() / "kovcam.exe";
    const bool bBeside = program[0] == "kovcam" && fs::exists(beside, ec);
    if (!CreateProcessW(bBeside ? beside.c_str() : nullptr, sLine.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr,
                        nullptr, &start, &info)) {
        const DWORD dwError = GetLastError();
        std::fprintf(stderr, "kovsim: cannot run %s: %s\n", program[0].c_str(), ErrorText(dwError).c_str());
        return dwError == ERROR_FILE_NOT_FOUND || dwError == ERROR_PATH_NOT_FOUND ? 127 : 126;
    }
    DWORD dwExit = 126;
    BOOL b32 = FALSE;
    if (IsWow64Process(info.hProcess, &b32) && b32) {
        std::fprintf(stderr, "kovsim: %s is a 32-bit program; the virtual cameras are 64-bit\n", program[0].c_str());
        TerminateProcess(info.hProcess, dwExit);
    } else if (!Inject(info.hProcess, plugin.wstring())) {
        std::fprintf(stderr, "kovsim: %s does not load %s: %s\n", program[0].c_str(), Utf8(plugin.wstring()).c_str(),
                     ErrorText(GetLastError()).c_str());
        TerminateProcess(info.hProcess, dwExit);
    } else {
        ResumeThread(info.hThread);
        WaitForSingleObject(info.hProcess, INFINITE);
        GetExitCodeProcess(info.hProcess, &dwExit);
    }
    CloseHandle(info.hThread);
    CloseHandle(info.hProcess);
    return int(dwExit);
}

}  // namespace kovtools

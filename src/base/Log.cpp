#include "base/Log.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "base/Mutex.h"

namespace logging {
namespace {

constexpr const char* LEVEL_NAMES[] = { "off", "error", "warn", "info", "debug", "trace" };
constexpr size_t LINE_LIMIT = 1024;  // bytes; what is longer is cut

struct Log {
    Mutex m;
    bool bConfigured KOV_TSA(guarded_by(m)) = false;
    std::string sRoom KOV_TSA(guarded_by(m));           // empty: all
    std::FILE* pFile KOV_TSA(guarded_by(m)) = nullptr;  // nullptr: standard error
    int iThreads KOV_TSA(guarded_by(m)) = 0;            // that have written a line
};

Log& TheLog()
{
    static Log* const s_pLog = new Log;  // never destroyed: threads may outlive static destruction
    return *s_pLog;
}

struct ThreadLabel {
    int iNumber = 0;  // in the order of first lines
    const char* szName = "thread";
    Camera camera;
};
thread_local ThreadLabel t_Label;

int LevelOf(std::string_view name)
{
    const auto it = std::find(std::begin(LEVEL_NAMES), std::end(LEVEL_NAMES), name);
    return it == std::end(LEVEL_NAMES) ? -1 : static_cast<int>(it - std::begin(LEVEL_NAMES));
}

void ConfigureLocked(Log& log, const char* szLog, const char* file) KOV_TSA(requires_capability(log.m))
{
    if (log.pFile)
        std::fclose(log.pFile);
    log.pFile = nullptr;
    log.bConfigured = true;

    const std::string_view text = szLog ? szLog : "";
    const size_t colon = text.find(':');
    const std::string_view level = text.substr(0, colon);
    int iLevel = level.empty() ? 0 : LevelOf(level);
    log.sRoom = colon == text.npos ? "" : text.substr(colon + 1);
    if (iLevel < 0) {
        std::fprintf(stderr, "KOV_LOG=%s: the level is one of error, warn, info, debug, trace; nothing is logged\n", szLog);
        iLevel = 0;
    }
    if (iLevel > 0 && file && *file) {
        log.pFile = std::fopen(file, "a");
        if (log.pFile)
            std::setvbuf(log.pFile, nullptr, _IOLBF, 2 * LINE_LIMIT);  // whole lines, also from several processes
        else
            std::fprintf(stderr, "KOV_LOG_FILE=%s: %s; the log goes to standard error\n", file, std::strerror(errno));
    }
    g_iLevel.store(iLevel, std::memory_order_relaxed);
}

// Appends printf style; what does not fit is cut.
class Line {
public:
    void Add(const char* format, ...)
    {
        va_list args;
        va_start(args, format);
        AddV(format, args);
        va_end(args);
    }
    void AddV(const char* format, va_list args)
    {
        const int n = std::vsnprintf(m_ac + m_uLength, sizeof m_ac - m_uLength, format, args);
        m_uLength = std::min(m_uLength + static_cast<size_t>(std::max(n, 0)), sizeof m_ac - 1);
    }
    void AddTime()
    {
        using namespace std::chrono;
        const auto now = system_clock::now();
        const std::time_t t = system_clock::to_time_t(now);
        std::tm local = {};
#if defined(_WIN32)
        localtime_s(&local, &t);
#else
        localtime_r(&t, &local);
#endif
        m_uLength += std::strftime(m_ac, sizeof m_ac, "%Y-%m-%d %H:%M:%S", &local);
        Add(".%06d", static_cast<int>(duration_cast<microseconds>(now.time_since_epoch()).count() % 1000000));
    }
    // Control characters become blanks, those at the end go; adds the line end.
    std::string_view Finish()
    {
        const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20; };
        while (m_uLength > 0 && (isControl(m_ac[m_uLength - 1]) || m_ac[m_uLength - 1] == ' '))
            --m_uLength;
        std::replace_if(m_ac, m_ac + m_uLength, isControl, ' ');
        m_ac[m_uLength++] = '\n';
        return { m_ac, m_uLength };
    }

private:
    char m_ac[LINE_LIMIT];
    size_t m_uLength = 0;
};

void AddLabel(Line& line, Log& log) KOV_TSA(requires_capability(log.m))
{
    if (t_Label.iNumber == 0)
        t_Label.iNumber = ++log.iThreads;
    line.Add(" %s-%d", t_Label.szName, t_Label.iNumber);
    if (t_Label.camera.id < 0)
        line.Add(" -");
    else
        line.Add(" %d:%s", t_Label.camera.id, t_Label.camera.szName ? t_Label.camera.szName : "?");
}

}  // namespace

void Write(LogLevel level, std::string_view room, const char* format, ...)
{
    Log& log = TheLog();
    const MutexLock guard(log.m);
    if (!log.bConfigured)
        ConfigureLocked(log, std::getenv("KOV_LOG"), std::getenv("KOV_LOG_FILE"));
    if (!Enabled(level) || (!log.sRoom.empty() && log.sRoom != room))
        return;
    Line line;
    line.AddTime();
    line.Add(" %-5s", LEVEL_NAMES[static_cast<int>(level)]);
    AddLabel(line, log);
    line.Add(" %.*s: ", static_cast<int>(room.size()), room.data());
    va_list args;
    va_start(args, format);
    line.AddV(format, args);
    va_end(args);
    const std::string_view text = line.Finish();
    std::FILE* const pFile = log.pFile ? log.pFile : stderr;
    std::fwrite(text.data(), 1, text.size(), pFile);
    std::fflush(pFile);  // on Windows a line buffer waits until it is full
}

Camera CurrentCamera() { return t_Label.camera; }
void SetCurrentCamera(Camera camera) { t_Label.camera = camera; }
void SetThreadName(const char* szName) { t_Label.szName = szName; }

void Configure(const char* szLog, const char* file)
{
    Log& log = TheLog();
    const MutexLock guard(log.m);
    ConfigureLocked(log, szLog, file);
}

}  // namespace logging

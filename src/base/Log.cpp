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
    bool configured KOV_TSA(guarded_by(m)) = false;
    std::string room KOV_TSA(guarded_by(m));           // empty: all
    std::FILE* file KOV_TSA(guarded_by(m)) = nullptr;  // nullptr: standard error
    int threads KOV_TSA(guarded_by(m)) = 0;            // that have written a line
};

Log& TheLog()
{
    static Log* const s_log = new Log;  // never destroyed: threads may outlive static destruction
    return *s_log;
}

struct ThreadLabel {
    int number = 0;  // in the order of first lines
    const char* name = "thread";
    Camera camera;
};
thread_local ThreadLabel t_label;

int LevelOf(std::string_view name)
{
    const auto it = std::find(std::begin(LEVEL_NAMES), std::end(LEVEL_NAMES), name);
    return it == std::end(LEVEL_NAMES) ? -1 : static_cast<int>(it - std::begin(LEVEL_NAMES));
}

void ConfigureLocked(Log& log, const char* wanted, const char* file) KOV_TSA(requires_capability(log.m))
{
    if (log.file)
        std::fclose(log.file);
    log.file = nullptr;
    log.configured = true;

    const std::string_view text = wanted ? wanted : "";
    const size_t colon = text.find(':');
    const std::string_view level = text.substr(0, colon);
    int number = level.empty() ? 0 : LevelOf(level);
    log.room = colon == text.npos ? "" : text.substr(colon + 1);
    if (number < 0) {
        std::fprintf(stderr, "KOV_LOG=%s: the level is one of error, warn, info, debug, trace; nothing is logged\n", wanted);
        number = 0;
    }
    if (number > 0 && file && *file) {
        log.file = std::fopen(file, "a");
        if (log.file)
            std::setvbuf(log.file, nullptr, _IOLBF, 2 * LINE_LIMIT);  // whole lines, also from several processes
        else
            std::fprintf(stderr, "KOV_LOG_FILE=%s: %s; the log goes to standard error\n", file, std::strerror(errno));
    }
    g_Level.store(number, std::memory_order_relaxed);
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
        const int n = std::vsnprintf(m_ac + m_length, sizeof m_ac - m_length, format, args);
        m_length = std::min(m_length + static_cast<size_t>(std::max(n, 0)), sizeof m_ac - 1);
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
        m_length += std::strftime(m_ac, sizeof m_ac, "%Y-%m-%d %H:%M:%S", &local);
        Add(".%06d", static_cast<int>(duration_cast<microseconds>(now.time_since_epoch()).count() % 1000000));
    }
    // Control characters become blanks, those at the end go; adds the line end.
    std::string_view Finish()
    {
        const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20; };
        while (m_length > 0 && (isControl(m_ac[m_length - 1]) || m_ac[m_length - 1] == ' '))
            --m_length;
        std::replace_if(m_ac, m_ac + m_length, isControl, ' ');
        m_ac[m_length++] = '\n';
        return { m_ac, m_length };
    }

private:
    char m_ac[LINE_LIMIT];
    size_t m_length = 0;
};

void AddLabel(Line& line, Log& log) KOV_TSA(requires_capability(log.m))
{
    if (t_label.number == 0)
        t_label.number = ++log.threads;
    line.Add(" %s-%d", t_label.name, t_label.number);
    if (t_label.camera.id < 0)
        line.Add(" -");
    else
        line.Add(" %d:%s", t_label.camera.id, t_label.camera.name ? t_label.camera.name : "?");
}

}  // namespace

void Write(LogLevel level, std::string_view room, const char* format, ...)
{
    Log& log = TheLog();
    const MutexLock guard(log.m);
    if (!log.configured)
        ConfigureLocked(log, std::getenv("KOV_LOG"), std::getenv("KOV_LOG_FILE"));
    if (!Enabled(level) || (!log.room.empty() && log.room != room))
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
    std::FILE* const file = log.file ? log.file : stderr;
    std::fwrite(text.data(), 1, text.size(), file);
    std::fflush(file);  // on Windows a line buffer waits until it is full
}

Camera CurrentCamera() { return t_label.camera; }
void SetCurrentCamera(Camera camera) { t_label.camera = camera; }
void SetThreadName(const char* name) { t_label.name = name; }

void Configure(const char* wanted, const char* file)
{
    Log& log = TheLog();
    const MutexLock guard(log.m);
    ConfigureLocked(log, wanted, file);
}

}  // namespace logging

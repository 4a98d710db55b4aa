// The log. Off unless the environment asks for it:
//
//   KOV_LOG=LEVEL[:ROOM]   error, warn, info, debug or trace; each contains those before it. ROOM, a folder of src/, keeps
//                          only that room's lines.
//   KOV_LOG_FILE=PATH      appended to; standard error where it is not set or cannot be opened
//
//   error  a step failed and its result is lost: a device that is gone, settings that cannot be kept
//   warn   what a person may have to act on: a refused claim, a damaged file that was put aside
//   info   restarts, resynchronisations, dropped frames and changes of the bandwidth, each with its reason
//   debug  every request to a camera with its register and result
//   trace  the text of every TraceLine
//
// A line: date and local time, level, thread, camera (ID and model; - where none is meant), room, text. The environment is
// read once, at the first line that could be written. All functions: any thread.
#pragma once
#include <atomic>
#include <string_view>

enum class LogLevel { Off, Error, Warn, Info, Debug, Trace };

// KOV_LOG(Info, "frame %d dropped", n): a macro, so that arguments cost nothing while the level is off, and so that the room
// is that of the calling file.
#define KOV_LOG(level, ...)                                                    \
  do {                                                                         \
    if (logging::Enabled(LogLevel::level))                                     \
      logging::Write(LogLevel::level, logging::RoomOf(__FILE__), __VA_ARGS__); \
  } while (false)

namespace logging {

// The level in force; above all levels until the environment has been read.
inline constinit std::atomic<int> g_Level = 100;

inline bool Enabled(LogLevel level) { return static_cast<int>(level) <= g_Level.load(std::memory_order_relaxed); }

// The folder below src/ that a file lies in.
constexpr std::string_view RoomOf(std::string_view file)
{
    constexpr std::string_view root = "src/";
    const size_t at = file.rfind(root);
    if (at == file.npos)
        return "-";
    file.remove_prefix(at + root.size());
    return file.substr(0, file.find('/'));
}

// One line; line ends in the text become blanks. Callers test Enabled first.
#if defined(__MINGW32__)
__attribute__((format(gnu_printf, 3, 4)))
#elif defined(__GNUC__)
__attribute__((format(printf, 3, 4)))
#endif
void Write(LogLevel level, std::string_view room, const char* format, ...);

// The camera that the calling thread works for. A thread of the library starts with that of the thread that started it.
struct Camera {
    int id = -1;                 // of the C interface; -1: none
    const char* name = nullptr;  // static text
};
Camera CurrentCamera();
void SetCurrentCamera(Camera camera);

// Names the calling thread in its lines; static text.
void SetThreadName(const char* name);

// Sets the calling thread's camera for a block. Does nothing while the log is off.
class CameraScope {
public:
    explicit CameraScope(Camera camera) : m_on(Enabled(LogLevel::Error))
    {
        if (m_on) {
            m_before = CurrentCamera();
            SetCurrentCamera(camera);
        }
    }
    ~CameraScope()
    {
        if (m_on)
            SetCurrentCamera(m_before);
    }
    CameraScope(const CameraScope&) = delete;
    CameraScope& operator=(const CameraScope&) = delete;

private:
    const bool m_on;
    Camera m_before;
};

// As if the environment held these texts; nullptr: not set. For tests.
void Configure(const char* log, const char* file);

}  // namespace logging

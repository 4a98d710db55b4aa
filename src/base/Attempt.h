// The edge of a thread of ours, as the C interface is that of a host's: nothing thrown passes it.
#pragma once
#include <exception>

#include "base/Log.h"

// Logs it at level error.
inline void TellFailed(const char* title, const char* why, const char* file) noexcept
try {
    if (logging::Enabled(LogLevel::Error))
        logging::Write(LogLevel::Error, logging::RoomOf(file), "%s failed: %s", title, why);
} catch (...) {  // no memory for the line either
}

// Runs a step. False when it threw: the step has failed. `title` names it in the log. The file is the caller's; clang 14 knows no
// std::source_location beside GCC's library.
template <class Step>
bool Attempt(const char* title, Step step, const char* file = __builtin_FILE()) noexcept
{
    try {
        step();
        return true;
    } catch (const std::exception& e) {
        TellFailed(title, e.what(), file);
    } catch (const char* error) {  // a driver that refuses to close
        TellFailed(title, error, file);
    } catch (...) {
        TellFailed(title, "something unknown was thrown", file);
    }
    return false;
}

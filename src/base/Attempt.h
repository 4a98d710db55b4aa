// The edge of a thread of ours, as the C interface is that of a host's: nothing thrown passes it.
#pragma once
#include <exception>

#include "base/Log.h"

// Logs it at level error.
inline void TellFailed(const char* szStep, const char* szWhy, const char* szFile) noexcept
try {
    if (logging::Enabled(LogLevel::Error))
        logging::Write(LogLevel::Error, logging::RoomOf(szFile), "%s failed: %s", szStep, szWhy);
} catch (...) {  // no memory for the line either
}

// Runs a step. False when it threw: the step has failed. szStep names it in the log. The file is the caller's; clang 14 knows no
// std::source_location beside GCC's library.
template <class Step>
bool Attempt(const char* szStep, Step step, const char* szFile = __builtin_FILE()) noexcept
{
    try {
        step();
        return true;
    } catch (const std::exception& e) {
        TellFailed(szStep, e.what(), szFile);
    } catch (const char* szError) {  // a driver that refuses to close
        TellFailed(szStep, szError, szFile);
    } catch (...) {
        TellFailed(szStep, "something unknown was thrown", szFile);
    }
    return false;
}

// The edge of a thread of ours, as the C interface is that of a host's: nothing thrown passes it.
#pragma once
#include <exception>
#include <source_location>

#include "base/Log.h"

// Logs it at level error.
inline void TellFailed(const char* szStep, const char* szWhy, const std::source_location& where) noexcept
try {
    if (logging::Enabled(LogLevel::Error))
        logging::Write(LogLevel::Error, logging::RoomOf(where.file_name()), "%s failed: %s", szStep, szWhy);
} catch (...) {  // no memory for the line either
}

// Runs a step. False when it threw: the step has failed. szStep names it in the log.
template <class Step>
bool Attempt(const char* szStep, Step step, std::source_location where = std::source_location::current()) noexcept
{
    try {
        step();
        return true;
    } catch (const std::exception& e) {
        TellFailed(szStep, e.what(), where);
    } catch (const char* szError) {  // a driver that refuses to close
        TellFailed(szStep, szError, where);
    } catch (...) {
        TellFailed(szStep, "something unknown was thrown", where);
    }
    return false;
}

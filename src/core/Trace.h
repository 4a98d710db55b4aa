// All log lines pass through here. The body is empty: nothing is recorded. Callable from every thread.
#pragma once

#if defined(__GNUC__)
__attribute__((format(printf, 1, 2)))
#endif
inline void TraceLine(const char* szFormat, ...)
{
    static_cast<void>(szFormat);
}

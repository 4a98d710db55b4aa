// Looks at a frame that USB may be writing. A value out of an older or newer frame is meant and harmless: the callers
// take means over many. Every such read goes through here, so that it is the only race and stays visible as one.
#pragma once
#include <cstddef>
#include <cstdint>

#if defined(__clang__) || defined(__GNUC__)
__attribute__((no_sanitize("thread")))
#endif
inline uint8_t
SampleFrame(const uint8_t* frame, size_t index)
{
    return *static_cast<const volatile uint8_t*>(frame + index);
}

// Integer steps whose result on overflow is part of the behaviour: stored settings and controls take any value.
#pragma once
#include <cstdint>

// Toward zero. What a 32-bit integer cannot hold becomes the lowest one, as the CPU's conversion gives it on x86.
inline int32_t TruncToInt32(double d) { return d > -2147483649.0 && d < 2147483648.0 ? static_cast<int32_t>(d) : INT32_MIN; }

// Two's complement, wrapping.
inline int32_t AddWrap(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b)); }
inline int32_t SubWrap(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b)); }
inline int32_t MulWrap(int32_t a, int32_t b) { return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b)); }

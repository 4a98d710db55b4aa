// Clears a large buffer without touching pages that are zero already, so that pages never written stay unallocated.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstring>

inline void SparseClear(void* p, size_t bytes)
{
    constexpr size_t BLOCK = 4096;
    static const unsigned char s_aZero[BLOCK] = {};
    for (auto* q = static_cast<unsigned char*>(p); bytes != 0;) {
        const size_t n = std::min(bytes, BLOCK);
        if (std::memcmp(q, s_aZero, n) != 0)
            std::memset(q, 0, n);
        q += n;
        bytes -= n;
    }
}

// Same for a single element.
template <class T>
inline void StoreIfDifferent(T& where, T value)
{
    if (where != value)
        where = value;
}

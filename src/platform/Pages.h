// Large buffers straight from the system.
#pragma once
#include <cstddef>
#include <memory>

namespace platform {

// Zeroed memory that costs nothing until it is touched. calloc alone does not hold that: a C library keeps blocks of up to
// 32 MiB that were freed, and clears them when it hands them out again, which for a large camera that is opened a second
// time takes longer than all of its bring-up. nullptr when there is none. Any thread.
void* AllocPages(size_t bytes);
void FreePages(void* p, size_t bytes);

struct PagesDeleter {
    size_t bytes = 0;
    void operator()(void* p) const { FreePages(p, bytes); }
};
template <class T>
using Pages = std::unique_ptr<T, PagesDeleter>;

}  // namespace platform

#include "platform/Pages.h"

#include <sys/mman.h>

#include <cstdlib>

#if defined(__SANITIZE_ADDRESS__)
#  define KOV_ASAN 1
#elif defined(__has_feature)
#  if __has_feature(address_sanitizer)
#    define KOV_ASAN 1
#  endif
#endif

namespace platform {

namespace {
#ifdef KOV_ASAN
constexpr bool IsLarge(size_t) { return false; }  // so that a sanitizer sees both ends of each buffer
#else
constexpr bool IsLarge(size_t bytes) { return bytes >= size_t{ 256 } << 10; }
#endif
}  // namespace

void* AllocPages(size_t bytes)
{
    if (!IsLarge(bytes))
        return std::calloc(bytes, 1);
    void* const p = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    return p == MAP_FAILED ? nullptr : p;
}

void FreePages(void* p, size_t bytes)
{
    if (IsLarge(bytes) && p)
        munmap(p, bytes);
    else
        std::free(p);
}

}  // namespace platform

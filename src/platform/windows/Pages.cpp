// The C library of Windows takes large blocks from the system and gives them back at once.
#include "platform/Pages.h"

#include <cstdlib>

namespace platform {

void* AllocPages(size_t bytes) { return std::calloc(bytes, 1); }
void FreePages(void* p, size_t) { std::free(p); }

}  // namespace platform

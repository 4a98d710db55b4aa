#include <cstddef>
#include <cstdlib>
#include <new>

#include "torture/Faults.h"

namespace {
thread_local bool t_bLibrary = false;
std::atomic<int64_t> g_lBlocks = 0;
}  // namespace

InLibrary::InLibrary(bool bLibrary) : m_bBefore(t_bLibrary) { t_bLibrary = bLibrary; }
InLibrary::~InLibrary() { t_bLibrary = m_bBefore; }
int64_t LibraryBlocks() { return g_lBlocks; }

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
bool CountsAllocations() { return false; }
#else
#  include <dlfcn.h>
#  include <pthread.h>

bool CountsAllocations() { return true; }

namespace {

constexpr size_t HEAD = alignof(std::max_align_t);  // before each block: whose it is

void* Allocate(size_t n, size_t alignment)
{
    if (t_bLibrary && g_Allocations.Fails())
        return nullptr;
    const size_t head = alignment > HEAD ? alignment : HEAD;
    char* const p = static_cast<char*>(std::aligned_alloc(head, (head + n + head - 1) / head * head));
    if (p == nullptr)
        return nullptr;
    p[head - 1] = t_bLibrary;
    g_lBlocks += t_bLibrary;
    return p + head;
}

void* AllocateOrThrow(size_t n, size_t alignment)
{
    void* const p = Allocate(n, alignment);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

void Free(void* pBlock, size_t alignment)
{
    if (pBlock == nullptr)
        return;
    char* const p = static_cast<char*>(pBlock);
    g_lBlocks -= p[-1];
    std::free(p - (alignment > HEAD ? alignment : HEAD));
}

struct Start {
    void* (*fn)(void*);
    void* pArg;
    bool bLibrary;
};

void* Begin(void* p)
{
    const Start start = *static_cast<Start*>(p);
    std::free(p);
    t_bLibrary = start.bLibrary;
    return start.fn(start.pArg);
}

}  // namespace

extern "C" int pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes, void* (*fn)(void*), void* pArg)
{
    static const auto next = reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    Start* const p = static_cast<Start*>(std::malloc(sizeof(Start)));
    *p = { fn, pArg, t_bLibrary };
    const int r = next(pThread, pAttributes, Begin, p);
    if (r != 0)
        std::free(p);
    return r;
}

void* operator new(size_t n) { return AllocateOrThrow(n, 0); }
void* operator new[](size_t n) { return AllocateOrThrow(n, 0); }
void* operator new(size_t n, std::align_val_t a) { return AllocateOrThrow(n, size_t(a)); }
void* operator new[](size_t n, std::align_val_t a) { return AllocateOrThrow(n, size_t(a)); }
void* operator new(size_t n, const std::nothrow_t&) noexcept { return Allocate(n, 0); }
void* operator new[](size_t n, const std::nothrow_t&) noexcept { return Allocate(n, 0); }
void operator delete(void* p) noexcept { Free(p, 0); }
void operator delete[](void* p) noexcept { Free(p, 0); }
void operator delete(void* p, size_t) noexcept { Free(p, 0); }
void operator delete[](void* p, size_t) noexcept { Free(p, 0); }
void operator delete(void* p, std::align_val_t a) noexcept { Free(p, size_t(a)); }
void operator delete[](void* p, std::align_val_t a) noexcept { Free(p, size_t(a)); }
void operator delete(void* p, size_t, std::align_val_t a) noexcept { Free(p, size_t(a)); }
void operator delete[](void* p, size_t, std::align_val_t a) noexcept { Free(p, size_t(a)); }
#endif

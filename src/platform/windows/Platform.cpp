// Time, waits and threads on Windows: kernel objects, so that the events serve as those of overlapped records.
#include "platform/Platform.h"

#include <windows.h>

#include <process.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <string>

#include "base/Log.h"

namespace platform {
namespace {

static_assert(WAIT_SIGNALLED == WAIT_OBJECT_0 && WAIT_TIMED_OUT == WAIT_TIMEOUT && WAIT_FOREVER == INFINITE);

class Handle {
public:
    explicit Handle(HANDLE h = nullptr) : m_h(h) {}
    ~Handle() { Reset(); }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    void Reset(HANDLE h = nullptr)
    {
        if (m_h)
            CloseHandle(m_h);
        m_h = h;
    }
    operator HANDLE() const { return m_h; }

private:
    HANDLE m_h;
};

double CounterMs()
{
    static const double s_perMs = [] {
        LARGE_INTEGER f;
        QueryPerformanceFrequency(&f);
        return double(f.QuadPart) / 1000.0;
    }();
    LARGE_INTEGER n;
    QueryPerformanceCounter(&n);
    return double(n.QuadPart) / s_perMs;
}

std::atomic<double> g_Rate = 1.0;

// Until a rate is set the clock is the system's tick count. From then on it is a piecewise linear image of the
// performance counter, which goes on where the tick count stood.
struct Clock {
    SRWLOCK lock = SRWLOCK_INIT;
    bool scaled = false;
    double realBase = 0, scaledBase = 0;  // ms
};

Clock& TheClock()
{
    static Clock* const s_clock = new Clock;  // never destroyed: threads may outlive static destruction
    return *s_clock;
}

double ScaledNow(const Clock& c)  // its lock is held
{
    return c.scaled ? c.scaledBase + (CounterMs() - c.realBase) * ClockRate() : double(GetTickCount64());
}

// The real time of a wait, rounded up to what the system can wait; a limit other than 0 stays one.
DWORD RealMs(uint32_t ms)
{
    if (ms == WAIT_FOREVER)
        return INFINITE;
    const double d = std::ceil(double(ms) / ClockRate());
    return d < double(INFINITE - 1) ? DWORD(d) : INFINITE - 1;
}

uint32_t WaitOn(HANDLE h, uint32_t ms) { return WaitForSingleObject(h, RealMs(ms)); }

}  // namespace

// --- time -----------------------------------------------------------------------------------------------------------

uint32_t Ticks()
{
    Clock& c = TheClock();
    AcquireSRWLockShared(&c.lock);
    const double d = ScaledNow(c);
    ReleaseSRWLockShared(&c.lock);
    return uint32_t(uint64_t(d));
}

void SleepMs(uint32_t ms)
{
    const double rate = ClockRate();
    if (ms == 0 || rate == 1.0) {
        Sleep(ms);
        return;
    }
    // With the clock running fast most sleeps are shorter than the millisecond that Sleep counts in. The system's own call
    // below it counts 100 ns; how fine it really is depends on the system's timer.
    using Delay = LONG(__stdcall*)(BOOLEAN alertable, const LARGE_INTEGER* due);
    static const auto s_delay =
        reinterpret_cast<Delay>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtDelayExecution")));
    LARGE_INTEGER time;
    time.QuadPart = -LONGLONG(double(ms) / rate * 10000.0 + 0.5);  // negative: from now
    if (s_delay)
        s_delay(FALSE, &time);
    else
        Sleep(RealMs(ms));
}

LocalTime LocalNow()
{
    SYSTEMTIME t;
    GetLocalTime(&t);
    return { t.wYear, t.wMonth, t.wDay, t.wHour, t.wMinute, t.wSecond, t.wMilliseconds };
}

void SetClockRate(double rate)
{
    if (!(rate > 0))
        return;
    Clock& c = TheClock();
    AcquireSRWLockExclusive(&c.lock);
    c.scaledBase = ScaledNow(c);
    c.realBase = CounterMs();
    c.scaled = true;
    g_Rate = rate;
    ReleaseSRWLockExclusive(&c.lock);
}

double ClockRate() { return g_Rate; }

// --- events and the semaphore ---------------------------------------------------------------------------------------

EventHandle MakeEvent() { return CreateEventA(nullptr, FALSE, FALSE, nullptr); }
void FreeEvent(EventHandle h) { CloseHandle(h); }
void SignalEvent(EventHandle h) { SetEvent(h); }
uint32_t WaitEvent(EventHandle h, uint32_t ms) { return WaitOn(h, ms); }

struct Semaphore::Impl {
    Handle h{ CreateSemaphoreW(nullptr, 0, 1, nullptr) };
};
Semaphore::Semaphore() : m_p(std::make_unique<Impl>()) {}
Semaphore::~Semaphore() = default;
bool Semaphore::Release() { return ReleaseSemaphore(m_p->h, 1, nullptr) != 0; }
uint32_t Semaphore::Wait(uint32_t ms) { return WaitOn(m_p->h, ms); }

// --- lock -----------------------------------------------------------------------------------------------------------

struct CriticalSection::Impl {
    CRITICAL_SECTION cs;
    Impl() { InitializeCriticalSection(&cs); }
    ~Impl() { DeleteCriticalSection(&cs); }
};
CriticalSection::CriticalSection() : m_p(std::make_unique<Impl>()) {}
CriticalSection::~CriticalSection() = default;
void CriticalSection::Enter() { EnterCriticalSection(&m_p->cs); }
void CriticalSection::Leave() { LeaveCriticalSection(&m_p->cs); }

// --- threads --------------------------------------------------------------------------------------------------------

struct Thread::Impl {
    Handle thread;
    void (*fn)(void*) = nullptr;
    void* arg = nullptr;
    logging::Camera camera;

    static unsigned __stdcall Main(void* p)
    {
        auto* const self = static_cast<Impl*>(p);
        logging::SetCurrentCamera(self->camera);
        self->fn(self->arg);
        return 0;
    }
};

Thread::Thread() : m_p(std::make_unique<Impl>()) {}
Thread::~Thread() { Wait(WAIT_FOREVER); }

bool Thread::Start(void (*fn)(void*), void* arg)
{
    Wait(WAIT_FOREVER);
    m_p->fn = fn;
    m_p->arg = arg;
    m_p->camera = logging::CurrentCamera();
    m_p->thread.Reset(reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, &Impl::Main, m_p.get(), 0, nullptr)));
    return m_p->thread != nullptr;
}

bool Thread::Started() const { return m_p->thread != nullptr; }
uint32_t Thread::Wait(uint32_t ms) { return m_p->thread ? WaitOn(m_p->thread, ms) : WAIT_SIGNALLED; }

// --- messages -------------------------------------------------------------------------------------------------------

void ShowNativeMessage(const char* text, const char* title) { MessageBoxA(nullptr, text, title, MB_OK); }

// --- files ----------------------------------------------------------------------------------------------------------

std::FILE* OpenFile(const char* path, const char* mode)
{
    // Text of an ANSI code page is hardly ever valid UTF-8; where it is, the file as the code page names it comes second.
    const int n = MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path, -1, nullptr, 0);
    if (n > 0) {
        std::wstring widePath(size_t(n), L'\0');
        MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, path, -1, widePath.data(), n);
        const std::wstring wideMode(mode, mode + std::strlen(mode));
        std::FILE* const f = _wfopen(widePath.c_str(), wideMode.c_str());
        if (f || mode[0] != 'r')
            return f;
    }
    return std::fopen(path, mode);
}

}  // namespace platform

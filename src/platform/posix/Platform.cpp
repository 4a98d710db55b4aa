// Time, waits and threads on POSIX systems.
//
// Plain pthread conditions on the monotonic clock instead of std::condition_variable: its wait_until goes through
// pthread_cond_clockwait, which the ThreadSanitizer of GCC 12 does not know.
#include "platform/Platform.h"

#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <time.h>

#include <cerrno>
#include <cstdio>
#include <new>

#include "base/Log.h"

namespace platform {
namespace {

constexpr int64_t NS_PER_S = 1'000'000'000, NS_PER_MS = 1'000'000;

int64_t SteadyNs()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t{ t.tv_sec } * NS_PER_S + t.tv_nsec;
}

class PosixMutex {
public:
    explicit PosixMutex(int type = PTHREAD_MUTEX_NORMAL)
    {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, type);
        pthread_mutex_init(&m_h, &attr);
        pthread_mutexattr_destroy(&attr);
    }
    ~PosixMutex() { pthread_mutex_destroy(&m_h); }
    PosixMutex(const PosixMutex&) = delete;
    PosixMutex& operator=(const PosixMutex&) = delete;
    pthread_mutex_t m_h;
};

class Guard {
public:
    explicit Guard(PosixMutex& m) : m_m(m) { pthread_mutex_lock(&m_m.m_h); }
    ~Guard() { pthread_mutex_unlock(&m_m.m_h); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

private:
    PosixMutex& m_m;
};

class Condition {
public:
    Condition()
    {
        pthread_condattr_t attr;
        pthread_condattr_init(&attr);
        pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        pthread_cond_init(&m_h, &attr);
        pthread_condattr_destroy(&attr);
    }
    ~Condition() { pthread_cond_destroy(&m_h); }
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;
    pthread_cond_t m_h;
};

// Ticks go on without a jump when the rate changes: the clock is a piecewise linear image of the steady clock.
struct Clock {
    PosixMutex m;
    double rate = 1.0;
    int64_t realBase = SteadyNs();
    double scaledBase = double(realBase);  // ns; 53 bits last 104 days at full precision, and longer at 1 us

    double ScaledNow() const { return scaledBase + double(SteadyNs() - realBase) * rate; }
};

Clock& TheClock()
{
    static Clock* const s_clock = new Clock;  // never destroyed: threads may outlive static destruction
    return *s_clock;
}

// Moment of the steady clock that lies `ms` of the scaled clock ahead.
timespec Deadline(uint32_t ms)
{
    const int64_t ll = SteadyNs() + int64_t(double(ms) * double(NS_PER_MS) / ClockRate());
    return { time_t(ll / NS_PER_S), long(ll % NS_PER_S) };
}

// Waits on `c` until ready() or the limit; `m` is held. True when ready.
template <class Ready>
bool WaitUntil(Condition& c, PosixMutex& m, uint32_t ms, Ready ready)
{
    if (ready())
        return true;
    if (ms == 0)
        return false;
    if (ms == WAIT_FOREVER) {
        while (!ready())
            pthread_cond_wait(&c.m_h, &m.m_h);
        return true;
    }
    const timespec t = Deadline(ms);
    while (!ready())
        if (pthread_cond_timedwait(&c.m_h, &m.m_h, &t) == ETIMEDOUT)
            return ready();
    return true;
}

// An event or a semaphore of maximum 1: both are a flag that a wait takes back.
struct Flag {
    PosixMutex m;
    Condition c;
    bool set = false;

    bool Set()
    {
        Guard guard(m);
        const bool was = set;
        set = true;
        // Under the lock: the waiter may free the flag as soon as it has seen it.
        pthread_cond_signal(&c.m_h);
        return !was;
    }
    uint32_t Take(uint32_t ms)
    {
        Guard guard(m);
        if (!WaitUntil(c, m, ms, [this] { return set; }))
            return WAIT_TIMED_OUT;
        set = false;
        return WAIT_SIGNALLED;
    }
};

}  // namespace

// --- time -----------------------------------------------------------------------------------------------------------

uint32_t Ticks()
{
    Clock& clock = TheClock();
    Guard guard(clock.m);
    return uint32_t(uint64_t(clock.ScaledNow() / double(NS_PER_MS)));
}

void SleepMs(uint32_t ms)
{
    if (ms == 0) {
        sched_yield();
        return;
    }
    const timespec t = Deadline(ms);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr) == EINTR) {
    }
}

LocalTime LocalNow()
{
    timespec t;
    clock_gettime(CLOCK_REALTIME, &t);
    tm local = {};
    localtime_r(&t.tv_sec, &local);
    return { local.tm_year + 1900, local.tm_mon + 1,          local.tm_mday, local.tm_hour, local.tm_min,
             local.tm_sec,         int(t.tv_nsec / NS_PER_MS) };
}

void SetClockRate(double rate)
{
    if (!(rate > 0))
        return;
    Clock& clock = TheClock();
    Guard guard(clock.m);
    clock.scaledBase = clock.ScaledNow();
    clock.realBase = SteadyNs();
    clock.rate = rate;
}

double ClockRate()
{
    Clock& clock = TheClock();
    Guard guard(clock.m);
    return clock.rate;
}

// --- events and the semaphore ---------------------------------------------------------------------------------------

EventHandle MakeEvent() { return new (std::nothrow) Flag; }
void FreeEvent(EventHandle h) { delete static_cast<Flag*>(h); }
void SignalEvent(EventHandle h) { static_cast<Flag*>(h)->Set(); }
uint32_t WaitEvent(EventHandle h, uint32_t ms) { return static_cast<Flag*>(h)->Take(ms); }

struct Semaphore::Impl : Flag {};
Semaphore::Semaphore() : m_p(std::make_unique<Impl>()) {}
Semaphore::~Semaphore() = default;
bool Semaphore::Release() { return m_p->Set(); }
uint32_t Semaphore::Wait(uint32_t ms) { return m_p->Take(ms); }

// --- lock -----------------------------------------------------------------------------------------------------------

// Recursive, as a Windows critical section is.
struct CriticalSection::Impl : PosixMutex {
    Impl() : PosixMutex(PTHREAD_MUTEX_RECURSIVE) {}
};
CriticalSection::CriticalSection() : m_p(std::make_unique<Impl>()) {}
CriticalSection::~CriticalSection() = default;
void CriticalSection::Enter() { pthread_mutex_lock(&m_p->m_h); }
void CriticalSection::Leave() { pthread_mutex_unlock(&m_p->m_h); }

// --- threads --------------------------------------------------------------------------------------------------------

struct Thread::Impl {
    mutable PosixMutex m;
    Condition c;
    pthread_t thread = {};
    bool started = false, ended = false, joined = false;
    void (*fn)(void*) = nullptr;
    void* arg = nullptr;
    logging::Camera camera;

    static void* Main(void* p)
    {
        auto* self = static_cast<Impl*>(p);
        logging::SetCurrentCamera(self->camera);
        self->fn(self->arg);
        Guard guard(self->m);
        self->ended = true;
        pthread_cond_broadcast(&self->c.m_h);
        return nullptr;
    }
};

Thread::Thread() : m_p(std::make_unique<Impl>()) {}
Thread::~Thread() { Wait(WAIT_FOREVER); }

bool Thread::Start(void (*fn)(void*), void* arg)
{
    Wait(WAIT_FOREVER);
    Guard guard(m_p->m);
    m_p->fn = fn;
    m_p->arg = arg;
    m_p->camera = logging::CurrentCamera();
    m_p->ended = m_p->joined = false;
    m_p->started = pthread_create(&m_p->thread, nullptr, &Impl::Main, m_p.get()) == 0;
    return m_p->started;
}

bool Thread::Started() const
{
    Guard guard(m_p->m);
    return m_p->started;
}

uint32_t Thread::Wait(uint32_t ms)
{
    Guard guard(m_p->m);
    if (!m_p->started)
        return WAIT_SIGNALLED;
    if (!WaitUntil(m_p->c, m_p->m, ms, [this] { return m_p->ended; }))
        return WAIT_TIMED_OUT;
    // The thread has nothing left to do but to return, so joining under the lock does not wait for anything.
    if (!m_p->joined)
        pthread_join(m_p->thread, nullptr);
    m_p->joined = true;
    return WAIT_SIGNALLED;
}

// --- messages -------------------------------------------------------------------------------------------------------

void ShowNativeMessage(const char* text, const char* title) { std::fprintf(stderr, "%s: %s\n", title, text); }

// --- files ----------------------------------------------------------------------------------------------------------

std::FILE* OpenFile(const char* path, const char* mode)
{
    std::FILE* const file = std::fopen(path, mode);
    struct stat st;
    if (file != nullptr && ::fstat(fileno(file), &st) == 0 && S_ISDIR(st.st_mode)) {  // opens for reading here
        std::fclose(file);
        return nullptr;
    }
    return file;
}

}  // namespace platform

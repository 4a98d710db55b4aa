// The host system below the library: time, waits, threads, messages. Every sleep, tick and timed wait of the library
// goes through here, so that a test can run the clock faster.
#pragma once
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>

#include "base/LocalTime.h"
#include "base/Mutex.h"

namespace platform {

// Results of a wait, with the numbers that the driver interface uses.
constexpr uint32_t WAIT_SIGNALLED = 0;
constexpr uint32_t WAIT_TIMED_OUT = 258;
constexpr uint32_t WAIT_FOREVER = 0xFFFFFFFFu;

// --- time (any thread) ---------------------------------------------------------------------------------------------

uint32_t Ticks();           // milliseconds since some start; wraps as an unsigned 32-bit number
void SleepMs(uint32_t ms);  // blocks the calling thread

LocalTime LocalNow();  // the host's wall clock; not changed by SetClockRate

// Tests only: lets Ticks, SleepMs and all timed waits run `rate` times as fast. 1.0 is real time.
void SetClockRate(double rate);
double ClockRate();

// --- auto-reset events and the semaphore of the frame exchange ------------------------------------------------------

using EventHandle = void*;  // on Windows a kernel handle
EventHandle MakeEvent();    // auto reset, not signalled; nullptr when the system has none to give
void FreeEvent(EventHandle);
void SignalEvent(EventHandle);
uint32_t WaitEvent(EventHandle, uint32_t ms);  // WAIT_SIGNALLED (and reset) or WAIT_TIMED_OUT

// Count 0 at start, maximum 1.
class Semaphore {
public:
    Semaphore();
    ~Semaphore();
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;
    bool Release();              // false when it stands at its maximum
    uint32_t Wait(uint32_t ms);  // takes one; WAIT_SIGNALLED or WAIT_TIMED_OUT
private:
    struct Impl;
    std::unique_ptr<Impl> m_p;
};

// --- the lock around one control transfer ---------------------------------------------------------------------------

// A leaf lock: no other lock but the log's may be taken while it is held.
class KOV_TSA(capability("mutex")) CriticalSection {
public:
    CriticalSection();
    ~CriticalSection();
    CriticalSection(const CriticalSection&) = delete;
    CriticalSection& operator=(const CriticalSection&) = delete;
    void Enter() KOV_TSA(acquire_capability());
    void Leave() KOV_TSA(release_capability());

private:
    struct Impl;
    std::unique_ptr<Impl> m_p;
};

class KOV_TSA(scoped_lockable) Lock {
public:
    explicit Lock(CriticalSection& cs) KOV_TSA(acquire_capability(cs)) : m_cs(cs) { m_cs.Enter(); }
    ~Lock() KOV_TSA(release_capability()) { m_cs.Leave(); }
    Lock(const Lock&) = delete;
    Lock& operator=(const Lock&) = delete;

private:
    CriticalSection& m_cs;
};

// --- threads --------------------------------------------------------------------------------------------------------

// One thread at a time. Wait may be called any number of times, also after the thread has ended. The destructor waits
// until the thread has ended: whoever owns a Thread has to see to it that its function returns.
class Thread {
public:
    Thread();
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;
    // False when the system has no thread to give. Waits first for an earlier thread of this object.
    bool Start(void (*fn)(void*), void* arg);
    bool Started() const;        // a thread has been started, running or ended
    uint32_t Wait(uint32_t ms);  // WAIT_SIGNALLED once it has ended (or none was started), or WAIT_TIMED_OUT
private:
    struct Impl;
    std::unique_ptr<Impl> m_p;
};

// --- messages -------------------------------------------------------------------------------------------------------

// A message box without owner window where the platform has one, a line on standard error elsewhere.
void ShowMessage(const char* text, const char* title);
// Tests only: takes the messages instead, on the thread that shows them. nullptr brings the default back.
void SetMessageSink(void (*sink)(const char* text, const char* title));
void ShowNativeMessage(const char* text, const char* title);

// --- files ----------------------------------------------------------------------------------------------------------

// As fopen. Paths are what hosts pass: the bytes of the file system; on Windows UTF-8, or else text of the ANSI code page.
std::FILE* OpenFile(const char* path, const char* mode);

}  // namespace platform

// A mutex and a lock that clang can follow (-Wthread-safety): what a mutex guards says so, and so does a function that wants it
// held. Elsewhere they are std::mutex and std::unique_lock.
#pragma once
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#  define KOV_TSA(x) __attribute__((x))
#else
#  define KOV_TSA(x)
#endif

class KOV_TSA(capability("mutex")) Mutex : public std::mutex {
public:
    void lock() KOV_TSA(acquire_capability()) { std::mutex::lock(); }
    void unlock() KOV_TSA(release_capability()) { std::mutex::unlock(); }
    bool try_lock() KOV_TSA(try_acquire_capability(true)) { return std::mutex::try_lock(); }
};

class KOV_TSA(scoped_lockable) MutexLock {
public:
    explicit MutexLock(Mutex& m) KOV_TSA(acquire_capability(m)) : m_lock(m) {}
    ~MutexLock() KOV_TSA(release_capability()) {}
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    void lock() KOV_TSA(acquire_capability()) { m_lock.lock(); }
    void unlock() KOV_TSA(release_capability()) { m_lock.unlock(); }

private:
    std::unique_lock<std::mutex> m_lock;
};

// Waits for a signal, with the mutex given up meanwhile; `until` runs with it held.
template <class Until>
void WaitUntil(Mutex& m, std::condition_variable& cv, Until until) KOV_TSA(requires_capability(m))
{
    std::unique_lock<std::mutex> lock(m, std::adopt_lock);
    cv.wait(lock, until);
    lock.release();
}

// The same with a time limit; false when `until` does not hold at its end.
template <class Time, class Until>
bool WaitUntil(Mutex& m, std::condition_variable& cv, const Time& limit, Until until) KOV_TSA(requires_capability(m))
{
    std::unique_lock<std::mutex> lock(m, std::adopt_lock);
    const bool held = cv.wait_until(lock, limit, until);
    lock.release();
    return held;
}

// For a signal or a while.
template <class Duration>
void WaitFor(Mutex& m, std::condition_variable& cv, Duration while_) KOV_TSA(requires_capability(m))
{
    std::unique_lock<std::mutex> lock(m, std::adopt_lock);
    cv.wait_for(lock, while_);
    lock.release();
}

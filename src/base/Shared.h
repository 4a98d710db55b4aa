// A field that one thread writes and others read. It reads and writes like the plain type.
#pragma once
#include <atomic>

template <class T>
class Shared {
public:
    constexpr Shared() : m_v(T{}) {}
    constexpr Shared(T v) : m_v(v) {}  // NOLINT(google-explicit-constructor)
    Shared(const Shared& o) : m_v(o.Get()) {}
    Shared& operator=(const Shared& o)
    {
        Set(o.Get());
        return *this;
    }
    T operator=(T v)
    {
        Set(v);
        return v;
    }
    operator T() const { return Get(); }  // NOLINT(google-explicit-constructor)
    T Get() const { return m_v.load(std::memory_order_acquire); }
    void Set(T v) { m_v.store(v, std::memory_order_release); }
    // Read, change and write are three steps, as they are for a plain field; use only where one thread counts.
    T operator+=(T d)
    {
        const T v = static_cast<T>(Get() + d);
        Set(v);
        return v;
    }
    T operator-=(T d)
    {
        const T v = static_cast<T>(Get() - d);
        Set(v);
        return v;
    }
    T operator++() { return *this += T{ 1 }; }
    T operator--() { return *this -= T{ 1 }; }

private:
    std::atomic<T> m_v;
};

// What a sweep lets fail: the n-th call of the library to its USB stack, or the n-th allocation of the library.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>

#include "platform/UsbStack.h"

// Counts what passes while it is armed and tells which is to fail.
class Trigger {
public:
    // uAt: 1 is the first; 0: only count. bForever: all from there on.
    void Arm(uint64_t uAt, bool bForever)
    {
        m_bForever = bForever;
        m_uAt = uAt;
        m_uSeen = 0;
        m_bArmed = true;
    }
    // How many have passed.
    uint64_t Disarm()
    {
        m_bArmed = false;
        return m_uSeen;
    }
    bool Fails()
    {
        if (!m_bArmed)
            return false;
        const uint64_t n = ++m_uSeen;
        return m_uAt != 0 && (m_bForever ? n >= m_uAt : n == m_uAt);
    }

private:
    std::atomic<bool> m_bArmed = false, m_bForever = false;
    std::atomic<uint64_t> m_uAt = 0, m_uSeen = 0;
};

inline Trigger g_UsbCalls, g_Allocations;

// Memory of the library is told from that of the virtual cameras by who is at work. A thread begins as the one that started it.
class InLibrary {
public:
    explicit InLibrary(bool bLibrary = true);
    ~InLibrary();
    InLibrary(const InLibrary&) = delete;
    InLibrary& operator=(const InLibrary&) = delete;

private:
    const bool m_bBefore;
};
int64_t LibraryBlocks();   // that are allocated now
bool CountsAllocations();  // not beside a sanitizer, which has the allocator

// Passes everything on to the virtual bus, unless g_UsbCalls says otherwise. The completion of a bulk request counts as a
// call of its own.
std::unique_ptr<usbstack::IStack> MakeFaultyStack(usbstack::IStack& bus);

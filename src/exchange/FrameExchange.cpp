#include "exchange/FrameExchange.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "base/Mutex.h"
#include "platform/Pages.h"

namespace {

// Counts a thread inside for its life.
class Inside {
public:
    explicit Inside(std::atomic<int32_t>& n) : m_n(n) { m_n.fetch_add(1, std::memory_order_acq_rel); }
    ~Inside() { m_n.fetch_sub(1, std::memory_order_acq_rel); }
    Inside(const Inside&) = delete;
    Inside& operator=(const Inside&) = delete;

private:
    std::atomic<int32_t>& m_n;
};

}  // namespace

struct FrameExchange::Impl {
    explicit Impl(uint32_t slotBytes) : capacity(slotBytes)
    {
        const MutexLock lock(ring);
        for (int i = 0; i < SLOTS; ++i)
            spares.push_back(AddBlock());
        turn.Release();
    }

    // Fresh pages cost nothing until a frame lands in them, and hold no foreign bytes.
    uint8_t* AddBlock() KOV_TSA(requires_capability(ring))
    {
        const size_t bytes = capacity + SLOT_PAD;
        platform::Pages<uint8_t> p(static_cast<uint8_t*>(platform::AllocPages(bytes)), platform::PagesDeleter{ bytes });
        if (!p)
            throw std::bad_alloc();
        spares.reserve(blocks.size() + 1);  // so that giving a block back never fails
        blocks.push_back(std::move(p));
        return blocks.back().get();
    }

    size_t Fit(int32_t size) const { return size > 0 ? std::min<size_t>(size_t(size), capacity) : 0; }
    int32_t Held() const { return count.load(std::memory_order_acquire); }

    // The block that was given back last is the likeliest one to lie in a cache, and those that the flow of
    // frames does not need are never touched.
    uint8_t* PopSpare() KOV_TSA(requires_capability(ring))
    {
        uint8_t* const p = spares.back();
        spares.pop_back();
        return p;
    }

    // Producer; a slot is free.
    void Publish(uint8_t* block, int32_t size) KOV_TSA(requires_capability(ring))
    {
        slots[write] = block;
        frameBytes[write] = Fit(size);
        uint32_t head = 0;
        std::memcpy(&head, block, sizeof head);
        heads[write].store(head, std::memory_order_relaxed);
        write ^= 1;
        // In one step for the reader: taken before its signal is given, a frame would leave a second stale one behind.
        if (count.fetch_add(1, std::memory_order_acq_rel) + 1 == 1)
            signal.Release();
    }
    // Consumer. False when none has come in time; what has come may be gone again before `ring` is locked.
    bool Await(uint32_t timeoutMs);
    bool IsThere() const KOV_TSA(requires_capability(ring)) { return Held() != 0 && !closing; }
    // The slot of the oldest frame is empty then, and there has to be a spare for it.
    uint8_t* Remove() KOV_TSA(requires_capability(ring))
    {
        uint8_t* const p = slots[read.load(std::memory_order_relaxed)];
        read.store(read.load(std::memory_order_relaxed) ^ 1, std::memory_order_relaxed);
        count.fetch_sub(1, std::memory_order_acq_rel);  // only Reset could have taken it to 0, and that waits
        return p;
    }

    static constexpr int SLOTS = 2;
    const uint32_t capacity;
    std::vector<platform::Pages<uint8_t>> blocks KOV_TSA(guarded_by(ring));  // all memory
    // The frames, from `read` on; slots that are free hold nothing, and a spare waits for each of them.
    uint8_t* slots[SLOTS] KOV_TSA(guarded_by(ring)) = {};
    size_t frameBytes[SLOTS] KOV_TSA(guarded_by(ring)) = {};
    std::atomic<uint32_t> heads[SLOTS] = {};  // first word of each slot, readable while the slot is being filled
    int32_t write = 0;                        // producer's own
    std::atomic<int32_t> read{ 0 };
    std::atomic<int32_t> count{ 0 };  // a frame is published by the step up and given back by the step down
    // Held by Read for the span of its copy and by Reset, so that after a Reset no slot is being read any more. The
    // producer fills a spare without it and publishes under it.
    mutable Mutex ring;
    std::vector<uint8_t*> spares KOV_TSA(guarded_by(ring));
    platform::Semaphore signal;  // given on the step from 0 to 1 only
    platform::Semaphore turn;
    std::atomic<bool> closing{ false };
    std::atomic<int32_t> inside{ 0 };  // consumers and leases between their first and last touch of this object
};

FrameExchange::FrameExchange(uint32_t slotBytes) : m_p(std::make_unique<Impl>(slotBytes)) {}

FrameExchange::~FrameExchange() { Shut(); }

void FrameExchange::Shut()
{
    m_p->closing = true;
    do {
        m_p->signal.Release();
        m_p->turn.Release();
        if (m_p->inside.load(std::memory_order_acquire) == 0)
            break;
        platform::SleepMs(1);
    } while (true);
}

void FrameExchange::Reset()
{
    const MutexLock l(m_p->ring);
    while (m_p->Held() != 0)
        m_p->spares.push_back(m_p->Remove());
    m_p->write = 0;
    m_p->read.store(0, std::memory_order_relaxed);
}

bool FrameExchange::Insert(const uint8_t* data, int32_t size)
{
    Impl& m = *m_p;
    if (!data || m.Held() >= Impl::SLOTS)
        return false;
    MutexLock lock(m.ring);
    uint8_t* const block = m.PopSpare();
    lock.unlock();
    std::memcpy(block, data, m.Fit(size));
    lock.lock();
    m.Publish(block, size);
    return true;
}

uint8_t* FrameExchange::MakeBlock()
{
    const MutexLock l(m_p->ring);
    return m_p->AddBlock();
}

uint8_t* FrameExchange::HandOver(uint8_t* block, int32_t size)
{
    Impl& m = *m_p;
    if (!block || m.Held() >= Impl::SLOTS)
        return nullptr;
    const MutexLock l(m.ring);
    m.Publish(block, size);
    return m.PopSpare();
}

bool FrameExchange::Impl::Await(uint32_t timeoutMs)
{
    if (Held() == 0) {
        if (timeoutMs == 0 || signal.Wait(timeoutMs) == platform::WAIT_TIMED_OUT)
            return false;
        // A reader that found a frame without waiting left its signal behind; such a stale one wakes the next reader
        // early, hence the second wait.
        if (Held() == 0 && !closing)
            signal.Wait(timeoutMs);
    }
    return true;
}

bool FrameExchange::Read(uint8_t* dest, int32_t size, uint32_t timeoutMs)
{
    Impl& m = *m_p;
    const Inside inside(m.inside);
    if (!m.Await(timeoutMs))
        return false;
    const MutexLock lock(m.ring);
    if (!m.IsThere())
        return false;
    const int32_t slot = m.read.load(std::memory_order_relaxed);
    const size_t n = m.Fit(size), frame = std::min(n, m.frameBytes[slot]);
    std::memcpy(dest, m.slots[slot], frame);
    std::memset(dest + frame, 0, n - frame);
    m.spares.push_back(m.Remove());
    return true;
}

FrameExchange::Lease FrameExchange::Take(int32_t size, uint32_t timeoutMs)
{
    Impl& m = *m_p;
    const Inside inside(m.inside);
    Lease lease;
    if (!m.Await(timeoutMs))
        return lease;
    const MutexLock lock(m.ring);
    if (!m.IsThere())
        return lease;
    if (m.Held() + int32_t(m.spares.size()) <= Impl::SLOTS) {  // all other blocks are with readers
        uint8_t* const fresh = m.AddBlock();                   // first: it may move the list
        m.spares.insert(m.spares.begin(), fresh);
    }
    const int32_t slot = m.read.load(std::memory_order_relaxed);
    const size_t n = m.Fit(size), frame = std::min(n, m.frameBytes[slot]);
    lease.m_frame = m.Remove();
    lease.m_exchange = this;
    m.inside.fetch_add(1, std::memory_order_acq_rel);
    std::memset(lease.m_frame + frame, 0, n - frame);
    return lease;
}

FrameExchange::Lease::~Lease()
{
    if (!m_exchange)
        return;
    Impl& m = *m_exchange->m_p;
    {
        const MutexLock l(m.ring);
        m.spares.push_back(m_frame);
    }
    m.inside.fetch_sub(1, std::memory_order_acq_rel);
}

FrameExchange::Lease& FrameExchange::Lease::operator=(Lease&& o) noexcept
{
    std::swap(m_exchange, o.m_exchange);
    std::swap(m_frame, o.m_frame);
    return *this;
}

bool FrameExchange::PeekHead(uint32_t expected, uint32_t timeoutMs)
{
    Impl& m = *m_p;
    const Inside inside(m.inside);
    if (m.Held() == 0 && m.signal.Wait(timeoutMs) == platform::WAIT_TIMED_OUT)
        return false;
    // QUIRK: woken by a stale signal it answers for the frame that lay in the slot before.
    return m.heads[m.read.load(std::memory_order_relaxed)].load(std::memory_order_relaxed) == expected;
}

int32_t FrameExchange::Count() const { return m_p->Held(); }

FrameExchange::Turn::Turn(FrameExchange& fx, uint32_t timeoutMs) : m_fx(fx)
{
    Impl& m = *fx.m_p;
    m.inside.fetch_add(1, std::memory_order_acq_rel);
    m_held = m.turn.Wait(timeoutMs) == platform::WAIT_SIGNALLED;
    if (m_held && m.closing) {
        m.turn.Release();
        m_held = false;
    }
}

FrameExchange::Turn::~Turn()
{
    Impl& m = *m_fx.m_p;
    if (m_held)
        m.turn.Release();
    m.inside.fetch_sub(1, std::memory_order_acq_rel);
}

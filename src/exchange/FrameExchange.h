// Hands frames from the capture thread (one producer) to GetImage (one consumer at a time). A ring of two slots.
#pragma once
#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/Export.h"
#include "base/Shared.h"
#include "platform/Platform.h"

class KOV_CLASS FrameExchange {
public:
    static constexpr size_t SLOT_PAD = 64;

    explicit FrameExchange(uint32_t slotBytes);
    ~FrameExchange();  // Shut
    FrameExchange(const FrameExchange&) = delete;
    FrameExchange& operator=(const FrameExchange&) = delete;

    // Frees a consumer that still waits, and waits until it has left. Whoever comes later gets nothing.
    void Shut();
    void Reset();  // producer; empties the ring; a signal that stands in the semaphore stays
    // Producer. False when data is null or the ring is full: the newest frame is what is lost. What exceeds a slot is
    // left out.
    bool Insert(const uint8_t* data, int32_t size);
    // A block as large as a slot with its padding, for HandOver; it belongs to the exchange. Throws std::bad_alloc.
    uint8_t* MakeBlock();
    // Producer. As Insert, but block itself becomes the frame. The empty block that the producer goes on with; nullptr,
    // and block stays with it, where Insert gives false.
    uint8_t* HandOver(uint8_t* block, int32_t size);
    // Consumer. Waits at most twice timeoutMs. What exceeds the frame comes as zeros, what exceeds a slot is left untouched
    // in dest.
    bool Read(uint8_t* dest, int32_t size, uint32_t timeoutMs);

    // A frame whose memory is the reader's until the lease goes. The exchange outlives it: Shut waits.
    class KOV_CLASS Lease {
    public:
        Lease() = default;
        ~Lease();
        Lease(Lease&& o) noexcept : m_exchange(o.m_exchange), m_frame(o.m_frame) { o.m_exchange = nullptr; }
        Lease& operator=(Lease&& o) noexcept;
        explicit operator bool() const { return m_exchange != nullptr; }
        // A whole slot, and SLOT_PAD bytes that a vector kernel may touch.
        uint8_t* Frame() const { return m_frame; }

    private:
        friend class FrameExchange;
        FrameExchange* m_exchange = nullptr;
        uint8_t* m_frame = nullptr;
    };
    // Consumer. As Read, but nothing is copied: the slot goes on with spare memory. Within a slot, the bytes from the
    // frame's end up to size are zeros.
    Lease Take(int32_t size, uint32_t timeoutMs);
    // Consumer. Whether the first word of the oldest frame is `expected`; the frame stays.
    bool PeekHead(uint32_t expected, uint32_t timeoutMs);
    int32_t Count() const;

    // Consumer's turn: whoever reads and then works on the camera's buffers holds it meanwhile, one thread at a time.
    // False when another thread kept it for timeoutMs.
    class Turn {
    public:
        Turn(FrameExchange& fx, uint32_t timeoutMs);
        ~Turn();
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;
        explicit operator bool() const { return m_held; }

    private:
        FrameExchange& m_fx;
        bool m_held;
    };

private:
    struct Impl;
    std::unique_ptr<Impl> m_p;
};

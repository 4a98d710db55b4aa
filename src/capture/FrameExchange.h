// Hands frames from the capture thread (one producer) to GetImage (one consumer at a time). A ring of two slots.
#pragma once
#include <cstdint>
#include <memory>

#include "core/Export.h"
#include "core/Shared.h"
#include "platform/Platform.h"

class KOV_CLASS FrameExchange {
public:
    explicit FrameExchange(uint32_t dwSlotBytes);
    ~FrameExchange();
    FrameExchange(const FrameExchange&) = delete;
    FrameExchange& operator=(const FrameExchange&) = delete;

    void Reset();  // empties the ring; a signal that stands in the semaphore stays
    // Producer. False when pData is null or the ring is full: the newest frame is what is lost.
    bool Insert(const uint8_t* pData, int32_t iSize);
    // Consumer. Waits at most twice dwTimeoutMs.
    bool Read(uint8_t* pDest, int32_t iSize, uint32_t dwTimeoutMs);
    // Consumer. Whether the first word of the oldest frame is `expected`; the frame stays.
    bool PeekHead(uint32_t dwExpected, uint32_t dwTimeoutMs);
    int32_t Count() const;

private:
    struct Impl;
    std::unique_ptr<Impl> m_p;
};

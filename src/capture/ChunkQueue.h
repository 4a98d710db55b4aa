// The bulk requests of one frame, always one per chunk, and the buffers that they fill.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "camera/CCameraBase.h"
#include "capture/RunControl.h"
#include "platform/UsbDriver.h"
#include "usb/EndPoints.h"

class ChunkQueue {
public:
    ChunkQueue(CCameraBase& cam, const RunControl& run);
    ~ChunkQueue();  // Close, tried again for a while when it throws
    ChunkQueue(const ChunkQueue&) = delete;
    ChunkQueue& operator=(const ChunkQueue&) = delete;

    // Sets the transfer size and queues all chunks of a frame. twoBuffers: frames land in m_pAuxBuf1 and m_pAuxBuf2 in
    // turn. Otherwise all land in m_pAuxBuf1, and each chunk is copied to m_pAuxBuf2 before its request goes out again,
    // so that the frame at hand stands still.
    void Open(uint32_t chunk, int32_t frameBytes, bool twoBuffers);
    // After a reconnection: new events and requests, into the next buffer.
    void Reopen();

    struct Waits {
        uint32_t first;       // ms, first chunk
        uint32_t next;        // ms, after a chunk that came
        bool isCapped;        // `next` is only an upper limit of the current wait
        uint32_t failed;      // ms, after one that did not come
        uint32_t grace;       // ms that a chunk still on its way gets on top
        bool isLong = false;  // long exposure: its trace line names no wait
    };
    struct Result {
        uint32_t received;  // bytes
        bool finished;      // the last chunk's request ended well
        uint32_t wait;      // ms, the wait as it stands after the last chunk
    };
    // Takes one frame and queues the requests of the next.
    Result ReadFrame(const Waits& w);
    // Frame of the last ReadFrame; stands still until the next.
    uint8_t* Frame() const { return m_frame; }

    // Gives that frame, whole as it came, to the exchange without a copy. False where Insert gives false. Frame() is an empty
    // buffer afterwards.
    bool HandOver();

    void Resync();     // abort and reset of the endpoint, then all chunks into the next buffer
    void Flush();      // takes what lies there (2 ms a chunk) and queues again
    void KeepAlive();  // as Resync with 1 ms a chunk
    void Close();      // ends all requests; nothing writes into the buffers afterwards

    uint32_t Count() const { return uint32_t(m_slots.size()); }

private:
    struct Slot {
        platform::Overlapped ov{};
        uint8_t* context = nullptr;
        uint32_t error = platform::ERROR_BAD_PARAMETER;  // of its begin
    };

    CCyUSBEndPoint* EndPoint() const;
    uint32_t Offset(size_t n) const { return uint32_t(n) * m_chunk; }
    int32_t Size(size_t n) const;
    bool Wait(Slot& s, uint32_t ms);
    // The request is with the driver and its end has not been seen.
    static bool IsOut(const Slot& s) { return s.error == platform::ERROR_PENDING; }
    bool Finish(size_t n, int32_t* bytes);
    void Begin(size_t n, uint8_t* buf);
    void RequeueAll(uint32_t ms, uint8_t* next);
    uint8_t* Other() const;
    void OpenSlots();
    void CloseSlots(uint32_t ms);

    CCameraBase& m_cam;
    const RunControl& m_run;
    std::unique_ptr<std::vector<Slot>> m_slotMemory = std::make_unique<std::vector<Slot>>();
    std::vector<Slot>& m_slots = *m_slotMemory;
    uint32_t m_chunk = 0;
    uint32_t m_frameBytes = 0;
    bool m_twoBuffers = true;
    uint8_t* m_fill = nullptr;  // where the queued requests write
    uint8_t* m_next = nullptr;  // where a resync queues
    uint8_t* m_frame = nullptr;
};

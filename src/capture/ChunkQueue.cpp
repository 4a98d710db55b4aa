#include "capture/ChunkQueue.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>
#include <utility>

#include "base/Attempt.h"
#include "base/Trace.h"
#include "exchange/FrameExchange.h"
#include "platform/Platform.h"
#include "usb/CUsbLink.h"

namespace {

constexpr int CLOSE_TRIES = 100;
constexpr uint32_t CLOSE_PAUSE = 10;  // ms

}  // namespace

ChunkQueue::ChunkQueue(CCameraBase& cam, const RunControl& run)
    : m_cam(cam), m_run(run), m_fill(cam.m_pAuxBuf1), m_next(cam.m_pAuxBuf2), m_frame(cam.m_pAuxBuf1)
{
}

ChunkQueue::~ChunkQueue()
{
    for (int i = 0; i < CLOSE_TRIES; ++i) {
        if (Attempt("closing the queue", [this] { Close(); }))
            return;
        platform::SleepMs(CLOSE_PAUSE);
    }
    m_slotMemory.release();  // NOLINT(bugprone-unused-return-value): requests that cannot be ended write to them yet
}

// Asked for afresh each time: the link can be missing after a failed reconnection. Nobody replaces it behind this
// thread's back, since closing a camera waits for the thread first.
CCyUSBEndPoint* ChunkQueue::EndPoint() const { return m_cam.m_pUsbLink ? m_cam.m_pUsbLink->m_pBulkIn : nullptr; }

int32_t ChunkQueue::Size(size_t n) const { return int32_t(std::min(m_chunk, m_frameBytes - Offset(n))); }

uint8_t* ChunkQueue::Other() const
{
    if (!m_twoBuffers)
        return m_fill;
    return m_fill == m_cam.m_pAuxBuf1 ? m_cam.m_pAuxBuf2 : m_cam.m_pAuxBuf1;
}

// What WaitForXfer does, by the slot's own begin: the endpoint remembers only its latest, which may be another slot's.
bool ChunkQueue::Wait(Slot& s, uint32_t ms)
{
    if (s.error == platform::ERROR_NONE)
        return true;
    if (!IsOut(s))
        return false;
    if (!m_run.WaitEvent(s.ov.hEvent, ms))
        return false;
    s.error = platform::ERROR_NONE;
    return true;
}

bool ChunkQueue::Finish(size_t n, int32_t* piBytes)
{
    Slot& s = m_slots[n];
    *piBytes = Size(n);
    s.error = platform::ERROR_BAD_PARAMETER;
    uint8_t* const context = std::exchange(s.context, nullptr);
    bool ok = false;
    if (CCyUSBEndPoint* const ep = EndPoint()) {
        ok = ep->FinishDataXfer(m_fill + Offset(n), piBytes, &s.ov, context);
    } else {
        delete[] context;  // the link has gone and has completed the request
        *piBytes = 0;
    }
    *piBytes = std::clamp(*piBytes, 0, Size(n));
    return ok;
}

void ChunkQueue::Begin(size_t n, uint8_t* buf)
{
    Slot& s = m_slots[n];
    s.error = platform::ERROR_BAD_PARAMETER;
    CCyUSBEndPoint* const ep = EndPoint();
    if (!ep)
        return;
    platform::WaitEvent(s.ov.hEvent, 0);  // a signal of an earlier request must not end the wait for this one
    s.context = ep->BeginDataXfer(buf + Offset(n), Size(n), &s.ov);
    if (s.context)
        s.error = platform::LastError();  // this thread's: a Reset of another one may have stored its own in the endpoint
}

void ChunkQueue::OpenSlots()
{
    m_slots.resize((size_t(m_frameBytes) + m_chunk - 1) / m_chunk);
    if (CCyUSBEndPoint* const ep = EndPoint())
        ep->SetXferSize(m_chunk);
    for (size_t n = 0; n < m_slots.size(); ++n) {
        m_slots[n].ov.hEvent = platform::MakeEvent();
        if (!m_slots[n].ov.hEvent)
            throw std::bad_alloc();
        Begin(n, m_fill);
    }
}

void ChunkQueue::Open(uint32_t chunk, int32_t frameBytes, bool twoBuffers)
{
    Close();
    m_chunk = chunk;
    m_frameBytes = uint32_t(std::max(frameBytes, 0));
    m_twoBuffers = twoBuffers;
    m_fill = m_cam.m_pAuxBuf1;
    m_frame = twoBuffers ? m_cam.m_pAuxBuf1 : m_cam.m_pAuxBuf2;
    m_next = Other();
    OpenSlots();
}

void ChunkQueue::Reopen()
{
    CloseSlots(1);
    m_fill = Other();
    OpenSlots();
}

// A chunk whose request is still out keeps it: queueing a second one on the slot would leave two requests for one chunk,
// and the frame that comes late would land in the wrong places. So exactly one request a chunk is out at any time.
ChunkQueue::Result ChunkQueue::ReadFrame(const Waits& w)
{
    Result r{ 0, false, w.first };
    uint8_t* const data = m_fill;
    uint8_t* const next = Other();
    size_t kept = 0;
    for (size_t n = 0; n < m_slots.size(); ++n) {
        Slot& s = m_slots[n];
        const bool came = Wait(s, r.wait) || (w.grace != 0 && IsOut(s) && Wait(s, w.grace));
        if (!came && w.isLong)
            TraceLine("wait for xfer error:%d\n", int(n));
        else if (!came)
            TraceLine("wait for xfer error:%d %d\n", int(n), int(r.wait));
        r.wait = !came ? w.failed : w.isCapped ? std::min(r.wait, w.next) : w.next;
        if (IsOut(s)) {
            ++kept;
            r.finished = false;
            continue;
        }
        int32_t bytes = 0;
        r.finished = Finish(n, &bytes) && came;
        if (!came)
            bytes = 0;  // it never began; the record may still hold an earlier result
        if (!r.finished)
            TraceLine("FINISH xfer error:%d\n", int(n));
        r.received += uint32_t(bytes);
        if (!m_twoBuffers)
            std::memcpy(m_cam.m_pAuxBuf2 + Offset(n), data + Offset(n), size_t(bytes));
        Begin(n, next);
    }
    m_frame = m_twoBuffers ? data : m_cam.m_pAuxBuf2.Get();
    m_next = next;
    if (kept == 0) {
        m_fill = next;
    } else if (kept < m_slots.size() && r.received == 0) {
        // Some ended empty and were queued behind later chunks: back into order.
        if (CCyUSBEndPoint* const ep = EndPoint())
            ep->Abort();
        RequeueAll(2, next);
    }
    return r;
}

// All requests that wrote into it have ended: their successors write into the other buffer, or it is the copy.
bool ChunkQueue::HandOver()
{
    uint8_t* const empty = m_cam.m_pFrameExchange->HandOver(m_frame, int32_t(m_frameBytes));
    if (!empty)
        return false;
    (m_frame == m_cam.m_pAuxBuf1 ? m_cam.m_pAuxBuf1 : m_cam.m_pAuxBuf2) = empty;
    m_frame = empty;
    return true;
}

// All chunks again, in order. The caller has aborted: what is out ends at once.
void ChunkQueue::RequeueAll(uint32_t ms, uint8_t* next)
{
    for (size_t n = 0; n < m_slots.size(); ++n) {
        Wait(m_slots[n], ms);
        if (IsOut(m_slots[n]))
            continue;
        int32_t bytes = 0;
        Finish(n, &bytes);
        Begin(n, next);
    }
    m_fill = next;
}

void ChunkQueue::Resync()
{
    m_cam.ResetEndPoint(0x82);
    RequeueAll(2, m_next);
}

void ChunkQueue::KeepAlive()
{
    m_cam.ResetEndPoint(0x82);
    RequeueAll(1, Other());
}

void ChunkQueue::Flush()
{
    size_t output = 0;
    for (Slot& s : m_slots) {
        Wait(s, 2);
        output += IsOut(s);
    }
    if (output == m_slots.size())
        return;
    // Half a frame: what is queued again would stand behind the chunks that are still out.
    if (CCyUSBEndPoint* const ep = EndPoint(); ep && output != 0)
        ep->Abort();
    RequeueAll(2, m_fill);
}

void ChunkQueue::CloseSlots(uint32_t ms)
{
    for (size_t n = 0; n < m_slots.size(); ++n) {
        Slot& s = m_slots[n];
        if (!Wait(s, ms) && IsOut(s)) {
            if (CCyUSBEndPoint* const ep = EndPoint())
                ep->Abort();
            Wait(s, ms);
        }
        int32_t bytes = 0;
        if (s.context)
            Finish(n, &bytes);
        if (s.ov.hEvent)
            platform::FreeEvent(std::exchange(s.ov.hEvent, nullptr));
    }
    m_slots.clear();
}

void ChunkQueue::Close()
{
    if (m_slots.empty())
        return;
    if (CCyUSBEndPoint* const ep = EndPoint())
        ep->Abort();
    CloseSlots(1);
}

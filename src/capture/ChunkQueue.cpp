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
    : m_cam(cam), m_run(run), m_pFill(cam.m_pAuxBuf1), m_pNext(cam.m_pAuxBuf2), m_pFrame(cam.m_pAuxBuf1)
{
}

ChunkQueue::~ChunkQueue()
{
    for (int i = 0; i < CLOSE_TRIES; ++i) {
        if (Attempt("closing the queue", [this] { Close(); }))
            return;
        platform::SleepMs(CLOSE_PAUSE);
    }
    m_pSlots.release();  // NOLINT(bugprone-unused-return-value): requests that cannot be ended write to them yet
}

// Asked for afresh each time: the link can be missing after a failed reconnection. Nobody replaces it behind this
// thread's back, since closing a camera waits for the thread first.
CCyUSBEndPoint* ChunkQueue::EndPoint() const { return m_cam.m_pUsbLink ? m_cam.m_pUsbLink->m_pBulkIn : nullptr; }

int32_t ChunkQueue::Size(size_t n) const { return int32_t(std::min(m_dwChunk, m_dwFrameBytes - Offset(n))); }

uint8_t* ChunkQueue::Other() const
{
    if (!m_bTwoBuffers)
        return m_pFill;
    return m_pFill == m_cam.m_pAuxBuf1 ? m_cam.m_pAuxBuf2 : m_cam.m_pAuxBuf1;
}

// What WaitForXfer does, by the slot's own begin: the endpoint remembers only its latest, which may be another slot's.
bool ChunkQueue::Wait(Slot& s, uint32_t ms)
{
    if (s.dwError == platform::ERROR_NONE)
        return true;
    if (!IsOut(s))
        return false;
    if (!m_run.WaitEvent(s.ov.hEvent, ms))
        return false;
    s.dwError = platform::ERROR_NONE;
    return true;
}

bool ChunkQueue::Finish(size_t n, int32_t* piBytes)
{
    Slot& s = m_slots[n];
    *piBytes = Size(n);
    s.dwError = platform::ERROR_BAD_PARAMETER;
    uint8_t* const pContext = std::exchange(s.pContext, nullptr);
    bool ok = false;
    if (CCyUSBEndPoint* const ep = EndPoint()) {
        ok = ep->FinishDataXfer(m_pFill + Offset(n), piBytes, &s.ov, pContext);
    } else {
        delete[] pContext;  // the link has gone and has completed the request
        *piBytes = 0;
    }
    *piBytes = std::clamp(*piBytes, 0, Size(n));
    return ok;
}

void ChunkQueue::Begin(size_t n, uint8_t* buf)
{
    Slot& s = m_slots[n];
    s.dwError = platform::ERROR_BAD_PARAMETER;
    CCyUSBEndPoint* const ep = EndPoint();
    if (!ep)
        return;
    platform::WaitEvent(s.ov.hEvent, 0);  // a signal of an earlier request must not end the wait for this one
    s.pContext = ep->BeginDataXfer(buf + Offset(n), Size(n), &s.ov);
    if (s.pContext)
        s.dwError = platform::LastError();  // this thread's: a Reset of another one may have stored its own in the endpoint
}

void ChunkQueue::OpenSlots()
{
    m_slots.resize((size_t(m_dwFrameBytes) + m_dwChunk - 1) / m_dwChunk);
    if (CCyUSBEndPoint* const ep = EndPoint())
        ep->SetXferSize(m_dwChunk);
    for (size_t n = 0; n < m_slots.size(); ++n) {
        m_slots[n].ov.hEvent = platform::MakeEvent();
        if (!m_slots[n].ov.hEvent)
            throw std::bad_alloc();
        Begin(n, m_pFill);
    }
}

void ChunkQueue::Open(uint32_t chunk, int32_t frameBytes, bool twoBuffers)
{
    Close();
    m_dwChunk = chunk;
    m_dwFrameBytes = uint32_t(std::max(frameBytes, 0));
    m_bTwoBuffers = twoBuffers;
    m_pFill = m_cam.m_pAuxBuf1;
    m_pFrame = twoBuffers ? m_cam.m_pAuxBuf1 : m_cam.m_pAuxBuf2;
    m_pNext = Other();
    OpenSlots();
}

void ChunkQueue::Reopen()
{
    CloseSlots(1);
    m_pFill = Other();
    OpenSlots();
}

// A chunk whose request is still out keeps it: queueing a second one on the slot would leave two requests for one chunk,
// and the frame that comes late would land in the wrong places. So exactly one request a chunk is out at any time.
ChunkQueue::Result ChunkQueue::ReadFrame(const Waits& w)
{
    Result r{ 0, false, w.dwFirst };
    uint8_t* const data = m_pFill;
    uint8_t* const next = Other();
    size_t kept = 0;
    for (size_t n = 0; n < m_slots.size(); ++n) {
        Slot& s = m_slots[n];
        const bool came = Wait(s, r.dwWait) || (w.dwGrace != 0 && IsOut(s) && Wait(s, w.dwGrace));
        if (!came && w.bLong)
            TraceLine("wait for xfer error:%d\n", int(n));
        else if (!came)
            TraceLine("wait for xfer error:%d %d\n", int(n), int(r.dwWait));
        r.dwWait = !came ? w.dwFailed : w.bCap ? std::min(r.dwWait, w.dwNext) : w.dwNext;
        if (IsOut(s)) {
            ++kept;
            r.bFinished = false;
            continue;
        }
        int32_t bytes = 0;
        r.bFinished = Finish(n, &bytes) && came;
        if (!came)
            bytes = 0;  // it never began; the record may still hold an earlier result
        if (!r.bFinished)
            TraceLine("FINISH xfer error:%d\n", int(n));
        r.dwReceived += uint32_t(bytes);
        if (!m_bTwoBuffers)
            std::memcpy(m_cam.m_pAuxBuf2 + Offset(n), data + Offset(n), size_t(bytes));
        Begin(n, next);
    }
    m_pFrame = m_bTwoBuffers ? data : m_cam.m_pAuxBuf2.Get();
    m_pNext = next;
    if (kept == 0) {
        m_pFill = next;
    } else if (kept < m_slots.size() && r.dwReceived == 0) {
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
    uint8_t* const pEmpty = m_cam.m_pFrameExchange->HandOver(m_pFrame, int32_t(m_dwFrameBytes));
    if (!pEmpty)
        return false;
    (m_pFrame == m_cam.m_pAuxBuf1 ? m_cam.m_pAuxBuf1 : m_cam.m_pAuxBuf2) = pEmpty;
    m_pFrame = pEmpty;
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
    m_pFill = next;
}

void ChunkQueue::Resync()
{
    m_cam.ResetEndPoint(0x82);
    RequeueAll(2, m_pNext);
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
    RequeueAll(2, m_pFill);
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
        if (s.pContext)
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

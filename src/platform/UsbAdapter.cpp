#include "platform/UsbAdapter.h"

#include <algorithm>
#include <atomic>
#include <bitset>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <shared_mutex>
#include <string>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/Mutex.h"
#include "platform/DescriptorCache.h"
#include "platform/InterfaceGuids.h"
#include "platform/Platform.h"
#include "platform/UsbDriver.h"
#include "platform/XferRecord.h"

using usbstack::Status;

namespace platform {
namespace {

constexpr uint32_t DRIVER_VERSION = 0x01000000, STACK_VERSION = 0x00000300;
constexpr uint32_t PROP_LOCATION_INFO = 13, PROP_LOCATION_PATHS = 35;

// A control transfer cannot be called back from the stack. One that asks for no time limit gets this one, or closing
// the device could wait for ever.
constexpr uint32_t CONTROL_LIMIT_MS = 10'000;

thread_local uint32_t t_patienceMs = 0;  // of this thread's Patience; 0 without one

// With the clock running fast the 500 ms of a control request shrink to less than a busy machine needs to switch
// threads. Then a request gets this much real time before it counts as outstanding.
constexpr auto FAST_CLOCK_GRACE = std::chrono::milliseconds(100);

// What a stack's result looks like to the callers of a Windows driver.
struct ErrorRow {
    Status status;
    uint32_t dwError, dwNtStatus, dwUsbdStatus;
};
constexpr ErrorRow g_Errors[] = {
    { Status::Ok, ERROR_NONE, 0, 0 },
    { Status::Cancelled, ERROR_CANCELLED_IO, 0xC0000120, 0xC0010000 },
    { Status::Stall, ERROR_GENERAL_FAILURE, 0xC0000001, 0xC0000004 },
    { Status::TimedOut, ERROR_TIMED_OUT, 0xC00000B5, 0xC0006000 },
    { Status::Gone, ERROR_GONE, 0xC000009D, 0xC0007000 },
    { Status::Busy, ERROR_SHARED, 0xC0000043, 0xC0000500 },
    { Status::Access, ERROR_NO_ACCESS, 0xC0000022, 0xC0000500 },
    { Status::NoMemory, 8, 0xC000009A, 0x80000100 },
    { Status::Failed, ERROR_GENERAL_FAILURE, 0xC0000001, 0xC0000500 },
};

const ErrorRow& ErrorOf(Status status)
{
    for (const ErrorRow& r : g_Errors)
        if (r.status == status)
            return r;
    return g_Errors[std::size(g_Errors) - 1];
}

bool Fail(uint32_t dwError)
{
    SetLastError(dwError);
    return false;
}

class CDevice;

// One outstanding request. It belongs to the adapter, never to the caller: the caller may free record and slot while the
// request is out. The record is touched only inside the caller's own calls, when the caller vouches for it; a completion
// touches nothing of the caller's but the data buffer of a direct transfer and the event.
struct Request {
    usbstack::BulkRequest bulk;
    CDevice* pDevice = nullptr;
    std::shared_ptr<Request> self;  // keeps it alive while the stack has it
    EventHandle hEvent = nullptr;
    XferRecord* pRecord = nullptr;
    SetupPacket setup{};        // control only
    std::vector<uint8_t> data;  // control and buffered; a direct transfer lands in the caller's buffer
    uint32_t dwHead = 0;        // bytes of the result that precede the data
    bool bControl = false;
    // Under the device's mutex:
    bool bDone = false;
    bool bDetached = false;  // its slot is given up or serves a newer request: no event any more
    Status status = Status::Ok;
    uint32_t dwMoved = 0;
};

// An open device. Two locks: m_mutex over the requests, never held while the stack is called; m_useMutex held shared
// while the stack is called and alone while the stack's device is destroyed.
class CDevice {
public:
    // known may be null: then every descriptor is asked for.
    CDevice(std::unique_ptr<usbstack::IDevice> pStack, std::string name, std::shared_ptr<KnownDevice> known)
        : m_pStack(std::move(pStack)), m_sName(std::move(name)), m_pKnown(std::move(known))
    {
    }
    ~CDevice() { Shutdown(); }
    CDevice(const CDevice&) = delete;
    CDevice& operator=(const CDevice&) = delete;

    bool Claim()
    {
        const std::shared_lock use(m_useMutex);
        const Status status = m_pStack ? m_pStack->Claim() : Status::Gone;
        return status == Status::Ok || Fail(ErrorOf(status).dwError);
    }

    // Afterwards no request is out and nothing writes into a caller's memory. Any number of times.
    void Shutdown()
    {
        m_bClosed = true;
        std::bitset<256> endpoints;
        {
            const MutexLock l(m_mutex);
            endpoints = m_endpoints;
        }
        {
            const std::shared_lock use(m_useMutex);
            AbortControl();
            for (size_t ep = 0; ep < endpoints.size(); ++ep)
                if (m_pStack && endpoints[ep])
                    m_pStack->Abort(uint8_t(ep));
        }
        std::thread control;
        {
            const MutexLock l(m_mutex);
            m_bStopControl = true;
            control.swap(m_control);
        }
        m_controlWake.notify_all();
        if (control.joinable())
            control.join();
        const std::lock_guard use(m_useMutex);
        m_pStack.reset();
    }

    bool IoControl(uint32_t code, void* pIn, uint32_t dwIn, void* pOut, uint32_t output, uint32_t* pdwBytes,
                   Overlapped* overlapped);
    bool GetResult(Overlapped* overlapped, uint32_t* pdwBytes, bool wait);

private:
    bool Begin(uint32_t code, void* pIn, uint32_t dwIn, void* pOut, uint32_t output, uint32_t* pdwBytes, Overlapped* overlapped);
    bool Simple(uint32_t code, const uint8_t* pIn, uint32_t dwIn, uint8_t* pOut, uint32_t output, uint32_t* pdwBytes);

    bool StartControl(const std::shared_ptr<Request>& r);
    bool DoControl(const std::shared_ptr<Request>& r, uint32_t patienceMs);
    void ControlLoop();
    Status RunControl(Request& r, uint32_t* moved, uint32_t patienceMs = UINT32_MAX);
    void AbortControl();
    void Abort(uint8_t bEndpoint);

    static void OnBulk(usbstack::BulkRequest* p, Status status, uint32_t bytes)
    {
        Request* const r = static_cast<Request*>(p->pContext);
        const std::shared_ptr<Request> keep = std::move(r->self);
        r->pDevice->Complete(*r, status, bytes);
    }
    void Complete(Request& r, Status status, uint32_t dwMoved)
    {
        const MutexLock l(m_mutex);
        CompleteLocked(r, status, dwMoved);
    }
    void CompleteLocked(Request& r, Status status, uint32_t dwMoved) KOV_TSA(requires_capability(m_mutex))
    {
        if (r.bDone)
            return;
        r.bDone = true;
        r.status = status;
        r.dwMoved = dwMoved;
        // Signalled under the lock: a slot that gives the request up (and may free its event) does so under it too.
        if (!r.bDetached && r.hEvent)
            SignalEvent(r.hEvent);
        m_done.notify_all();
    }
    // Statuses and data into the caller's record; returns the byte count of the result.
    static uint32_t FillRecord(Request& r)
    {
        const ErrorRow& e = ErrorOf(r.status);
        r.pRecord->dwNtStatus = e.dwNtStatus;
        r.pRecord->dwUsbdStatus = e.dwUsbdStatus;
        const uint32_t n = std::min(r.dwMoved, uint32_t(r.data.size()));
        const bool input = !r.bControl || (r.setup.bmRequestType & 0x80) != 0;
        if (n != 0 && input)
            std::memcpy(reinterpret_cast<uint8_t*>(r.pRecord) + r.dwHead, r.data.data(), n);
        return r.status == Status::Ok || r.dwMoved != 0 ? r.dwHead + r.dwMoved : 0;
    }

    std::shared_mutex m_useMutex;
    std::unique_ptr<usbstack::IDevice> m_pStack;
    const std::string m_sName;
    const std::shared_ptr<KnownDevice> m_pKnown;
    std::atomic<bool> m_bClosed = false;

    Mutex m_mutex;
    std::condition_variable m_done;
    std::unordered_map<Overlapped*, std::shared_ptr<Request>> m_slots
        KOV_TSA(guarded_by(m_mutex));                           // the newest request of each slot
    std::bitset<256> m_endpoints KOV_TSA(guarded_by(m_mutex));  // that ever had a bulk request

    // Control requests are run one after another by a thread of the device, so that the caller can give up on one that
    // the camera does not answer. Started by the first.
    Mutex m_controlMutex;  // around the stack's control transfer
    std::thread m_control KOV_TSA(guarded_by(m_mutex));
    std::condition_variable m_controlWake;
    std::deque<std::shared_ptr<Request>> m_controlQueue KOV_TSA(guarded_by(m_mutex));
    std::shared_ptr<Request> m_controlRunning KOV_TSA(guarded_by(m_mutex));
    bool m_bStopControl KOV_TSA(guarded_by(m_mutex)) = false;
};

bool CDevice::IoControl(uint32_t code, void* pIn, uint32_t dwIn, void* pOut, uint32_t output, uint32_t* pdwBytes,
                        Overlapped* overlapped)
{
    const std::shared_lock use(m_useMutex);
    *pdwBytes = 0;
    if (m_bClosed)
        return Fail(ERROR_BAD_HANDLE);
    switch (code) {
    case IO_CONTROL:
    case IO_BUFFERED:
    case IO_DIRECT: return Begin(code, pIn, dwIn, pOut, output, pdwBytes, overlapped);
    default: break;
    }
    // These are done at once, whether overlapped or not.
    const bool ok = Simple(code, static_cast<uint8_t*>(pIn), dwIn, static_cast<uint8_t*>(pOut), output, pdwBytes);
    if (ok)
        SetLastError(ERROR_NONE);
    if (overlapped && overlapped->hEvent)
        SignalEvent(overlapped->hEvent);
    return ok;
}

bool CDevice::Simple(uint32_t code, const uint8_t* pIn, uint32_t dwIn, uint8_t* pOut, uint32_t output, uint32_t* pdwBytes)
{
    const auto Out = [&](const void* p, uint32_t n) {
        if (output < n)
            return Fail(ERROR_BAD_PARAMETER);
        std::memcpy(pOut, p, n);
        *pdwBytes = n;
        return true;
    };
    const auto Text = [&](const char* sz) {
        char ab[256] = {};
        std::strncpy(ab, sz, sizeof ab - 1);
        return Out(ab, sizeof ab);
    };
    const auto Result = [](Status s) { return s == Status::Ok || Fail(ErrorOf(s).dwError); };
    const auto Restarted = [&](Status s) {
        if (m_pKnown)
            m_pKnown->Clear();
        return Result(s);
    };

    switch (code) {
    case IO_DRIVER_VERSION: return Out(&DRIVER_VERSION, 4);
    case IO_STACK_VERSION: return Out(&STACK_VERSION, 4);
    case IO_DRIVER_NAME: return Text("KOVCamera2 USB adapter");
    case IO_FRIENDLY_NAME: return Text(m_sName.c_str());
    case IO_ALT_SETTING: {
        const int iAlt = m_pStack->GetAltSetting();
        const uint8_t alt = uint8_t(iAlt);
        return iAlt >= 0 ? Out(&alt, 1) : Fail(ERROR_GENERAL_FAILURE);
    }
    case IO_USB_ADDRESS: {
        const uint8_t address = m_pStack->GetAddress();
        return Out(&address, 1);
    }
    case IO_DEVICE_SPEED: {
        const usbstack::Speed speed = m_pStack->GetSpeed();
        const uint32_t dwSpeed = speed == usbstack::Speed::Super  ? 4u
                                 : speed == usbstack::Speed::High ? 2u
                                 : speed == usbstack::Speed::Full ? 1u
                                                                  : 0u;
        return Out(&dwSpeed, 4);
    }
    case IO_CYCLE_PORT: return Restarted(m_pStack->CyclePort());
    case IO_RESET_PARENT_PORT: return Restarted(m_pStack->ResetPort());
    case IO_RESET_PIPE:
        if (dwIn < 1)
            return Fail(ERROR_BAD_PARAMETER);
        return (pIn[0] & 0x7F) == 0 || Result(m_pStack->ResetPipe(pIn[0]));
    case IO_ABORT_PIPE:
        if (dwIn < 1)
            return Fail(ERROR_BAD_PARAMETER);
        Abort(pIn[0]);
        return true;
    case IO_SET_TRANSFER_SIZE: {
        if (dwIn < 5)
            return Fail(ERROR_BAD_PARAMETER);
        uint32_t dwSize;
        std::memcpy(&dwSize, pIn + 1, 4);
        m_pStack->SetTransferSize(pIn[0], dwSize);
        *pdwBytes = 5;
        return true;
    }
    default: return Fail(ERROR_BAD_PARAMETER);
    }
}

bool CDevice::Begin(uint32_t code, void* pIn, uint32_t dwIn, void* pOut, uint32_t output, uint32_t* pdwBytes,
                    Overlapped* overlapped)
{
    if (overlapped) {
        // Whatever this slot was used for before is over for the caller, also when the new request fails. An older one
        // that is still out goes on in the stack and ends unheard.
        const MutexLock l(m_mutex);
        const auto it = m_slots.find(overlapped);
        if (it != m_slots.end()) {
            it->second->bDetached = true;
            m_slots.erase(it);
        }
    }
    if (dwIn < RECORD_SIZE || !pIn)
        return Fail(ERROR_BAD_PARAMETER);
    XferRecord* const pRecord = static_cast<XferRecord*>(pIn);
    auto r = std::make_shared<Request>();
    r->pDevice = this;
    r->hEvent = overlapped ? overlapped->hEvent : nullptr;
    r->pRecord = pRecord;
    r->bControl = code == IO_CONTROL;
    if (code == IO_DIRECT) {
        // Of an isochronous transfer, which no stack offers, too: the data are one read.
        r->bulk.pData = static_cast<uint8_t*>(pOut);
        r->bulk.dwLength = output;
    } else {
        const uint32_t at = pRecord->dwBufferOffset;
        const uint32_t dwLength = pRecord->dwBufferLength;
        const uint32_t room = std::min(dwIn, output);
        if (pOut != pIn || at < RECORD_SIZE || at > room || dwLength > room - at)
            return Fail(ERROR_BAD_PARAMETER);
        const uint8_t* const pData = static_cast<uint8_t*>(pIn) + at;
        r->data.assign(pData, pData + dwLength);
        r->dwHead = at;
        r->bulk.pData = r->data.data();
        r->bulk.dwLength = dwLength;
    }
    if (r->bControl) {
        r->setup = pRecord->setup;
        if (r->setup.wLength > r->data.size())
            return Fail(ERROR_BAD_PARAMETER);
    } else if ((pRecord->bEndpointAddress & 0x80) == 0) {
        return Fail(ERROR_BAD_PARAMETER);  // the cameras have no endpoint to write to, and the stacks offer none
    }

    if (!overlapped && r->bControl) {
        r->status = RunControl(*r, &r->dwMoved);
        *pdwBytes = FillRecord(*r);
        SetLastError(ErrorOf(r->status).dwError);
        return r->status == Status::Ok;
    }
    if (!overlapped)
        return Fail(ERROR_BAD_PARAMETER);  // bulk requests are always overlapped

    {
        const MutexLock l(m_mutex);
        m_slots[overlapped] = r;
        if (!r->bControl)
            m_endpoints.set(pRecord->bEndpointAddress);
    }
    if (r->bControl) {
        if (!StartControl(r))
            return Fail(ERROR_PENDING);
        *pdwBytes = FillRecord(*r);
        SetLastError(ErrorOf(r->status).dwError);
        return r->status == Status::Ok;
    }
    r->bulk.bEndpoint = pRecord->bEndpointAddress;
    r->bulk.OnComplete = &CDevice::OnBulk;
    r->bulk.pContext = r.get();
    r->self = r;
    Status status = Status::NoMemory;
    try {
        status = m_pStack->SubmitBulk(&r->bulk);
    } catch (const std::bad_alloc&) {
    }
    if (status != Status::Ok) {
        r->self.reset();
        const ErrorRow& e = ErrorOf(status);
        pRecord->dwNtStatus = e.dwNtStatus;
        pRecord->dwUsbdStatus = e.dwUsbdStatus;
        const MutexLock l(m_mutex);
        m_slots.erase(overlapped);
        return Fail(e.dwError);
    }
    return Fail(ERROR_PENDING);
}

// On the thread that waits for it. False when others are before it.
bool CDevice::DoControl(const std::shared_ptr<Request>& r, uint32_t patienceMs)
{
    {
        const MutexLock l(m_mutex);
        if (m_bStopControl || m_controlRunning || !m_controlQueue.empty())
            return false;
        m_controlRunning = r;
    }
    uint32_t moved = 0;
    Status status = Status::NoMemory;
    try {
        status = RunControl(*r, &moved, patienceMs);
    } catch (const std::exception&) {
        // The request has failed; the next one may find memory again.
    }
    const MutexLock l(m_mutex);
    m_controlRunning.reset();
    CompleteLocked(*r, status == Status::TimedOut ? Status::Cancelled : status, moved);
    m_controlWake.notify_one();
    return true;
}

// True when the request is done already.
bool CDevice::StartControl(const std::shared_ptr<Request>& r)
{
    if (t_patienceMs != 0 && m_pStack->KeepsTimeLimits() && DoControl(r, t_patienceMs))
        return true;
    MutexLock l(m_mutex);
    if (!m_bStopControl && !m_control.joinable()) {
        try {
            m_control = std::thread(&CDevice::ControlLoop, this);
        } catch (const std::system_error&) {
            // No thread to be had: the caller waits here instead.
        }
    }
    if (!m_control.joinable()) {
        l.unlock();
        uint32_t dwMoved = 0;
        const Status status = RunControl(*r, &dwMoved);
        Complete(*r, status, dwMoved);
        return true;
    }
    try {
        m_controlQueue.push_back(r);
    } catch (const std::bad_alloc&) {
        CompleteLocked(*r, Status::NoMemory, 0);
        return true;
    }
    // Without the lock, which the thread would wake up into.
    l.unlock();
    m_controlWake.notify_one();
    if (ClockRate() <= 1.0)
        return false;
    l.lock();
    return WaitUntil(m_mutex, m_done, std::chrono::system_clock::now() + FAST_CLOCK_GRACE, [&] { return r->bDone; });
}

void CDevice::ControlLoop()
{
    MutexLock l(m_mutex);
    for (;;) {
        WaitUntil(m_mutex, m_controlWake, [&]() KOV_TSA(requires_capability(m_mutex)) {
            return m_bStopControl || (!m_controlQueue.empty() && !m_controlRunning);
        });
        if (m_controlQueue.empty())
            return;
        const std::shared_ptr<Request> r = std::move(m_controlQueue.front());
        m_controlQueue.pop_front();
        if (m_bStopControl)
            CompleteLocked(*r, Status::Cancelled, 0);
        if (r->bDone)
            continue;  // given up before it began
        m_controlRunning = r;
        l.unlock();
        uint32_t dwMoved = 0;
        Status status = Status::NoMemory;
        try {
            status = RunControl(*r, &dwMoved);
        } catch (const std::exception&) {
            // The request has failed; the next one may find memory again.
        }
        l.lock();
        m_controlRunning.reset();
        CompleteLocked(*r, status, dwMoved);
    }
}

// Called with the stack's device held: by the caller's shared lock, or because Shutdown joins the thread first.
Status CDevice::RunControl(Request& r, uint32_t* moved, uint32_t patienceMs)
{
    const SetupPacket& s = r.setup;
    const bool bKeep = m_pKnown && KnownDevice::IsRead(s);
    if (bKeep && m_pKnown->Answer(s, r.data.data(), moved))
        return Status::Ok;
    const uint32_t told = s.dwTimeout == 0 ? CONTROL_LIMIT_MS : std::min(s.dwTimeout, 3600u) * 1000;
    const MutexLock l(m_controlMutex);
    const Status status = m_pStack->Control(s.bmRequestType, s.bRequest, s.wValue, s.wIndex, r.data.data(), s.wLength,
                                            std::min(told, patienceMs), moved);
    if (bKeep && status == Status::Ok)
        m_pKnown->Store(s, { r.data.begin(), r.data.begin() + std::min(*moved, uint32_t(s.wLength)) });
    return status;
}

// Done for the caller at once. What the device still has is cancelled, so that the next request need not wait behind it:
// it would run out of time there and never reach the camera.
void CDevice::AbortControl()
{
    {
        const MutexLock l(m_mutex);
        for (const auto& r : m_controlQueue)
            CompleteLocked(*r, Status::Cancelled, 0);
        if (!m_controlRunning)
            return;
        CompleteLocked(*m_controlRunning, Status::Cancelled, 0);
    }
    if (m_pStack)
        m_pStack->AbortControl();
}

void CDevice::Abort(uint8_t bEndpoint)
{
    if ((bEndpoint & 0x7F) == 0)
        AbortControl();
    else
        m_pStack->Abort(bEndpoint);
}

bool CDevice::GetResult(Overlapped* overlapped, uint32_t* pdwBytes, bool wait)
{
    *pdwBytes = 0;
    MutexLock l(m_mutex);
    const auto it = m_slots.find(overlapped);
    if (it == m_slots.end())
        return Fail(ERROR_BAD_PARAMETER);
    const std::shared_ptr<Request> r = it->second;
    if (!r->bDone && wait) {
        WaitUntil(m_mutex, m_done, [&] { return r->bDone || r->bDetached; });
        if (r->bDetached)
            return Fail(ERROR_BAD_PARAMETER);
    }
    // Fetched or given up: either way the slot is free, and record and event are the caller's again.
    r->bDetached = true;
    m_slots.erase(overlapped);
    if (!r->bDone)
        return Fail(ERROR_INCOMPLETE);
    *pdwBytes = FillRecord(*r);
    SetLastError(ErrorOf(r->status).dwError);
    return r->status == Status::Ok;
}

// --- the driver -----------------------------------------------------------------------------------------------------

// The listing of this thread's BusLook, once it was made; nullptr without one.
thread_local std::optional<std::vector<usbstack::DeviceInfo>>* t_pLook = nullptr;

class CAdapter final : public IUsbDriver {
public:
    DevInfo GetClassDevs(const Guid& guid) override
    {
        int slot = 0;
        for (int i = 0; i < GUID_COUNT; ++i)
            if (std::memcmp(&g_InterfaceGuids[i], &guid, sizeof guid) == 0)
                slot = i + 1;
        auto p = std::make_unique<List>();
        for (const usbstack::DeviceInfo& d : Listing())
            if (InterfaceSlotOf(d.wProductId) == slot)
                p->push_back(d);
        SetLastError(ERROR_NONE);
        return p.release();
    }
    bool EnumInterface(DevInfo h, uint32_t index) override { return At(h, index) != nullptr; }
    bool EnumInfo(DevInfo h, uint32_t index) override { return At(h, index) != nullptr; }
    bool GetProperty(DevInfo h, uint32_t index, uint32_t property, char* pOut, uint32_t dwSize) override
    {
        const usbstack::DeviceInfo* const d = At(h, index);
        if (!d)
            return false;
        std::string s = "USB bus " + std::to_string(d->bBus) + ", port " + d->sPortPath;
        if (property == PROP_LOCATION_PATHS)
            s = "USBROOT(" + std::to_string(d->bBus) + ")#USB(" + d->sPortPath + ")";
        else if (property != PROP_LOCATION_INFO)
            return Fail(ERROR_BAD_PARAMETER);
        if (s.size() + 1 > dwSize)
            return Fail(122);  // the buffer is too small
        std::memcpy(pOut, s.c_str(), s.size() + 1);
        return true;
    }
    bool GetInterfacePath(DevInfo h, uint32_t index, std::string* psPath) override
    {
        const usbstack::DeviceInfo* const d = At(h, index);
        if (d)
            *psPath = d->sPath;
        return d != nullptr;
    }
    void DestroyList(DevInfo h) override { delete static_cast<List*>(h); }

    DeviceHandle Open(const char* path) override
    {
        Status status = Status::Failed;
        std::unique_ptr<usbstack::IDevice> pStack(UsbStack().Open(path, &status));
        if (!pStack) {
            SetLastError(status == Status::Gone ? ERROR_FILE_NOT_THERE : ErrorOf(status).dwError);
            return INVALID_DEVICE;
        }
        auto p = std::make_shared<CDevice>(std::move(pStack), "KOVCamera2 camera", m_known.Find(path));
        const MutexLock l(m_mutex);
        const DeviceHandle h = m_hNext++;  // never used again: an old handle finds nothing
        m_devices.emplace(h, std::move(p));
        SetLastError(ERROR_NONE);
        return h;
    }
    bool Close(DeviceHandle h) override
    {
        std::shared_ptr<CDevice> p;
        {
            const MutexLock l(m_mutex);
            const auto it = m_devices.find(h);
            if (it == m_devices.end())
                return Fail(ERROR_BAD_HANDLE);
            p = std::move(it->second);
            m_devices.erase(it);
        }
        p->Shutdown();
        SetLastError(ERROR_NONE);
        return true;
    }
    bool Claim(DeviceHandle h) override
    {
        const std::shared_ptr<CDevice> p = Find(h);
        return p ? p->Claim() : Fail(ERROR_BAD_HANDLE);
    }
    bool IoControl(DeviceHandle h, uint32_t code, void* pIn, uint32_t dwIn, void* pOut, uint32_t output, uint32_t* pdwBytes,
                   Overlapped* overlapped) override
    {
        const std::shared_ptr<CDevice> p = Find(h);
        return p ? p->IoControl(code, pIn, dwIn, pOut, output, pdwBytes, overlapped) : Fail(ERROR_BAD_HANDLE);
    }
    bool GetResult(DeviceHandle h, Overlapped* overlapped, uint32_t* pdwBytes, bool wait) override
    {
        const std::shared_ptr<CDevice> p = Find(h);
        return p ? p->GetResult(overlapped, pdwBytes, wait) : Fail(ERROR_BAD_HANDLE);
    }

    void Forget() { m_known.Clear(); }

    // There are no windows to notify.
    void* RegisterInterfaceNotice(void*, const void*) override { return Fail(ERROR_NOT_READY), nullptr; }
    void* RegisterHandleNotice(void*, const void*) override { return Fail(ERROR_NOT_READY), nullptr; }
    bool UnregisterNotice(void*) override { return Fail(ERROR_BAD_HANDLE); }

private:
    using List = std::vector<usbstack::DeviceInfo>;

    List Listing()
    {
        if (t_pLook && *t_pLook)
            return **t_pLook;
        usbstack::IStack& stack = UsbStack();
        if (m_pListed.exchange(&stack) != &stack)
            m_known.Clear();
        List list = stack.Enumerate();
        m_known.Update(list);
        if (t_pLook)
            *t_pLook = list;
        return list;
    }

    static const usbstack::DeviceInfo* At(DevInfo h, uint32_t index)
    {
        const List& list = *static_cast<const List*>(h);
        if (index < list.size())
            return &list[index];
        SetLastError(ERROR_NO_MORE);
        return nullptr;
    }
    std::shared_ptr<CDevice> Find(DeviceHandle h)
    {
        const MutexLock l(m_mutex);
        const auto it = m_devices.find(h);
        return it == m_devices.end() ? nullptr : it->second;
    }

    Mutex m_mutex;
    std::unordered_map<DeviceHandle, std::shared_ptr<CDevice>> m_devices KOV_TSA(guarded_by(m_mutex));
    DeviceHandle m_hNext KOV_TSA(guarded_by(m_mutex)) = 0x100;
    DescriptorCache m_known;
    std::atomic<usbstack::IStack*> m_pListed = nullptr;  // the stack of which m_known tells
};

CAdapter& Adapter()
{
    // Never destroyed: a camera that a program leaves open is closed after static objects may be gone.
    static CAdapter& s_adapter = *new CAdapter;
    return s_adapter;
}

thread_local uint32_t t_dwLastError = ERROR_NONE;
std::atomic<usbstack::IStack*> g_pStack = nullptr;
std::atomic<IUsbDriver*> g_pDriver = nullptr;

// The stack of a plugin in this process, which may have been loaded only now.
usbstack::IStack* PluginStack()
{
    static std::atomic<usbstack::PluginEntry> s_entry = nullptr;
    static std::atomic<double> s_dRate = 1.0;  // the clock's, as far as plugins set it
    usbstack::PluginEntry entry = s_entry.load();
    if (!entry)
        s_entry = entry = FindPluginEntry();
    const usbstack::Plugin* const p = entry ? entry() : nullptr;
    const bool usable = p && p->dwVersion == usbstack::PLUGIN_VERSION && p->pStack;
    const double rate = usable && p->dClockRate > 0 ? p->dClockRate : 1.0;
    if (s_dRate.exchange(rate) != rate)
        SetClockRate(rate);
    return usable ? p->pStack : nullptr;
}

usbstack::IStack* VirtualStack()
{
    usbstack::IStack* const p = g_pStack.load(std::memory_order_acquire);
    return p ? p : PluginStack();
}

}  // namespace

usbstack::IStack& UsbStack()
{
    usbstack::IStack* const p = VirtualStack();
    return p ? *p : NativeStack();
}

void SetUsbStack(usbstack::IStack* pStack)
{
    g_pStack.store(pStack, std::memory_order_release);
    Adapter().Forget();
}

struct BusLook::Listing {
    std::optional<std::vector<usbstack::DeviceInfo>> devices;
};

Patience::Patience(uint32_t ms) { t_patienceMs = ms; }
Patience::~Patience() { t_patienceMs = 0; }

BusLook::BusLook() : m_pListing(t_pLook ? nullptr : std::make_unique<Listing>())
{
    if (m_pListing)
        t_pLook = &m_pListing->devices;
}

BusLook::~BusLook()
{
    if (m_pListing)
        t_pLook = nullptr;
}

uint32_t LastError() { return t_dwLastError; }
void SetLastError(uint32_t dwError) { t_dwLastError = dwError; }

IUsbDriver& UsbDriver()
{
    if (IUsbDriver* const p = g_pDriver.load(std::memory_order_acquire))
        return *p;
    IUsbDriver* const native = NativeDriver();
    if (native && !VirtualStack())
        return *native;
    return Adapter();
}

void SetUsbDriver(IUsbDriver* p) { g_pDriver.store(p, std::memory_order_release); }

}  // namespace platform

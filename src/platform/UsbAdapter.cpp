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
    uint32_t error, ntStatus, usbdStatus;
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

bool Fail(uint32_t error)
{
    SetLastError(error);
    return false;
}

class CDevice;

// One outstanding request. It belongs to the adapter, never to the caller: the caller may free record and slot while the
// request is out. The record is touched only inside the caller's own calls, when the caller vouches for it; a completion
// touches nothing of the caller's but the data buffer of a direct transfer and the event.
struct Request {
    usbstack::BulkRequest bulk;
    CDevice* device = nullptr;
    std::shared_ptr<Request> self;  // keeps it alive while the stack has it
    EventHandle hEvent = nullptr;
    XferRecord* record = nullptr;
    SetupPacket setup{};        // control only
    std::vector<uint8_t> data;  // control and buffered; a direct transfer lands in the caller's buffer
    uint32_t head = 0;          // bytes of the result that precede the data
    bool control = false;
    // Under the device's mutex:
    bool done = false;
    bool detached = false;  // its slot is given up or serves a newer request: no event any more
    Status status = Status::Ok;
    uint32_t moved = 0;
};

// An open device. Two locks: m_mutex over the requests, never held while the stack is called; m_useMutex held shared
// while the stack is called and alone while the stack's device is destroyed.
class CDevice {
public:
    // known may be null: then every descriptor is asked for.
    CDevice(std::unique_ptr<usbstack::IDevice> stack, std::string name, std::shared_ptr<KnownDevice> known)
        : m_stack(std::move(stack)), m_name(std::move(name)), m_known(std::move(known))
    {
    }
    ~CDevice() { Shutdown(); }
    CDevice(const CDevice&) = delete;
    CDevice& operator=(const CDevice&) = delete;

    bool Claim()
    {
        const std::shared_lock use(m_useMutex);
        const Status status = m_stack ? m_stack->Claim() : Status::Gone;
        return status == Status::Ok || Fail(ErrorOf(status).error);
    }

    // Afterwards no request is out and nothing writes into a caller's memory. Any number of times.
    void Shutdown()
    {
        m_closed = true;
        std::bitset<256> endpoints;
        {
            const MutexLock l(m_mutex);
            endpoints = m_endpoints;
        }
        {
            const std::shared_lock use(m_useMutex);
            AbortControl();
            for (size_t ep = 0; ep < endpoints.size(); ++ep)
                if (m_stack && endpoints[ep])
                    m_stack->Abort(uint8_t(ep));
        }
        std::thread control;
        {
            const MutexLock l(m_mutex);
            m_stopControl = true;
            control.swap(m_control);
        }
        m_controlWake.notify_all();
        if (control.joinable())
            control.join();
        const std::lock_guard use(m_useMutex);
        m_stack.reset();
    }

    bool IoControl(uint32_t code, void* in, uint32_t inBytes, void* out, uint32_t outBytes, uint32_t* moved,
                   Overlapped* overlapped);
    bool GetResult(Overlapped* overlapped, uint32_t* moved, bool wait);

private:
    bool Begin(uint32_t code, void* in, uint32_t inBytes, void* out, uint32_t outBytes, uint32_t* moved, Overlapped* overlapped);
    bool Simple(uint32_t code, const uint8_t* in, uint32_t inBytes, uint8_t* out, uint32_t outBytes, uint32_t* moved);

    bool StartControl(const std::shared_ptr<Request>& r);
    bool DoControl(const std::shared_ptr<Request>& r, uint32_t patienceMs);
    void ControlLoop();
    Status RunControl(Request& r, uint32_t* moved, uint32_t patienceMs = UINT32_MAX);
    void AbortControl();
    void Abort(uint8_t endpoint);

    static void OnBulk(usbstack::BulkRequest* p, Status status, uint32_t bytes)
    {
        Request* const r = static_cast<Request*>(p->context);
        const std::shared_ptr<Request> keep = std::move(r->self);
        r->device->Complete(*r, status, bytes);
    }
    void Complete(Request& r, Status status, uint32_t moved)
    {
        const MutexLock l(m_mutex);
        CompleteLocked(r, status, moved);
    }
    void CompleteLocked(Request& r, Status status, uint32_t moved) KOV_TSA(requires_capability(m_mutex))
    {
        if (r.done)
            return;
        r.done = true;
        r.status = status;
        r.moved = moved;
        // Signalled under the lock: a slot that gives the request up (and may free its event) does so under it too.
        if (!r.detached && r.hEvent)
            SignalEvent(r.hEvent);
        m_done.notify_all();
    }
    // Statuses and data into the caller's record; returns the byte count of the result.
    static uint32_t FillRecord(Request& r)
    {
        const ErrorRow& e = ErrorOf(r.status);
        r.record->ntStatus = e.ntStatus;
        r.record->usbdStatus = e.usbdStatus;
        const uint32_t n = std::min(r.moved, uint32_t(r.data.size()));
        const bool input = !r.control || (r.setup.bmRequestType & 0x80) != 0;
        if (n != 0 && input)
            std::memcpy(reinterpret_cast<uint8_t*>(r.record) + r.head, r.data.data(), n);
        return r.status == Status::Ok || r.moved != 0 ? r.head + r.moved : 0;
    }

    std::shared_mutex m_useMutex;
    std::unique_ptr<usbstack::IDevice> m_stack;
    const std::string m_name;
    const std::shared_ptr<KnownDevice> m_known;
    std::atomic<bool> m_closed = false;

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
    bool m_stopControl KOV_TSA(guarded_by(m_mutex)) = false;
};

bool CDevice::IoControl(uint32_t code, void* in, uint32_t inBytes, void* out, uint32_t outBytes, uint32_t* moved,
                        Overlapped* overlapped)
{
    const std::shared_lock use(m_useMutex);
    *moved = 0;
    if (m_closed)
        return Fail(ERROR_BAD_HANDLE);
    switch (code) {
    case IO_CONTROL:
    case IO_BUFFERED:
    case IO_DIRECT: return Begin(code, in, inBytes, out, outBytes, moved, overlapped);
    default: break;
    }
    // These are done at once, whether overlapped or not.
    const bool ok = Simple(code, static_cast<uint8_t*>(in), inBytes, static_cast<uint8_t*>(out), outBytes, moved);
    if (ok)
        SetLastError(ERROR_NONE);
    if (overlapped && overlapped->hEvent)
        SignalEvent(overlapped->hEvent);
    return ok;
}

bool CDevice::Simple(uint32_t code, const uint8_t* in, uint32_t inBytes, uint8_t* out, uint32_t outBytes, uint32_t* moved)
{
    const auto Out = [&](const void* p, uint32_t n) {
        if (outBytes < n)
            return Fail(ERROR_BAD_PARAMETER);
        std::memcpy(out, p, n);
        *moved = n;
        return true;
    };
    const auto Text = [&](const char* sz) {
        char ab[256] = {};
        std::strncpy(ab, sz, sizeof ab - 1);
        return Out(ab, sizeof ab);
    };
    const auto Result = [](Status s) { return s == Status::Ok || Fail(ErrorOf(s).error); };
    const auto Restarted = [&](Status s) {
        if (m_known)
            m_known->Clear();
        return Result(s);
    };

    switch (code) {
    case IO_DRIVER_VERSION: return Out(&DRIVER_VERSION, 4);
    case IO_STACK_VERSION: return Out(&STACK_VERSION, 4);
    case IO_DRIVER_NAME: return Text("KOVCamera2 USB adapter");
    case IO_FRIENDLY_NAME: return Text(m_name.c_str());
    case IO_ALT_SETTING: {
        const int setting = m_stack->GetAltSetting();
        const uint8_t alt = uint8_t(setting);
        return setting >= 0 ? Out(&alt, 1) : Fail(ERROR_GENERAL_FAILURE);
    }
    case IO_USB_ADDRESS: {
        const uint8_t address = m_stack->GetAddress();
        return Out(&address, 1);
    }
    case IO_DEVICE_SPEED: {
        const usbstack::Speed speed = m_stack->GetSpeed();
        const uint32_t answer = speed == usbstack::Speed::Super  ? 4u
                                : speed == usbstack::Speed::High ? 2u
                                : speed == usbstack::Speed::Full ? 1u
                                                                 : 0u;
        return Out(&answer, 4);
    }
    case IO_CYCLE_PORT: return Restarted(m_stack->CyclePort());
    case IO_RESET_PARENT_PORT: return Restarted(m_stack->ResetPort());
    case IO_RESET_PIPE:
        if (inBytes < 1)
            return Fail(ERROR_BAD_PARAMETER);
        return (in[0] & 0x7F) == 0 || Result(m_stack->ResetPipe(in[0]));
    case IO_ABORT_PIPE:
        if (inBytes < 1)
            return Fail(ERROR_BAD_PARAMETER);
        Abort(in[0]);
        return true;
    case IO_SET_TRANSFER_SIZE: {
        if (inBytes < 5)
            return Fail(ERROR_BAD_PARAMETER);
        uint32_t size;
        std::memcpy(&size, in + 1, 4);
        m_stack->SetTransferSize(in[0], size);
        *moved = 5;
        return true;
    }
    default: return Fail(ERROR_BAD_PARAMETER);
    }
}

bool CDevice::Begin(uint32_t code, void* in, uint32_t inBytes, void* out, uint32_t outBytes, uint32_t* moved,
                    Overlapped* overlapped)
{
    if (overlapped) {
        // Whatever this slot was used for before is over for the caller, also when the new request fails. An older one
        // that is still out goes on in the stack and ends unheard.
        const MutexLock l(m_mutex);
        const auto it = m_slots.find(overlapped);
        if (it != m_slots.end()) {
            it->second->detached = true;
            m_slots.erase(it);
        }
    }
    if (inBytes < RECORD_SIZE || !in)
        return Fail(ERROR_BAD_PARAMETER);
    XferRecord* const record = static_cast<XferRecord*>(in);
    auto r = std::make_shared<Request>();
    r->device = this;
    r->hEvent = overlapped ? overlapped->hEvent : nullptr;
    r->record = record;
    r->control = code == IO_CONTROL;
    if (code == IO_DIRECT) {
        // Of an isochronous transfer, which no stack offers, too: the data are one read.
        r->bulk.data = static_cast<uint8_t*>(out);
        r->bulk.length = outBytes;
    } else {
        const uint32_t at = record->bufferOffset;
        const uint32_t length = record->bufferLength;
        const uint32_t room = std::min(inBytes, outBytes);
        if (out != in || at < RECORD_SIZE || at > room || length > room - at)
            return Fail(ERROR_BAD_PARAMETER);
        const uint8_t* const data = static_cast<uint8_t*>(in) + at;
        r->data.assign(data, data + length);
        r->head = at;
        r->bulk.data = r->data.data();
        r->bulk.length = length;
    }
    if (r->control) {
        r->setup = record->setup;
        if (r->setup.wLength > r->data.size())
            return Fail(ERROR_BAD_PARAMETER);
    } else if ((record->bEndpointAddress & 0x80) == 0) {
        return Fail(ERROR_BAD_PARAMETER);  // the cameras have no endpoint to write to, and the stacks offer none
    }

    if (!overlapped && r->control) {
        r->status = RunControl(*r, &r->moved);
        *moved = FillRecord(*r);
        SetLastError(ErrorOf(r->status).error);
        return r->status == Status::Ok;
    }
    if (!overlapped)
        return Fail(ERROR_BAD_PARAMETER);  // bulk requests are always overlapped

    {
        const MutexLock l(m_mutex);
        m_slots[overlapped] = r;
        if (!r->control)
            m_endpoints.set(record->bEndpointAddress);
    }
    if (r->control) {
        if (!StartControl(r))
            return Fail(ERROR_PENDING);
        *moved = FillRecord(*r);
        SetLastError(ErrorOf(r->status).error);
        return r->status == Status::Ok;
    }
    r->bulk.endpoint = record->bEndpointAddress;
    r->bulk.OnComplete = &CDevice::OnBulk;
    r->bulk.context = r.get();
    r->self = r;
    Status status = Status::NoMemory;
    try {
        status = m_stack->SubmitBulk(&r->bulk);
    } catch (const std::bad_alloc&) {
    }
    if (status != Status::Ok) {
        r->self.reset();
        const ErrorRow& e = ErrorOf(status);
        record->ntStatus = e.ntStatus;
        record->usbdStatus = e.usbdStatus;
        const MutexLock l(m_mutex);
        m_slots.erase(overlapped);
        return Fail(e.error);
    }
    return Fail(ERROR_PENDING);
}

// On the thread that waits for it. False when others are before it.
bool CDevice::DoControl(const std::shared_ptr<Request>& r, uint32_t patienceMs)
{
    {
        const MutexLock l(m_mutex);
        if (m_stopControl || m_controlRunning || !m_controlQueue.empty())
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
    if (t_patienceMs != 0 && m_stack->KeepsTimeLimits() && DoControl(r, t_patienceMs))
        return true;
    MutexLock l(m_mutex);
    if (!m_stopControl && !m_control.joinable()) {
        try {
            m_control = std::thread(&CDevice::ControlLoop, this);
        } catch (const std::system_error&) {
            // No thread to be had: the caller waits here instead.
        }
    }
    if (!m_control.joinable()) {
        l.unlock();
        uint32_t moved = 0;
        const Status status = RunControl(*r, &moved);
        Complete(*r, status, moved);
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
    return WaitUntil(m_mutex, m_done, std::chrono::system_clock::now() + FAST_CLOCK_GRACE, [&] { return r->done; });
}

void CDevice::ControlLoop()
{
    MutexLock l(m_mutex);
    for (;;) {
        WaitUntil(m_mutex, m_controlWake, [&]() KOV_TSA(requires_capability(m_mutex)) {
            return m_stopControl || (!m_controlQueue.empty() && !m_controlRunning);
        });
        if (m_controlQueue.empty())
            return;
        const std::shared_ptr<Request> r = std::move(m_controlQueue.front());
        m_controlQueue.pop_front();
        if (m_stopControl)
            CompleteLocked(*r, Status::Cancelled, 0);
        if (r->done)
            continue;  // given up before it began
        m_controlRunning = r;
        l.unlock();
        uint32_t moved = 0;
        Status status = Status::NoMemory;
        try {
            status = RunControl(*r, &moved);
        } catch (const std::exception&) {
            // The request has failed; the next one may find memory again.
        }
        l.lock();
        m_controlRunning.reset();
        CompleteLocked(*r, status, moved);
    }
}

// Called with the stack's device held: by the caller's shared lock, or because Shutdown joins the thread first.
Status CDevice::RunControl(Request& r, uint32_t* moved, uint32_t patienceMs)
{
    const SetupPacket& s = r.setup;
    const bool keep = m_known && KnownDevice::IsRead(s);
    if (keep && m_known->Answer(s, r.data.data(), moved))
        return Status::Ok;
    const uint32_t told = s.timeout == 0 ? CONTROL_LIMIT_MS : std::min(s.timeout, 3600u) * 1000;
    const MutexLock l(m_controlMutex);
    const Status status = m_stack->Control(s.bmRequestType, s.bRequest, s.wValue, s.wIndex, r.data.data(), s.wLength,
                                           std::min(told, patienceMs), moved);
    if (keep && status == Status::Ok)
        m_known->Store(s, { r.data.begin(), r.data.begin() + std::min(*moved, uint32_t(s.wLength)) });
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
    if (m_stack)
        m_stack->AbortControl();
}

void CDevice::Abort(uint8_t endpoint)
{
    if ((endpoint & 0x7F) == 0)
        AbortControl();
    else
        m_stack->Abort(endpoint);
}

bool CDevice::GetResult(Overlapped* overlapped, uint32_t* moved, bool wait)
{
    *moved = 0;
    MutexLock l(m_mutex);
    const auto it = m_slots.find(overlapped);
    if (it == m_slots.end())
        return Fail(ERROR_BAD_PARAMETER);
    const std::shared_ptr<Request> r = it->second;
    if (!r->done && wait) {
        WaitUntil(m_mutex, m_done, [&] { return r->done || r->detached; });
        if (r->detached)
            return Fail(ERROR_BAD_PARAMETER);
    }
    // Fetched or given up: either way the slot is free, and record and event are the caller's again.
    r->detached = true;
    m_slots.erase(overlapped);
    if (!r->done)
        return Fail(ERROR_INCOMPLETE);
    *moved = FillRecord(*r);
    SetLastError(ErrorOf(r->status).error);
    return r->status == Status::Ok;
}

// --- the driver -----------------------------------------------------------------------------------------------------

// The listing of this thread's BusLook, once it was made; nullptr without one.
thread_local std::optional<std::vector<usbstack::DeviceInfo>>* t_look = nullptr;

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
            if (InterfaceSlotOf(d.productId) == slot)
                p->push_back(d);
        SetLastError(ERROR_NONE);
        return p.release();
    }
    bool EnumInterface(DevInfo h, uint32_t index) override { return At(h, index) != nullptr; }
    bool EnumInfo(DevInfo h, uint32_t index) override { return At(h, index) != nullptr; }
    bool GetProperty(DevInfo h, uint32_t index, uint32_t property, char* out, uint32_t size) override
    {
        const usbstack::DeviceInfo* const d = At(h, index);
        if (!d)
            return false;
        std::string s = "USB bus " + std::to_string(d->bus) + ", port " + d->portPath;
        if (property == PROP_LOCATION_PATHS)
            s = "USBROOT(" + std::to_string(d->bus) + ")#USB(" + d->portPath + ")";
        else if (property != PROP_LOCATION_INFO)
            return Fail(ERROR_BAD_PARAMETER);
        if (s.size() + 1 > size)
            return Fail(122);  // the buffer is too small
        std::memcpy(out, s.c_str(), s.size() + 1);
        return true;
    }
    bool GetInterfacePath(DevInfo h, uint32_t index, std::string* psPath) override
    {
        const usbstack::DeviceInfo* const d = At(h, index);
        if (d)
            *psPath = d->path;
        return d != nullptr;
    }
    void DestroyList(DevInfo h) override { delete static_cast<List*>(h); }

    DeviceHandle Open(const char* path) override
    {
        Status status = Status::Failed;
        std::unique_ptr<usbstack::IDevice> stack(UsbStack().Open(path, &status));
        if (!stack) {
            SetLastError(status == Status::Gone ? ERROR_FILE_NOT_THERE : ErrorOf(status).error);
            return INVALID_DEVICE;
        }
        auto p = std::make_shared<CDevice>(std::move(stack), "KOVCamera2 camera", m_known.Find(path));
        const MutexLock l(m_mutex);
        const DeviceHandle h = m_next++;  // never used again: an old handle finds nothing
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
    bool IoControl(DeviceHandle h, uint32_t code, void* in, uint32_t inBytes, void* out, uint32_t outBytes, uint32_t* moved,
                   Overlapped* overlapped) override
    {
        const std::shared_ptr<CDevice> p = Find(h);
        return p ? p->IoControl(code, in, inBytes, out, outBytes, moved, overlapped) : Fail(ERROR_BAD_HANDLE);
    }
    bool GetResult(DeviceHandle h, Overlapped* overlapped, uint32_t* moved, bool wait) override
    {
        const std::shared_ptr<CDevice> p = Find(h);
        return p ? p->GetResult(overlapped, moved, wait) : Fail(ERROR_BAD_HANDLE);
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
        if (t_look && *t_look)
            return **t_look;
        usbstack::IStack& stack = UsbStack();
        if (m_listed.exchange(&stack) != &stack)
            m_known.Clear();
        List list = stack.Enumerate();
        m_known.Update(list);
        if (t_look)
            *t_look = list;
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
    DeviceHandle m_next KOV_TSA(guarded_by(m_mutex)) = 0x100;
    DescriptorCache m_known;
    std::atomic<usbstack::IStack*> m_listed = nullptr;  // the stack of which m_known tells
};

CAdapter& Adapter()
{
    // Never destroyed: a camera that a program leaves open is closed after static objects may be gone.
    static CAdapter& s_adapter = *new CAdapter;
    return s_adapter;
}

thread_local uint32_t t_lastError = ERROR_NONE;
std::atomic<usbstack::IStack*> g_Stack = nullptr;
std::atomic<IUsbDriver*> g_Driver = nullptr;

// The stack of a plugin in this process, which may have been loaded only now.
usbstack::IStack* PluginStack()
{
    static std::atomic<usbstack::PluginEntry> s_entry = nullptr;
    static std::atomic<double> s_rate = 1.0;  // the clock's, as far as plugins set it
    usbstack::PluginEntry entry = s_entry.load();
    if (!entry)
        s_entry = entry = FindPluginEntry();
    const usbstack::Plugin* const p = entry ? entry() : nullptr;
    const bool usable = p && p->version == usbstack::PLUGIN_VERSION && p->stack;
    const double rate = usable && p->clockRate > 0 ? p->clockRate : 1.0;
    if (s_rate.exchange(rate) != rate)
        SetClockRate(rate);
    return usable ? p->stack : nullptr;
}

usbstack::IStack* VirtualStack()
{
    usbstack::IStack* const p = g_Stack.load(std::memory_order_acquire);
    return p ? p : PluginStack();
}

}  // namespace

usbstack::IStack& UsbStack()
{
    usbstack::IStack* const p = VirtualStack();
    return p ? *p : NativeStack();
}

void SetUsbStack(usbstack::IStack* stack)
{
    g_Stack.store(stack, std::memory_order_release);
    Adapter().Forget();
}

struct BusLook::Listing {
    std::optional<std::vector<usbstack::DeviceInfo>> devices;
};

Patience::Patience(uint32_t ms) { t_patienceMs = ms; }
Patience::~Patience() { t_patienceMs = 0; }

BusLook::BusLook() : m_listing(t_look ? nullptr : std::make_unique<Listing>())
{
    if (m_listing)
        t_look = &m_listing->devices;
}

BusLook::~BusLook()
{
    if (m_listing)
        t_look = nullptr;
}

uint32_t LastError() { return t_lastError; }
void SetLastError(uint32_t error) { t_lastError = error; }

IUsbDriver& UsbDriver()
{
    if (IUsbDriver* const p = g_Driver.load(std::memory_order_acquire))
        return *p;
    IUsbDriver* const native = NativeDriver();
    if (native && !VirtualStack())
        return *native;
    return Adapter();
}

void SetUsbDriver(IUsbDriver* p) { g_Driver.store(p, std::memory_order_release); }

}  // namespace platform

#include "usb/EndPoints.h"

#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "base/Trace.h"
#include "platform/Platform.h"

using platform::Overlapped;
using platform::UsbDriver;

namespace {

constexpr uint32_t ABORT_WAIT_MS = 50;
constexpr uint32_t WAIT_FAILED = 0xFFFFFFFFu;

class Event {
public:
    Event() : m_h(platform::MakeEvent()) {}
    ~Event()
    {
        if (m_h)
            platform::FreeEvent(m_h);
    }
    Event(const Event&) = delete;
    Event& operator=(const Event&) = delete;
    operator platform::EventHandle() const { return m_h; }

private:
    const platform::EventHandle m_h;
};

XferRecord* Record(uint8_t* context) { return reinterpret_cast<XferRecord*>(context); }

// The trace strings print addresses with %x.
unsigned Low(const void* p) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)); }

// What every begin ends with. The error is stored whatever the call returned; ERROR_PENDING is the normal case.
uint8_t* Begin(CCyUSBEndPoint& ep, uint32_t code, std::unique_ptr<uint8_t[]> record, uint32_t input, uint8_t* out,
               uint32_t output, Overlapped* overlapped)
{
    uint32_t bytes = 0;
    UsbDriver().IoControl(ep.m_hDevice, code, record.get(), input, out, output, &bytes, overlapped);
    ep.m_uLastError = platform::LastError();
    return record.release();
}

}  // namespace

CCyUSBEndPoint::CCyUSBEndPoint(platform::DeviceHandle device, const EndPointDescriptor* desc, const CompanionDescriptor* comp)
    : m_hDevice(device)
{
    if (!desc)
        return;
    m_length = desc->bLength;
    m_descriptorType = desc->bDescriptorType;
    m_endpointAddress = desc->bEndpointAddress;
    m_attributes = desc->bmAttributes;
    m_interval = desc->bInterval;
    m_bIn = (m_endpointAddress & 0x80) != 0;
    m_iMult = uint16_t(((desc->wMaxPacketSize >> 11) & 3) + 1);
    m_iMaxPktSize = uint16_t((desc->wMaxPacketSize & 0x7FF) * m_iMult);
    if (!comp)
        return;
    m_compLength = comp->bLength;
    m_compDescriptorType = comp->bDescriptorType;
    m_maxBurst = comp->bMaxBurst;
    m_compAttributes = comp->bmAttributes;
    m_bytesPerInterval = comp->wBytesPerInterval;
    m_iMaxPktSize = uint16_t(m_iMaxPktSize * (m_maxBurst + 1));
    if ((m_attributes & 3) == 1)
        m_iMaxPktSize = uint16_t(m_iMaxPktSize * ((m_compAttributes & 3) + 1));
}

uint8_t* CCyUSBEndPoint::BeginDirectXfer(uint8_t* buf, int32_t length, Overlapped* overlapped)
{
    TraceLine("Begin direct\n");
    if (!platform::IsDeviceOpen(m_hDevice))
        return nullptr;
    auto p = std::make_unique<uint8_t[]>(RECORD_SIZE);
    TraceLine("Begin direct:0x%x Newbuf:0x%x\n", Low(overlapped), Low(p.get()));
    XferRecord* const r = Record(p.get());
    r->bEndpointAddress = m_endpointAddress;
    uint8_t* const context = Begin(*this, platform::IO_DIRECT, std::move(p), RECORD_SIZE, buf, uint32_t(length), overlapped);
    m_uUsbdStatus = r->usbdStatus;
    m_uNtStatus = r->ntStatus;
    return context;
}

uint8_t* CCyUSBEndPoint::BeginBufXfer(uint8_t* buf, int32_t length, Overlapped* overlapped)
{
    if (!platform::IsDeviceOpen(m_hDevice) || length < 0)
        return nullptr;
    const uint32_t size = RECORD_SIZE + uint32_t(length);
    auto p = std::make_unique<uint8_t[]>(size);
    TraceLine("Begin buf:0x%x Newbuf:0x%x\n", Low(overlapped), Low(p.get()));
    XferRecord* const r = Record(p.get());
    r->bEndpointAddress = m_endpointAddress;
    r->bufferOffset = RECORD_SIZE;
    r->bufferLength = uint32_t(length);
    if (length != 0)
        std::memcpy(p.get() + RECORD_SIZE, buf, size_t(length));
    uint8_t* const context =
        Begin(*this, platform::IO_BUFFERED, std::move(p), size, reinterpret_cast<uint8_t*>(r), size, overlapped);
    m_uUsbdStatus = r->usbdStatus;
    m_uNtStatus = r->ntStatus;
    return context;
}

bool CCyUSBEndPoint::FinishDataXfer(uint8_t* buf, int32_t* piLength, Overlapped* overlapped, uint8_t* context,
                                    IsoPacketInfo* infos)
{
    // A begin on a closed device gave no context; there is nothing to finish.
    if (!context) {
        *piLength = 0;
        m_uBytesXferred = 0;
        return false;
    }
    const std::unique_ptr<uint8_t[]> owner(context);
    XferRecord* const r = Record(context);

    uint32_t bytes = 0;
    const bool result = UsbDriver().GetResult(m_hDevice, overlapped, &bytes, false);
    // A count within the header would come out negative; it means no data, as 0 does.
    const uint32_t length = bytes > r->bufferOffset ? bytes - r->bufferOffset : 0;
    *piLength = int32_t(length);
    m_uBytesXferred = length;
    m_uUsbdStatus = r->usbdStatus;
    m_uNtStatus = r->ntStatus;

    if (m_bIn && m_bDirect == 0 && length >= 1)
        std::memcpy(buf, context + r->bufferOffset, length);
    if (infos && length >= 1) {
        std::memset(infos, 0, r->isoPacketLength);
        std::memcpy(infos, context + r->isoPacketOffset, r->isoPacketLength);
    }
    TraceLine("Finish :0x%x Delete:0x%x rResult:%d USBstatus:%d Ntstatus:%d\n", Low(overlapped), Low(context), int(result),
              int(m_uUsbdStatus), int(m_uNtStatus));
    return result && m_uUsbdStatus == 0 && m_uNtStatus == 0;
}

// m_uLastError is that of the most recent begin on this endpoint, whatever slot is handed in.
bool CCyUSBEndPoint::WaitForXfer(Overlapped* overlapped, uint32_t timeoutMs)
{
    if (m_uLastError == platform::ERROR_NONE)
        return true;
    if (m_uLastError != platform::ERROR_PENDING)
        return false;
    return platform::WaitEvent(overlapped->hEvent, timeoutMs) == platform::WAIT_SIGNALLED;
}

bool CCyUSBEndPoint::WaitOrAbortXfer(Overlapped* overlapped)
{
    m_uLastError = platform::LastError();
    if (m_uLastError == platform::ERROR_NONE)
        return true;
    if (m_uLastError != platform::ERROR_PENDING)
        return false;
    uint32_t wait = platform::WaitEvent(overlapped->hEvent, m_iTimeOut);
    if (wait != platform::WAIT_TIMED_OUT)
        return wait == platform::WAIT_SIGNALLED;
    Abort();
    wait = platform::WaitEvent(overlapped->hEvent, ABORT_WAIT_MS);
    if (wait == platform::WAIT_TIMED_OUT || wait == WAIT_FAILED) {
        Abort();
        wait = platform::WaitEvent(overlapped->hEvent, platform::WAIT_FOREVER);
    }
    return wait == platform::WAIT_SIGNALLED;
}

bool CCyUSBEndPoint::XferData(uint8_t* buf, int32_t* piLength, IsoPacketInfo* infos)
{
    const Event event;
    if (!event)
        throw std::bad_alloc();
    Overlapped ov{};
    ov.hEvent = event;
    uint8_t* context;
    {
        const platform::Patience patience(m_iTimeOut);
        context = BeginDataXfer(buf, *piLength, &ov);
    }
    // Without a context no request is out, and LastError() would be that of some earlier call.
    const bool wait = context && WaitOrAbortXfer(&ov);
    const bool finished = FinishDataXfer(buf, piLength, &ov, context, infos);
    return wait && finished;
}

bool CCyUSBEndPoint::Abort()
{
    const Event event;  // may be none: an abort must come through without memory
    Overlapped ov{};
    ov.hEvent = event;
    uint32_t bytes = 0;
    if (!UsbDriver().IoControl(m_hDevice, platform::IO_ABORT_PIPE, &m_endpointAddress, 1, nullptr, 0, &bytes, &ov) &&
        platform::LastError() == platform::ERROR_PENDING && event)
        platform::WaitEvent(event, platform::WAIT_FOREVER);
    return true;
}

bool CCyUSBEndPoint::Reset()
{
    uint32_t bytes = 0;
    const bool ok = UsbDriver().IoControl(m_hDevice, platform::IO_RESET_PIPE, &m_endpointAddress, 1, nullptr, 0, &bytes, nullptr);
    if (!ok)
        m_uLastError = platform::LastError();
    return ok;
}

void CCyUSBEndPoint::SetXferSize(uint32_t size)
{
    if (m_hDevice == platform::INVALID_DEVICE || m_iMaxPktSize == 0)
        return;
#pragma pack(push, 1)
    struct {
        uint8_t address;
        uint32_t size;
    } block;
#pragma pack(pop)
    static_assert(sizeof block == 5);
    block.address = m_endpointAddress;
    const uint32_t rest = size % m_iMaxPktSize;
    block.size = rest == 0 ? size : size + (m_iMaxPktSize - rest);
    uint32_t bytes = 0;
    if (!UsbDriver().IoControl(m_hDevice, platform::IO_SET_TRANSFER_SIZE, &block, sizeof block, &block, sizeof block, &bytes,
                               nullptr))
        m_uLastError = platform::LastError();
}

// --- control --------------------------------------------------------------------------------------------------------

CCyControlEndPoint::CCyControlEndPoint(platform::DeviceHandle device, const EndPointDescriptor* desc)
    : CCyUSBEndPoint(device, desc, nullptr)
{
    m_bDirect = 0;
}

uint8_t* CCyControlEndPoint::BeginDataXfer(uint8_t* buf, int32_t length, Overlapped* overlapped)
{
    if (!platform::IsDeviceOpen(m_hDevice) || length < 0)
        return nullptr;
    m_bIn = m_iDirection == 1;
    const uint32_t size = RECORD_SIZE + uint32_t(length);
    auto p = std::make_unique<uint8_t[]>(size);
    TraceLine("Begin Control:0x%x Newbuf:0x%x\n", Low(overlapped), Low(p.get()));
    XferRecord* const r = Record(p.get());
    r->setup.bmRequestType = uint8_t((m_iDirection << 7) | ((m_iReqType & 3) << 5) | (m_iTarget & 31));
    r->setup.bRequest = m_iReqCode;
    r->setup.wValue = m_iValue;
    r->setup.wIndex = m_iIndex;
    r->setup.wLength = uint16_t(length);
    // Whole seconds, but a limit below one second must not become "none".
    r->setup.timeout = m_iTimeOut >= 1 && m_iTimeOut <= 999 ? 1 : m_iTimeOut / 1000;
    r->bufferOffset = RECORD_SIZE;
    r->bufferLength = uint32_t(length);
    if (length != 0)
        std::memcpy(p.get() + RECORD_SIZE, buf, size_t(length));
    return Begin(*this, platform::IO_CONTROL, std::move(p), size, reinterpret_cast<uint8_t*>(r), size, overlapped);
}

// --- bulk, interrupt, isochronous -----------------------------------------------------------------------------------

uint8_t* CCyUSBEndPoint::BeginByMode(uint8_t* buf, int32_t length, Overlapped* overlapped)
{
    if (!platform::IsDeviceOpen(m_hDevice))
        return nullptr;
    return m_bDirect == 1 ? BeginDirectXfer(buf, length, overlapped) : BeginBufXfer(buf, length, overlapped);
}

uint8_t* CCyBulkEndPoint::BeginDataXfer(uint8_t* buf, int32_t length, Overlapped* overlapped)
{
    return BeginByMode(buf, length, overlapped);
}

uint8_t* CCyInterruptEndPoint::BeginDataXfer(uint8_t* buf, int32_t length, Overlapped* overlapped)
{
    return BeginByMode(buf, length, overlapped);
}

uint8_t* CCyIsocEndPoint::BeginDataXfer(uint8_t* buf, int32_t length, Overlapped* overlapped)
{
    return BeginByMode(buf, length, overlapped);
}

// buffered: the data stand behind the packet table; else they go to the caller's buffer.
uint8_t* CCyIsocEndPoint::BeginIsoc(uint8_t* buf, int32_t length, Overlapped* overlapped, bool buffered)
{
    if (!platform::IsDeviceOpen(m_hDevice) || m_iMaxPktSize == 0 || length <= 0)
        return nullptr;
    const uint32_t packets = (uint32_t(length) + m_iMaxPktSize - 1) / m_iMaxPktSize;
    const uint32_t table = packets * uint32_t(sizeof(IsoPacketInfo));
    const uint32_t head = RECORD_SIZE + table;
    const uint32_t size = buffered ? head + uint32_t(length) : head;
    auto p = std::make_unique<uint8_t[]>(size);
    if (buffered)
        TraceLine("Begin buf:0x%x Newbuf:0x%x\n", Low(overlapped), Low(p.get()));
    else
        TraceLine("Begin direct:0x%x Newbuf:0x%x\n", Low(overlapped), Low(p.get()));
    XferRecord* const r = Record(p.get());
    r->bEndpointAddress = m_endpointAddress;
    r->isoPacketOffset = RECORD_SIZE;
    r->isoPacketLength = table;
    if (buffered) {
        r->bufferOffset = head;
        r->bufferLength = uint32_t(length);
        std::memcpy(p.get() + head, buf, size_t(length));
    }
    uint8_t* const context =
        buffered ? Begin(*this, platform::IO_BUFFERED, std::move(p), size, reinterpret_cast<uint8_t*>(r), size, overlapped)
                 : Begin(*this, platform::IO_DIRECT, std::move(p), size, buf, uint32_t(length), overlapped);
    m_uUsbdStatus = r->usbdStatus;
    m_uNtStatus = r->ntStatus;
    return context;
}

uint8_t* CCyIsocEndPoint::BeginDirectXfer(uint8_t* buf, int32_t length, Overlapped* overlapped)
{
    return BeginIsoc(buf, length, overlapped, false);
}

uint8_t* CCyIsocEndPoint::BeginBufXfer(uint8_t* buf, int32_t length, Overlapped* overlapped)
{
    return BeginIsoc(buf, length, overlapped, true);
}

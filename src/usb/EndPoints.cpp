#include "usb/EndPoints.h"

#include <cstring>
#include <memory>
#include <new>

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

XferRecord* Record(uint8_t* pContext) { return reinterpret_cast<XferRecord*>(pContext); }

// The trace strings print addresses with %x.
unsigned Low(const void* p) { return static_cast<unsigned>(reinterpret_cast<uintptr_t>(p)); }

// What every begin ends with. The error is stored whatever the call returned; ERROR_PENDING is the normal case.
uint8_t* Begin(CCyUSBEndPoint& ep, uint32_t dwCode, std::unique_ptr<uint8_t[]> pRecord, uint32_t dwIn, uint8_t* pOut,
               uint32_t dwOut, Overlapped* pOverlapped)
{
    uint32_t dwBytes = 0;
    UsbDriver().IoControl(ep.m_hDevice, dwCode, pRecord.get(), dwIn, pOut, dwOut, &dwBytes, pOverlapped);
    ep.m_uLastError = platform::LastError();
    return pRecord.release();
}

}  // namespace

CCyUSBEndPoint::CCyUSBEndPoint(platform::DeviceHandle hDevice, const EndPointDescriptor* pDesc, const CompanionDescriptor* pComp)
    : m_hDevice(hDevice)
{
    if (!pDesc)
        return;
    m_bLength = pDesc->bLength;
    m_bDescriptorType = pDesc->bDescriptorType;
    m_bEndpointAddress = pDesc->bEndpointAddress;
    m_bmAttributes = pDesc->bmAttributes;
    m_bInterval = pDesc->bInterval;
    m_bIn = (m_bEndpointAddress & 0x80) != 0;
    m_iMult = uint16_t(((pDesc->wMaxPacketSize >> 11) & 3) + 1);
    m_iMaxPktSize = uint16_t((pDesc->wMaxPacketSize & 0x7FF) * m_iMult);
    if (!pComp)
        return;
    m_bCompLength = pComp->bLength;
    m_bCompDescriptorType = pComp->bDescriptorType;
    m_bMaxBurst = pComp->bMaxBurst;
    m_bCompAttributes = pComp->bmAttributes;
    m_wBytesPerInterval = pComp->wBytesPerInterval;
    m_iMaxPktSize = uint16_t(m_iMaxPktSize * (m_bMaxBurst + 1));
    if ((m_bmAttributes & 3) == 1)
        m_iMaxPktSize = uint16_t(m_iMaxPktSize * ((m_bCompAttributes & 3) + 1));
}

uint8_t* CCyUSBEndPoint::BeginDirectXfer(uint8_t* pBuf, int32_t iLength, Overlapped* pOverlapped)
{
    TraceLine("Begin direct\n");
    if (!platform::IsDeviceOpen(m_hDevice))
        return nullptr;
    auto p = std::make_unique<uint8_t[]>(RECORD_SIZE);
    TraceLine("Begin direct:0x%x Newbuf:0x%x\n", Low(pOverlapped), Low(p.get()));
    XferRecord* const r = Record(p.get());
    r->bEndpointAddress = m_bEndpointAddress;
    uint8_t* const pContext = Begin(*this, platform::IO_DIRECT, std::move(p), RECORD_SIZE, pBuf, uint32_t(iLength), pOverlapped);
    m_uUsbdStatus = r->dwUsbdStatus;
    m_uNtStatus = r->dwNtStatus;
    return pContext;
}

uint8_t* CCyUSBEndPoint::BeginBufXfer(uint8_t* pBuf, int32_t iLength, Overlapped* pOverlapped)
{
    if (!platform::IsDeviceOpen(m_hDevice) || iLength < 0)
        return nullptr;
    const uint32_t dwSize = RECORD_SIZE + uint32_t(iLength);
    auto p = std::make_unique<uint8_t[]>(dwSize);
    TraceLine("Begin buf:0x%x Newbuf:0x%x\n", Low(pOverlapped), Low(p.get()));
    XferRecord* const r = Record(p.get());
    r->bEndpointAddress = m_bEndpointAddress;
    r->dwBufferOffset = RECORD_SIZE;
    r->dwBufferLength = uint32_t(iLength);
    if (iLength != 0)
        std::memcpy(p.get() + RECORD_SIZE, pBuf, size_t(iLength));
    uint8_t* const pContext =
        Begin(*this, platform::IO_BUFFERED, std::move(p), dwSize, reinterpret_cast<uint8_t*>(r), dwSize, pOverlapped);
    m_uUsbdStatus = r->dwUsbdStatus;
    m_uNtStatus = r->dwNtStatus;
    return pContext;
}

bool CCyUSBEndPoint::FinishDataXfer(uint8_t* pBuf, int32_t* piLength, Overlapped* pOverlapped, uint8_t* pContext,
                                    IsoPacketInfo* pInfos)
{
    // A begin on a closed device gave no context; there is nothing to finish.
    if (!pContext) {
        *piLength = 0;
        m_uBytesXferred = 0;
        return false;
    }
    const std::unique_ptr<uint8_t[]> owner(pContext);
    XferRecord* const r = Record(pContext);

    uint32_t dwBytes = 0;
    const bool bResult = UsbDriver().GetResult(m_hDevice, pOverlapped, &dwBytes, false);
    // A count within the header would come out negative; it means no data, as 0 does.
    const uint32_t dwLength = dwBytes > r->dwBufferOffset ? dwBytes - r->dwBufferOffset : 0;
    *piLength = int32_t(dwLength);
    m_uBytesXferred = dwLength;
    m_uUsbdStatus = r->dwUsbdStatus;
    m_uNtStatus = r->dwNtStatus;

    if (m_bIn && m_bDirect == 0 && dwLength >= 1)
        std::memcpy(pBuf, pContext + r->dwBufferOffset, dwLength);
    if (pInfos && dwLength >= 1) {
        std::memset(pInfos, 0, r->dwIsoPacketLength);
        std::memcpy(pInfos, pContext + r->dwIsoPacketOffset, r->dwIsoPacketLength);
    }
    TraceLine("Finish :0x%x Delete:0x%x rResult:%d USBstatus:%d Ntstatus:%d\n", Low(pOverlapped), Low(pContext), int(bResult),
              int(m_uUsbdStatus), int(m_uNtStatus));
    return bResult && m_uUsbdStatus == 0 && m_uNtStatus == 0;
}

// m_uLastError is that of the most recent begin on this endpoint, whatever slot is handed in.
bool CCyUSBEndPoint::WaitForXfer(Overlapped* pOverlapped, uint32_t dwTimeoutMs)
{
    if (m_uLastError == platform::ERROR_NONE)
        return true;
    if (m_uLastError != platform::ERROR_PENDING)
        return false;
    return platform::WaitEvent(pOverlapped->hEvent, dwTimeoutMs) == platform::WAIT_SIGNALLED;
}

bool CCyUSBEndPoint::WaitOrAbortXfer(Overlapped* pOverlapped)
{
    m_uLastError = platform::LastError();
    if (m_uLastError == platform::ERROR_NONE)
        return true;
    if (m_uLastError != platform::ERROR_PENDING)
        return false;
    uint32_t dwWait = platform::WaitEvent(pOverlapped->hEvent, m_iTimeOut);
    if (dwWait != platform::WAIT_TIMED_OUT)
        return dwWait == platform::WAIT_SIGNALLED;
    Abort();
    dwWait = platform::WaitEvent(pOverlapped->hEvent, ABORT_WAIT_MS);
    if (dwWait == platform::WAIT_TIMED_OUT || dwWait == WAIT_FAILED) {
        Abort();
        dwWait = platform::WaitEvent(pOverlapped->hEvent, platform::WAIT_FOREVER);
    }
    return dwWait == platform::WAIT_SIGNALLED;
}

bool CCyUSBEndPoint::XferData(uint8_t* pBuf, int32_t* piLength, IsoPacketInfo* pInfos)
{
    const Event event;
    if (!event)
        throw std::bad_alloc();
    Overlapped ov{};
    ov.hEvent = event;
    uint8_t* const pContext = BeginDataXfer(pBuf, *piLength, &ov);
    // Without a context no request is out, and LastError() would be that of some earlier call.
    const bool bWait = pContext && WaitOrAbortXfer(&ov);
    const bool bFinished = FinishDataXfer(pBuf, piLength, &ov, pContext, pInfos);
    return bWait && bFinished;
}

bool CCyUSBEndPoint::Abort()
{
    const Event event;  // may be none: an abort must come through without memory
    Overlapped ov{};
    ov.hEvent = event;
    uint32_t dwBytes = 0;
    if (!UsbDriver().IoControl(m_hDevice, platform::IO_ABORT_PIPE, &m_bEndpointAddress, 1, nullptr, 0, &dwBytes, &ov) &&
        platform::LastError() == platform::ERROR_PENDING && event)
        platform::WaitEvent(event, platform::WAIT_FOREVER);
    return true;
}

bool CCyUSBEndPoint::Reset()
{
    uint32_t dwBytes = 0;
    const bool bOk =
        UsbDriver().IoControl(m_hDevice, platform::IO_RESET_PIPE, &m_bEndpointAddress, 1, nullptr, 0, &dwBytes, nullptr);
    if (!bOk)
        m_uLastError = platform::LastError();
    return bOk;
}

void CCyUSBEndPoint::SetXferSize(uint32_t dwSize)
{
    if (m_hDevice == platform::INVALID_DEVICE || m_iMaxPktSize == 0)
        return;
#pragma pack(push, 1)
    struct {
        uint8_t bAddress;
        uint32_t dwSize;
    } block;
#pragma pack(pop)
    static_assert(sizeof block == 5);
    block.bAddress = m_bEndpointAddress;
    const uint32_t dwRest = dwSize % m_iMaxPktSize;
    block.dwSize = dwRest == 0 ? dwSize : dwSize + (m_iMaxPktSize - dwRest);
    uint32_t dwBytes = 0;
    if (!UsbDriver().IoControl(m_hDevice, platform::IO_SET_TRANSFER_SIZE, &block, sizeof block, &block, sizeof block, &dwBytes,
                               nullptr))
        m_uLastError = platform::LastError();
}

// --- control --------------------------------------------------------------------------------------------------------

CCyControlEndPoint::CCyControlEndPoint(platform::DeviceHandle hDevice, const EndPointDescriptor* pDesc)
    : CCyUSBEndPoint(hDevice, pDesc, nullptr)
{
    m_bDirect = 0;
}

uint8_t* CCyControlEndPoint::BeginDataXfer(uint8_t* pBuf, int32_t iLength, Overlapped* pOverlapped)
{
    if (!platform::IsDeviceOpen(m_hDevice) || iLength < 0)
        return nullptr;
    m_bIn = m_iDirection == 1;
    const uint32_t dwSize = RECORD_SIZE + uint32_t(iLength);
    auto p = std::make_unique<uint8_t[]>(dwSize);
    TraceLine("Begin Control:0x%x Newbuf:0x%x\n", Low(pOverlapped), Low(p.get()));
    XferRecord* const r = Record(p.get());
    r->setup.bmRequestType = uint8_t((m_iDirection << 7) | ((m_iReqType & 3) << 5) | (m_iTarget & 31));
    r->setup.bRequest = m_iReqCode;
    r->setup.wValue = m_iValue;
    r->setup.wIndex = m_iIndex;
    r->setup.wLength = uint16_t(iLength);
    // Whole seconds, but a limit below one second must not become "none".
    r->setup.dwTimeout = m_iTimeOut >= 1 && m_iTimeOut <= 999 ? 1 : m_iTimeOut / 1000;
    r->dwBufferOffset = RECORD_SIZE;
    r->dwBufferLength = uint32_t(iLength);
    if (iLength != 0)
        std::memcpy(p.get() + RECORD_SIZE, pBuf, size_t(iLength));
    return Begin(*this, platform::IO_CONTROL, std::move(p), dwSize, reinterpret_cast<uint8_t*>(r), dwSize, pOverlapped);
}

// --- bulk, interrupt, isochronous -----------------------------------------------------------------------------------

uint8_t* CCyUSBEndPoint::BeginByMode(uint8_t* pBuf, int32_t iLength, Overlapped* pOverlapped)
{
    if (!platform::IsDeviceOpen(m_hDevice))
        return nullptr;
    return m_bDirect == 1 ? BeginDirectXfer(pBuf, iLength, pOverlapped) : BeginBufXfer(pBuf, iLength, pOverlapped);
}

uint8_t* CCyBulkEndPoint::BeginDataXfer(uint8_t* pBuf, int32_t iLength, Overlapped* pOverlapped)
{
    return BeginByMode(pBuf, iLength, pOverlapped);
}

uint8_t* CCyInterruptEndPoint::BeginDataXfer(uint8_t* pBuf, int32_t iLength, Overlapped* pOverlapped)
{
    return BeginByMode(pBuf, iLength, pOverlapped);
}

uint8_t* CCyIsocEndPoint::BeginDataXfer(uint8_t* pBuf, int32_t iLength, Overlapped* pOverlapped)
{
    return BeginByMode(pBuf, iLength, pOverlapped);
}

// bBuffered: the data stand behind the packet table; else they go to the caller's buffer.
uint8_t* CCyIsocEndPoint::BeginIsoc(uint8_t* pBuf, int32_t iLength, Overlapped* pOverlapped, bool bBuffered)
{
    if (!platform::IsDeviceOpen(m_hDevice) || m_iMaxPktSize == 0 || iLength <= 0)
        return nullptr;
    const uint32_t dwPackets = (uint32_t(iLength) + m_iMaxPktSize - 1) / m_iMaxPktSize;
    const uint32_t dwTable = dwPackets * uint32_t(sizeof(IsoPacketInfo));
    const uint32_t dwHead = RECORD_SIZE + dwTable;
    const uint32_t dwSize = bBuffered ? dwHead + uint32_t(iLength) : dwHead;
    auto p = std::make_unique<uint8_t[]>(dwSize);
    if (bBuffered)
        TraceLine("Begin buf:0x%x Newbuf:0x%x\n", Low(pOverlapped), Low(p.get()));
    else
        TraceLine("Begin direct:0x%x Newbuf:0x%x\n", Low(pOverlapped), Low(p.get()));
    XferRecord* const r = Record(p.get());
    r->bEndpointAddress = m_bEndpointAddress;
    r->dwIsoPacketOffset = RECORD_SIZE;
    r->dwIsoPacketLength = dwTable;
    if (bBuffered) {
        r->dwBufferOffset = dwHead;
        r->dwBufferLength = uint32_t(iLength);
        std::memcpy(p.get() + dwHead, pBuf, size_t(iLength));
    }
    uint8_t* const pContext =
        bBuffered ? Begin(*this, platform::IO_BUFFERED, std::move(p), dwSize, reinterpret_cast<uint8_t*>(r), dwSize, pOverlapped)
                  : Begin(*this, platform::IO_DIRECT, std::move(p), dwSize, pBuf, uint32_t(iLength), pOverlapped);
    m_uUsbdStatus = r->dwUsbdStatus;
    m_uNtStatus = r->dwNtStatus;
    return pContext;
}

uint8_t* CCyIsocEndPoint::BeginDirectXfer(uint8_t* pBuf, int32_t iLength, Overlapped* pOverlapped)
{
    return BeginIsoc(pBuf, iLength, pOverlapped, false);
}

uint8_t* CCyIsocEndPoint::BeginBufXfer(uint8_t* pBuf, int32_t iLength, Overlapped* pOverlapped)
{
    return BeginIsoc(pBuf, iLength, pOverlapped, true);
}

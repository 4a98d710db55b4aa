// One USB endpoint each, driven through the kernel driver's requests.
#pragma once
#include <cstdint>

#include "base/Export.h"
#include "base/Shared.h"
#include "platform/UsbDriver.h"
#include "platform/XferRecord.h"

#pragma pack(push, 1)
struct EndPointDescriptor {
    uint8_t bLength, bDescriptorType, bEndpointAddress, bmAttributes;
    uint16_t wMaxPacketSize;
    uint8_t bInterval;
};
struct CompanionDescriptor {
    uint8_t bLength, bDescriptorType, bMaxBurst, bmAttributes;
    uint16_t wBytesPerInterval;
};
struct IsoPacketInfo {
    uint32_t length, status;
};
#pragma pack(pop)
static_assert(sizeof(EndPointDescriptor) == 7);

// Common part. Threads: one endpoint object serves one thread at a time, except that Abort and Reset may come from any.
class KOV_CLASS CCyUSBEndPoint {
public:
    CCyUSBEndPoint(platform::DeviceHandle device, const EndPointDescriptor* descriptor, const CompanionDescriptor* companion);
    virtual ~CCyUSBEndPoint() = default;
    CCyUSBEndPoint(const CCyUSBEndPoint&) = delete;
    CCyUSBEndPoint& operator=(const CCyUSBEndPoint&) = delete;

    // Start a transfer and return its context, or nullptr when the handle is invalid. Never wait. The context is freed
    // by FinishDataXfer. The buffer must live until then; when FinishDataXfer finds the request still out, until the
    // next Abort or the closing of the device. An event must stand in overlapped->hEvent.
    virtual uint8_t* BeginDirectXfer(uint8_t* buf, int32_t length, platform::Overlapped* overlapped);
    virtual uint8_t* BeginBufXfer(uint8_t* buf, int32_t length, platform::Overlapped* overlapped);
    virtual uint8_t* BeginDataXfer(uint8_t* buf, int32_t length, platform::Overlapped* overlapped) = 0;
    // Fetches the result without waiting and frees the context. *length takes the bytes moved. False also when the
    // request is still out: it is given up, its event is not signalled any more.
    virtual bool FinishDataXfer(uint8_t* buf, int32_t* length, platform::Overlapped* overlapped, uint8_t* context,
                                IsoPacketInfo* infos = nullptr);

    bool WaitForXfer(platform::Overlapped* overlapped, uint32_t timeoutMs);
    bool WaitOrAbortXfer(platform::Overlapped* overlapped);
    bool XferData(uint8_t* buf, int32_t* length, IsoPacketInfo* infos = nullptr);  // the synchronous whole
    bool Abort();  // true always; returns when no request of this endpoint is outstanding
    bool Reset();
    void SetXferSize(uint32_t size);

    platform::DeviceHandle m_hDevice;
    uint8_t m_length = 0, m_descriptorType = 0, m_endpointAddress = 0, m_attributes = 0;
    uint16_t m_iMaxPktSize = 0;
    uint16_t m_iMult = 0;
    uint8_t m_interval = 0;
    uint8_t m_compLength = 0, m_compDescriptorType = 0, m_maxBurst = 0, m_compAttributes = 0;
    uint16_t m_bytesPerInterval = 0;
    uint32_t m_iTimeOut = 10000;  // ms
    uint32_t m_uUsbdStatus = 0, m_uNtStatus = 0, m_uBytesXferred = 0;
    Shared<uint32_t> m_uLastError;  // of whichever call stored it last; a Reset of another thread stores it too
    bool m_bIn = false;
    int32_t m_bDirect = 1;

protected:
    uint8_t* BeginByMode(uint8_t* buf, int32_t length, platform::Overlapped* overlapped);  // direct or buffered
};

class KOV_CLASS CCyControlEndPoint : public CCyUSBEndPoint {
public:
    CCyControlEndPoint(platform::DeviceHandle device, const EndPointDescriptor* descriptor);
    uint8_t* BeginDataXfer(uint8_t* buf, int32_t length, platform::Overlapped* overlapped) override;

    uint32_t m_iTarget = 0;     // recipient
    uint32_t m_iReqType = 2;    // vendor
    uint32_t m_iDirection = 0;  // 0 out, 1 in
    uint8_t m_iReqCode = 0;
    uint16_t m_iValue = 0, m_iIndex = 0;
};

class KOV_CLASS CCyBulkEndPoint : public CCyUSBEndPoint {
public:
    using CCyUSBEndPoint::CCyUSBEndPoint;
    uint8_t* BeginDataXfer(uint8_t* buf, int32_t length, platform::Overlapped* overlapped) override;
};

class KOV_CLASS CCyInterruptEndPoint : public CCyUSBEndPoint {
public:
    using CCyUSBEndPoint::CCyUSBEndPoint;
    uint8_t* BeginDataXfer(uint8_t* buf, int32_t length, platform::Overlapped* overlapped) override;
};

class KOV_CLASS CCyIsocEndPoint : public CCyUSBEndPoint {
public:
    using CCyUSBEndPoint::CCyUSBEndPoint;
    uint8_t* BeginDirectXfer(uint8_t* buf, int32_t length, platform::Overlapped* overlapped) override;
    uint8_t* BeginBufXfer(uint8_t* buf, int32_t length, platform::Overlapped* overlapped) override;
    uint8_t* BeginDataXfer(uint8_t* buf, int32_t length, platform::Overlapped* overlapped) override;

private:
    uint8_t* BeginIsoc(uint8_t* buf, int32_t length, platform::Overlapped* overlapped, bool buffered);
};

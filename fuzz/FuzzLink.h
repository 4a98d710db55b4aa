// A link whose device answers what the input says. Vendor requests are answered at the driver, on the calling thread, and may be
// cut short, which the fake device cannot do. All else goes through the adapter to that device.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <utility>

#include "platform/UsbAdapter.h"
#include "platform/XferRecord.h"
#include "tests/support/RecordingStack.h"
#include "usb/CCameraFX3.h"
#include "usb/CUsbLink.h"

// The input, zeros behind its end.
class FuzzInput {
public:
    FuzzInput(const uint8_t* data = nullptr, size_t size = 0) : m_data(data), m_size(size) {}
    uint8_t Next() { return m_at < m_size ? m_data[m_at++] : uint8_t{ 0 }; }
    uint16_t Next16() { return uint16_t(Next() << 8 | Next()); }
    void Take(uint8_t* p, size_t n)
    {
        const size_t have = std::min(n, m_size - m_at);
        if (have != 0)
            std::memcpy(p, m_data + m_at, have);
        std::memset(p + have, 0, n - have);
        m_at += have;
    }
    bool Over() const { return m_at >= m_size; }

private:
    const uint8_t* m_data;
    size_t m_size, m_at = 0;
};

class FuzzLink final : public platform::IUsbDriver {
public:
    explicit FuzzLink(uint16_t wProductId, usbstack::Speed speed = usbstack::Speed::Super) : device(stack.Add(wProductId, speed))
    {
        platform::SetUsbStack(&stack);
        platform::SetUsbDriver(this);
    }
    void Connect(CCameraFX3& cam)
    {
        cam.ReplaceLink(new CUsbLink(nullptr, cam.m_guid, true));
        cam.m_bOpen = true;
    }

    RecordingStack stack;
    FakeUsbDevice& device;
    // Of a vendor request: bytes moved, or -1 where it fails.
    std::function<int32_t(const SetupPacket&, uint8_t* pData, uint32_t dwLength)> OnVendor;

private:
    bool IoControl(platform::DeviceHandle h, uint32_t dwCode, void* pIn, uint32_t dwIn, void* pOut, uint32_t dwOut,
                   uint32_t* pdwBytes, platform::Overlapped* o) override
    {
        auto* const r = static_cast<XferRecord*>(pIn);
        if (dwCode != platform::IO_CONTROL || (r->setup.bmRequestType & 0x60) != 0x40 || !OnVendor)
            return m_next.IoControl(h, dwCode, pIn, dwIn, pOut, dwOut, pdwBytes, o);
        const int32_t n = OnVendor(r->setup, static_cast<uint8_t*>(pIn) + r->bufferOffset, r->bufferLength);
        m_bVendor = true;
        m_dwMoved = n < 0 ? 0 : r->bufferOffset + uint32_t(n);
        r->usbdStatus = n < 0 ? 0xC0000004 : 0;
        platform::SetLastError(n < 0 ? platform::ERROR_GENERAL_FAILURE : platform::ERROR_NONE);
        return n >= 0;
    }
    bool GetResult(platform::DeviceHandle h, platform::Overlapped* o, uint32_t* pdwBytes, bool bWait) override
    {
        if (!std::exchange(m_bVendor, false))  // a vendor request is asked for at once
            return m_next.GetResult(h, o, pdwBytes, bWait);
        *pdwBytes = m_dwMoved;
        return m_dwMoved != 0;
    }
    DevInfo GetClassDevs(const platform::Guid& g) override { return m_next.GetClassDevs(g); }
    bool EnumInterface(DevInfo d, uint32_t i) override { return m_next.EnumInterface(d, i); }
    bool EnumInfo(DevInfo d, uint32_t i) override { return m_next.EnumInfo(d, i); }
    bool GetProperty(DevInfo d, uint32_t i, uint32_t p, char* out, uint32_t n) override
    {
        return m_next.GetProperty(d, i, p, out, n);
    }
    bool GetInterfacePath(DevInfo d, uint32_t i, std::string* path) override { return m_next.GetInterfacePath(d, i, path); }
    void DestroyList(DevInfo d) override { m_next.DestroyList(d); }
    platform::DeviceHandle Open(const char* path) override { return m_next.Open(path); }
    bool Close(platform::DeviceHandle h) override { return m_next.Close(h); }
    void* RegisterInterfaceNotice(void*, const void*) override { return nullptr; }
    void* RegisterHandleNotice(void*, const void*) override { return nullptr; }
    bool UnregisterNotice(void*) override { return true; }

    platform::IUsbDriver& m_next = platform::UsbDriver();
    bool m_bVendor = false;
    uint32_t m_dwMoved = 0;
};

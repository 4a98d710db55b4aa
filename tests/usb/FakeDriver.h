// A driver under the endpoints that records every call and answers as told, and one that passes on to the adapter with
// single calls made to fail.
#pragma once
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "platform/Platform.h"
#include "platform/UsbAdapter.h"
#include "platform/UsbDriver.h"
#include "tests/support/RecordingStack.h"

struct DriverCall {
    uint32_t dwCode = 0;
    std::vector<uint8_t> in;
    uint32_t dwOut = 0;
    void* pOut = nullptr;
    bool bSameBuffer = false, bOverlapped = false;
};

class FakeDriver : public platform::IUsbDriver {
public:
    FakeDriver() { platform::SetUsbDriver(this); }
    ~FakeDriver() override { platform::SetUsbDriver(nullptr); }

    std::vector<DriverCall> calls;
    // By default a call is left pending and its result is what `result` and `dwBytes` say.
    std::function<uint32_t(const DriverCall&, uint8_t* pOut, platform::Overlapped*)> onIo;  // returns the error
    bool bResult = true;
    uint32_t dwBytes = 0;
    std::function<void()> onResult;

    bool IoControl(platform::DeviceHandle, uint32_t dwCode, void* pIn, uint32_t dwIn, void* pOut, uint32_t dwOut,
                   uint32_t* pdwBytes, platform::Overlapped* pOverlapped) override
    {
        DriverCall c;
        c.dwCode = dwCode;
        if (pIn)
            c.in.assign(static_cast<uint8_t*>(pIn), static_cast<uint8_t*>(pIn) + dwIn);
        c.dwOut = dwOut;
        c.pOut = pOut;
        c.bSameBuffer = pIn == pOut;
        c.bOverlapped = pOverlapped != nullptr;
        calls.push_back(c);
        *pdwBytes = dwOut;
        const uint32_t dwError = onIo          ? onIo(c, static_cast<uint8_t*>(pOut), pOverlapped)
                                 : pOverlapped ? platform::ERROR_PENDING
                                               : 0u;
        platform::SetLastError(dwError);
        return dwError == 0;
    }
    bool GetResult(platform::DeviceHandle, platform::Overlapped*, uint32_t* pdwBytes, bool) override
    {
        if (onResult)
            onResult();
        *pdwBytes = dwBytes;
        return bResult;
    }
    DevInfo GetClassDevs(const platform::Guid&) override { return nullptr; }
    bool EnumInterface(DevInfo, uint32_t) override { return false; }
    bool EnumInfo(DevInfo, uint32_t) override { return false; }
    bool GetProperty(DevInfo, uint32_t, uint32_t, char*, uint32_t) override { return false; }
    bool GetInterfacePath(DevInfo, uint32_t, std::string*) override { return false; }
    void DestroyList(DevInfo) override {}
    platform::DeviceHandle Open(const char*) override { return platform::INVALID_DEVICE; }
    bool Close(platform::DeviceHandle) override { return true; }
    void* RegisterInterfaceNotice(void*, const void*) override { return nullptr; }
    void* RegisterHandleNotice(void*, const void*) override { return nullptr; }
    bool UnregisterNotice(void*) override { return true; }
};

// In front of the adapter.
class ForwardDriver : public platform::IUsbDriver {
public:
    ForwardDriver() : m_next(platform::UsbDriver()) { platform::SetUsbDriver(this); }
    ~ForwardDriver() override { platform::SetUsbDriver(nullptr); }

    bool bCloseFails = false, bUnregisterFails = false, bNotices = false;
    uint32_t dwEnumFailsAt = 0xFFFFFFFF;  // one entry that cannot be enumerated
    uint32_t dwFailCode = 0;              // this request fails
    uint32_t dwSpeed = 0xFFFFFFFF;        // stands in for the real one
    std::vector<std::string> log;
    std::vector<uint8_t> interfaceFilter, handleFilter;
    int controls = 0;  // synchronous control requests

    DevInfo GetClassDevs(const platform::Guid& g) override
    {
        log.push_back("list");
        return m_next.GetClassDevs(g);
    }
    bool EnumInterface(DevInfo h, uint32_t i) override
    {
        log.push_back("interface " + std::to_string(i));
        if (i == dwEnumFailsAt) {
            platform::SetLastError(platform::ERROR_GENERAL_FAILURE);
            return false;
        }
        return m_next.EnumInterface(h, i - (i > dwEnumFailsAt ? 1 : 0));
    }
    bool EnumInfo(DevInfo h, uint32_t i) override
    {
        log.push_back("info");
        return m_next.EnumInfo(h, i);
    }
    bool GetProperty(DevInfo h, uint32_t i, uint32_t p, char* pOut, uint32_t n) override
    {
        log.push_back("property " + std::to_string(p) + " " + std::to_string(n));
        return m_next.GetProperty(h, i, p, pOut, n);
    }
    bool GetInterfacePath(DevInfo h, uint32_t i, std::string* s) override
    {
        log.push_back("path");
        return m_next.GetInterfacePath(h, i, s);
    }
    void DestroyList(DevInfo h) override
    {
        log.push_back("destroy");
        m_next.DestroyList(h);
    }
    platform::DeviceHandle Open(const char* sz) override
    {
        log.push_back("open");
        return m_next.Open(sz);
    }
    bool Close(platform::DeviceHandle h) override
    {
        log.push_back("close");
        if (bCloseFails) {
            platform::SetLastError(platform::ERROR_BAD_HANDLE);
            return false;
        }
        return m_next.Close(h);
    }
    bool IoControl(platform::DeviceHandle h, uint32_t c, void* pIn, uint32_t dwIn, void* pOut, uint32_t dwOut, uint32_t* pdwBytes,
                   platform::Overlapped* o) override
    {
        controls += c == platform::IO_CONTROL && !o;
        if (c == dwFailCode) {
            platform::SetLastError(platform::ERROR_GENERAL_FAILURE);
            return false;
        }
        if (c == platform::IO_DEVICE_SPEED && dwSpeed != 0xFFFFFFFF) {
            std::memcpy(pOut, &dwSpeed, 4);
            *pdwBytes = 4;
            return true;
        }
        return m_next.IoControl(h, c, pIn, dwIn, pOut, dwOut, pdwBytes, o);
    }
    bool GetResult(platform::DeviceHandle h, platform::Overlapped* o, uint32_t* n, bool w) override
    {
        return m_next.GetResult(h, o, n, w);
    }
    void* RegisterInterfaceNotice(void*, const void* p) override
    {
        interfaceFilter.assign(static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + 32);
        return bNotices ? this : nullptr;
    }
    void* RegisterHandleNotice(void*, const void* p) override
    {
        handleFilter.assign(static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + 56);
        return &handleFilter;
    }
    bool UnregisterNotice(void* h) override
    {
        log.push_back(h == this ? "unregister interface" : "unregister handle");
        if (bUnregisterFails)
            platform::SetLastError(platform::ERROR_BAD_HANDLE);
        return !bUnregisterFails;
    }

private:
    platform::IUsbDriver& m_next;
};

// A recording stack in place of libusb for the span of a test.
struct StackScope {
    RecordingStack stack;
    StackScope() { platform::SetUsbStack(&stack); }
    ~StackScope() { platform::SetUsbStack(nullptr); }
};

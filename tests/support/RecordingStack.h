// A USB stack with fake devices for unit tests: it records every vendor request in order, answers reads from a handler
// and hands out bulk data from a callback. No threads of its own: bulk requests complete inside SubmitBulk, Pump,
// Complete, Abort or Vanish; any thread may call these.
//
//   RecordingStack stack;
//   FakeUsbDevice& dev = stack.Add(0xC11A);               // SuperSpeed; Add(id, usbstack::Speed::High) for USB 2
//   dev.OnIn = [](const RecordedRequest& r, uint8_t* p, uint16_t n) { ... };  // IN data; zeros by default
//   dev.OnFail = [](const RecordedRequest& r) { return r.bRequest == 183; };  // fail these (recorded all the same)
//   dev.OnBulk = [](uint8_t* p, uint32_t n) { ...; return n; };  // bytes of the next bulk read; -1 leaves it waiting
//   platform::SetUsbStack(&stack);  ...  EXPECT_EQ(dev.Log(), "...");
//   platform::SetUsbStack(nullptr);                         // after every device is closed
//
// Requests() copies what was recorded; Take() also clears it; Log() is one line a request:
//   "out 182 3003 0001" (request decimal; value, index hexadecimal), then ": data" when there are any.
// Standard requests (descriptors) are answered but not recorded. Events() tells of aborts, resets and the like.
#pragma once
#include <atomic>
#include <cstdio>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "platform/UsbStack.h"
#include "tests/support/DeviceDescriptor.h"

struct RecordedRequest {
    bool bIn = false;
    uint8_t bRequest = 0;
    uint16_t wValue = 0, wIndex = 0, wLength = 0;
    uint32_t dwTimeoutMs = 0;
    std::vector<uint8_t> data;  // what went out, or what was answered (empty when failed)

    std::string Text() const
    {
        char sz[48];
        std::snprintf(sz, sizeof sz, "%s %u %04x %04x", bIn ? "in" : "out", bRequest, wValue, wIndex);
        std::string s = sz;
        if (!data.empty())
            s += ":";
        for (size_t i = 0; i < data.size() && i < 16; ++i) {
            std::snprintf(sz, sizeof sz, " %02x", data[i]);
            s += sz;
        }
        if (data.size() > 16) {
            std::snprintf(sz, sizeof sz, " ... (%zu)", data.size());
            s += sz;
        }
        return s;
    }
    // Everything but the time limit.
    bool operator==(const RecordedRequest& o) const
    {
        return bIn == o.bIn && bRequest == o.bRequest && wValue == o.wValue && wIndex == o.wIndex && data == o.data;
    }
    friend std::ostream& operator<<(std::ostream& os, const RecordedRequest& r) { return os << r.Text(); }
};

// Configure a device before it is opened; callbacks run on the calling thread with no lock held.
class FakeUsbDevice {
public:
    using Request = RecordedRequest;

    FakeUsbDevice(uint16_t wProductId, usbstack::Speed speed, uint16_t wVendorId, uint8_t bAddress)
    {
        info.vendorId = wVendorId;
        info.productId = wProductId;
        info.bus = speed == usbstack::Speed::Super ? 2 : 1;
        info.address = bAddress;
        info.portPath = "1." + std::to_string(bAddress);
        info.path = "fake:" + std::to_string(bAddress);
        info.speed = speed;

        const bool bSuper = speed == usbstack::Speed::Super;
        deviceDescriptor = DeviceDescriptor(bSuper, wVendorId, wProductId, 0x0100);
        configDescriptor = { 9, 2, uint8_t(bSuper ? 31 : 25), 0, 1, 1, 0, 0x80, 100, 9, 4, 0, 0, 1, 0xFF, 0, 0, 0, 7, 5, 0x82,
                             2, 0, uint8_t(bSuper ? 4 : 2),   0 };
        if (bSuper) {
            configDescriptor.insert(configDescriptor.end(), { 6, 0x30, 15, 0, 0, 0 });
            bosDescriptor = { 5, 15, 22, 0, 2, 7, 16, 2, 2, 0, 0, 0, 10, 16, 3, 0, 0x0E, 0, 3, 10, 0xFF, 0x07 };
        }
        strings = { "maker", "camera", "0001" };
    }

    usbstack::DeviceInfo info;
    std::vector<uint8_t> deviceDescriptor, configDescriptor, bosDescriptor;
    std::vector<uint8_t> languages = { 4, 3, 0x09, 0x04 };
    std::vector<std::string> strings;  // index 1 and up
    int iAltSetting = 0;

    std::function<void(const Request&, uint8_t* pData, uint16_t wLength)> OnIn;
    std::function<bool(const Request&)> OnFail;
    std::function<void()> OnAbortControl;
    bool keepsTimeLimits = false;                           // then OnIn and OnFail take no longer than the request's limit
    usbstack::Status failStatus = usbstack::Status::Stall;  // what a failed request gives
    std::function<int64_t(uint8_t* pData, uint32_t dwLength)> OnBulk;

    // --- what was seen --------------------------------------------------------------------------------------------
    std::vector<Request> Requests() const
    {
        const std::lock_guard l(m_mutex);
        return m_requests;
    }
    std::vector<Request> Take()
    {
        const std::lock_guard l(m_mutex);
        return std::exchange(m_requests, {});
    }
    void Clear() { Take(); }
    std::string Log() const  // one line a request
    {
        std::string s;
        for (const Request& r : Requests())
            s += r.Text() + "\n";
        return s;
    }
    std::vector<std::string> Events() const
    {
        const std::lock_guard l(m_mutex);
        return m_events;
    }
    void ClearEvents()
    {
        const std::lock_guard l(m_mutex);
        m_events.clear();
    }
    size_t Outstanding() const
    {
        const std::lock_guard l(m_mutex);
        return m_queue.size();
    }
    int OpenHandles() const
    {
        const std::lock_guard l(m_mutex);
        return m_iOpen;
    }

    // --- what a test makes happen -----------------------------------------------------------------------------------
    // Completes waiting bulk requests, oldest first, as long as OnBulk has data. Returns how many.
    int Pump()
    {
        const std::lock_guard bulk(m_bulkMutex);
        int n = 0;
        for (;; ++n) {
            usbstack::BulkRequest* p = nullptr;
            {
                const std::lock_guard l(m_mutex);
                if (m_queue.empty() || !OnBulk)
                    return n;
                p = m_queue.front();
            }
            const int64_t iBytes = OnBulk(p->data, p->length);
            if (iBytes < 0)
                return n;
            Complete(usbstack::Status::Ok, uint32_t(iBytes));
        }
    }
    // Completes the oldest waiting bulk request as told. False when there is none.
    bool Complete(usbstack::Status status, uint32_t dwBytes)
    {
        const std::lock_guard bulk(m_bulkMutex);
        usbstack::BulkRequest* p = nullptr;
        {
            const std::lock_guard l(m_mutex);
            if (m_queue.empty())
                return false;
            p = m_queue.front();
            m_queue.pop_front();
        }
        p->OnComplete(p, status, dwBytes);
        return true;
    }
    // The cable falls out: every request ends, later ones fail at once, and the device leaves the list.
    void Vanish()
    {
        {
            const std::lock_guard l(m_mutex);
            m_bGone = true;
        }
        EndAll(usbstack::Status::Gone);
    }
    // Another plug: only that makes a host read descriptors anew.
    void Return()
    {
        const std::lock_guard l(m_mutex);
        m_bGone = false;
        info.path = "fake:" + std::to_string(info.address) + "@" + std::to_string(++m_iGeneration);
    }
    usbstack::DeviceInfo Info() const
    {
        const std::lock_guard l(m_mutex);
        return info;
    }
    int DescriptorReads() const { return m_iStandard; }
    bool Gone() const
    {
        const std::lock_guard l(m_mutex);
        return m_bGone;
    }

private:
    friend class RecordingStack;
    class Handle;

    void Event(std::string s)
    {
        const std::lock_guard l(m_mutex);
        m_events.push_back(std::move(s));
    }
    void EndAll(usbstack::Status status)
    {
        while (Complete(status, 0)) {
        }
    }

    static std::vector<uint8_t> StringDescriptor(const std::string& s)
    {
        std::vector<uint8_t> v = { uint8_t(2 + 2 * s.size()), 3 };
        for (const char c : s) {
            v.push_back(uint8_t(c));
            v.push_back(0);
        }
        return v;
    }

    usbstack::Status Standard(uint8_t bType, uint8_t bRequest, uint16_t wValue, uint8_t* pData, uint16_t wLength,
                              uint32_t* pdwMoved)
    {
        if (bType != 0x80 || bRequest != 6)
            return usbstack::Status::Stall;
        ++m_iStandard;
        std::vector<uint8_t> d;
        const unsigned index = wValue & 0xFFu;
        switch (wValue >> 8) {
        case 1: d = deviceDescriptor; break;
        case 2:
            if (index == 0)
                d = configDescriptor;
            break;
        case 3:
            if (index == 0)
                d = languages;
            else if (index <= strings.size())
                d = StringDescriptor(strings[index - 1]);
            break;
        case 15: d = bosDescriptor; break;
        default: break;
        }
        if (d.empty())
            return usbstack::Status::Stall;
        *pdwMoved = uint32_t(d.size() < wLength ? d.size() : wLength);
        if (*pdwMoved != 0)
            std::memcpy(pData, d.data(), *pdwMoved);
        return usbstack::Status::Ok;
    }

    usbstack::Status Vendor(uint8_t bType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex, uint8_t* pData, uint16_t wLength,
                            uint32_t dwTimeoutMs, uint32_t* pdwMoved)
    {
        Request r;
        r.bIn = (bType & 0x80) != 0;
        r.bRequest = bRequest;
        r.wValue = wValue;
        r.wIndex = wIndex;
        r.wLength = wLength;
        r.dwTimeoutMs = dwTimeoutMs;
        if (!r.bIn)
            r.data.assign(pData, pData + wLength);
        const bool bFail = OnFail && OnFail(r);
        if (!bFail && r.bIn) {
            r.data.assign(wLength, 0);
            if (OnIn)
                OnIn(r, r.data.data(), wLength);
            if (wLength != 0)
                std::memcpy(pData, r.data.data(), wLength);
        }
        const std::lock_guard l(m_mutex);
        m_requests.push_back(std::move(r));
        *pdwMoved = bFail ? 0u : wLength;
        return bFail ? failStatus : usbstack::Status::Ok;
    }

    std::recursive_mutex m_bulkMutex;  // outer: an aborted request's buffer is not written any more
    mutable std::mutex m_mutex;
    std::vector<Request> m_requests;
    std::atomic<int> m_iStandard = 0;
    std::vector<std::string> m_events;  // "abort 82", "reset 82", "size 82 100000", "resetport", "cycleport"
    std::deque<usbstack::BulkRequest*> m_queue;
    bool m_bGone = false;
    int m_iGeneration = 0, m_iOpen = 0;
};

class FakeUsbDevice::Handle final : public usbstack::IDevice {
public:
    explicit Handle(FakeUsbDevice& dev) : m_dev(dev)
    {
        const std::lock_guard l(m_dev.m_mutex);
        m_iGeneration = m_dev.m_iGeneration;
        ++m_dev.m_iOpen;
    }
    ~Handle() override
    {
        m_dev.EndAll(usbstack::Status::Cancelled);
        const std::lock_guard l(m_dev.m_mutex);
        --m_dev.m_iOpen;
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;

    usbstack::Status Control(uint8_t bType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex, uint8_t* pData, uint16_t wLength,
                             uint32_t dwTimeoutMs, uint32_t* pdwMoved) override
    {
        *pdwMoved = 0;
        if (Stale())
            return usbstack::Status::Gone;
        if ((bType & 0x60) == 0x40)
            return m_dev.Vendor(bType, bRequest, wValue, wIndex, pData, wLength, dwTimeoutMs, pdwMoved);
        return m_dev.Standard(bType, bRequest, wValue, pData, wLength, pdwMoved);
    }
    usbstack::Status SubmitBulk(usbstack::BulkRequest* p) override
    {
        if (Stale())
            return usbstack::Status::Gone;
        {
            const std::lock_guard l(m_dev.m_mutex);
            m_dev.m_queue.push_back(p);
        }
        m_dev.Pump();
        return usbstack::Status::Ok;
    }
    void Abort(uint8_t bEndpoint) override
    {
        m_dev.Event("abort " + Hex(bEndpoint));
        m_dev.EndAll(usbstack::Status::Cancelled);
    }
    usbstack::Status ResetPipe(uint8_t bEndpoint) override
    {
        m_dev.Event("reset " + Hex(bEndpoint));
        m_dev.EndAll(usbstack::Status::Cancelled);
        return Stale() ? usbstack::Status::Gone : usbstack::Status::Ok;
    }
    void SetTransferSize(uint8_t bEndpoint, uint32_t dwSize) override
    {
        m_dev.Event("size " + Hex(bEndpoint) + " " + Hex(dwSize));
    }
    usbstack::Status ResetPort() override { return Restart("resetport"); }
    usbstack::Status CyclePort() override
    {
        const usbstack::Status s = Restart("cycleport");
        if (s == usbstack::Status::Ok)
            m_dev.Return();  // comes back at once, as another device
        return s;
    }
    void AbortControl() override
    {
        if (m_dev.OnAbortControl)
            m_dev.OnAbortControl();
    }
    bool KeepsTimeLimits() const override { return m_dev.keepsTimeLimits; }
    usbstack::Speed GetSpeed() override { return m_dev.info.speed; }
    uint8_t GetAddress() override { return m_dev.info.address; }
    int GetAltSetting() override { return m_dev.iAltSetting; }

private:
    static std::string Hex(uint32_t v)
    {
        char sz[12];
        std::snprintf(sz, sizeof sz, "%x", v);
        return sz;
    }
    usbstack::Status Restart(const char* sz)
    {
        m_dev.Event(sz);
        m_dev.EndAll(usbstack::Status::Cancelled);
        return Stale() ? usbstack::Status::Gone : usbstack::Status::Ok;
    }
    bool Stale() const
    {
        const std::lock_guard l(m_dev.m_mutex);
        return m_dev.m_bGone || m_iGeneration != m_dev.m_iGeneration;
    }

    FakeUsbDevice& m_dev;
    int m_iGeneration = 0;
};

class RecordingStack : public usbstack::IStack {
public:
    static constexpr uint16_t VENDOR = 0x0E5A;

    // The stack owns the device; the reference stays good for its life. Order of Add is order of enumeration.
    FakeUsbDevice& Add(uint16_t wProductId, usbstack::Speed speed = usbstack::Speed::Super, uint16_t wVendorId = VENDOR)
    {
        m_devices.push_back(std::make_unique<FakeUsbDevice>(wProductId, speed, wVendorId, uint8_t(m_devices.size() + 1)));
        return *m_devices.back();
    }
    FakeUsbDevice& Device(size_t i) { return *m_devices.at(i); }
    usbstack::Status openStatus = usbstack::Status::Ok;  // anything else: every Open fails with it
    std::atomic<int> iListings = 0;

    std::vector<usbstack::DeviceInfo> Enumerate() override
    {
        std::vector<usbstack::DeviceInfo> v;
        for (const auto& d : m_devices)
            if (!d->Gone())
                v.push_back(d->Info());
        ++iListings;
        return v;
    }
    usbstack::IDevice* Open(const std::string& sPath, usbstack::Status* pStatus) override
    {
        *pStatus = openStatus;
        if (openStatus != usbstack::Status::Ok)
            return nullptr;
        for (const auto& d : m_devices)
            if (d->Info().path == sPath && !d->Gone())
                return new FakeUsbDevice::Handle(*d);
        *pStatus = usbstack::Status::Gone;
        return nullptr;
    }

private:
    std::vector<std::unique_ptr<FakeUsbDevice>> m_devices;
};

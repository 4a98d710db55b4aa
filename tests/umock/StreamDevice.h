// A device whose bulk data name their own place in the stream, one 32-bit word after the other, so that a lost, doubled
// or exchanged piece shows. Gives data as far as the test allows.
#pragma once
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <vector>

#include "platform/UsbStack.h"
#include "tests/support/DeviceDescriptor.h"

class StreamDevice : public usbstack::IDevice {
public:
    using Status = usbstack::Status;
    struct Setup {
        uint8_t bType, bRequest;
        uint16_t wValue, wIndex, wLength;
        std::vector<uint8_t> data;
    };

    explicit StreamDevice(uint16_t wProductId, usbstack::Speed speed = usbstack::Speed::Super, uint16_t wVendorId = 0x0E5A)
        : m_speed(speed)
    {
        device = DeviceDescriptor(speed == usbstack::Speed::Super, wVendorId, wProductId, 0x1234);
        config = { 9, 2,    57, 0, 1, 1, 0, 0x80, 100,  9, 4, 0, 0, 2, 0xFF, 0, 0, 0, 7, 5, 0x81, 2, 0, 4, 0,
                   6, 0x30, 15, 0, 0, 0, 7, 5,    0x02, 2, 0, 4, 0, 6, 0x30, 0, 0, 0, 0, 6, 0x24, 1, 2, 3, 4 };
        config[2] = uint8_t(config.size());
    }

    std::vector<uint8_t> device, config;
    bool bRefuseConfig = false;  // the control read of the configuration stalls
    bool bMute = false;          // control requests are never answered (until Unmute)

    void Unmute()
    {
        const std::lock_guard l(m_mutex);
        bMute = false;
        m_cv.notify_all();
    }
    // Lets the next n requests end with this many bytes (-1: full).
    void Allow(int n, int64_t lBytes = -1)
    {
        const std::lock_guard l(m_mutex);
        for (; n > 0; --n)
            m_steps.push_back(lBytes);
        Serve();
    }
    void Halt()
    {
        const std::lock_guard l(m_mutex);
        m_bHalted = true;
        Serve();
    }
    size_t Queued() const
    {
        const std::lock_guard l(m_mutex);
        return m_queue.size();
    }
    std::vector<Setup> Seen() const
    {
        const std::lock_guard l(m_mutex);
        return m_seen;
    }

    Status Control(uint8_t bType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex, uint8_t* pData, uint16_t wLength, uint32_t,
                   uint32_t* pdwMoved) override
    {
        std::unique_lock l(m_mutex);
        Setup s{ bType, bRequest, wValue, wIndex, wLength, {} };
        if (!(bType & 0x80))
            s.data.assign(pData, pData + wLength);
        m_seen.push_back(s);
        m_cv.wait(l, [&] { return !bMute; });
        *pdwMoved = 0;
        if (bType == 0x80 && bRequest == 6) {
            const std::vector<uint8_t>& v = wValue >> 8 == 1 ? device : config;
            if (wValue >> 8 > 2 || (wValue >> 8 == 2 && bRefuseConfig))
                return Status::Stall;
            *pdwMoved = uint32_t(v.size() < wLength ? v.size() : wLength);
            std::memcpy(pData, v.data(), *pdwMoved);
            return Status::Ok;
        }
        if (bRequest == 0xEE)
            return Status::Stall;
        *pdwMoved = wLength;
        if (bType & 0x80) {
            *pdwMoved = bRequest == 0xB1 && wLength > 3 ? 3u : wLength;  // 0xB1 answers short
            for (uint32_t i = 0; i < *pdwMoved; ++i)
                pData[i] = uint8_t(wValue + i);
        }
        return Status::Ok;
    }
    Status SubmitBulk(usbstack::BulkRequest* p) override
    {
        const std::lock_guard l(m_mutex);
        m_queue.push_back(p);
        Serve();
        return Status::Ok;
    }
    void Abort(uint8_t bEndpoint) override
    {
        const std::lock_guard l(m_mutex);
        std::deque<usbstack::BulkRequest*> rest;
        for (usbstack::BulkRequest* p : m_queue) {
            if (p->endpoint == bEndpoint)
                p->OnComplete(p, Status::Cancelled, 0);
            else
                rest.push_back(p);
        }
        m_queue.swap(rest);
    }
    Status ResetPipe(uint8_t) override
    {
        const std::lock_guard l(m_mutex);
        m_bHalted = false;
        return Status::Ok;
    }
    void SetTransferSize(uint8_t, uint32_t) override {}
    Status ResetPort() override { return Status::Ok; }
    Status CyclePort() override { return Status::Ok; }
    usbstack::Speed GetSpeed() override { return m_speed; }
    uint8_t GetAddress() override { return 0; }
    int GetAltSetting() override { return 0; }

private:
    // Completes under the lock: that keeps the order, and a completion may not call the device.
    void Serve()
    {
        while (!m_queue.empty() && (m_bHalted || !m_steps.empty())) {
            usbstack::BulkRequest* p = m_queue.front();
            m_queue.pop_front();
            if (m_bHalted) {
                p->OnComplete(p, Status::Stall, 0);
                continue;
            }
            const int64_t lStep = m_steps.front();
            m_steps.pop_front();
            const uint32_t dwBytes = lStep < 0 || lStep > p->length ? p->length : uint32_t(lStep);
            uint32_t& lWord = m_words[p->endpoint];
            for (uint32_t i = 0; i + 4 <= dwBytes; i += 4, ++lWord)
                std::memcpy(p->data + i, &lWord, 4);
            p->OnComplete(p, Status::Ok, dwBytes);
        }
    }

    const usbstack::Speed m_speed;
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<Setup> m_seen;
    std::deque<usbstack::BulkRequest*> m_queue;
    std::deque<int64_t> m_steps;
    std::map<uint8_t, uint32_t> m_words;
    bool m_bHalted = false;
};

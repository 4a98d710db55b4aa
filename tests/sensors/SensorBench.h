// A camera class on a device that keeps its registers; what the class sends is told in words.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <type_traits>

#include "camera/CCameraBase.h"
#include "platform/Platform.h"
#include "platform/UsbAdapter.h"
#include "support/RecordingStack.h"
#include "support/TempStore.h"

// One word a request: "3001=01" byte write, "0052:0100" 16-bit write, "F10=17" FPGA write, "?3009" byte read, "?0020:"
// 16-bit read, "cmd175" any other request that goes out, "in173" any other that comes in.
inline std::string Words(const std::vector<RecordedRequest>& requests)
{
    std::string s;
    for (const RecordedRequest& r : requests) {
        char sz[32];
        switch (r.bRequest) {
        case 166: std::snprintf(sz, sizeof sz, "%04x:%04x", r.wValue, r.wIndex); break;
        case 167: std::snprintf(sz, sizeof sz, "?%04x:", r.wValue); break;
        case 182: std::snprintf(sz, sizeof sz, "%04x=%02x", r.wValue, r.wIndex); break;
        case 183: std::snprintf(sz, sizeof sz, "?%04x", r.wValue); break;
        case 189: std::snprintf(sz, sizeof sz, "F%u=%u", r.wValue, r.wIndex); break;
        default: std::snprintf(sz, sizeof sz, r.bIn ? "in%u" : "cmd%u", r.bRequest); break;
        }
        s += (s.empty() ? "" : " ") + std::string(sz);
    }
    return s;
}

// What a call sends. One that tells of success has to succeed.
#define SENDS(...) SentBy([&] { return __VA_ARGS__; })

class SensorTest : public testing::Test {
protected:
    explicit SensorTest(double dRate)
    {
        platform::SetUsbStack(&m_stack);
        platform::SetClockRate(dRate);
    }
    ~SensorTest() override
    {
        platform::SetClockRate(1);
        platform::SetUsbStack(nullptr);
    }
    // What was sent since the last call, without the cooler thread's requests.
    std::vector<RecordedRequest> Requests()
    {
        auto all = m_dev->Take();
        std::erase_if(all, [](const RecordedRequest& r) { return r.bRequest == 178 || r.bRequest == 179 || r.bRequest == 199; });
        return all;
    }
    std::string Sent() { return Words(Requests()); }
    template <class Call>
    std::string SentBy(Call call)
    {
        m_dev->Clear();
        if constexpr (std::is_same_v<decltype(call()), bool>) {
            EXPECT_TRUE(call());
        } else {
            call();
        }
        return Sent();
    }

    TempStore m_store;
    RecordingStack m_stack;
    FakeUsbDevice* m_dev = nullptr;
    std::map<uint16_t, uint16_t> m_regs;
    uint8_t m_ver = 0;
};

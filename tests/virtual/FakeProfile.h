// A sensor with plain registers, and a host that drives it over the USB-stack seam.
#pragma once
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "virtual/VirtualBus.h"

namespace fake {

enum Reg : uint16_t { STREAM, HELD, X, Y, W, H, FRAME_100US, COUNT };

class Sensor final : public kovsim::Profile {
public:
    explicit Sensor(const kovsim::ModelFacts& facts) { m_facts = facts; }
    void PowerOn() override
    {
        std::memset(m_Reg, 0, sizeof m_Reg);
        m_Reg[W] = uint16_t(m_facts.iWidth);
        m_Reg[H] = uint16_t(m_facts.iHeight);
        m_Reg[FRAME_100US] = 100;
        m_bUsb = false;
    }
    bool WriteReg16(uint16_t reg, uint16_t v) override { return reg < COUNT && (m_Reg[reg] = v, true); }
    bool WriteReg8(uint16_t reg, uint8_t v) override { return WriteReg16(reg, v); }
    uint16_t ReadReg16(uint16_t reg) override { return reg < COUNT ? m_Reg[reg] : uint16_t(0); }
    uint8_t ReadReg8(uint16_t reg) override { return uint8_t(ReadReg16(reg)); }
    void WriteFpga(uint16_t reg, uint16_t v) override { m_fpga[reg & 31] = uint8_t(v); }
    uint8_t ReadFpga(uint16_t reg) override { return m_fpga[reg & 31]; }
    void Command(uint8_t request) override
    {
        if (request == 169)
            m_bUsb = true;
        if (request == 170)
            m_bUsb = false;
    }
    void SetTransferCount(uint32_t) override {}
    void SetTemperature(double) override {}
    kovsim::Readout Current() const override
    {
        kovsim::Readout r;
        r.bStreaming = m_bUsb && m_Reg[STREAM];
        r.bHeld = m_Reg[HELD];
        r.iX = m_Reg[X];
        r.iY = m_Reg[Y];
        r.iW = r.iOutW = m_Reg[W];
        r.iH = r.iOutH = m_Reg[H];
        r.samples = kovsim::Samples::Bits8;
        r.dExposureUs = 10000;
        r.dFrameUs = m_Reg[FRAME_100US] * 100.0;
        r.bValid = m_Reg[X] + m_Reg[W] <= m_facts.iWidth;
        if (!r.bValid)
            r.sWhy = "X " + std::to_string(m_Reg[X]);
        return r;
    }

private:
    uint16_t m_Reg[COUNT] = {};
    uint8_t m_fpga[32] = {};
    bool m_bUsb = false;
};

inline kovsim::ModelFacts Facts(int w = 64, int h = 48)
{
    kovsim::ModelFacts f;
    f.wProductId = 0xC1FE;
    f.sToken = "Fake";
    f.iWidth = w;
    f.iHeight = h;
    f.dPixelUm = 2.9;
    f.temp = kovsim::ModelFacts::Temp::Digital;
    return f;
}

// No noise, no hot pixels and the pattern, unless the test wants otherwise.
inline kovsim::CameraSettings Settings(const kovsim::ModelFacts& facts)
{
    kovsim::CameraSettings s;
    s.wProductId = facts.wProductId;
    s.dNoise = 0;
    s.iHotPixels = 0;
    s.scene = kovsim::Scene::Pattern();
    s.profile = [facts](uint8_t, bool) { return std::make_unique<Sensor>(facts); };
    return s;
}

// One bulk read and its outcome.
class Read {
public:
    explicit Read(uint32_t length) : data(length, 0xEE)
    {
        m_Request.endpoint = 0x82;
        m_Request.data = data.data();
        m_Request.length = length;
        m_Request.context = this;
        m_Request.OnComplete = [](usbstack::BulkRequest* r, usbstack::Status status, uint32_t n) {
            auto* self = static_cast<Read*>(r->context);
            std::lock_guard lock(self->m_Mutex);
            self->status = status;
            self->moved = n;
            self->order = ++s_Order;
            ++self->calls;
            self->m_Done.notify_all();
        };
    }
    usbstack::BulkRequest* Request() { return &m_Request; }
    bool Wait(int ms = 10000)
    {
        std::unique_lock lock(m_Mutex);
        return m_Done.wait_for(lock, std::chrono::milliseconds(ms), [this] { return calls > 0; });
    }
    bool Done()
    {
        std::lock_guard lock(m_Mutex);
        return calls > 0;
    }

    std::vector<uint8_t> data;
    usbstack::Status status = usbstack::Status::Failed;
    uint32_t moved = 0;
    int order = 0, calls = 0;

private:
    usbstack::BulkRequest m_Request;
    std::mutex m_Mutex;
    std::condition_variable m_Done;
    inline static std::atomic<int> s_Order{ 0 };
};

// A bus with one camera, opened.
class Host {
public:
    explicit Host(const kovsim::CameraSettings& settings, double rate = 1) : bus(rate), camera(bus.Plug(settings))
    {
        device = Open();
    }
    std::unique_ptr<usbstack::IDevice> Open()
    {
        const auto list = bus.Enumerate();
        usbstack::Status status = usbstack::Status::Failed;
        if (list.empty())
            throw std::runtime_error("no camera");
        auto* p = bus.Open(list.at(0).path, &status);
        if (!p)
            throw std::runtime_error("not opened");
        return std::unique_ptr<usbstack::IDevice>(p);
    }
    usbstack::Status Out(uint8_t request, uint16_t value = 0, uint16_t index = 0, std::vector<uint8_t> data = {})
    {
        uint32_t moved;
        return device->Control(0x40, request, value, index, data.data(), uint16_t(data.size()), 1000, &moved);
    }
    // Empty: not Ok.
    std::vector<uint8_t> In(uint8_t request, uint16_t value, uint16_t index, uint16_t length, uint8_t type = 0xC0)
    {
        std::vector<uint8_t> data(length, 0);
        uint32_t moved = 0;
        const auto status = device->Control(type, request, value, index, data.data(), length, 1000, &moved);
        data.resize(status == usbstack::Status::Ok ? moved : 0);
        return data;
    }
    void Set(Reg reg, uint16_t value)
    {
        if (Out(166, reg, value) != usbstack::Status::Ok)
            throw std::runtime_error("register");
    }
    void Start()
    {
        Out(169);
        Set(STREAM, 1);
    }
    void Stop()
    {
        Set(STREAM, 0);
        Out(170);
        device->ResetPipe(0x82);
    }
    // A frame in one read, with room to see too much.
    std::unique_ptr<Read> Frame(uint32_t size)
    {
        auto r = std::make_unique<Read>(size + 1024);
        if (device->SubmitBulk(r->Request()) != usbstack::Status::Ok || !r->Wait())
            throw std::runtime_error("no frame");
        return r;
    }

    kovsim::VirtualBus bus;
    kovsim::VirtualCamera& camera;
    std::unique_ptr<usbstack::IDevice> device;
};

}  // namespace fake

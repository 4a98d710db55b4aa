#include "virtual/VirtualBus.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "virtual/Camera.h"

namespace kovsim {

using usbstack::Status;

namespace {

// A device that is no camera: it enumerates, and that is all.
class NoSensor final : public Profile {
public:
    explicit NoSensor(uint16_t wProductId)
    {
        m_facts.wProductId = wProductId;
        m_facts.sToken = "Foreign";
        m_facts.bUSB3 = false;
    }
    void PowerOn() override {}
    bool WriteReg16(uint16_t, uint16_t) override { return false; }
    bool WriteReg8(uint16_t, uint8_t) override { return false; }
    uint16_t ReadReg16(uint16_t) override { return 0; }
    uint8_t ReadReg8(uint16_t) override { return 0; }
    void WriteFpga(uint16_t, uint16_t) override {}
    uint8_t ReadFpga(uint16_t) override { return 0; }
    void Command(uint8_t) override {}
    void SetTransferCount(uint32_t) override {}
    Readout Current() const override { return {}; }
};

class Handle final : public usbstack::IDevice {
public:
    Handle(Camera& camera, uint64_t uPlug)
        : m_camera(camera), m_uPlug(uPlug), m_speed(camera.GetSpeed()), m_bAddress(camera.GetAddress())
    {
    }
    ~Handle() override { m_camera.Cancel(this); }

    Status Control(uint8_t bRequestType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex, uint8_t* pData, uint16_t wLength,
                   uint32_t dwTimeoutMs, uint32_t* pdwMoved) override
    {
        return m_camera.Control(m_uPlug, bRequestType, bRequest, wValue, wIndex, pData, wLength, dwTimeoutMs, pdwMoved);
    }
    Status SubmitBulk(usbstack::BulkRequest* request) override { return m_camera.Submit(m_uPlug, this, request); }
    void Abort(uint8_t bEndpoint) override
    {
        if (bEndpoint == BULK_IN)
            m_camera.Cancel(this);
    }
    Status ResetPipe(uint8_t bEndpoint) override
    {
        return bEndpoint == BULK_IN ? m_camera.ResetPipe(m_uPlug, this) : Status::Failed;
    }
    void SetTransferSize(uint8_t, uint32_t) override {}  // requests of any size are served
    Status ResetPort() override { return m_camera.ResetPort(m_uPlug); }
    Status CyclePort() override { return m_camera.CyclePort(m_uPlug); }
    usbstack::Speed GetSpeed() override { return m_speed; }
    uint8_t GetAddress() override { return m_bAddress; }
    int GetAltSetting() override { return m_camera.GetAltSetting(m_uPlug); }
    Status Claim() override { return m_camera.Claim(m_uPlug); }
    void AbortControl() override { m_camera.AbortControl(m_uPlug); }
    bool KeepsTimeLimits() const override { return true; }

private:
    Camera& m_camera;
    const uint64_t m_uPlug;
    const usbstack::Speed m_speed;
    const uint8_t m_bAddress;
};

class Socket final : public UsbDevice {
public:
    Socket(Camera& camera, uint64_t uPlug)
        : m_camera(camera), m_uPlug(uPlug), m_uPacket(camera.GetSpeed() == usbstack::Speed::Super ? 1024 : 512)
    {
    }
    ~Socket() override { m_camera.Cancel(this); }
    bool Present() const override { return m_camera.IsCurrent(m_uPlug); }
    Answer Control(const std::array<uint8_t, 8>& setup, std::vector<uint8_t> data) override
    {
        const auto word = [&](size_t at) { return uint16_t(setup[at] | setup[at + 1] << 8); };
        Camera::Answer a = m_camera.Ask(m_uPlug, setup[0], setup[1], word(2), word(4), word(6), std::move(data));
        if (!(setup[0] & 0x80) || a.status != Status::Ok)
            a.data.clear();
        return { a.status, std::move(a.data), m_camera.RealTimeIn(a.dDelayUs) };
    }
    void NoteLostReply() override { m_camera.NoteLostReply(); }
    Status SubmitBulk(usbstack::BulkRequest* request) override { return m_camera.Submit(m_uPlug, this, request, m_uPacket); }
    void Unlink(usbstack::BulkRequest* request) override { m_camera.Cancel(this, request); }
    void Replug() override { m_camera.PowerCycle(m_uPlug); }

private:
    Camera& m_camera;
    const uint64_t m_uPlug;
    const uint32_t m_uPacket;
};

}  // namespace

struct VirtualBus::Impl final : BusHooks {
    explicit Impl(double rate) : dRate(rate > 0 ? rate : 1), clock(dRate) {}

    // Called with a camera's lock held: takes only its own, which guards nothing else.
    void Pump() override
    {
        std::lock_guard lock(pump);
        bPump = true;
        wake.notify_one();
    }
    uint8_t NextAddress() override
    {
        uint8_t at = address.load();
        while (!address.compare_exchange_weak(at, at == 127 ? uint8_t(2) : uint8_t(at + 1))) {
        }
        return at;
    }

    void EventThread()
    {
        std::unique_lock lock(pump);
        for (;;) {
            wake.wait(lock, [this] { return bPump || bQuit; });
            if (bQuit)
                return;
            bPump = false;
            lock.unlock();
            for (Camera* camera : All())
                camera->Complete();
            lock.lock();
        }
    }

    std::vector<Camera*> All()
    {
        std::lock_guard lock(list);
        std::vector<Camera*> out;
        for (const auto& c : cameras)
            out.push_back(c.get());
        return out;
    }

    Camera& Add(const CameraSettings& settings, uint16_t wVendorId)
    {
        std::lock_guard lock(list);
        const std::string port = std::to_string(cameras.size() + 1);
        cameras.push_back(std::make_unique<Camera>(settings, wVendorId, clock, *this, uint8_t(settings.bUSB3Host ? 2 : 1), port));
        return *cameras.back();
    }

    const double dRate;
    usbstack::Plugin offer{};
    Clock clock;
    std::atomic<uint8_t> address{ 2 };  // 1 is the root hub's
    std::mutex pump;
    std::condition_variable wake;
    bool bPump = false, bQuit = false;
    std::mutex list;
    std::vector<std::unique_ptr<Camera>> cameras;
    std::thread events;
};

VirtualBus::VirtualBus(double dClockRate) : m_p(std::make_unique<Impl>(dClockRate))
{
    m_p->offer = { usbstack::PLUGIN_VERSION, this, m_p->dRate };
    m_p->events = std::thread([this] { m_p->EventThread(); });
}

VirtualBus::~VirtualBus()
{
    {
        std::lock_guard lock(m_p->pump);
        m_p->bQuit = true;
        m_p->wake.notify_one();
    }
    m_p->events.join();
    m_p->cameras.clear();
}

VirtualCamera& VirtualBus::Plug(const CameraSettings& settings) { return m_p->Add(settings, VENDOR_ID); }

void VirtualBus::PlugForeign(uint16_t wVendorId, uint16_t wProductId)
{
    CameraSettings s;
    s.wProductId = wProductId;
    s.bUSB3Host = false;
    s.iHotPixels = 0;
    s.scene = Scene::Dark();
    s.profile = [wProductId](uint8_t, bool) { return std::make_unique<NoSensor>(wProductId); };
    m_p->Add(s, wVendorId);
}

std::vector<VirtualCamera*> VirtualBus::Cameras()
{
    std::vector<VirtualCamera*> out;
    for (Camera* c : m_p->All())
        if (c->Facts().sToken != "Foreign")
            out.push_back(c);
    return out;
}

const usbstack::Plugin& VirtualBus::Offer() const { return m_p->offer; }

std::vector<usbstack::DeviceInfo> VirtualBus::Enumerate()
{
    std::vector<usbstack::DeviceInfo> out;
    for (Camera* c : m_p->All()) {
        usbstack::DeviceInfo info;
        uint64_t plug;
        Status open;
        if (c->Info(&info, &plug, &open) && info.vendorId == VENDOR_ID)
            out.push_back(info);
    }
    // Ports count up with the plugs, so only the bus number is out of order.
    std::stable_sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.bus < b.bus; });
    return out;
}

// The camera with this path, if it may be opened; else the reason.
Camera* VirtualBus::Find(const std::string& sPath, uint64_t* puPlug, Status* pStatus)
{
    *pStatus = Status::Gone;
    for (Camera* c : m_p->All()) {
        usbstack::DeviceInfo info;
        if (c->Info(&info, puPlug, pStatus) && info.path == sPath)
            return *pStatus == Status::Ok ? c : nullptr;
        *pStatus = Status::Gone;
    }
    return nullptr;
}

usbstack::IDevice* VirtualBus::Open(const std::string& sPath, Status* pStatus)
{
    uint64_t plug;
    Status status;
    Camera* const camera = Find(sPath, &plug, &status);
    if (pStatus)
        *pStatus = status;
    return camera ? new Handle(*camera, plug) : nullptr;
}

std::unique_ptr<UsbDevice> VirtualBus::OpenDevice(const std::string& sPath)
{
    uint64_t plug;
    Status status;
    Camera* const camera = Find(sPath, &plug, &status);
    return camera ? std::make_unique<Socket>(*camera, plug) : nullptr;
}

}  // namespace kovsim

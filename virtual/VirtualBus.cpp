#include "virtual/VirtualBus.h"

#include <algorithm>

#include "virtual/Camera.h"

namespace kovsim {

using usbstack::Status;

namespace {

// A device that is no camera: it enumerates, and that is all.
class NoSensor final : public Profile {
public:
    explicit NoSensor(uint16_t wProductId)
    {
        m_Facts.wProductId = wProductId;
        m_Facts.sToken = "Foreign";
        m_Facts.bUSB3 = false;
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
        : m_Camera(camera), m_uPlug(uPlug), m_Speed(camera.GetSpeed()), m_bAddress(camera.GetAddress())
    {
    }
    ~Handle() override { m_Camera.Cancel(this); }

    Status Control(uint8_t bRequestType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex, uint8_t* pData,
                   uint16_t wLength, uint32_t dwTimeoutMs, uint32_t* pdwMoved) override
    {
        return m_Camera.Control(m_uPlug, bRequestType, bRequest, wValue, wIndex, pData, wLength, dwTimeoutMs, pdwMoved);
    }
    Status SubmitBulk(usbstack::BulkRequest* request) override { return m_Camera.Submit(m_uPlug, this, request); }
    void Abort(uint8_t bEndpoint) override
    {
        if (bEndpoint == BULK_IN) m_Camera.Cancel(this);
    }
    Status ResetPipe(uint8_t bEndpoint) override
    {
        return bEndpoint == BULK_IN ? m_Camera.ResetPipe(m_uPlug, this) : Status::Failed;
    }
    void SetTransferSize(uint8_t, uint32_t) override {}  // requests of any size are served
    Status ResetPort() override { return m_Camera.ResetPort(m_uPlug); }
    Status CyclePort() override { return m_Camera.CyclePort(m_uPlug); }
    usbstack::Speed GetSpeed() override { return m_Speed; }
    uint8_t GetAddress() override { return m_bAddress; }
    int GetAltSetting() override { return m_Camera.GetAltSetting(m_uPlug); }
    Status Claim() override { return m_Camera.Claim(m_uPlug); }
    void AbortControl() override { m_Camera.AbortControl(m_uPlug); }

private:
    Camera& m_Camera;
    const uint64_t m_uPlug;
    const usbstack::Speed m_Speed;
    const uint8_t m_bAddress;
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
            if (bQuit) return;
            bPump = false;
            lock.unlock();
            for (Camera* camera : All()) camera->Complete();
            lock.lock();
        }
    }

    std::vector<Camera*> All()
    {
        std::lock_guard lock(list);
        std::vector<Camera*> out;
        for (const auto& c : cameras) out.push_back(c.get());
        return out;
    }

    Camera& Add(const CameraSettings& settings, uint16_t wVendorId)
    {
        std::lock_guard lock(list);
        const std::string port = std::to_string(cameras.size() + 1);
        cameras.push_back(std::make_unique<Camera>(settings, wVendorId, clock, *this,
                                                   uint8_t(settings.bUSB3Host ? 2 : 1), port));
        return *cameras.back();
    }

    const double dRate;
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
        if (c->Facts().sToken != "Foreign") out.push_back(c);
    return out;
}

double VirtualBus::ClockRate() const { return m_p->dRate; }

std::vector<usbstack::DeviceInfo> VirtualBus::Enumerate()
{
    std::vector<usbstack::DeviceInfo> out;
    for (Camera* c : m_p->All()) {
        usbstack::DeviceInfo info;
        uint64_t plug;
        Status open;
        if (c->Info(&info, &plug, &open) && info.wVendorId == VENDOR_ID) out.push_back(info);
    }
    // Ports count up with the plugs, so only the bus number is out of order.
    std::stable_sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.bBus < b.bBus; });
    return out;
}

usbstack::IDevice* VirtualBus::Open(const std::string& sPath, Status* pStatus)
{
    Status open = Status::Gone;
    for (Camera* c : m_p->All()) {
        usbstack::DeviceInfo info;
        uint64_t plug;
        Status status;
        if (!c->Info(&info, &plug, &status) || info.sPath != sPath) continue;
        open = status;
        if (open == Status::Ok) {
            if (pStatus) *pStatus = open;
            return new Handle(*c, plug);
        }
    }
    if (pStatus) *pStatus = open;
    return nullptr;
}

}  // namespace kovsim

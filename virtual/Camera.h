// A virtual camera: bridge, sensor and their threads. Internal to the virtual bus.
#pragma once
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "virtual/Descriptors.h"
#include "virtual/Imager.h"
#include "virtual/Memory.h"
#include "virtual/Thermal.h"
#include "virtual/VirtualBus.h"

namespace kovsim {

// Device time, microseconds since the bus was made.
class Clock {
public:
    explicit Clock(double rate) : m_dRate(rate), m_start(std::chrono::steady_clock::now()) {}
    double Rate() const { return m_dRate; }
    double Now() const
    {
        return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - m_start).count() * m_dRate;
    }
    std::chrono::steady_clock::time_point RealTime(double us) const
    {
        return m_start + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                             std::chrono::duration<double, std::micro>(us / m_dRate));
    }

private:
    double m_dRate;
    std::chrono::steady_clock::time_point m_start;
};

// What a camera needs of its bus.
class BusHooks {
public:
    virtual ~BusHooks() = default;
    virtual void Pump() = 0;            // have the event thread look at the cameras' requests
    virtual uint8_t NextAddress() = 0;  // of a device that enumerates now
};

// A frame on its way to the host.
struct FrameInFlight {
    std::shared_ptr<const std::vector<uint8_t>> pixels;
    uint8_t head[4] = {}, tail[4] = {};
    uint32_t uHead = 0, uTail = 0;  // bytes of marks
    uint32_t uFull = 0;             // where the tail belongs
    uint32_t uSize = 0;             // what is sent
    uint32_t uSent = 0;
    bool bGood = true;
    bool bStall = false;  // no frame: the endpoint halts here
    // Bytes from uSent on, marks included.
    void Copy(uint8_t* to, uint32_t from, uint32_t length) const;
};

// Frame memory that comes back for reuse, so that no frame touches fresh pages. Outlives the camera while frames do.
class FramePool : public std::enable_shared_from_this<FramePool> {
public:
    // Idle frames, each as large as the largest that it has held: one is exposed while another is on its way. More come
    // back when a host has left many small ones lying.
    static constexpr size_t KEPT = 2;

    std::shared_ptr<std::vector<uint8_t>> Take();

private:
    std::mutex m_mutex;
    std::vector<std::unique_ptr<std::vector<uint8_t>>> m_free;
};

class Camera final : public VirtualCamera {
public:
    // What the bridge holds back while the host has no request out.
    static constexpr uint32_t FIFO_BYTES = 4u << 20;

    Camera(const CameraSettings& settings, uint16_t wVendorId, const Clock& clock, BusHooks& bus, uint8_t bBus,
           std::string sPort);
    ~Camera() override;

    // VirtualCamera
    const ModelFacts& Facts() const override { return m_facts; }
    const CameraSettings& Settings() const override { return m_settings; }
    std::vector<Request> Requests() const override;
    void ClearRequests() override;
    uint16_t SensorReg(uint16_t reg) const override;
    uint8_t FpgaReg(uint16_t reg) const override;
    Readout CurrentReadout() const override;
    std::string LastContradiction() const override;
    uint64_t LostReplies() const override;
    void Inject(const Fault& fault) override;
    void ClearFaults() override;
    FrameCounters Counters() const override;
    void SetOpenStatus(usbstack::Status status) override;
    void Unplug() override;
    void Replug() override;
    void PowerCycle() override;
    void SetScene(std::shared_ptr<const Scene> scene) override;
    std::vector<HotPixel> HotPixels() const override { return m_imager.HotPixels(); }
    double Temperature() const override;
    double CoolerPower() const override;
    uint8_t CoolerDA() const override;
    bool GuidePin(int direction) const override;
    double GuideX() const override;
    double GuideY() const override;
    std::vector<uint8_t> Flash(uint32_t address, uint32_t length) const override;
    void SetFlash(uint32_t address, const std::vector<uint8_t>& bytes) override;
    std::vector<uint8_t> Eeprom() const override;
    uint8_t Firmware() const override;

    // For the bus, its handles and its sockets. uPlug is the plug that a handle was opened on: a later one makes it stale.
    bool Info(usbstack::DeviceInfo* pInfo, uint64_t* puPlug, usbstack::Status* pOpen) const;
    usbstack::Status Control(uint64_t uPlug, uint8_t bRequestType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex,
                             uint8_t* pData, uint16_t wLength, uint32_t dwTimeoutMs, uint32_t* pdwMoved);
    // The same without waiting for the answer, which the firmware has after dDelayUs of device time. data: what the host
    // sends.
    struct Answer {
        usbstack::Status status;  // Ok, Stall or Gone
        std::vector<uint8_t> data;
        double dDelayUs;
        uint64_t uAborts;  // how many had been given up before
    };
    Answer Ask(uint64_t uPlug, uint8_t bRequestType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex, uint16_t wLength,
               std::vector<uint8_t> data);
    usbstack::Status Claim(uint64_t uPlug) const;
    void AbortControl(uint64_t uPlug);
    void NoteLostReply();
    void PowerCycle(uint64_t uPlug);
    // uPacket: bytes of a packet on the wire, where the request is to babble that more is sent to than it has room for;
    // it ends with Failed. 0: it takes what fits, and the rest goes to the next.
    usbstack::Status Submit(uint64_t uPlug, const void* pOwner, usbstack::BulkRequest* request, uint32_t uPacket = 0);
    // Completes an owner's requests (nullptr: everybody's), or one of them, as cancelled.
    void Cancel(const void* pOwner, const usbstack::BulkRequest* pOnly = nullptr);
    usbstack::Status ResetPipe(uint64_t uPlug, const void* pOwner);
    usbstack::Status ResetPort(uint64_t uPlug);
    usbstack::Status CyclePort(uint64_t uPlug);
    bool IsCurrent(uint64_t uPlug) const;
    std::chrono::steady_clock::time_point RealTimeIn(double us) const { return m_clock.RealTime(m_clock.Now() + us); }
    usbstack::Speed GetSpeed() const;
    uint8_t GetAddress() const;
    int GetAltSetting(uint64_t uPlug) const;
    // Completes what can be completed. On the event thread, one camera at a time.
    void Complete();

private:
    struct Setup {
        bool bIn;
        uint8_t bRequest;
        uint16_t wValue, wIndex, wLength;
    };
    struct Pending {
        usbstack::BulkRequest* request;
        const void* pOwner;
        uint64_t uPlug;
        uint32_t uPacket;
    };
    using Lock = std::unique_lock<std::mutex>;

    // All of these under m_mutex.
    bool Vendor(const Setup& s, std::vector<uint8_t>& data);
    bool VendorLoad(const Setup& s, std::vector<uint8_t>& data);
    bool VendorEeprom(std::vector<uint8_t>& memory, uint32_t address, const Setup& s, std::vector<uint8_t>& data);
    bool VendorFlash(const Setup& s, std::vector<uint8_t>& data);
    bool Standard(uint8_t bRequestType, const Setup& s, std::vector<uint8_t>& data);
    void Boot();
    void PlugIn();
    void Drop(double returnAt);
    void CheckVanish();
    void Changed();
    void Used();
    bool TakeFault(FaultKind kind, const std::function<bool(uint32_t)>& fits, uint32_t* puArg = nullptr);
    void Flush();
    void Log(const Setup& s, const std::vector<uint8_t>& data);
    void MoveGuide();
    double Celsius() const;
    void EndFrame(const FrameInFlight& frame);
    std::unique_ptr<Profile> NewProfile(uint8_t bFirmware) const;
    DescriptorFacts Descriptors() const;
    bool Running() const { return m_bPresent && m_memory.State() == Cpu::Firmware; }
    double PeriodUs(const Readout& r) const;

    // The sensor's thread.
    void SensorThread();
    void Prepare(Lock& lock);
    std::shared_ptr<const std::vector<uint8_t>> Develop(Lock& lock, const Readout& r, double exposureUs);
    void Emit(std::shared_ptr<const std::vector<uint8_t>> pixels);
    void CountLate(double lateUs, double periodUs);
    void TellSlow(Lock& lock);

    const CameraSettings m_settings;
    const uint16_t m_wVendorId;
    const Clock& m_clock;
    BusHooks& m_bus;
    const uint8_t m_bBus;
    const std::string m_sPort;
    ModelFacts m_facts;  // constant after construction
    Imager m_imager;     // sensor thread; its hot pixels are constant

    // Held over every completion, so that whoever has it knows that no buffer is being written. Taken before m_mutex.
    std::mutex m_completing;

    mutable std::mutex m_mutex;  // guards all below
    std::condition_variable m_wake, m_controlWake;
    uint64_t m_uControlAborts = 0;
    uint64_t m_uLostReplies = 0;
    std::unique_ptr<Profile> m_profile;
    std::shared_ptr<const Scene> m_scene, m_prepared;
    bool m_bQuit = false, m_bPresent = false, m_bHalted = false;
    bool m_bUsed = false;     // some host has written a register: frames are likely to be wanted
    bool m_bLoaded = false;   // the boot loader was given a firmware
    double m_dReturnAt = -1;  // device time at which a vanished camera comes back; -1: never
    uint64_t m_uPlug = 0;
    uint8_t m_bAddress = 0, m_bConfiguration = 1;
    uint8_t m_bFirmware = 0;
    usbstack::Status m_openStatus = usbstack::Status::Ok;
    std::deque<Request> m_requests;
    std::vector<Fault> m_faults;
    FrameCounters m_counters;
    std::string m_sContradiction;
    bool m_bNoise = false;  // the latest frame was
    // Of the frames since the sensor last stood still.
    uint64_t m_uRunFrames = 0;
    double m_dRunLostUs = 0;  // device time by which frames came too late to be made up for
    double m_dSlowRate = 0, m_dAskedRate = 0;
    enum class Slow : uint8_t { No, Seen, Told } m_slow = Slow::No;

    Readout m_now;  // the profile's, after the last change
    double m_dHeldAt = 0, m_dReleasedAt = 0;
    double m_dStreamAt = -1;  // when streaming began, until its first exposure does
    uint64_t m_uStops = 0;    // how often streaming ended
    double m_dReplyUs = 0;    // how long the answer of the request in work takes
    uint32_t m_uTransferCount = 0;
    std::deque<FrameInFlight> m_frames;
    std::deque<Pending> m_pending;
    uint64_t m_uFrame = 0;
    uint16_t m_wTag = 0;
    std::shared_ptr<FramePool> m_pool = std::make_shared<FramePool>();

    mutable Thermal m_thermal;
    bool m_pins[4] = {};
    double m_dGuideX = 0, m_dGuideY = 0, m_dGuideAt = 0;
    SpiFlash m_flash;               // of the USB 3 bridge
    std::vector<uint8_t> m_eeprom;  // of the USB 2 bridge
    bool m_bEepromWritten = false;
    std::map<uint32_t, uint8_t> m_i2c;  // of the USB 3 bridge: device << 16 | address
    BridgeMemory m_memory;

    std::thread m_thread;
};

}  // namespace kovsim

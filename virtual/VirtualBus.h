// The virtual bus: virtual cameras behind the USB-stack seam. In-process use:
//
//   kovsim::VirtualBus bus;
//   kovsim::CameraSettings s;  s.wProductId = 0xC11A;
//   kovsim::VirtualCamera& cam = bus.Plug(s);
//   kovsim::Attach(&bus);            // InProcess.h
//
// All operations may be called from any thread.
#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/UsbStack.h"
#include "virtual/Profile.h"
#include "virtual/Scene.h"
#include "virtual/UsbDevice.h"

namespace kovsim {

using ProfileFactory = std::function<std::unique_ptr<Profile>(uint8_t firmware, bool usb3Host)>;

struct CameraSettings {
    uint16_t wProductId = 0xC11A;
    int iFirmware = -1;  // -1: the model's default
    bool bUSB3Host = true;
    std::string sSerial;                 // empty: derived from the seed
    uint64_t uSeed = 1;                  // noise and hot pixels
    std::shared_ptr<const Scene> scene;  // null: the sky
    double dAmbient = 20;                // degrees Celsius
    double dNoise = 1;                   // 0 switches shot, read and dark-current noise off, hot pixels stay; see Imager.h
    int iHotPixels = -1;                 // -1: one in 20,000; at known places, see HotPixels()
    double dLinkMBs = 0;                 // limit of the link; 0: none
    std::string sFlashFile;              // USB 3 models: keeps the flash over a power cycle of the process; empty: memory only
    bool bBootLoader = false;            // USB 3 models: no firmware, the bridge's boot loader waits for an image (request 160)
    ProfileFactory profile;              // sensor side; null: MakeProfile of the product ID
    // Told on the sensor's thread when frames begin to be noise, and when the reason changes.
    std::function<void(const ModelFacts& facts, const std::string& sWhy)> onNoise;
    // Told once a camera, on the sensor's thread: this machine computes frames too slowly. Frames a second of device time
    // that come, and that the registers ask for.
    std::function<void(const ModelFacts& facts, double dRate, double dAsked)> onSlow;
};

// One vendor request as the device saw it.
struct Request {
    bool bIn = false;
    uint8_t bRequest = 0;
    uint16_t wValue = 0, wIndex = 0, wLength = 0;
    std::vector<uint8_t> data;  // sent or answered
    uint64_t uTimeUs = 0;       // device time
};

enum class FaultKind : uint8_t {
    ShortFrame,  // arg: bytes left out
    NoFrame,     // nothing is sent for this frame
    BadHead,
    BadTail,
    BadTag,
    StallBulk,        // the endpoint halts until reset
    SlowControl,      // arg: ms of device time that the next vendor request takes; it is carried out all the same
    FailControl,      // the next vendor request stalls; arg: request code, or 0 for any
    FailRegister,     // writes to sensor register arg are stalled; arg 0x10000 + n: to register n of the FPGA
    Vanish,           // arg: ms of device time until the camera returns, 0: it stays gone; it returns with another address
    FlashEraseFails,  // the erase request stalls
    FlashWriteFails,  // the write request succeeds and changes nothing
};

// Faults of frames begin with the frame after the last good one, the others once the good ones have reached the host.
struct Fault {
    FaultKind kind;
    uint32_t uArg = 0;
    uint32_t uAfterFrames = 0;  // good frames to be sent first, counted from the injection
    uint32_t uTimes = 1;        // in a row
};

// Started: read out of the sensor. Each of them ends as exactly one of the others.
struct FrameCounters {
    uint64_t uStarted = 0;
    uint64_t uGood = 0;          // handed to the host whole and right
    uint64_t uSpoiled = 0;       // by a fault, by a wrong transfer count, or because the host left it in the FIFO
    uint64_t uWithheld = 0;      // of the spoiled: not a byte of it was sent (NoFrame)
    uint64_t uAborted = 0;       // cut off by the host's reset or stop, or by the unplugging
    uint64_t uContradicted = 0;  // noise, since the registers contradicted each other; counted besides, whatever its end
};

struct HotPixel {
    int x, y;
    double dElectronsPerSecond;
};  // at 20 degrees

class VirtualCamera {
public:
    virtual ~VirtualCamera() = default;
    virtual const ModelFacts& Facts() const = 0;
    virtual const CameraSettings& Settings() const = 0;

    // What the host sent since the last ClearRequests.
    virtual std::vector<Request> Requests() const = 0;
    virtual void ClearRequests() = 0;
    virtual uint16_t SensorReg(uint16_t reg) const = 0;
    virtual uint8_t FpgaReg(uint16_t reg) const = 0;
    virtual Readout CurrentReadout() const = 0;
    virtual std::string LastContradiction() const = 0;  // why the latest of FrameCounters::uContradicted was noise
    virtual uint64_t LostReplies() const = 0;           // control requests that the host gave up before their answer

    virtual void Inject(const Fault& fault) = 0;
    virtual void ClearFaults() = 0;
    virtual FrameCounters Counters() const = 0;
    // What a host meets from now on: Access (or another failure) for an Open that is refused, for instance for missing
    // rights; Busy for a camera that another program holds: it opens, but claims and reads are refused.
    virtual void SetOpenStatus(usbstack::Status status) = 0;
    virtual void Unplug() = 0;
    virtual void Replug() = 0;      // a new address; registers as after power on, flash kept
    virtual void PowerCycle() = 0;  // Unplug and Replug

    virtual void SetScene(std::shared_ptr<const Scene> scene) = 0;
    virtual std::vector<HotPixel> HotPixels() const = 0;
    virtual double Temperature() const = 0;  // sensor, degrees Celsius; see Thermal.h
    virtual double CoolerPower() const = 0;  // 0 to 1
    virtual uint8_t CoolerDA() const = 0;
    // Pins 0 and 1 move the scene up and down, 2 and 3 right and left, 7.5 arc seconds a second of device time.
    virtual bool GuidePin(int direction) const = 0;
    virtual double GuideX() const = 0;  // how far the guided scene has moved, arc seconds: right
    virtual double GuideY() const = 0;  // and down
    // USB 3 models; the others have no flash, and stall its requests.
    virtual std::vector<uint8_t> Flash(uint32_t address, uint32_t length) const = 0;
    virtual void SetFlash(uint32_t address, const std::vector<uint8_t>& bytes) = 0;
    virtual std::vector<uint8_t> Eeprom() const = 0;  // 64 KiB
    virtual uint8_t Firmware() const = 0;
};

class Camera;

class VirtualBus final : public usbstack::IStack {
public:
    explicit VirtualBus(double dClockRate = 1.0);  // device time runs that many times as fast as real time
    ~VirtualBus() override;
    VirtualCamera& Plug(const CameraSettings& settings);  // lives as long as the bus
    // A device that is no camera: for enumeration tests.
    void PlugForeign(uint16_t wVendorId, uint16_t wProductId);
    std::vector<VirtualCamera*> Cameras();
    const usbstack::Plugin& Offer() const;  // for the library: this bus, at its rate; lives as long as the bus

    std::vector<usbstack::DeviceInfo> Enumerate() override;
    usbstack::IDevice* Open(const std::string& sPath, usbstack::Status* pStatus) override;
    // One step lower: the device for a host controller. nullptr: it is not there, or may not be opened.
    std::unique_ptr<UsbDevice> OpenDevice(const std::string& sPath);

private:
    Camera* Find(const std::string& sPath, uint64_t* puPlug, usbstack::Status* pStatus);
    struct Impl;
    std::unique_ptr<Impl> m_p;
};

}  // namespace kovsim

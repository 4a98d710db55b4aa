// Virtual cameras whose firmware can be replaced, images made for them, and a tap on the control pipe.
#pragma once
#include <array>
#include <optional>

#include "faults/FaultBench.h"
#include "usb/CCameraFX3.h"
#include "usb/CUsbLink.h"
#include "usb/FirmwareImages.h"

using Bytes = std::vector<uint8_t>;

struct ControlSetup {
    bool bIn;
    uint8_t bRequest;
    uint16_t wValue, wIndex, wLength;
    // Part of an update: memory of the bridge's processor, or its EEPROM.
    bool IsLoad() const { return bRequest == 160 || (bRequest == 169 && wLength != 0); }
};

// Stands between the library and the bus, so that a test meets each vendor request before the camera does.
class Tap final : public usbstack::IStack {
public:
    explicit Tap(usbstack::IStack& bus) : m_Bus(bus) {}

    std::function<usbstack::Status(const ControlSetup&)> OnControl;  // anything but Ok: the request does not reach it
    std::function<void()> OnCycle;                                   // before the port is cycled
    std::function<bool()> Hidden;                                    // the bus looks empty

    std::vector<usbstack::DeviceInfo> Enumerate() override
    {
        return Hidden && Hidden() ? std::vector<usbstack::DeviceInfo>{} : m_Bus.Enumerate();
    }
    usbstack::IDevice* Open(const std::string& sPath, usbstack::Status* pStatus) override
    {
        usbstack::IDevice* const p = m_Bus.Open(sPath, pStatus);
        return p ? new Device(*this, p) : nullptr;
    }

private:
    class Device final : public usbstack::IDevice {
    public:
        Device(Tap& tap, usbstack::IDevice* p) : m_Tap(tap), m_p(p) {}
        usbstack::Status Control(uint8_t type, uint8_t bRequest, uint16_t wValue, uint16_t wIndex, uint8_t* p,
                                 uint16_t wLength, uint32_t ms, uint32_t* pdwMoved) override
        {
            if ((type & 0x60) == 0x40 && m_Tap.OnControl) {
                const auto status = m_Tap.OnControl({ (type & 0x80) != 0, bRequest, wValue, wIndex, wLength });
                if (status != usbstack::Status::Ok) {
                    *pdwMoved = 0;
                    return status;
                }
            }
            return m_p->Control(type, bRequest, wValue, wIndex, p, wLength, ms, pdwMoved);
        }
        usbstack::Status SubmitBulk(usbstack::BulkRequest* r) override { return m_p->SubmitBulk(r); }
        void Abort(uint8_t ep) override { m_p->Abort(ep); }
        usbstack::Status ResetPipe(uint8_t ep) override { return m_p->ResetPipe(ep); }
        void SetTransferSize(uint8_t ep, uint32_t n) override { m_p->SetTransferSize(ep, n); }
        usbstack::Status ResetPort() override { return m_p->ResetPort(); }
        usbstack::Status CyclePort() override
        {
            if (m_Tap.OnCycle)
                m_Tap.OnCycle();
            return m_p->CyclePort();
        }
        usbstack::Speed GetSpeed() override { return m_p->GetSpeed(); }
        uint8_t GetAddress() override { return m_p->GetAddress(); }
        int GetAltSetting() override { return m_p->GetAltSetting(); }

    private:
        Tap& m_Tap;
        const std::unique_ptr<usbstack::IDevice> m_p;
    };
    usbstack::IStack& m_Bus;
};

// The models that carry an image of their firmware.
struct FirmwareRow {
    const char* szName;
    uint16_t wProductId;
    FirmwareId id;
    int32_t iSize;      // bytes of the image
    uint8_t bNeeded;    // versions below are updated
};

// clang-format off
inline constexpr FirmwareRow g_FirmwareRows[] = {
    { "GarnetMono", 0xC07A, FirmwareId::GarnetMono, 4238, 3 },
    { "GarnetCol",  0xC07B, FirmwareId::GarnetCol,  4265, 3 },
    { "CobaltCol",  0xC03A, FirmwareId::CobaltCol,  4346, 1 },
    { "IoliteMono", 0xC09A, FirmwareId::IoliteMono, 4299, 1 },
};
// clang-format on

// A C2 image of exactly n bytes whose firmware tells its version as the virtual cameras read it.
inline Bytes C2Image(uint8_t version, size_t n)
{
    Bytes b = { 0xC2, 0x47, 0x05, 0x31, 0x21, 0, 0, 4, 0, 6, 0x01, 0x00, 'K', 'O', 'V', 'F', 'W', version };
    for (uint16_t at = 0x200; b.size() + 5 < n; at = uint16_t(at + 0x3FF)) {
        const size_t size = std::min<size_t>(0x3FF, n - 5 - b.size() - 4);
        b.insert(b.end(), { uint8_t(size >> 8), uint8_t(size), uint8_t(at >> 8), uint8_t(at) });
        for (size_t i = 0; i < size; ++i)
            b.push_back(uint8_t(at + i * 7));
    }
    b.insert(b.end(), { 0x80, 0x01, 0xE6, 0x00, 0x00 });
    return b;
}

class FirmwareBench : public FaultTest {
protected:
    static constexpr double RATE = 20;
    static constexpr uint8_t NEW = 3;  // version that the images bring

    void SetUp() override
    {
        FaultTest::SetUp();
        SetFirmware(FirmwareId::LoaderPart1, { m_Part1.data(), int32_t(m_Part1.size()) });
        SetFirmware(FirmwareId::LoaderPart2, { m_Part2.data(), int32_t(m_Part2.size()) });
    }
    void TearDown() override
    {
        FaultTest::TearDown();
        ClearFirmware();
    }

    // A bus of its own with a tap; the cameras of earlier ones are gone.
    void NewBus()
    {
        Speed(RATE);
        m_pTap = std::make_unique<Tap>(*m_pBus);
        platform::SetUsbStack(m_pTap.get());
    }
    kovsim::VirtualCamera& PlugOne(uint16_t wProductId, int iFirmware = -1, bool bBootLoader = false)
    {
        kovsim::CameraSettings s;
        s.wProductId = wProductId;
        s.iFirmware = iFirmware;
        s.bBootLoader = bBootLoader;
        s.dNoise = 0;
        s.iHotPixels = 0;
        s.scene = kovsim::Scene::Dark();
        m_pCam = &m_pBus->Plug(s);
        return *m_pCam;
    }
    void UseImage(const FirmwareRow& m, Bytes image)
    {
        m_Image = std::move(image);
        m_Image.shrink_to_fit();  // a sanitizer sees the first byte past it
        SetFirmware(m.id, { m_Image.data(), int32_t(m_Image.size()) });
    }
    // A bus with one camera of the model that is one version behind, and the image that it lacks.
    void Outdated(const FirmwareRow& m)
    {
        NewBus();
        PlugOne(m.wProductId, m.bNeeded - 1);
        UseImage(m, C2Image(NEW, size_t(m.iSize)));
    }

    static KOV_ERROR_CODE OpenId(int id = 0)
    {
        const Limit limit("KOVOpenCamera");
        EXPECT_GT(KOVGetNumOfConnectedCameras(), id);
        return KOVOpenCamera(id);
    }
    static KOV_ERROR_CODE Reopen()
    {
        KOVCloseCamera(0);
        return OpenId();
    }
    static int HostVersion(int id = 0) { return CCameraBase::FromID(id)->m_FirmwareVer; }

    // The requests of an update in the order in which they came, "in|out request value length" each.
    static std::vector<std::string> Loads(const kovsim::VirtualCamera& cam)
    {
        std::vector<std::string> v;
        for (const kovsim::Request& r : cam.Requests()) {
            if (!ControlSetup{ r.bIn, r.bRequest, r.wValue, r.wIndex, r.wLength }.IsLoad())
                continue;
            char sz[48];
            std::snprintf(sz, sizeof sz, "%s %u %04x %u", r.bIn ? "in" : "out", r.bRequest, r.wValue, r.wLength);
            v.push_back(sz);
        }
        return v;
    }
    bool EepromHolds(const Bytes& image) const
    {
        const Bytes eeprom = m_pCam->Eeprom();
        return std::equal(image.begin(), image.end(), eeprom.begin());
    }

    std::unique_ptr<Tap> m_pTap;  // dies before the bus, when nothing is open any more
    Bytes m_Image;

private:
    const Bytes m_Part1 = Bytes(2048, 0x11), m_Part2 = Bytes(1427, 0x22);
};

// The compliance checks find faults that are planted into virtual cameras, and none in a good one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <tuple>

#include "camera/CCameraBase.h"
#include "common/Comply.h"
#include "platform/Platform.h"
#include "platform/UsbAdapter.h"
#include "support/TempStore.h"
#include "virtual/VirtualBus.h"

namespace {

using kovsim::Readout;
using kovtools::CheckResult;

// A sensor that does another thing than its registers say.
class Twisted final : public kovsim::Profile {
public:
    Twisted(std::unique_ptr<Profile> good, std::function<void(Readout&)> twist, std::optional<kovsim::Cfa> cell)
        : m_good(std::move(good)), m_twist(std::move(twist))
    {
        m_facts = m_good->Facts();
        m_facts.cfa = cell.value_or(m_facts.cfa);
    }
    void PowerOn() override { m_good->PowerOn(); }
    bool WriteReg16(uint16_t r, uint16_t v) override { return m_good->WriteReg16(r, v); }
    bool WriteReg8(uint16_t r, uint8_t v) override { return m_good->WriteReg8(r, v); }
    uint16_t ReadReg16(uint16_t r) override { return m_good->ReadReg16(r); }
    uint8_t ReadReg8(uint16_t r) override { return m_good->ReadReg8(r); }
    void WriteFpga(uint16_t r, uint16_t v) override { m_good->WriteFpga(r, v); }
    uint8_t ReadFpga(uint16_t r) override { return m_good->ReadFpga(r); }
    void Command(uint8_t r) override { m_good->Command(r); }
    void SetTransferCount(uint32_t n) override { m_good->SetTransferCount(n); }
    void SetTemperature(double c) override { m_good->SetTemperature(c); }
    Readout Current() const override
    {
        Readout r = m_good->Current();
        if (m_twist)
            m_twist(r);
        return r;
    }

private:
    std::unique_ptr<Profile> m_good;
    std::function<void(Readout&)> m_twist;
};

// Another scene with a row or a column that gets no light.
class Masked final : public kovsim::Scene {
public:
    Masked(std::shared_ptr<const Scene> scene, int row, int column) : m_scene(std::move(scene)), m_row(row), m_column(column) {}
    void Render(const kovsim::ScreenGeometry& g, int first, int rows, kovsim::Light* out) const override
    {
        m_scene->Render(g, first, rows, out);
        for (int y = 0; y < rows; ++y)
            for (int x = 0; x < g.iWidth; ++x)
                if (first + y == m_row || x == m_column)
                    out[y * g.iWidth + x] = {};
    }

private:
    std::shared_ptr<const Scene> m_scene;
    int m_row, m_column;
};

// A stack whose wires do something to what a camera sends.
using OnReply =
    std::function<bool(uint8_t request, uint8_t* data, uint16_t size)>;  // false: the request does not reach the camera
using OnData = std::function<void(uint8_t* data, uint32_t size)>;        // of one chunk
class Wires final : public usbstack::IStack {
public:
    Wires(IStack& good, OnReply reply, OnData data) : m_good(good), m_reply(std::move(reply)), m_data(std::move(data)) {}
    std::vector<usbstack::DeviceInfo> Enumerate() override { return m_good.Enumerate(); }
    usbstack::IDevice* Open(const std::string& path, usbstack::Status* status) override
    {
        IDevice* const device = m_good.Open(path, status);
        return device != nullptr ? new Device(*this, device) : nullptr;
    }

private:
    using IDevice = usbstack::IDevice;
    using Status = usbstack::Status;
    using BulkRequest = usbstack::BulkRequest;
    struct Shadow {
        BulkRequest mine;
        BulkRequest* theirs;
        Wires* wires;
    };
    class Device final : public IDevice {
    public:
        Device(Wires& wires, IDevice* good) : m_wires(wires), m_good(good) {}
        Status Control(uint8_t type, uint8_t request, uint16_t value, uint16_t index, uint8_t* data, uint16_t size, uint32_t ms,
                       uint32_t* moved) override
        {
            if ((type & 0x60) == 0x40 && !(type & 0x80) && m_wires.m_reply && !m_wires.m_reply(request, data, size)) {
                *moved = size;
                return Status::Ok;
            }
            const Status status = m_good->Control(type, request, value, index, data, size, ms, moved);
            if ((type & 0xE0) == 0xC0 && m_wires.m_reply)
                m_wires.m_reply(request, data, size);
            return status;
        }
        Status SubmitBulk(BulkRequest* theirs) override
        {
            auto* const s = new Shadow{ *theirs, theirs, &m_wires };
            s->mine.context = s;
            s->mine.OnComplete = [](BulkRequest* mine, Status status, uint32_t n) {
                const std::unique_ptr<Shadow> own(static_cast<Shadow*>(mine->context));
                if (status == Status::Ok && own->wires->m_data)
                    own->wires->m_data(mine->data, n);
                own->theirs->OnComplete(own->theirs, status, n);
            };
            const Status status = m_good->SubmitBulk(&s->mine);
            if (status != Status::Ok)
                delete s;
            return status;
        }
        void Abort(uint8_t e) override { m_good->Abort(e); }
        Status ResetPipe(uint8_t e) override { return m_good->ResetPipe(e); }
        void SetTransferSize(uint8_t e, uint32_t n) override { m_good->SetTransferSize(e, n); }
        Status ResetPort() override { return m_good->ResetPort(); }
        Status CyclePort() override { return m_good->CyclePort(); }
        usbstack::Speed GetSpeed() override { return m_good->GetSpeed(); }
        uint8_t GetAddress() override { return m_good->GetAddress(); }
        int GetAltSetting() override { return m_good->GetAltSetting(); }
        Status Claim() override { return m_good->Claim(); }
        void AbortControl() override { m_good->AbortControl(); }

    private:
        Wires& m_wires;
        std::unique_ptr<IDevice> m_good;
    };
    IStack& m_good;
    OnReply m_reply;
    OnData m_data;
};

constexpr uint16_t QUARTZ_MONO = 0xC11B, QUARTZ_COL = 0xC11A, NEPHRITE_COL = 0xC0EA, LAPIS_MONO_C = 0xC0CD;
constexpr uint8_t COOLER_DA = 178, DIGITAL_TEMP = 179, THERMISTOR = 199;
enum class View { Flat, Pattern, Dark };

struct Plant {
    const char* name;
    const char* check;  // that must fail
    View view = View::Flat;
    uint16_t product = QUARTZ_MONO;
    std::function<void(Readout&)> twist = {};
    std::function<void(kovsim::CameraSettings&)> settings = {};
    std::function<void(kovsim::VirtualCamera&)> fault = {};
    std::optional<kovsim::Cfa> cell = {};
    OnReply reply = {};
    OnData data = {};
};
std::ostream& operator<<(std::ostream& os, const Plant& p) { return os << p.name; }

std::vector<CheckResult> Examine(const Plant& plant, double rate, const std::string& only)
{
    const TempStore store;
    platform::SetClockRate(rate);
    kovsim::VirtualBus bus(rate);
    kovsim::CameraSettings s;
    s.wProductId = plant.product;
    s.scene = plant.view == View::Flat      ? kovsim::Scene::Flat(60000)
              : plant.view == View::Pattern ? kovsim::Scene::Pattern()
                                            : kovsim::Scene::Dark();
    if (plant.settings)
        plant.settings(s);
    if (plant.twist || plant.cell)
        s.profile = [&plant](uint8_t firmware, bool usb3) -> std::unique_ptr<kovsim::Profile> {
            return std::make_unique<Twisted>(kovsim::MakeProfile(plant.product, firmware, usb3), plant.twist, plant.cell);
        };
    kovsim::VirtualCamera& camera = bus.Plug(s);
    Wires wires(bus, plant.reply, plant.data);
    platform::SetUsbStack(&wires);
    EXPECT_EQ(KOVGetNumOfConnectedCameras(), 1);
    EXPECT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
    if (plant.fault)
        plant.fault(camera);
    kovtools::ComplianceOptions o;
    o.clockRate = rate;
    o.only.push_back(only);
    o.writeId = true;
    o.repair = [](bool on) { return CCameraBase::FromID(0)->ChangeHPCStatus(on ? HPC_LOAD : HPC_OFF, nullptr); };
    const auto results = kovtools::RunCompliance(0, o).results;
    KOVCloseCamera(0);
    platform::SetUsbStack(nullptr);
    platform::SetClockRate(1);
    return results;
}

void Spoil(kovsim::VirtualCamera& c, kovsim::FaultKind kind, uint32_t arg, uint32_t after, uint32_t times)
{
    for (uint32_t i = 0; i < times; ++i)
        c.Inject({ kind, arg, after, 1 });
}

// clang-format off
const Plant g_plants[] = {
    { "GainSquared", "gain.law", View::Flat, QUARTZ_MONO, [](Readout& r) { r.dGain *= r.dGain; } },
    { "GainWithoutEffect", "gain.law", View::Flat, QUARTZ_MONO, [](Readout& r) { r.dGain = 1; } },
    { "GainFalls", "gain.steps", View::Flat, QUARTZ_MONO, [](Readout& r) { r.dGain = r.dGain > 4 ? 1.5 : r.dGain; } },
    { "GainOfTwo", "noise.transfer", View::Flat, QUARTZ_MONO, [](Readout& r) { r.dGain *= 2; } },
    { "TooLittleNoise", "noise.transfer", View::Flat, QUARTZ_MONO, {}, [](kovsim::CameraSettings& s) { s.dNoise = 0.3; } },
    { "ExposureSaturates", "exposure.linear", View::Flat, QUARTZ_MONO, [](Readout& r) { r.dExposureUs = std::sqrt(r.dExposureUs) * 200; } },
    { "ExposureTooLong", "exposure.zero", View::Flat, QUARTZ_MONO, [](Readout& r) { r.dExposureUs += r.dExposureUs > 1000 ? 20000 : 0; } },
    { "BlackWithoutEffect", "black.level", View::Flat, QUARTZ_MONO, [](Readout& r) { r.dBlack = 16; } },
    { "BlackWanders", "black.steady", View::Flat, QUARTZ_MONO, [n = 0](Readout& r) mutable { r.dBlack += n += 2; } },
    { "LateFrames", "clock.exposure", View::Flat, QUARTZ_MONO, [](Readout& r) { r.dFrameUs += 3e6; } },
    { "BytesScaled", "formats.level", View::Flat, QUARTZ_MONO, [](Readout& r) { r.dGain *= r.samples == kovsim::Samples::Bits8 ? 2 : 1; } },
    { "FramesCutOff", "formats.frames", View::Flat, QUARTZ_MONO, {}, {}, [](kovsim::VirtualCamera& c) { Spoil(c, kovsim::FaultKind::ShortFrame, 4096, 0, 4000); } },
    { "StuckRow", "lines.rows", View::Flat, QUARTZ_MONO, {}, [](kovsim::CameraSettings& s) { s.scene = std::make_shared<Masked>(s.scene, 300, -1); } },
    { "StuckColumn", "lines.columns", View::Flat, QUARTZ_MONO, {}, [](kovsim::CameraSettings& s) { s.scene = std::make_shared<Masked>(s.scene, -1, 77); } },
    { "StuckBit", "bits.alive", View::Flat, QUARTZ_MONO, {}, {}, {}, {}, {}, [](uint8_t* p, uint32_t n) {
         for (uint32_t i = 9; i + 8 < n; i += 2)
             p[i] |= 0x10;
     } },
    { "WrongCell", "colours.green", View::Flat, QUARTZ_COL, {}, {}, {}, kovsim::Cfa::GR },
    { "MissingFrames", "stream.lost", View::Flat, QUARTZ_MONO, {}, {}, [](kovsim::VirtualCamera& c) { Spoil(c, kovsim::FaultKind::BadTail, 0, 3, 4000); } },
    { "FrozenFrame", "stream.frozen", View::Pattern, QUARTZ_MONO, {}, [](kovsim::CameraSettings& s) { s.dNoise = 0; } },
    { "TornFrames", "stream.torn", View::Pattern, QUARTZ_MONO, {}, {}, {}, {}, {}, [n = 0](uint8_t* p, uint32_t size) mutable {
         if (size > 300000 && ++n % 9 == 0)
             std::rotate(p + 100000, p + 100321, p + 300000);
     } },
    { "SwappedChunks", "regions.content", View::Pattern, QUARTZ_MONO, {}, {}, {}, {}, {}, [](uint8_t* p, uint32_t n) {
         if (n > 400000)
             std::swap_ranges(p + 1000, p + n / 2 - 1000, p + n / 2);
     } },
    { "WindowMoved", "regions.content", View::Pattern, QUARTZ_MONO, [](Readout& r) { r.iX += r.iW < 1000 ? 16 : 0; r.iX = std::min(r.iX, 1936 - r.iW); } },
    { "WrongBin", "bins.content", View::Pattern, NEPHRITE_COL, [](Readout& r) {
         if (r.iBin > 1)
             r.iBin = 1, r.iW = r.iOutW, r.iH = r.iOutH;
     } },
    { "HotPixels", "hot.count", View::Dark, QUARTZ_MONO, {}, [](kovsim::CameraSettings& s) { s.iHotPixels = 40000; } },
    { "TableOfAnotherSensor", "hot.repair", View::Dark, QUARTZ_MONO, {}, [](kovsim::CameraSettings& s) { s.iHotPixels = 1500; }, [](kovsim::VirtualCamera& c) {
         std::vector<uint8_t> area(2048);
         const uint8_t one[] = { 'K', 'O', 'V', 'D', 0, 0, 0, 10, 0x3A, 0x05 };
         std::copy(std::begin(one), std::end(one), area.begin());
         c.SetFlash(0x40000, area);
     } },
    { "TemperatureOfAnOven", "temperature.sane", View::Flat, QUARTZ_MONO, {}, [](kovsim::CameraSettings& s) { s.dAmbient = 95; } },
    { "TemperatureJumps", "temperature.steady", View::Flat, LAPIS_MONO_C, {}, {}, {}, {}, [n = 0](uint8_t request, uint8_t* p, uint16_t) mutable {
         if (request == DIGITAL_TEMP || request == THERMISTOR)
             p[1] = static_cast<uint8_t>(p[1] + (++n & 1 ? 12 : 0));
         return true;
     } },
    { "LyingTemperature", "cooler.works", View::Flat, LAPIS_MONO_C, {}, {}, {}, {}, [first = std::optional<std::pair<uint8_t, uint8_t>>()](uint8_t request, uint8_t* p, uint16_t) mutable {
         if (request == DIGITAL_TEMP || request == THERMISTOR) {
             first = first.value_or(std::pair{ p[0], p[1] });
             std::tie(p[0], p[1]) = *first;
         }
         return true;
     } },
    { "DeafCooler", "cooler.works", View::Flat, LAPIS_MONO_C, {}, {}, {}, {}, [](uint8_t request, uint8_t*, uint16_t) { return request != COOLER_DA; } },
    { "ForgetfulFlash", "id.roundtrip", View::Flat, QUARTZ_MONO, {}, {}, [](kovsim::VirtualCamera& c) { Spoil(c, kovsim::FaultKind::FlashWriteFails, 0, 0, 100); } },
};
// clang-format on

// Sanitizers slow the virtual sensors down; their frames must still come within the waits.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr double RATE = 1;
#else
constexpr double RATE = 8;
#endif

class Planted : public testing::TestWithParam<Plant> {};

TEST_P(Planted, IsFound)
{
    const std::string check = GetParam().check;
    std::string told;
    for (const CheckResult& r : Examine(GetParam(), RATE, check.substr(0, check.find('.')))) {
        told += r.check + " " + kovtools::VerdictText(r.verdict) + " (" + r.what + ": " + std::to_string(r.measured) +
                ", limit " + std::to_string(r.limit) + ") ";
        if (r.check == check && r.verdict == CheckResult::Verdict::Fail) {
            EXPECT_NE(r.hint, "");
            return;
        }
    }
    ADD_FAILURE() << check << " did not fail: " << told;
}
INSTANTIATE_TEST_SUITE_P(Comply, Planted, testing::ValuesIn(g_plants),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace

// A good camera of KOV_COMPLY_MODELS (hexadecimal product IDs), before even light and before a pattern.
TEST(Comply, PassesAGoodCamera)
{
    const char* const named = std::getenv("KOV_COMPLY_MODELS");
    std::istringstream models(named != nullptr ? named : "C07E");  // GarnetCol-S: colours, bins, and small
    for (std::string model; models >> model;)
        for (const View view : { View::Flat, View::Pattern }) {
            Plant plant{ "", "", view };
            plant.product = static_cast<uint16_t>(std::stoi(model, nullptr, 16));
            const auto facts = kovsim::MakeProfile(plant.product, 20, true)->Facts();
            const double rate = named == nullptr ? RATE : facts.iWidth > 3000 ? 1 : 4;  // what a machine can compute
            for (const CheckResult& r : Examine(plant, rate, ""))
                // Whether a virtual camera keeps its pace is a matter of the machine.
                EXPECT_FALSE(r.verdict == CheckResult::Verdict::Fail && r.check != "stream.rate" && r.check != "stream.lost" &&
                             r.check != "clock.exposure" && r.check != "long.exposure")
                    << model << (view == View::Flat ? " flat " : " pattern ") << r.check << " (" << r.what << ": " << r.measured
                    << ", limit " << r.limit << ")";
        }
}

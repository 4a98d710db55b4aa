// The compliance checks find faults that are planted into virtual cameras, and none in a good one.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <memory>

#include "common/Comply.h"
#include "platform/Platform.h"
#include "support/TempStore.h"
#include "virtual/InProcess.h"
#include "virtual/VirtualBus.h"

namespace {

using kovsim::Readout;
using kovtools::CheckResult;

// A sensor that does another thing than its registers say.
class Twisted final : public kovsim::Profile {
public:
    Twisted(std::unique_ptr<Profile> good, std::function<void(Readout&)> twist) : m_good(std::move(good)), m_twist(std::move(twist)) { m_Facts = m_good->Facts(); }
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
        m_twist(r);
        return r;
    }

private:
    std::unique_ptr<Profile> m_good;
    std::function<void(Readout&)> m_twist;
};

// Another scene with rows or columns that get no light.
class Masked final : public kovsim::Scene {
public:
    Masked(std::shared_ptr<const Scene> scene, int row) : m_scene(std::move(scene)), m_row(row) {}
    void Render(const kovsim::ScreenGeometry& g, int first, int rows, kovsim::Light* out) const override
    {
        m_scene->Render(g, first, rows, out);
        if (m_row >= first && m_row < first + rows)
            std::fill_n(out + (m_row - first) * g.iWidth, g.iWidth, kovsim::Light{ 0, 0, 0 });
    }

private:
    std::shared_ptr<const Scene> m_scene;
    int m_row;
};

struct Plant {
    const char* name;
    const char* check;  // that must fail; nullptr: none may
    std::function<void(Readout&)> twist;
    std::function<void(kovsim::CameraSettings&)> settings;
    std::function<void(kovsim::VirtualCamera&)> fault;
};

std::vector<CheckResult> Examine(uint16_t product, const Plant& plant, bool structure)
{
    const TempStore store;
    constexpr double RATE = 4;
    platform::SetClockRate(RATE);
    kovsim::VirtualBus bus(RATE);
    kovsim::CameraSettings s;
    s.wProductId = product;
    s.iHotPixels = 0;
    s.scene = structure ? kovsim::Scene::Pattern() : kovsim::Scene::Flat(60000);
    if (plant.settings)
        plant.settings(s);
    if (plant.twist)
        s.profile = [twist = plant.twist, product](uint8_t firmware, bool usb3) -> std::unique_ptr<kovsim::Profile> {
            return std::make_unique<Twisted>(kovsim::MakeProfile(product, firmware, usb3), twist);
        };
    kovsim::VirtualCamera& camera = bus.Plug(s);
    kovsim::Attach(&bus);
    EXPECT_EQ(KOVGetNumOfConnectedCameras(), 1);
    EXPECT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
    if (plant.fault)
        plant.fault(camera);
    kovtools::ComplianceOptions o;
    o.clockRate = RATE;
    if (plant.check != nullptr)
        o.only = std::string(plant.check).substr(0, std::string(plant.check).find('.'));
    const auto results = kovtools::RunCompliance(0, o).results;
    KOVCloseCamera(0);
    kovsim::Attach(nullptr);
    platform::SetClockRate(1);
    return results;
}

std::string Failures(const std::vector<CheckResult>& results, bool all)
{
    std::string s;
    for (const CheckResult& r : results)
        // How fast a good virtual camera streams is a matter of the machine.
        if (r.verdict == CheckResult::Verdict::Fail && (all || (r.check != "stream.rate" && r.check != "clock.exposure")))
            s += r.check + " (" + r.what + ": " + std::to_string(r.measured) + ", limit " + std::to_string(r.limit) + ") ";
    return s;
}

}  // namespace

TEST(Comply, FindsPlantedFaultsAndNoOthers)
{
    const Plant plants[] = {
        { "none", nullptr, nullptr, nullptr, nullptr },
        { "gain law", "gain.law", [](Readout& r) { r.dGain *= r.dGain; }, nullptr, nullptr },
        { "gain without effect", "gain.law", [](Readout& r) { r.dGain = 1; }, nullptr, nullptr },
        { "gain of two", "noise.transfer", [](Readout& r) { r.dGain *= 2; }, nullptr, nullptr },
        { "exposure that saturates", "exposure.linear", [](Readout& r) { r.dExposureUs = std::sqrt(r.dExposureUs) * 200; }, nullptr, nullptr },
        { "exposure too long by a time", "exposure.zero", [](Readout& r) { r.dExposureUs += r.dExposureUs > 1000 ? 20000 : 0; }, nullptr, nullptr },
        { "black level without effect", "black.level", [](Readout& r) { r.dBlack = 16; }, nullptr, nullptr },
        { "slow frames", "clock.exposure", [](Readout& r) { r.dFrameUs += 8e6; }, nullptr, nullptr },
        { "a dead row", "rows.alive", nullptr, [](kovsim::CameraSettings& s) { s.scene = std::make_shared<Masked>(s.scene, 300); }, nullptr },
        { "nonsense of a temperature", "temperature.sane", nullptr, [](kovsim::CameraSettings& s) { s.dAmbient = 95; }, nullptr },
        { "frames that go missing", "stream.lost", nullptr, nullptr, [](kovsim::VirtualCamera& c) {
             for (uint32_t i = 0; i < 4000; ++i)
                 c.Inject({ kovsim::FaultKind::BadTail, 0, 3, 1 });
         } },
    };
    for (const Plant& plant : plants) {
        SCOPED_TRACE(plant.name);
        const std::string failures = Failures(Examine(0xC11B, plant, false), plant.check != nullptr);  // QuartzMono
        if (plant.check == nullptr)
            EXPECT_EQ(failures, "");
        else
            EXPECT_NE(failures.find(plant.check), std::string::npos) << "failed: " << failures;
    }
    const Plant structured[] = {
        { "none", nullptr, nullptr, nullptr, nullptr },
        { "window moved", "regions.content", [](Readout& r) { r.iX += r.iW < 1000 ? 16 : 0; r.iX = std::min(r.iX, 1936 - r.iW); }, nullptr, nullptr },
    };
    for (const Plant& plant : structured) {
        SCOPED_TRACE(plant.name);
        const std::string failures = Failures(Examine(0xC11B, plant, true), plant.check != nullptr);
        if (plant.check == nullptr)
            EXPECT_EQ(failures, "");
        else
            EXPECT_NE(failures.find(plant.check), std::string::npos) << "failed: " << failures;
    }
}

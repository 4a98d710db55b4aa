// A virtual bus behind the C interface, and the table of what a host is to see of each model.
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "KOVCamera2.h"
#include "camera/CCameraBase.h"
#include "platform/Platform.h"
#include "platform/UsbAdapter.h"
#include "support/TempStore.h"
#include "virtual/VirtualBus.h"

struct ModelRow {
    uint16_t wProductId;
    std::string sClass, sName;
    int iWidth, iHeight;
    double dPixel;
    int iBayer;
    bool bColor, bUSB3, bCooled;
    float fElecPerADU;
    int iPropA, iPropB;
    std::vector<int> gain, exposure, wb, brightness, bandwidth, bins, types, controls;
    std::string sKey;
    bool bBandwidthAuto;
    bool Has(int control) const { return std::find(controls.begin(), controls.end(), control) != controls.end(); }
    bool Delivers(int type) const { return std::find(types.begin(), types.end(), type) != types.end(); }
    bool Is(const char* token) const { return sClass.find(token) != std::string::npos; }
};

inline void PrintTo(const ModelRow& m, std::ostream* pOut) { *pOut << m.sClass; }

inline const std::vector<ModelRow>& Models()
{
    static const std::vector<ModelRow> s_rows = [] {
        std::vector<ModelRow> rows;
        std::ifstream file(MODELS_CSV);
        for (std::string line; std::getline(file, line);) {
            if (line.empty() || line[0] == '#')
                continue;
            std::vector<std::string> f;
            std::stringstream in(line);
            for (std::string cell; std::getline(in, cell, ',');)
                f.push_back(cell);
            const auto ints = [&](size_t i) {
                std::vector<int> v;
                std::stringstream cells(f.at(i));
                for (int n; cells >> n;)
                    v.push_back(n);
                return v;
            };
            // clang-format off
            rows.push_back({ static_cast<uint16_t>(std::stoi(f.at(0), nullptr, 16)), f[1], f[2], std::stoi(f[3]), std::stoi(f[4]),
                             std::stod(f[5]), std::stoi(f[6]), f[7] == "1", f[8] == "1", f[9] == "1", std::stof(f[10]),
                             std::stoi(f[11]), std::stoi(f[12]), ints(13), ints(14), ints(15), ints(16), ints(17), ints(18),
                             ints(19), ints(20), f.at(21), f.at(22) == "1" });
            // clang-format on
        }
        return rows;
    }();
    return s_rows;
}

// Puts cameras on a bus of its own and takes them off again. Settings go to a store that nobody else sees.
class DeviceTest : public testing::Test {
protected:
    // Sanitizers and emulators slow the large virtual sensors down; their frames must still come within the host's waits.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(KOV_EMULATED)
    static constexpr double RATE = 1, RATE_LARGE = 0.2;
#else
    static constexpr double RATE = 4, RATE_LARGE = 4;
#endif

    void SetUp() override { NewBus(RATE); }
    // A bus whose clock, and with it the library's, runs at another rate. Before any camera is plugged.
    void NewBus(double dRate)
    {
#ifdef __SANITIZE_THREAD__
        dRate = std::min(dRate, std::max(1.0, dRate / 8));  // the virtual sensors have to keep up
#endif
        platform::SetUsbStack(nullptr);
        platform::SetClockRate(dRate);
        m_pBus = std::make_unique<kovsim::VirtualBus>(dRate);
        platform::SetUsbStack(m_pBus.get());
    }
    void TearDown() override
    {
        for (int id = 0; id < 16; ++id)
            KOVCloseCamera(id);
        platform::SetUsbStack(nullptr);
        m_pBus.reset();
        platform::SetClockRate(1);
    }
    // A camera without noise that looks at the pattern that names its pixels.
    kovsim::CameraSettings Quiet(uint16_t wProductId) const
    {
        kovsim::CameraSettings s;
        s.wProductId = wProductId;
        s.dNoise = 0;
        s.iHotPixels = 0;
        s.scene = kovsim::Scene::Pattern();
        return s;
    }
    kovsim::VirtualCamera& Plug(const kovsim::CameraSettings& s) { return m_pBus->Plug(s); }

    static bool Snap(int id, std::vector<uint8_t>& data)
    {
        if (KOVStartExposure(id) != KOV_SUCCESS)
            return false;
        KOV_EXPOSURE_STATUS status = EXP_WORKING;
        const uint32_t t0 = platform::Ticks();
        while (status == EXP_WORKING && platform::Ticks() - t0 < 120000) {
            platform::SleepMs(4);
            KOVGetExpStatus(id, &status);
        }
        if (status != EXP_SUCCESS) {
            KOVStopExposure(id);
            return false;
        }
        return KOVGetDataAfterExp(id, data.data(), static_cast<int32_t>(data.size())) == KOV_SUCCESS;
    }
    static int32_t Get(int id, KOV_CONTROL_TYPE c)
    {
        int32_t v = -1;
        KOV_BOOL a;
        EXPECT_EQ(KOVGetControlValue(id, c, &v, &a), KOV_SUCCESS);
        return v;
    }

    std::unique_ptr<kovsim::VirtualBus> m_pBus;

private:
    TempStore m_store;
};

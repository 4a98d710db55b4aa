// What the bridge of a virtual camera keeps and answers. The EEPROM of the USB 2 models: tests/firmware.
#include <gtest/gtest.h>

#include <cstdio>

#include "FakeProfile.h"
#include "virtual/Thermal.h"

using namespace kovsim;
using fake::Host;
using usbstack::Status;

TEST(VirtualFirmware, FlashClearsBitsAndErasesSectors)
{
    const std::string path = testing::TempDir() + "kov_virtual_flash.bin";
    std::remove(path.c_str());
    auto settings = fake::Settings(fake::Facts());
    settings.sFlashFile = path;
    {
        Host h(settings, 10);
        std::vector<uint8_t> a(256, 0xF0), b(256, 0x3C);
        ASSERT_EQ(h.Out(194, 0, 1792, a), Status::Ok);
        ASSERT_EQ(h.Out(194, 0, 1792, b), Status::Ok);
        EXPECT_EQ(h.In(195, 0, 1792, 256), std::vector<uint8_t>(256, 0x30));
        EXPECT_EQ(h.In(195, 0, 1793, 1), std::vector<uint8_t>{ 0xFF });

        ASSERT_EQ(h.Out(196, 1, 7), Status::Ok);
        EXPECT_EQ(h.Out(194, 0, 1792, a), Status::Stall);  // busy
        int polls = 0;
        while (h.In(196, 0, 7, 1) == std::vector<uint8_t>{ 1 })
            ++polls;
        EXPECT_GT(polls, 0);
        EXPECT_LT(polls, 100);
        EXPECT_EQ(h.In(195, 0, 1792, 2), (std::vector<uint8_t>{ 0xFF, 0xFF }));

        h.camera.Inject({ FaultKind::FlashWriteFails, 0, 0, 1 });
        h.camera.Inject({ FaultKind::FlashEraseFails, 0, 0, 1 });
        EXPECT_EQ(h.Out(194, 0, 1792, a), Status::Ok);
        EXPECT_EQ(h.camera.Flash(0x70000, 1)[0], 0xFF);
        EXPECT_EQ(h.Out(196, 1, 7), Status::Stall);
        EXPECT_EQ(h.Out(196, 1, 64), Status::Stall);  // beyond the end
        h.camera.SetFlash(0x40000, { 'K', 'O' });
        h.camera.PowerCycle();
        EXPECT_EQ(h.camera.Flash(0x40000, 2), (std::vector<uint8_t>{ 'K', 'O' }));
    }
    Host again(settings);
    EXPECT_EQ(again.In(195, 0, 0x400, 3), (std::vector<uint8_t>{ 'K', 'O', 0xFF }));
    std::remove(path.c_str());
}

TEST(VirtualFirmware, Usb3BootLoaderAndI2cEeprom)
{
    auto settings = fake::Settings(fake::Facts());
    {
        Host h(settings);
        EXPECT_TRUE(h.In(160, 0, 0, 1).empty());  // a firmware runs
        EXPECT_EQ(h.Out(186, 3, 0x800, { 1, 2, 3 }), Status::Ok);
        EXPECT_EQ(h.In(187, 3, 0x801, 3), (std::vector<uint8_t>{ 2, 3, 0xFF }));
        EXPECT_EQ(h.In(187, 2, 0x800, 1), (std::vector<uint8_t>{ 0xFF }));
        EXPECT_EQ(h.Out(186, 8, 0, { 1 }), Status::Stall);
    }
    settings.bBootLoader = true;
    Host h(settings, 5);
    EXPECT_EQ(h.In(160, 0, 0, 1).size(), 1u);
    EXPECT_TRUE(h.In(173, 0, 0, 2).empty());
    EXPECT_EQ(h.Out(160, 0x0100, 0x4000, { 5, 6 }), Status::Ok);
    EXPECT_EQ(h.In(160, 0x0101, 0x4000, 1), (std::vector<uint8_t>{ 6 }));
    EXPECT_EQ(h.Out(160, 0x0100, 0x4000), Status::Ok);  // run
    for (int i = 0; i < 2000 && h.bus.Enumerate().empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    h.device = h.Open();
    EXPECT_EQ(h.In(173, 0, 0, 2).size(), 2u);
}

TEST(VirtualFirmware, WrongDirectionsAndUnknownRequestsStall)
{
    Host h(fake::Settings(fake::Facts()));
    EXPECT_EQ(h.Out(173), Status::Stall);
    EXPECT_TRUE(h.In(166, 0, 0, 2).empty());
    EXPECT_TRUE(h.In(165, 0, 0, 2).empty());
    EXPECT_EQ(h.Out(176, 4), Status::Stall);
    EXPECT_EQ(h.Out(190, 2), Status::Stall);
    EXPECT_TRUE(h.In(199, 0, 0, 2).empty());  // the fake has the digital sensor
    EXPECT_EQ(h.Out(166, 999, 1), Status::Stall);
    EXPECT_EQ(h.In(167, fake::W, 0, 2), (std::vector<uint8_t>{ 0, 64 }));  // high byte first
    EXPECT_EQ(h.In(183, fake::W, 0, 1), (std::vector<uint8_t>{ 64 }));

    h.camera.ClearRequests();
    h.Out(182, fake::X, 7);
    h.In(173, 0, 0, 2);
    const auto log = h.camera.Requests();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_EQ(log[0].bRequest, 182);
    EXPECT_EQ(log[0].wValue, fake::X);
    EXPECT_EQ(log[0].wIndex, 7);
    EXPECT_TRUE(log[1].bIn);
    EXPECT_EQ(log[1].data[0], 'V');
    EXPECT_LE(log[0].uTimeUs, log[1].uTimeUs);
}

TEST(VirtualThermal, PowerFollowsTheCode)
{
    EXPECT_EQ(PowerOfDA(255), 0);
    EXPECT_EQ(PowerOfDA(40), 1);
    EXPECT_EQ(PowerOfDA(0), 1);
    for (int code = 41; code < 256; ++code)
        EXPECT_GT(PowerOfDA(uint8_t(code - 1)), PowerOfDA(uint8_t(code)) - 1e-12);
    // Half the current at about a third of the way down.
    EXPECT_NEAR(PowerOfDA(140), 0.34, 0.02);
}

// Published points of the thermistor: kilohms at whole degrees.
TEST(VirtualThermal, Thermistor)
{
    const std::pair<double, double> points[] = { { 25, 10 }, { 0, 32.7421 }, { -15, 73.2798 }, { 40, 5.315 }, { 60, 2.4755 } };
    for (const auto& [celsius, kilohm] : points)
        EXPECT_NEAR(ThermistorReading(celsius), 256 * kilohm / (kilohm + 10), 1.01) << celsius;
}

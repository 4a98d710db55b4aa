#include "usb/CUsbLink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "platform/InterfaceGuids.h"
#include "tests/usb/FakeDriver.h"

namespace {

using Strings = std::vector<std::string>;
using usbstack::Speed;

const platform::Guid& Slot(int n) { return platform::g_InterfaceGuids[n - 1]; }

std::string Utf16(const uint8_t* p)
{
    std::string s;
    for (int i = 0; p[i] != 0; i += 2)
        s += char(p[i]);
    return s;
}

TEST(CUsbLink, OpenReadsEverything)
{
    StackScope s;
    FakeUsbDevice& dev = s.stack.Add(0xC11A);
    ForwardDriver driver;
    CUsbLink link(nullptr, Slot(10), true);
    ASSERT_TRUE(link.IsOpen());
    EXPECT_EQ(driver.log, (Strings{ "list", "interface 0", "interface 1", "destroy", "list", "info", "property 35 259",
                                    "property 13 259", "interface 0", "path", "open", "destroy" }));
    EXPECT_EQ(link.m_vendorId, 0x0E5A);
    EXPECT_EQ(link.m_productId, 0xC11A);
    EXPECT_EQ(link.m_maxPacketSize0, 512u);  // USB 3: a power of two
    EXPECT_EQ(link.m_language, 1033);
    EXPECT_EQ(Utf16(link.m_manufacturer), "maker");
    EXPECT_EQ(Utf16(link.m_product), "camera");
    EXPECT_EQ(Utf16(link.m_serial), "0001");
    EXPECT_STREQ(link.m_devicePath, "fake:1");
    EXPECT_TRUE(link.m_superSpeed);
    EXPECT_FALSE(link.m_bHighSpeed);
    EXPECT_EQ(link.m_usbAddress, 1);
    EXPECT_STRNE(link.m_driverName, "");
    ASSERT_TRUE(link.m_pBos && link.m_pBos->superSpeed);
    EXPECT_EQ(link.m_pBos->superSpeed->bU1DevExitLat, 10);
    EXPECT_EQ(link.EndPointCount(), 2);
    ASSERT_TRUE(link.m_pBulkIn);
    EXPECT_EQ(link.m_pBulkIn->m_endpointAddress, 0x82);
    EXPECT_EQ(link.m_pBulkIn->m_iMaxPktSize, 16384);
    EXPECT_EQ(link.m_pEndPoints[0], link.m_pControl);
    EXPECT_EQ(link.m_pControl->m_iMaxPktSize, 512);
    EXPECT_EQ(link.m_pBulkOut, nullptr);
    EXPECT_EQ(link.m_configValue, 1);
    EXPECT_EQ(link.m_maxPower, 100);

    link.Close();
    EXPECT_EQ(link.m_vendorId, 0);
    EXPECT_EQ(std::count(std::begin(link.m_deviceDescriptor), std::end(link.m_deviceDescriptor), 0), 18);
    EXPECT_EQ(link.EndPointCount(), 0);
    EXPECT_EQ(link.m_pBulkIn, nullptr);
    EXPECT_EQ(dev.OpenHandles(), 0);
}

// The bytes of the requests: ReplayTest.
TEST(CUsbLink, Usb2DeviceHasNoBos)
{
    StackScope s;
    s.stack.Add(0xC07A, Speed::High);
    ForwardDriver driver;
    CUsbLink link(nullptr, Slot(1), true);
    EXPECT_EQ(link.m_maxPacketSize0, 64u);
    EXPECT_TRUE(link.m_bHighSpeed);
    EXPECT_EQ(link.m_pBos, nullptr);
    EXPECT_EQ(driver.controls, 11);  // device, languages, three strings, configuration; each but the first in two parts
}

TEST(CUsbLink, WalkOverDevices)
{
    StackScope s;
    s.stack.Add(0xC11A);
    s.stack.Add(0xC11B, Speed::Super, 0x1234);  // another vendor's on the same interface
    FakeUsbDevice& third = s.stack.Add(0xC0EA);
    s.stack.Add(0xC07A, Speed::High);  // another interface
    s.stack.Add(0xCFFF);               // unknown product: the tenth interface
    CUsbLink link(nullptr, Slot(10), false);
    EXPECT_EQ(link.DeviceCount(), 4);
    std::vector<uint32_t> ids;
    for (uint8_t i = 0; i < 4; ++i) {
        EXPECT_TRUE(link.Open(i));
        ids.push_back(uint32_t(link.m_vendorId) << 16 | link.m_productId);
    }
    EXPECT_EQ(ids, (std::vector<uint32_t>{ 0x0E5AC11A, 0x1234C11B, 0x0E5AC0EA, 0x0E5ACFFF }));
    EXPECT_EQ(third.OpenHandles(), 0);
    EXPECT_FALSE(link.Open(4));
    EXPECT_FALSE(link.IsOpen());
    CUsbLink none(nullptr, Slot(4), true);
    EXPECT_EQ(none.DeviceCount(), 0);
    EXPECT_EQ(none.m_configValue | none.m_configAttributes | none.m_maxPower, 0);
    EXPECT_FALSE(none.IsOpen());
}

TEST(CUsbLink, FailedEnumerationOfOneEntryPassesOverIt)
{
    StackScope s;
    s.stack.Add(0xC11A);
    s.stack.Add(0xC11B);
    ForwardDriver driver;
    driver.dwEnumFailsAt = 0;
    CUsbLink link(nullptr, Slot(10), false);
    EXPECT_EQ(link.DeviceCount(), 2);
}

TEST(CUsbLink, OpenFailures)
{
    StackScope s;
    FakeUsbDevice& dev = s.stack.Add(0xC11A);
    s.stack.openStatus = usbstack::Status::Busy;
    CUsbLink link(nullptr, Slot(10), false);
    EXPECT_FALSE(link.Open(0));
    EXPECT_EQ(link.m_uLastError, platform::ERROR_SHARED);
    s.stack.openStatus = usbstack::Status::Ok;

    // Without a configuration Open is false with the file open.
    const auto config = dev.configDescriptor;
    dev.configDescriptor.clear();
    dev.Return();
    EXPECT_FALSE(link.Open(0));
    EXPECT_TRUE(link.IsOpen());
    EXPECT_EQ(link.EndPointCount(), 0);

    // A broken one shows a message and closes.
    dev.configDescriptor = config;
    dev.configDescriptor[9] = 0;
    dev.Return();
    static std::string s_sMessage;
    platform::SetMessageSink([](const char* szText, const char* szTitle) { s_sMessage = std::string(szTitle) + ": " + szText; });
    EXPECT_FALSE(link.Open(0));
    EXPECT_EQ(s_sMessage, "Wrong Device Configuration: Please correct firmware descriptor table");
    EXPECT_FALSE(link.IsOpen());

    dev.configDescriptor = config;
    const auto bos = dev.bosDescriptor;
    dev.bosDescriptor[5] = 0;
    dev.Return();
    EXPECT_FALSE(link.Open(0));
    EXPECT_EQ(s_sMessage, "Wrong BOS Descriptor: Please correct firmware BOS descriptor table");
    platform::SetMessageSink(nullptr);
    EXPECT_FALSE(link.IsOpen());

    // An absent BOS is no fault.
    dev.bosDescriptor.clear();
    dev.Return();
    EXPECT_TRUE(link.Open(0));
    EXPECT_EQ(link.m_pBos, nullptr);
}

// A device that does not tell its descriptor must not pass for the one opened before.
TEST(CUsbLink, UnreadableDeviceDescriptorLeavesZeros)
{
    StackScope s;
    s.stack.Add(0xC11A);
    s.stack.Add(0xC11B).deviceDescriptor.clear();
    CUsbLink link(nullptr, Slot(10), true);
    EXPECT_EQ(link.m_productId, 0xC11A);
    EXPECT_FALSE(link.Open(1));
    EXPECT_EQ(link.m_vendorId, 0);
    EXPECT_EQ(link.m_productId, 0);
}

TEST(CUsbLink, QuirkLanguageScanVisitsEverySecondEntry)
{
    StackScope s;
    FakeUsbDevice& dev = s.stack.Add(0xC11A);
    const struct {
        std::vector<uint8_t> languages;
        uint16_t chosen;
    } rows[] = {
        { { 6, 3, 0x07, 0x04, 0x09, 0x04 }, 0x407 },
        { { 8, 3, 0x07, 0x04, 0x11, 0x04, 0x09, 0x04 }, 0x409 },
        { { 4, 3, 0x07, 0x04 }, 0x407 },
        { { 2, 3 }, 0x407 },  // none: stays as it was
        { { 0, 3 }, 0x407 },
    };
    CUsbLink link(nullptr, Slot(10), false);
    for (const auto& r : rows) {
        dev.languages = r.languages;
        dev.Return();
        link.Open(0);
        EXPECT_EQ(link.m_language, r.chosen) << r.languages.size();
    }
}

TEST(CUsbLink, BadStringLeavesTheText)
{
    StackScope s;
    FakeUsbDevice& dev = s.stack.Add(0xC11A);
    CUsbLink link(nullptr, Slot(10), true);
    dev.strings[1] = "";  // length 2
    dev.strings[0].assign(126, 'x');
    dev.Return();
    link.Open(0);
    EXPECT_EQ(Utf16(link.m_product), "camera");
    EXPECT_EQ(Utf16(link.m_manufacturer), std::string(126, 'x'));
}

TEST(CUsbLink, SpeedAndQueriesThatFail)
{
    StackScope s;
    FakeUsbDevice& dev = s.stack.Add(0xC11A);
    ForwardDriver driver;
    driver.dwSpeed = 3;
    CUsbLink link(nullptr, Slot(10), true);
    EXPECT_FALSE(link.m_bHighSpeed);
    EXPECT_FALSE(link.m_superSpeed);
    driver.dwFailCode = platform::IO_USB_ADDRESS;
    link.QueryAddress();
    EXPECT_EQ(link.m_usbAddress, 0);
    dev.iAltSetting = -1;
    EXPECT_EQ(link.QueryAltSetting(), -1);
    link.Close();
    EXPECT_EQ(link.QueryAltSetting(), -1);
    link.m_uLastError = 77;
    EXPECT_FALSE(link.IoControl(platform::IO_DRIVER_NAME, nullptr, 0));
    EXPECT_EQ(link.m_uLastError, 77u);  // closed: nothing is stored
}

TEST(CUsbLink, AlternateSettingChoosesTheTable)
{
    StackScope s;
    FakeUsbDevice& dev = s.stack.Add(0xC11A);
    const uint8_t more[] = { 9, 4, 0, 1, 2, 0xFE, 3, 4, 0, 7, 5, 0x01, 2, 0, 4, 0, 7, 5, 0x83, 1, 0, 4, 1 };
    dev.configDescriptor.insert(dev.configDescriptor.end(), std::begin(more), std::end(more));
    dev.configDescriptor[2] = uint8_t(dev.configDescriptor.size());
    dev.configDescriptor[6] = 9;
    dev.iAltSetting = 1;
    CUsbLink link(nullptr, Slot(10), true);
    EXPECT_EQ(link.m_intfClass, 0xFE);
    EXPECT_EQ(link.EndPointCount(), 3);
    ASSERT_TRUE(link.m_pBulkOut && link.m_pIsocIn);
    EXPECT_FALSE(link.m_pBulkOut->m_bIn);
    EXPECT_EQ(link.m_pBulkIn, nullptr);
    link.SelectAltSetting(5);  // no such setting: nothing changes
    EXPECT_EQ(link.EndPointCount(), 3);
    link.SelectAltSetting(0);
    EXPECT_TRUE(link.m_pBulkIn);
    EXPECT_EQ(link.m_pIsocIn, nullptr);
    for (const int cfg : { 8, 9 }) {  // names no configuration; names one that is not there
        link.SelectConfig(uint8_t(cfg));
        EXPECT_EQ(link.m_configIndex, 0);
    }
}

TEST(CUsbLink, ClosePathsThrowStringsTheDestructorDoesNot)
{
    StackScope s;
    FakeUsbDevice& dev = s.stack.Add(0xC11A);
    ForwardDriver driver;
    driver.bNotices = true;
    int window = 0;
    {
        CUsbLink link(&window, Slot(10), true);
        EXPECT_EQ(link.m_deviceNotice, &driver);
        EXPECT_EQ(driver.interfaceFilter[0], 32);
        EXPECT_EQ(driver.interfaceFilter[4], 5);
        EXPECT_EQ(0, std::memcmp(driver.interfaceFilter.data() + 12, &Slot(10), 16));
        EXPECT_EQ(driver.handleFilter[0], 56);
        EXPECT_EQ(driver.handleFilter[4], 6);
        EXPECT_EQ(0, std::memcmp(driver.handleFilter.data() + 16, &link.m_hDevice, 8));
        const auto Thrown = [&]() -> std::string {
            try {
                link.Close();
            } catch (const char* sz) {
                return sz;
            }
            return "";
        };
        driver.bUnregisterFails = true;
        EXPECT_EQ(Thrown(), "Failed to close the handle notification handle.");
        EXPECT_EQ(link.m_uLastError, platform::ERROR_BAD_HANDLE);
        EXPECT_TRUE(link.m_pControl);
        driver.bUnregisterFails = false;
        driver.bCloseFails = true;
        EXPECT_EQ(Thrown(), "Failed to close handle to driver.");
        driver.bUnregisterFails = true;
    }
    EXPECT_EQ(driver.log.back(), "unregister interface");
    // The fake driver kept the file; close it for the stack's sake.
    driver.bCloseFails = false;
    EXPECT_EQ(dev.OpenHandles(), 1);
    for (platform::DeviceHandle h = 0x100; h < 0x1000 && dev.OpenHandles() != 0; ++h)
        driver.Close(h);
    EXPECT_EQ(dev.OpenHandles(), 0);
}

TEST(CUsbLink, PortRequests)
{
    StackScope s;
    FakeUsbDevice& dev = s.stack.Add(0xC11A);
    CUsbLink link(nullptr, Slot(10), true);
    EXPECT_TRUE(link.ResetParentPort());
    EXPECT_TRUE(link.CyclePort());
    EXPECT_EQ(dev.Events(), (Strings{ "resetport", "cycleport" }));
    EXPECT_FALSE(link.ResetParentPort());  // the object is stale
    EXPECT_EQ(link.m_uLastError, platform::ERROR_GONE);
    EXPECT_TRUE(link.Open(0));
}

}  // namespace

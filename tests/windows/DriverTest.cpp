// The driver's seam on Windows, with a named pipe in place of the device: its requests stay out until the other end
// comes, are cancelled with the file, and carry the system's own error numbers.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "platform/InterfaceGuids.h"
#include "platform/Platform.h"
#include "platform/UsbAdapter.h"
#include "platform/UsbDriver.h"
#include "platform/XferRecord.h"

#include <windows.h>  // last: it makes macros of names that our headers declare

using platform::DeviceHandle;
using platform::IUsbDriver;
using platform::Overlapped;

namespace {

constexpr uint32_t PIPE_LISTEN = 0x110008;  // FSCTL_PIPE_LISTEN
constexpr char PIPE[] = "\\\\.\\pipe\\kov-driver-test";

class Driver : public testing::Test {
protected:
    Driver()
    {
        ov.hEvent = platform::MakeEvent();
        m_h = reinterpret_cast<DeviceHandle>(
            CreateNamedPipeA(PIPE, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0, 1, 256, 256, 0, nullptr));
    }
    ~Driver() override
    {
        if (m_h != platform::INVALID_DEVICE)
            Close();
        platform::FreeEvent(ov.hEvent);
    }
    bool Listen(Overlapped* p, uint8_t* pBlock = nullptr, uint32_t dwSize = 0)
    {
        return driver.IoControl(m_h, PIPE_LISTEN, pBlock, dwSize, pBlock, dwSize, &dwBytes, p);
    }
    bool Result(Overlapped* p, bool bWait = false) { return driver.GetResult(m_h, p, &dwBytes, bWait); }
    bool Close()
    {
        const bool bOk = driver.Close(m_h);
        m_h = platform::INVALID_DEVICE;
        return bOk;
    }
    IUsbDriver& driver = *platform::NativeDriver();
    DeviceHandle m_h;
    Overlapped ov{};
    uint32_t dwBytes = 99;
};

}  // namespace

TEST_F(Driver, IsTheDefault) { EXPECT_EQ(&platform::UsbDriver(), &driver); }

TEST_F(Driver, AnAbsentClassHasNoDevices)
{
    for (const platform::Guid& guid : platform::g_InterfaceGuids) {
        const IUsbDriver::DevInfo list = driver.GetClassDevs(guid);
        ASSERT_TRUE(list);
        std::string sPath = "kept";
        char sz[16] = "kept";
        EXPECT_FALSE(driver.EnumInterface(list, 0));
        EXPECT_EQ(platform::LastError(), 259u);
        EXPECT_FALSE(driver.EnumInfo(list, 0));
        EXPECT_FALSE(driver.GetProperty(list, 0, 13, sz, sizeof sz));
        EXPECT_FALSE(driver.GetInterfacePath(list, 0, &sPath));
        EXPECT_EQ(sPath, "kept");
        EXPECT_STREQ(sz, "kept");
        driver.DestroyList(list);
    }
}

TEST_F(Driver, ErrorsOfOpeningAndOfAClosedFile)
{
    EXPECT_EQ(driver.Open("\\\\?\\usb#vid_0e5a&pid_c174#gone"), platform::INVALID_DEVICE);
    EXPECT_NE(platform::LastError(), 0u);
    EXPECT_EQ(driver.Open("C:\\no such folder\\x"), platform::INVALID_DEVICE);
    EXPECT_EQ(platform::LastError(), 3u);
    EXPECT_FALSE(driver.IoControl(0x7FF0, platform::IO_DRIVER_VERSION, nullptr, 0, nullptr, 0, &dwBytes, nullptr));
    EXPECT_EQ(platform::LastError(), platform::ERROR_BAD_HANDLE);
    EXPECT_EQ(dwBytes, 0u);
    EXPECT_FALSE(driver.Close(0x7FF0));
    EXPECT_EQ(platform::LastError(), platform::ERROR_BAD_HANDLE);
}

TEST_F(Driver, ARequestIsPendingThenDone)
{
    EXPECT_FALSE(Result(&ov)) << "never begun";
    EXPECT_EQ(platform::LastError(), platform::ERROR_BAD_PARAMETER);
    EXPECT_FALSE(Listen(&ov));
    EXPECT_EQ(platform::LastError(), 997u);
    EXPECT_EQ(platform::WaitEvent(ov.hEvent, 20), platform::WAIT_TIMED_OUT);
    const HANDLE hOther = CreateFileA(PIPE, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(hOther, INVALID_HANDLE_VALUE);
    EXPECT_EQ(platform::WaitEvent(ov.hEvent, 5000), platform::WAIT_SIGNALLED);
    EXPECT_TRUE(Result(&ov));
    EXPECT_EQ(platform::LastError(), 0u);
    EXPECT_FALSE(Result(&ov)) << "fetched once";
    EXPECT_FALSE(Listen(&ov));
    EXPECT_EQ(platform::LastError(), DWORD{ ERROR_PIPE_CONNECTED });
    EXPECT_FALSE(Result(&ov)) << "failed at once, so it is not out";
    CloseHandle(hOther);
}

TEST_F(Driver, ARequestThatIsGivenUpTouchesNothingOfItsCaller)
{
    // Record and slot are freed while the kernel has the request; the slot's memory serves the next at once.
    auto pBlock = std::make_unique<uint8_t[]>(64);
    EXPECT_FALSE(Listen(&ov, pBlock.get(), 64));
    EXPECT_EQ(platform::LastError(), 997u);
    EXPECT_FALSE(Result(&ov));
    EXPECT_EQ(platform::LastError(), 996u);
    std::memset(pBlock.get(), 0xA5, 64);
    const Overlapped before = ov;
    EXPECT_TRUE(Close());
    EXPECT_EQ(std::memcmp(&before, &ov, sizeof ov), 0);
    for (int i = 0; i < 64; ++i)
        ASSERT_EQ(pBlock[size_t(i)], 0xA5);
}

TEST_F(Driver, ClosingCancelsWhatIsOut)
{
    EXPECT_FALSE(Listen(&ov));
    EXPECT_TRUE(Close());
    EXPECT_EQ(platform::WaitEvent(ov.hEvent, 5000), platform::WAIT_SIGNALLED);
    EXPECT_FALSE(driver.GetResult(platform::INVALID_DEVICE, &ov, &dwBytes, true));
    EXPECT_EQ(dwBytes, 0u);
}

TEST_F(Driver, CancelledShowsAs995)
{
    EXPECT_FALSE(Listen(&ov));
    ASSERT_TRUE(CancelIoEx(reinterpret_cast<HANDLE>(m_h), nullptr));
    EXPECT_EQ(platform::WaitEvent(ov.hEvent, 5000), platform::WAIT_SIGNALLED);
    EXPECT_FALSE(Result(&ov));
    EXPECT_EQ(platform::LastError(), 995u);
}

TEST_F(Driver, AStackInTheProcessTakesItsPlace)
{
    struct Stack : usbstack::IStack {
        std::vector<usbstack::DeviceInfo> Enumerate() override { return {}; }
        usbstack::IDevice* Open(const std::string&, usbstack::Status*) override { return nullptr; }
    } stack;
    platform::SetUsbStack(&stack);
    EXPECT_NE(&platform::UsbDriver(), &driver);
    platform::SetUsbStack(nullptr);
    EXPECT_EQ(&platform::UsbDriver(), &driver);
}

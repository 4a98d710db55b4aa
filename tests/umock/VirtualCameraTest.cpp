// The whole way: C interface, library, an unmodified libusb, and a virtual camera as its device.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/types.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "KOVCamera2.h"
#include "camera/CCameraBase.h"
#include "platform/Platform.h"
#include "platform/UsbAdapter.h"
#include "platform/posix/LibusbStack.h"
#include "umock/MockUsb.h"
#include "virtual/VirtualBus.h"

#ifdef KOV_TEST_KOVCAM
#  include "kovcam/Run.h"
#endif

static std::atomic<int> g_iInits = 0, g_iLists = 0;

// In front of libusb's own.
struct libusb_context;
struct libusb_device;
extern "C" int libusb_init(libusb_context** pp)
{
    ++g_iInits;
    return reinterpret_cast<decltype(&libusb_init)>(dlsym(RTLD_NEXT, "libusb_init"))(pp);
}
extern "C" ssize_t libusb_get_device_list(libusb_context* p, libusb_device*** ppp)
{
    ++g_iLists;
    return reinterpret_cast<decltype(&libusb_get_device_list)>(dlsym(RTLD_NEXT, "libusb_get_device_list"))(p, ppp);
}

namespace {

constexpr int W = 640, H = 480;

class LibusbCamera : public testing::Test {
protected:
    void SetUp() override
    {
        const char* sz = getenv("LD_PRELOAD");
        if (!sz || !std::strstr(sz, "umockdev"))
            GTEST_SKIP() << "run it through umockdev-wrapper";
        char folder[] = "/tmp/kov-umock-XXXXXX";
        m_sConfig = mkdtemp(folder);
        setenv("XDG_CONFIG_HOME", m_sConfig.c_str(), 1);
        kovsim::CameraSettings s;
        s.wProductId = 0xC11A;  // QuartzCol
        s.dNoise = 0;
        s.iHotPixels = 0;
        s.scene = kovsim::Scene::Pattern();
        m_pCam = &m_Virtual.Plug(s);
        m_pDevice.reset(m_Virtual.Open(m_Virtual.Enumerate().at(0).path, nullptr));
        ASSERT_TRUE(m_pDevice);
        m_pBus = std::make_unique<MockBus>();
        m_pUsb = std::make_unique<MockUsb>(*m_pBus, uint8_t{ 2 }, "1.4", *m_pDevice);
        platform::SetUsbStack(&usbstack::LibusbStack());
    }
    void TearDown() override
    {
        KOVCloseCamera(0);
        platform::SetUsbStack(nullptr);
        m_pUsb.reset();
        m_pBus.reset();
        if (!m_sConfig.empty()) {
            [[maybe_unused]] const int r = std::system(("rm -rf '" + m_sConfig + "'").c_str());
        }
    }
    void Open()
    {
        ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
        ASSERT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
        ASSERT_EQ(KOVSetROIFormat(0, W, H, 1, IMG_RAW8), KOV_SUCCESS);
        ASSERT_EQ(KOVSetControlValue(0, CTRL_GAIN, 0, KOV_FALSE), KOV_SUCCESS);
        ASSERT_EQ(KOVSetControlValue(0, CTRL_EXPOSURE, 5000, KOV_FALSE), KOV_SUCCESS);
        KOVSetControlValue(0, CTRL_WB_R, 50, KOV_FALSE);  // unity
        KOVSetControlValue(0, CTRL_WB_B, 50, KOV_FALSE);
        m_Data.resize(W * H);
    }
    // Each pixel against the pattern's number for its place on the sensor, half of it for half the exposure.
    void ExpectPattern() const
    {
        const CCameraBase& cam = *CCameraBase::FromID(0);
        for (int phase = 0; phase < 4; ++phase) {
            double n = 0, se = 0, sm = 0, see = 0, sem = 0;
            const auto each = [&](auto f) {
                for (int y = 4 + (phase >> 1); y < H - 4; y += 2)
                    for (int x = 4 + (phase & 1); x < W - 4; x += 2)
                        f(double(((cam.m_iStartX + x) * 7 + (cam.m_iStartY + y) * 13) % 251),
                          double(m_Data[size_t(y) * W + size_t(x)]));
            };
            each([&](double e, double m) {
                n += 1;
                se += e;
                sm += m;
                see += e * e;
                sem += e * m;
            });
            const double a = (sem - se * sm / n) / (see - se * se / n), b = (sm - a * se) / n;
            double worst = 0;
            each([&](double e, double m) { worst = std::max(worst, std::fabs(m - a * e - b)); });
            EXPECT_LE(worst, 1.1) << "phase " << phase;
            EXPECT_NEAR(a, 0.5, 0.3) << "phase " << phase;
        }
    }
    KOV_ERROR_CODE Next(int32_t ms) { return KOVGetVideoData(0, m_Data.data(), int32_t(m_Data.size()), ms); }

    kovsim::VirtualBus m_Virtual;
    kovsim::VirtualCamera* m_pCam = nullptr;
    std::unique_ptr<usbstack::IDevice> m_pDevice;
    std::unique_ptr<MockBus> m_pBus;
    std::unique_ptr<MockUsb> m_pUsb;
    std::vector<uint8_t> m_Data;
    std::string m_sConfig;
};

}  // namespace

TEST_F(LibusbCamera, SnapAndVideoShowTheScene)
{
    KOV_CAMERA_INFO info;
    ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
    ASSERT_EQ(KOVGetCameraProperty(&info, 0), KOV_SUCCESS);
    EXPECT_STREQ(info.Name, "VYR KOVQuartzCol");
    ASSERT_NO_FATAL_FAILURE(Open());
    ASSERT_EQ(KOVGetCameraProperty(&info, 0), KOV_SUCCESS);
    EXPECT_EQ(info.IsUSB3Host, KOV_TRUE);

    ASSERT_EQ(KOVStartExposure(0), KOV_SUCCESS);
    KOV_EXPOSURE_STATUS status = EXP_WORKING;
    for (int i = 0; i < 4000 && status == EXP_WORKING; ++i) {
        platform::SleepMs(5);
        ASSERT_EQ(KOVGetExpStatus(0, &status), KOV_SUCCESS);
    }
    ASSERT_EQ(status, EXP_SUCCESS) << m_pCam->CurrentReadout().sWhy;
    ASSERT_EQ(KOVGetDataAfterExp(0, m_Data.data(), int32_t(m_Data.size())), KOV_SUCCESS);
    ExpectPattern();

    ASSERT_EQ(KOVStartVideoCapture(0), KOV_SUCCESS);
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(Next(10000), KOV_SUCCESS) << m_pCam->CurrentReadout().sWhy;
        ExpectPattern();
    }
    EXPECT_EQ(KOVStopVideoCapture(0), KOV_SUCCESS);
    EXPECT_EQ(m_pUsb->Seen().iOutstanding, 0) << "requests are left with the host";
}

// One context, which lives until something is plugged or pulled; a listing only then; and only what is new is asked.
TEST_F(LibusbCamera, OneLookAtTheBus)
{
    struct Extra {
        std::unique_ptr<usbstack::IDevice> device;
        std::unique_ptr<MockUsb> usb;
    };
    std::vector<Extra> extra;
    for (const uint16_t id : { uint16_t(0xC07A), uint16_t(0xC04B), uint16_t(0xC11A) }) {
        kovsim::CameraSettings s;
        s.wProductId = id;
        m_Virtual.Plug(s);
        extra.emplace_back().device.reset(m_Virtual.Open(m_Virtual.Enumerate().back().path, nullptr));
        extra.back().usb =
            std::make_unique<MockUsb>(*m_pBus, uint8_t{ 2 }, "2." + std::to_string(extra.size()), *extra.back().device);
    }
    const auto asked = [&] {
        int n = m_pUsb->Seen().iControl;
        for (const Extra& e : extra)
            n += e.usb->Seen().iControl;
        return n;
    };
    const struct {
        const char* szWhat;
        std::function<void()> change;
        int iCount, iInits, iLists;
        bool bAsked;
    } rows[] = {
        { "first look", [] {}, 4, 1, 1, true },
        { "nothing new", [] {}, 4, 0, 0, false },
        { "one pulled", [&] { extra[1].usb->Vanish(); }, 3, 1, 1, false },
        { "and plugged again", [&] { extra[1].usb->Plug(); }, 4, 1, 1, true },
        { "another one under the same address", [&] { extra[0].usb->ReplaceUnderSameAddress(); }, 4, 1, 1, true },
        { "while one is open",
          [&] {
              ASSERT_EQ(KOVOpenCamera(2), KOV_SUCCESS);
              extra[1].usb->Vanish();
          },
          3, 0, 1, false },
        { "nothing new then", [] {}, 3, 0, 0, false },
        { "as a child would find it",
          [&] {
              KOVCloseCamera(2);
              usbstack::ForgetLibusb();
          },
          3, 1, 1, false },
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.szWhat);
        r.change();
        const int nInits = g_iInits, nLists = g_iLists, nAsked = asked();
        EXPECT_EQ(KOVGetNumOfConnectedCameras(), r.iCount);
        EXPECT_EQ(g_iInits - nInits, r.iInits);
        EXPECT_EQ(g_iLists - nLists, r.iLists);
        EXPECT_EQ(asked() > nAsked, r.bAsked);
    }
}

// The kernel lets one program at a time claim a camera. The other one sees it, is told that it cannot have it, and sends
// it nothing.
TEST_F(LibusbCamera, HeldByAnotherProgram)
{
    m_pUsb->SetClaimError(EBUSY);
    ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
    KOV_CAMERA_INFO info;
    ASSERT_EQ(KOVGetCameraProperty(&info, 0), KOV_SUCCESS);
    EXPECT_STREQ(info.Name, "VYR KOVQuartzCol");
    m_pCam->ClearRequests();
    EXPECT_EQ(KOVOpenCamera(0), KOV_ERROR_OPEN_FAILED);
    for (const kovsim::Request& r : m_pCam->Requests())
        EXPECT_TRUE(r.bIn && r.bRequest == 6) << "request " << int(r.bRequest) << " to a camera in use";
    EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);

    m_pUsb->SetClaimError(0);
    Open();
    // Another program that looks for cameras meanwhile takes nothing away.
    m_pUsb->SetClaimError(EBUSY);
    EXPECT_EQ(KOVGetNumOfConnectedCameras(), 1);
    ASSERT_EQ(KOVStartVideoCapture(0), KOV_SUCCESS);
    EXPECT_EQ(Next(20000), KOV_SUCCESS);
    EXPECT_EQ(KOVStopVideoCapture(0), KOV_SUCCESS);
}

#ifdef KOV_TEST_KOVCAM
static int Kovcam(std::vector<std::string> words)
{
    std::vector<char*> argv;
    for (std::string& w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);
    return kovcam::Run(int(words.size()), argv.data(), nullptr);
}

TEST_F(LibusbCamera, KovcamListsTheCameraAndTakesASnap)
{
    m_pUsb->SetClaimError(EBUSY);  // held by another program
    EXPECT_EQ(Kovcam({ "kovcam", "list" }), 0);
    testing::internal::CaptureStderr();
    EXPECT_NE(Kovcam({ "kovcam", "snap", "-o", m_sConfig + "/held" }), 0);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("is another program using it?"), std::string::npos);
    m_pUsb->SetClaimError(0);
    const std::string stem = m_sConfig + "/snap";
    ASSERT_EQ(Kovcam({ "kovcam", "snap", "-e", "5ms", "-g", "0", "-r", "640x480", "-f", "raw8", "-o", stem }), 0);
    for (const char* ending : { ".fits", ".png" }) {
        std::ifstream file(stem + ending, std::ios::binary | std::ios::ate);
        EXPECT_GT(file.tellg(), 10000) << ending;
    }
    std::ifstream fits(stem + ".fits", std::ios::binary);
    std::string head(2880, ' ');
    fits.read(head.data(), std::streamsize(head.size()));
    EXPECT_NE(head.find("INSTRUME= 'VYR KOVQuartzCol'"), std::string::npos) << head;
    EXPECT_NE(head.find("EXPTIME ="), std::string::npos) << head;
}
#endif

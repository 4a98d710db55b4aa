// IDs, objects and devices: which camera an ID names, what a query may touch, and what a host gets when it asks wrongly.
#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <numeric>

#include "api/DeviceTable.h"
#include "device/DeviceFixture.h"
#include "platform/SettingsStore.h"
#include "tests/usb/FakeDriver.h"

namespace {

class EnumerationTest : public DeviceTest {
protected:
    static std::string NameOf(int id)
    {
        KOV_CAMERA_INFO i;
        std::memset(&i, 0x5A, sizeof i);
        EXPECT_EQ(KOVGetCameraProperty(&i, id), KOV_SUCCESS);
        EXPECT_EQ(i.CameraID, id);
        return i.Name;
    }
    // Which of the plugged cameras hears a control of this ID: a bit for each, in the order of plugging.
    unsigned Hears(int id)
    {
        for (auto* p : m_pBus->Cameras())
            p->ClearRequests();
        EXPECT_EQ(KOVPulseGuideOn(id, KOV_GUIDE_2), KOV_SUCCESS);
        unsigned bits = 0, bit = 1;
        for (auto* p : m_pBus->Cameras()) {
            if (!p->Requests().empty())
                bits |= bit;
            bit <<= 1;
        }
        return bits;
    }
    kovsim::VirtualCamera& Plug(uint16_t wProductId) { return DeviceTest::Plug(Quiet(wProductId)); }
};

TEST_F(EnumerationTest, NoCamerasAndIdsOutOfRange)
{
    EXPECT_EQ(KOVGetNumOfConnectedCameras(), 0);
    KOV_CAMERA_INFO i;
    EXPECT_EQ(KOVGetCameraProperty(&i, 0), KOV_ERROR_BAD_INDEX);
    EXPECT_EQ(KOVOpenCamera(0), KOV_ERROR_BAD_ID);
    EXPECT_EQ(KOVCloseCamera(0), KOV_ERROR_BAD_ID);

    kovsim::VirtualCamera& cam = Plug(0xC11A);
    // With a count of 0 a query does not search; opening does.
    EXPECT_EQ(KOVGetCameraProperty(&i, 0), KOV_ERROR_BAD_INDEX);
    EXPECT_EQ(KOVOpenCamera(1), KOV_ERROR_BAD_ID);
    EXPECT_EQ(g_iCameraCount, 1);
    // The other functions: tests/capi.
    for (const int id : { -1, 1, 127, 128, 1023, 1024, INT_MAX, INT_MIN }) {
        EXPECT_EQ(KOVPulseGuideOn(id, KOV_GUIDE_0), KOV_ERROR_BAD_ID);
        EXPECT_EQ(KOVSetControlValue(id, KOV_CONTROL_TYPE(99), 1, KOV_FALSE), KOV_ERROR_BAD_ID);
        EXPECT_EQ(KOVOpenCamera(id), KOV_ERROR_BAD_ID);
        EXPECT_EQ(KOVCloseCamera(id), KOV_ERROR_BAD_ID);
        EXPECT_EQ(KOVGetCameraProperty(&i, id), KOV_ERROR_BAD_INDEX);
    }
    EXPECT_EQ(KOVSetControlValue(0, KOV_CONTROL_TYPE(99), 1, KOV_FALSE), KOV_ERROR_NOT_OPEN);
    EXPECT_EQ(KOVSetROIFormat(0, 320, 240, 1, IMG_TYPE(4)), KOV_ERROR_NOT_OPEN);
    EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS) << "nothing to close is no error";
    EXPECT_TRUE(cam.Requests().empty());
    EXPECT_EQ(CCameraBase::FromID(0), nullptr);
}

TEST_F(EnumerationTest, OtherVendorsTakeNoId)
{
    Plug(0xC0FA);
    m_pBus->PlugForeign(0x1234, 0xC11A);
    Plug(0xC11A);
    Plug(0xC07A);  // its interface comes first
    ASSERT_EQ(KOVGetNumOfConnectedCameras(), 3);
    EXPECT_EQ(NameOf(0), "VYR KOVGarnetMono");
    EXPECT_EQ(NameOf(1), "VYR KOVOnyxCol");
    EXPECT_EQ(NameOf(2), "VYR KOVQuartzCol");
    ASSERT_EQ(KOVOpenCamera(2), KOV_SUCCESS);
    EXPECT_EQ(Hears(2), 2u) << "the second camera; the foreign device between the two is none";
}

TEST_F(EnumerationTest, UnknownProductIdCounts)
{
    m_pBus->PlugForeign(0x0E5A, 0xC999);
    ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
    KOV_CAMERA_INFO i;
    i.CameraID = 77;
    EXPECT_EQ(KOVGetCameraProperty(&i, 0), KOV_ERROR_NOT_OPEN);
    EXPECT_EQ(i.CameraID, 0) << "written before the object is built";
    for (int n = 0; n < 2; ++n)
        EXPECT_EQ(KOVOpenCamera(0), KOV_ERROR_OPEN_FAILED);
    EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
}

// The bus is listed once a call, and what stays plugged is not asked again. Another device in the socket is.
TEST_F(EnumerationTest, OneLookAtTheBus)
{
    RecordingStack stack;
    platform::SetUsbStack(&stack);
    stack.Add(0xC07A);
    FakeUsbDevice& dev = stack.Add(0xC11A);
    stack.Add(0xC11A);
    const auto reads = [&] {
        return stack.Device(0).DescriptorReads() + dev.DescriptorReads() + stack.Device(2).DescriptorReads();
    };
    int nReads = 0;
    const struct {
        const char* szWhat;
        std::function<void()> change;
        int iMiddle;
        bool bRead;
    } rows[] = {
        { "first look", [] {}, 0xC11A, true },
        { "nothing new", [] {}, 0xC11A, false },
        { "another device under the same name",
          [&] {
              dev.info.productId = 0xC0FA;
              dev.deviceDescriptor[10] = 0xFA;
              dev.deviceDescriptor[11] = 0xC0;
          },
          0xC0FA, true },
        { "another address",
          [&] {
              dev.info.address = 77;
              dev.deviceDescriptor[10] = 0xEA;
          },
          0xC0EA, true },
        { "gone and back between two listings",
          [&] {
              dev.Vanish();
              EXPECT_EQ(KOVGetNumOfConnectedCameras(), 2);
              dev.Return();
          },
          0xC0EA, true },
        { "the stack set anew", [&] { platform::SetUsbStack(&stack); }, 0xC0EA, true },
        { "refused to this user", [&] { stack.openStatus = usbstack::Status::Access; }, 0, false },
        { "and granted again", [&] { stack.openStatus = usbstack::Status::Ok; }, 0xC0EA, false },
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.szWhat);
        r.change();
        nReads = reads();
        stack.iListings = 0;
        ASSERT_EQ(KOVGetNumOfConnectedCameras(), r.iMiddle != 0 ? 3 : 0);
        EXPECT_EQ(stack.iListings, 1);
        EXPECT_EQ(reads() > nReads, r.bRead);
        if (r.iMiddle != 0) {
            EXPECT_EQ(g_aProductID[1], r.iMiddle);
        }
    }
}

TEST_F(EnumerationTest, VariantsOfOneModelAreOneSeries)
{
    for (const uint16_t id : { uint16_t(0xC0CE), uint16_t(0xC0CE), uint16_t(0xC0CB), uint16_t(0xC0CF) })
        Plug(id);
    ASSERT_EQ(KOVGetNumOfConnectedCameras(), 4);
    for (int id = 0; id < 4; ++id)
        EXPECT_EQ(RunningIndex(id), id);
    // Names come from the device, before any open, and the query leaves the table as it was.
    EXPECT_EQ(NameOf(0), "VYR KOVLapisMono-A");
    EXPECT_EQ(NameOf(2), "VYR KOVLapisMono");
    EXPECT_EQ(NameOf(3), "VYR KOVLapisMono-B");
    EXPECT_FALSE(g_bReopenProbe);
    EXPECT_EQ(g_apCamera[0], nullptr);
    // Opened out of order, each ID still reaches its own device.
    for (const int id : { 2, 0, 3, 1 })
        ASSERT_EQ(KOVOpenCamera(id), KOV_SUCCESS);
    for (int id = 0; id < 4; ++id) {
        EXPECT_EQ(Hears(id), 1u << id);
        EXPECT_EQ(CCameraBase::FromID(id)->m_iDevIndex, id + 1);
    }
    EXPECT_EQ(NameOf(3), "VYR KOVLapisMono-B");
}

// QUIRK: LapisCol accepts the variants of LapisMono and is counted by equality alone, so that beside one of them it takes
// the first device that it accepts, which is the other camera.
TEST_F(EnumerationTest, QuirkLapisColBesideAVariant)
{
    Plug(0xC0CE);
    Plug(0xC0CA);
    ASSERT_EQ(KOVGetNumOfConnectedCameras(), 2);
    EXPECT_EQ(RunningIndex(1), 0);
    EXPECT_EQ(NameOf(1), "VYR KOVLapisCol") << "the query searches no device";
    ASSERT_EQ(KOVOpenCamera(1), KOV_SUCCESS);
    EXPECT_EQ(NameOf(1), "VYR KOVLapisMono-A");
    EXPECT_EQ(Hears(1), 1u);
}

TEST_F(EnumerationTest, RunningIndexByGroups)
{
    const int ids[] = { 0xC03A, 0xC11A, 0xC03C, 0xC04A, 0xC04E, 0xC04B, 0xC04D, 0xC11A, 0xC0AA, 0xC0AD, 0xC03B, 0xC999, 0xC999 };
    const int expected[] = { 0, 0, 1, 0, 0, 1, 1, 1, 0, 1, 2, 0, 1 };
    std::copy(std::begin(ids), std::end(ids), g_aProductID);
    for (int id = 0; id < int(std::size(ids)); ++id)
        EXPECT_EQ(RunningIndex(id), expected[id]) << id;
}

TEST_F(EnumerationTest, FlagOfTheFactory)
{
    for (const ModelRow& m : Models()) {
        SCOPED_TRACE(m.sClass);
        const bool bVariants = m.Is("Cobalt") || m.Is("Dunite") || m.Is("Jasper") || m.sClass == "CCameraSLapisMono";
        g_aProductID[0] = m.wProductId;
        delete CreateCameraObject(0, false);
        EXPECT_EQ(g_bReopenProbe, bVariants);
        delete CreateCameraObject(0, true);
        EXPECT_FALSE(g_bReopenProbe);
    }
    g_aProductID[0] = 0xC999;
    g_bReopenProbe = true;
    EXPECT_EQ(CreateCameraObject(0, false), nullptr);
    EXPECT_FALSE(g_bReopenProbe) << "cleared on entry";
}

TEST_F(EnumerationTest, QueriesLeaveTheCameraAlone)
{
    for (const ModelRow& m : Models()) {
        if (m.iWidth > 4000)
            continue;  // nothing new, and large to build
        SCOPED_TRACE(m.sName);
        auto& cam = Plug(m.wProductId);
        ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
        cam.ClearRequests();
        EXPECT_EQ(NameOf(0), m.sName);
        for (const kovsim::Request& r : cam.Requests())
            EXPECT_EQ(r.bRequest, 173) << "at most the firmware's version, where opening may update it";
        if (!m.Is("Cobalt")) {
            EXPECT_TRUE(cam.Requests().empty());
        }
        EXPECT_EQ(g_apCamera[0], nullptr);
        EXPECT_EQ(platform::OpenSettings((L"SOFTWARE\\" + std::wstring(m.sKey.begin(), m.sKey.end())).c_str()), nullptr);
        cam.Unplug();
    }
}

TEST_F(EnumerationTest, OpenAfterAQueryBringsTheCameraUp)
{
    auto& cam = Plug(0xC0CF);
    ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
    EXPECT_EQ(NameOf(0), "VYR KOVLapisMono-B");
    ASSERT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
    KOV_CAMERA_INFO i;
    ASSERT_EQ(KOVGetCameraProperty(&i, 0), KOV_SUCCESS);
    EXPECT_EQ(i.IsUSB3Host, KOV_TRUE) << "known from InitCamera only";
    int32_t w, h, bin;
    IMG_TYPE type;
    ASSERT_EQ(KOVGetROIFormat(0, &w, &h, &bin, &type), KOV_SUCCESS);
    EXPECT_EQ(w, 1936);
    EXPECT_EQ(h, 1216);
    EXPECT_EQ(bin, 1);
    EXPECT_EQ(type, IMG_RAW8);

    // Neither a second open nor a query sends anything to an open camera, nor does it disturb its capture.
    ASSERT_EQ(KOVStartVideoCapture(0), KOV_SUCCESS);
    CCameraBase* const pCam = CCameraBase::FromID(0);
    EXPECT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
    EXPECT_EQ(NameOf(0), "VYR KOVLapisMono-B");
    EXPECT_EQ(CCameraBase::FromID(0), pCam);
    EXPECT_TRUE(pCam->m_bCapturing);
    ASSERT_EQ(KOVStopVideoCapture(0), KOV_SUCCESS);
    cam.ClearRequests();
    EXPECT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
    EXPECT_TRUE(cam.Requests().empty());
    EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
    EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
}

// QUIRK: the object of a failed open stays, and the next open takes it for an open camera.
TEST_F(EnumerationTest, QuirkOpenAfterAFailedOpen)
{
    auto& cam = Plug(0xC11A);
    ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
    cam.Unplug();
    EXPECT_EQ(KOVOpenCamera(0), KOV_ERROR_OPEN_FAILED);
    ASSERT_NE(CCameraBase::FromID(0), nullptr);
    EXPECT_FALSE(CCameraBase::FromID(0)->m_bOpen);
    cam.Replug();
    cam.ClearRequests();
    EXPECT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
    EXPECT_EQ(KOVStartVideoCapture(0), KOV_ERROR_NOT_OPEN);
    EXPECT_EQ(KOVStopVideoCapture(0), KOV_SUCCESS) << "nothing runs";
    EXPECT_EQ(KOVStartExposure(0), KOV_SUCCESS) << "whatever comes of it";
    KOV_EXPOSURE_STATUS status;
    EXPECT_EQ(KOVGetExpStatus(0, &status), KOV_SUCCESS);
    EXPECT_EQ(status, EXP_IDLE);
    KOV_ID id{};
    EXPECT_EQ(KOVGetID(0, &id), KOV_ERROR_GENERAL);
    EXPECT_TRUE(cam.Requests().empty());
    // Closing is the way out.
    EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
    EXPECT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
    EXPECT_EQ(KOVStartVideoCapture(0), KOV_SUCCESS);
    EXPECT_EQ(KOVStopVideoCapture(0), KOV_SUCCESS);
}

// A driver that refuses to close a device: the object of a closed camera goes all the same, an enumeration finds whatever
// is there, and an open fails as opens do.
TEST_F(EnumerationTest, RefusedClose)
{
    Plug(0xC0FA);
    ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
    ASSERT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
    struct OnceRefusing : ForwardDriver {
        bool Close(platform::DeviceHandle h) override
        {
            bCloseFails = iRefusals++ == 0;
            return ForwardDriver::Close(h);
        }
        int iRefusals = 0;
    } driver;
    EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
    EXPECT_EQ(driver.iRefusals, 2) << "the link has tried again";
    EXPECT_EQ(CCameraBase::FromID(0), nullptr);
    EXPECT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
    EXPECT_EQ(Hears(0), 1u);
    EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);

    Plug(0xC0FA);
    driver.iRefusals = 0;
    EXPECT_EQ(KOVGetNumOfConnectedCameras(), 2);
    EXPECT_GT(driver.iRefusals, 1);
    EXPECT_EQ(g_aProductID[0], 0xC0FA);
    EXPECT_EQ(g_aProductID[1], 0xC0FA);
    driver.iRefusals = 0;
    EXPECT_EQ(KOVOpenCamera(1), KOV_ERROR_OPEN_FAILED);
    EXPECT_FALSE(CCameraBase::FromID(1)->m_bTimeMark);
}

TEST_F(EnumerationTest, ObjectsStayAtTheirIndex)
{
    Plug(0xC11A);
    ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
    ASSERT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
    Plug(0xC07A);
    ASSERT_EQ(KOVGetNumOfConnectedCameras(), 2);
    EXPECT_EQ(g_aProductID[0], 0xC07A);
    EXPECT_EQ(NameOf(0), "VYR KOVQuartzCol");
    EXPECT_EQ(Hears(0), 1u);
    EXPECT_EQ(NameOf(1), "VYR KOVQuartzCol");
}

TEST_F(EnumerationTest, TwoOfOneModelStreamAtOnce)
{
    kovsim::CameraSettings s = Quiet(0xC11A);
    s.scene = kovsim::Scene::Dark();
    DeviceTest::Plug(s);
    Plug(0xC11A);  // sees the pattern
    ASSERT_EQ(KOVGetNumOfConnectedCameras(), 2);
    std::vector<uint8_t> data[2];
    for (int id = 0; id < 2; ++id) {
        ASSERT_EQ(KOVOpenCamera(id), KOV_SUCCESS);
        ASSERT_EQ(KOVSetROIFormat(id, 320, 240, 1, IMG_RAW8), KOV_SUCCESS);
        ASSERT_EQ(KOVSetControlValue(id, CTRL_EXPOSURE, 5000, KOV_FALSE), KOV_SUCCESS);
        ASSERT_EQ(KOVSetControlValue(id, CTRL_GAIN, 0, KOV_FALSE), KOV_SUCCESS);
        data[id].resize(320 * 240);
    }
    for (int id = 0; id < 2; ++id)
        ASSERT_EQ(KOVStartVideoCapture(id), KOV_SUCCESS);
    for (int n = 0; n < 6; ++n)
        for (int id = 0; id < 2; ++id) {
            ASSERT_EQ(KOVGetVideoData(id, data[id].data(), 320 * 240, 8000), KOV_SUCCESS) << "camera " << id;
            const double mean = std::accumulate(data[id].begin(), data[id].end(), 0.0) / (320 * 240);
            EXPECT_EQ(mean > 30, id == 1) << "camera " << id << " frame " << n << " mean " << mean;
        }
    for (int id = 0; id < 2; ++id)
        EXPECT_EQ(KOVStopVideoCapture(id), KOV_SUCCESS);
}

}  // namespace

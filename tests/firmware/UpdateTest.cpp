// The USB 2 models that bring their bridge's firmware up to date when they are opened.
#include "firmware/FirmwareBench.h"

namespace {

using usbstack::Status;
using Lines = std::vector<std::string>;

class Update : public FirmwareBench, public testing::WithParamInterface<FirmwareRow> {
protected:
    const FirmwareRow& Model() const { return GetParam(); }
    // QUIRK: a bridge that does not answer counts as version 1, which is new enough for Cobalt and Iolite. One that lost
    // its firmware stays without.
    bool MendsADeadBridge() const { return Model().bNeeded > 1; }
    // What the next open makes of the camera as it is now, when nothing fails any more.
    void ExpectNextOpenMends()
    {
        const bool bMends = MendsADeadBridge() || EepromHolds(m_Image) || EepromHolds(Bytes(0x10000, 0xFF));
        m_pCam->ClearRequests();
        EXPECT_EQ(Reopen(), KOV_SUCCESS);
        EXPECT_EQ(m_pCam->Firmware(), bMends ? NEW : 0);
        EXPECT_EQ(HostVersion(), bMends ? NEW : 1);
        EXPECT_EQ(EepromHolds(m_Image), bMends);
        // Done once, it is not done again.
        m_pCam->ClearRequests();
        EXPECT_EQ(Reopen(), KOV_SUCCESS);
        EXPECT_EQ(Loads(*m_pCam), Lines{});
        KOVCloseCamera(0);
    }
};

TEST_P(Update, BringsTheCameraUpToDateOnce)
{
    Outdated(Model());
    bool bCycled = false;
    m_pTap->OnCycle = [&] {
        EXPECT_TRUE(EepromHolds(m_Image));
        bCycled = true;
    };
    ASSERT_EQ(OpenId(), KOV_SUCCESS);
    EXPECT_TRUE(bCycled);
    EXPECT_EQ(m_pCam->Firmware(), NEW);
    EXPECT_EQ(HostVersion(), NEW);

    char szRest[16], szLast[16];
    const int n = Model().iSize;
    std::snprintf(szRest, sizeof szRest, " %d", n - 4096);
    std::snprintf(szLast, sizeof szLast, " %d", n - 18 - 3 * (4 + 0x3FF) - 4 - 4 - 0x3FF - 5);
    EXPECT_EQ(Loads(*m_pCam),
              (Lines{ "out 160 e600 1", "out 160 0000 2048", "out 160 0800 1427", "out 160 e600 1",
                      "out 169 0000 4096", std::string("out 169 1000") + szRest,
                      "in 169 0000 4096", std::string("in 169 1000") + szRest,
                      "out 160 e600 1", "out 160 0100 6", "out 160 0200 1023", "out 160 05ff 1023", "out 160 09fe 1023",
                      "out 160 0dfd 1023", std::string("out 160 11fc") + szLast, "out 160 e600 1" }));
    // A second lies between the restart and the next request, which asks for the version again.
    uint64_t uLoaded = 0, uAsked = 0;
    for (const kovsim::Request& r : m_pCam->Requests()) {
        if (r.bRequest == 160)
            uLoaded = r.uTimeUs;
        else if (r.bRequest == 173 && uLoaded != 0 && uAsked == 0)
            uAsked = r.uTimeUs;
    }
    EXPECT_GE(uAsked, uLoaded + 1'000'000);

    KOVCloseCamera(0);
    m_pCam->ClearRequests();
    m_pTap->OnCycle = [] { ADD_FAILURE() << "restarted again"; };
    ExpectUsable(320, 240, 20000);
    EXPECT_EQ(Loads(*m_pCam), Lines{});
}

TEST_P(Update, NotForAFirmwareThatIsNewEnough)
{
    for (const int iFirmware : { int(Model().bNeeded), 20 }) {
        Outdated(Model());
        kovsim::VirtualCamera& cam = PlugOne(Model().wProductId, iFirmware);
        m_pBus->Cameras().front()->Unplug();
        m_pTap->OnCycle = [] { ADD_FAILURE() << "restarted"; };
        ASSERT_EQ(OpenId(), KOV_SUCCESS);
        EXPECT_EQ(HostVersion(), iFirmware);
        EXPECT_EQ(Loads(cam), Lines{});
    }
}

TEST_P(Update, NotWithoutTheImageOrOnePartOfTheLoader)
{
    for (const FirmwareId absent : { Model().id, FirmwareId::LoaderPart1, FirmwareId::LoaderPart2 }) {
        SCOPED_TRACE(int(absent));
        SetUp();
        Outdated(Model());
        SetFirmware(absent, {});
        m_pTap->OnCycle = [] { ADD_FAILURE() << "restarted"; };
        ASSERT_EQ(OpenId(), KOV_SUCCESS);
        EXPECT_EQ(HostVersion(), Model().bNeeded - 1);
        EXPECT_EQ(Loads(*m_pCam), Lines{});
        TearDown();
    }
}

// Power fails at every request of an update in turn, and at last when the port is cycled.
TEST_P(Update, SurvivesPowerLossAtEveryStep)
{
    int iSteps = 1;
    for (int iLost = 0; iLost < iSteps; ++iLost) {
        SCOPED_TRACE("power lost at request " + std::to_string(iLost));
        Outdated(Model());
        int n = 0;
        m_pTap->OnControl = [&](const ControlSetup& s) {
            if (s.IsLoad() && n++ == iLost)
                m_pCam->Unplug();
            return Status::Ok;
        };
        m_pTap->OnCycle = [&] { m_pCam->Unplug(); };
        EXPECT_EQ(OpenId(), KOV_ERROR_OPEN_FAILED);
        // QUIRK: the object of a failed open counts as open until it is closed, and does nothing.
        EXPECT_EQ(KOVOpenCamera(0), KOV_SUCCESS);
        int32_t v = 0;
        KOV_BOOL bAuto = KOV_FALSE;
        EXPECT_EQ(KOVGetControlValue(0, CTRL_GAIN, &v, &bAuto), KOV_SUCCESS);
        EXPECT_EQ(KOVStartVideoCapture(0), KOV_ERROR_NOT_OPEN);
        EXPECT_EQ(KOVCloseCamera(0), KOV_SUCCESS);
        iSteps = n + 1;
        m_pTap->OnControl = nullptr;
        m_pTap->OnCycle = nullptr;
        m_pCam->Replug();
        ExpectNextOpenMends();
        if (HasFailure())
            return;
    }
    EXPECT_GT(iSteps, 16);
}

// It comes back while the update still runs: what was loaded into the processor is lost, and the old handle is dead.
TEST_P(Update, SurvivesAShortPowerLoss)
{
    for (const int iLost : { 2, 4, 5, 6, 9 }) {
        SCOPED_TRACE("power lost at request " + std::to_string(iLost));
        Outdated(Model());
        int n = 0;
        m_pTap->OnControl = [&](const ControlSetup& s) {
            if (s.IsLoad() && n++ == iLost)
                m_pCam->PowerCycle();
            return Status::Ok;
        };
        EXPECT_EQ(OpenId(), KOV_SUCCESS);
        m_pTap->OnControl = nullptr;
        ExpectNextOpenMends();
    }
}

// Every request of an update is refused once, twice, always.
TEST_P(Update, SurvivesRefusedRequests)
{
    const auto Key = [](const ControlSetup& s) { return std::array<int, 4>{ s.bIn, s.bRequest, s.wValue, s.wLength }; };
    std::vector<std::array<int, 4>> keys;
    Outdated(Model());
    m_pTap->OnControl = [&](const ControlSetup& s) {
        if (s.IsLoad() && std::find(keys.begin(), keys.end(), Key(s)) == keys.end())
            keys.push_back(Key(s));
        return Status::Ok;
    };
    ASSERT_EQ(OpenId(), KOV_SUCCESS);
    ASSERT_EQ(keys.size(), 13u);  // the processor's reset register is one of them

    for (const auto& key : keys)
        for (const int iTimes : { 1, 2, 1 << 20 }) {
            SCOPED_TRACE(testing::Message() << (key[0] ? "in " : "out ") << key[1] << " at " << key[2] << ", refused " << iTimes
                                            << " times");
            Outdated(Model());
            int n = 0;
            m_pTap->OnControl = [&](const ControlSetup& s) {
                return s.IsLoad() && Key(s) == key && n++ < iTimes ? Status::Stall : Status::Ok;
            };
            // A failed update does not keep the camera from being opened, whatever is left of it.
            EXPECT_EQ(OpenId(), KOV_SUCCESS);
            m_pTap->OnControl = nullptr;
            // Blocks are tried three times, the loader once, and the RAM copy does not matter.
            const bool bBlock = key[1] == 169, bLoader = key[1] == 160 && (key[2] == 0 || key[2] == 0x0800);
            const bool bWritten = bBlock ? key[0] || iTimes < 3 : !bLoader && key[2] != 0xE600;
            EXPECT_EQ(EepromHolds(m_Image), bWritten);
            EXPECT_EQ(HostVersion(), bWritten ? NEW : bBlock ? 1 : Model().bNeeded - 1);
            ExpectNextOpenMends();
            if (HasFailure())
                return;
        }
}

// The build refuses such images. Whoever gets one in all the same loses the firmware, never the program.
TEST_P(Update, DamagedImagesStayInBounds)
{
    const Bytes good = C2Image(NEW, size_t(Model().iSize));
    std::vector<Bytes> images;
    for (const size_t n : { 0, 1, 7, 8, 9, 11, 12, 17, 4095, 4096, Model().iSize - 1 }) {
        images.push_back(Bytes(good.begin(), good.begin() + ptrdiff_t(n)));
        images.back().reserve(n + 1);  // an address, even of no bytes
    }
    images.push_back(good);
    images.back()[0] = 0xC0;  // head of an image that loads nothing
    images.push_back(good);
    images.back()[8] = 0x7F;  // a record past the end
    images.push_back(good);
    images.back()[8] = images.back()[9] = 0xFF;
    images.push_back(Bytes(size_t(Model().iSize), 0));  // records of no bytes
    images.push_back(C2Image(NEW, 8192));               // its second half is never written
    for (size_t i = 0; i < images.size(); ++i) {
        SCOPED_TRACE("image " + std::to_string(i));
        Outdated(Model());
        m_Image = images[i];
        m_Image.reserve(1);
        SetFirmware(Model().id, { m_Image.data(), int32_t(m_Image.size()) });
        EXPECT_EQ(OpenId(), KOV_SUCCESS);
        EXPECT_EQ(m_pCam->Firmware(), m_Image.empty() ? Model().bNeeded - 1 : 0);
        UseImage(Model(), good);
        if (MendsADeadBridge())
            ExpectNextOpenMends();
    }
}

TEST_P(Update, OpensAgainALittleLater)
{
    for (const int iHidden : { 1, 2 }) {
        SCOPED_TRACE(iHidden);
        Outdated(Model());
        bool bCycled = false;
        int iTry = 0;
        uint32_t dwLast = 0;
        m_pTap->OnCycle = [&] {
            bCycled = true;
            dwLast = platform::Ticks();
        };
        // Each try counts the devices more than once; a new one begins a second after the last.
        m_pTap->Hidden = [&] {
            if (!bCycled)
                return false;
            if (platform::Ticks() - dwLast >= 900) {
                ++iTry;
                dwLast = platform::Ticks();
            }
            return iTry <= iHidden;
        };
        if (iHidden == 1) {
            EXPECT_EQ(OpenId(), KOV_SUCCESS);
            EXPECT_EQ(HostVersion(), NEW);
        } else {
            EXPECT_EQ(OpenId(), KOV_ERROR_OPEN_FAILED);
        }
        EXPECT_EQ(iTry, 2);
        m_pTap->Hidden = nullptr;
        m_pTap->OnCycle = nullptr;
        ASSERT_TRUE(Until([&] { return KOVGetNumOfConnectedCameras() == 1; }));
        EXPECT_TRUE(EepromHolds(m_Image));
        ExpectNextOpenMends();
    }
}

// QUIRK: after the update the first camera is opened, whichever it was before.
TEST_P(Update, SecondOfTwoCamerasLandsOnTheFirst)
{
    Outdated(Model());
    kovsim::VirtualCamera& first = *m_pCam;
    kovsim::VirtualCamera& second = PlugOne(Model().wProductId, Model().bNeeded - 1);
    ASSERT_EQ(OpenId(1), KOV_SUCCESS);
    EXPECT_EQ(second.Firmware(), NEW);
    EXPECT_EQ(first.Firmware(), Model().bNeeded - 1);
    EXPECT_EQ(HostVersion(1), Model().bNeeded - 1);
    const auto WritesRegisters = [](const kovsim::VirtualCamera& cam) {
        const auto log = cam.Requests();
        return std::any_of(log.begin(), log.end(), [](const kovsim::Request& r) { return r.bRequest == 166; });
    };
    EXPECT_TRUE(WritesRegisters(first));
    EXPECT_FALSE(WritesRegisters(second));
    // Opened again, it is where it should be: there is nothing to update any more.
    KOVCloseCamera(1);
    ASSERT_EQ(OpenId(1), KOV_SUCCESS);
    EXPECT_EQ(HostVersion(1), NEW);
    EXPECT_TRUE(WritesRegisters(second));
}

INSTANTIATE_TEST_SUITE_P(Firmware, Update, testing::ValuesIn(g_FirmwareRows),
                         [](const auto& info) { return info.param.szName; });

// QUIRK: asking for the properties of a Cobalt opens it, and so brings it up to date.
TEST_F(FirmwareBench, PropertiesOfACobaltUpdateIt)
{
    Outdated(g_FirmwareRows[2]);
    ASSERT_EQ(KOVGetNumOfConnectedCameras(), 1);
    KOV_CAMERA_INFO info;
    ASSERT_EQ(KOVGetCameraProperty(&info, 0), KOV_SUCCESS);
    EXPECT_EQ(m_pCam->Firmware(), NEW);
    EXPECT_TRUE(EepromHolds(m_Image));
}

}  // namespace

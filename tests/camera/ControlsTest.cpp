#include <gtest/gtest.h>

#include <cstring>

#include "camera/TestCamera.h"

namespace {

KOV_CONTROL_TYPE Id(int i) { return static_cast<KOV_CONTROL_TYPE>(i); }

void List(CCameraBase& cam, std::initializer_list<int> ids)
{
    std::copy(ids.begin(), ids.end(), cam.m_ControlList);
    cam.m_iNumOfControls = static_cast<int>(ids.size());
}

}  // namespace

TEST(Controls, QuirkCapsWriteTheIdentifierBeforeTheCheck)
{
    TestCamera cam;
    List(cam, { CTRL_GAIN, CTRL_FLIP });
    cam.m_ControlList[2] = 12;
    cam.m_iFPSPercUSB3 = 17;
    KOV_CONTROL_CAPS caps{};
    const struct {
        int index;
        bool bOk;
        int iId;
    } rows[] = {
        { 0, true, CTRL_GAIN }, { 1, true, CTRL_FLIP }, { 2, false, 12 },        { -1, false, 17 },
        { 64, false, 2 },       { 1 << 20, false, 0 },  { INT32_MIN, false, 0 },
    };
    for (const auto& r : rows) {
        caps.ControlType = CTRL_COOLER_ON;
        EXPECT_EQ(cam.GetControlCaps(r.index, &caps), r.bOk) << r.index;
        EXPECT_EQ(static_cast<int>(caps.ControlType), r.iId) << r.index;
    }
    List(cam, { 18 });
    EXPECT_FALSE(cam.GetControlCaps(0, &caps));
}

// The limits of every model stand in device/models.csv.
TEST(Controls, CapsWriteTheirTextAndNoMore)
{
    TestCamera cam;
    cam.m_iExpMax = 4000000;
    List(cam, { CTRL_AUTOEXP_MAX_EXP });
    KOV_CONTROL_CAPS caps;
    std::memset(&caps, 'x', sizeof caps);
    ASSERT_TRUE(cam.GetControlCaps(0, &caps));
    EXPECT_STREQ(caps.Name, "AutoExpMaxExp");
    EXPECT_STREQ(caps.Description, "Auto exposure maximum exposure value(unit second)");
    EXPECT_EQ(caps.Name[14], 'x');
    EXPECT_EQ(caps.MaxValue, 4);
}

TEST(Controls, Read)
{
    TestCameraOf<CCameraCool> cam;
    cam.fTemp = 21.57f;
    cam.m_lExposure = 0x1'0000'0005ull;
    cam.m_bAutoExp = cam.m_bAutoWB = true;
    cam.m_iWB_R = 66;
    cam.m_iWB_B = 77;
    cam.m_bFlipRow = cam.m_bFlipColumn = true;
    cam.m_fCoolPowerPerc = 33.9f;
    cam.m_iTargetTemp = -10;
    cam.m_bIsCooler = true;

    const struct {
        int iId;
        int32_t iValue;
        KOV_BOOL bAuto;
    } rows[] = {
        { CTRL_EXPOSURE, 5, KOV_TRUE },
        { CTRL_WB_B, 77, KOV_TRUE },
        { CTRL_WB_R, 66, KOV_TRUE },
        { CTRL_GAIN, 0, KOV_FALSE },
        { CTRL_TEMPERATURE, 215, KOV_FALSE },
        { CTRL_FLIP, 3, KOV_FALSE },
        { CTRL_COOL_POWER_PERC, 33, KOV_FALSE },
        { CTRL_TARGET_TEMP, -10, KOV_FALSE },
        { CTRL_COOLER_ON, 0, KOV_FALSE },
        { CTRL_BANDWIDTH, 4711, KOV_FALSE },  // QUIRK: no such control, value left alone
    };
    for (const auto& r : rows) {
        int32_t iValue = 4711;
        KOV_BOOL bAuto = KOV_TRUE;
        EXPECT_TRUE(cam.GetControlValue(Id(r.iId), &iValue, &bAuto));
        EXPECT_EQ(iValue, r.iValue) << r.iId;
        EXPECT_EQ(bAuto, r.bAuto) << r.iId;
    }
    int32_t iValue = 0;
    KOV_BOOL bAuto = KOV_TRUE;
    cam.fTemp = -0.05f;
    cam.GetControlValue(CTRL_TEMPERATURE, &iValue, &bAuto);
    EXPECT_EQ(iValue, 0);
    cam.m_bTempThrRun = true;  // the cooler thread reads: the sensor is not asked
    cam.m_fSensorTemp = -3.96f;
    const int iReads = cam.iTempReads;
    cam.GetControlValue(CTRL_TEMPERATURE, &iValue, &bAuto);
    EXPECT_EQ(iValue, -39);
    EXPECT_EQ(cam.iTempReads, iReads);
    cam.m_bTempThrRun = false;

    cam.m_bIsCooler = false;
    for (const int i : { CTRL_COOL_POWER_PERC + 0, CTRL_TARGET_TEMP + 0, CTRL_COOLER_ON + 0, 18, -1 }) {
        bAuto = KOV_TRUE;
        EXPECT_FALSE(cam.GetControlValue(Id(i), &iValue, &bAuto)) << i;
        EXPECT_EQ(bAuto, KOV_FALSE);
    }
}

TEST(Controls, Write)
{
    TestCamera cam;
    cam.m_iWB_R = 11;
    cam.m_iWB_B = 22;
    const struct {
        int iId;
        int32_t iValue;
        bool bAuto;
        const char* szAsked;
    } rows[] = {
        { CTRL_GAIN, 500, true, "gain 500 1" },        { CTRL_EXPOSURE, 1000, false, "exp 1000 0" },
        { CTRL_EXPOSURE, -1, false, "exp -1 0" },  // sign-extended: a huge unsigned number for the model to clamp
        { CTRL_WB_R, 60, true, "wb 60 22" },           { CTRL_WB_B, 70, false, "wb 60 70" },
        { CTRL_BRIGHTNESS, 9, false, "brightness 9" }, { CTRL_HARDWARE_BIN, -1, false, "hardbin 0" },
        { CTRL_HARDWARE_BIN, 5, false, "hardbin 1" },  { CTRL_HIGH_SPEED_MODE, 0, false, "highspeed 0" },
    };
    for (const auto& r : rows) {
        EXPECT_EQ(cam.SetControlValue(Id(r.iId), r.iValue, r.bAuto), KOV_SUCCESS) << r.iId;
        EXPECT_EQ(cam.Asked(), Asked{ r.szAsked });
    }
    cam.bResult = false;
    EXPECT_EQ(cam.SetControlValue(CTRL_GAIN, 1, false), KOV_ERROR_GENERAL);
    EXPECT_EQ(cam.SetControlValue(CTRL_WB_R, 1, false), KOV_SUCCESS);
    EXPECT_EQ(cam.SetControlValue(CTRL_OVERCLK, 1, false), KOV_ERROR_GENERAL);  // not this model's
    EXPECT_EQ(cam.SetControlValue(CTRL_BANDWIDTH, 1, false), KOV_ERROR_GENERAL);
    cam.Asked();

    // No range check at this level, and nothing is sent.
    EXPECT_EQ(cam.SetControlValue(CTRL_AUTOEXP_MAX_BRIGHTNESS, 500, false), KOV_SUCCESS);
    EXPECT_EQ(cam.m_iDestBrightness, 500);
    EXPECT_EQ(cam.SetControlValue(CTRL_FLIP, 2, false), KOV_SUCCESS);
    EXPECT_EQ(cam.SetControlValue(CTRL_FLIP, 7, false), KOV_SUCCESS);
    EXPECT_FALSE(cam.m_bFlipRow);
    EXPECT_TRUE(cam.m_bFlipColumn);
    for (const int i : { CTRL_TEMPERATURE + 0, CTRL_COOL_POWER_PERC + 0, CTRL_TARGET_TEMP + 0 })
        EXPECT_EQ(cam.SetControlValue(Id(i), 1, false), KOV_SUCCESS);
    EXPECT_EQ(cam.SetControlValue(CTRL_COOLER_ON, 1, false), KOV_ERROR_BAD_CONTROL);
    EXPECT_EQ(cam.SetControlValue(Id(-1), 1, false), KOV_ERROR_BAD_CONTROL);
    EXPECT_EQ(cam.Asked(), Asked{});
}

#include "sensors/Model.h"

#include <algorithm>
#include <memory>

#include "base/Log.h"
#include "base/Trace.h"
#include "camera/HotPixels.h"
#include "platform/InterfaceGuids.h"
#include "platform/SettingsStore.h"
#include "platform/UsbDriver.h"

namespace model {

void ApplyTraits(CCameraBase& cam, const ModelTraits& t, void* handle)
{
    cam.ReplaceLink(new CUsbLink(handle, platform::g_InterfaceGuids[t.guidSlot - 1], true));

    cam.m_iFPSMin = cam.m_iBandwidthMin = t.bandwidthMin;
    cam.m_iFPSMax = cam.m_iBandwidthMax = t.bandwidthMax;
    cam.m_iMaxExposure = t.maxExposure;
    cam.m_bBandwidthAuto = t.caps & CAP_BANDWIDTH_AUTO;
    cam.m_bIsColor = t.isColor;
    cam.m_dPixelSize = t.pixelSize;
    cam.m_ColorBayer = t.bayer;
    cam.m_pszName = t.name;
    cam.m_bUSB3Camera = t.isUsb3;
    cam.m_fElecPerADU = t.elecPerADU;
    cam.m_iPropA = t.propA;
    cam.m_iPropB = t.propB;
    cam.m_iPropC = t.propC;
    cam.m_iPropD = t.propD;
    cam.m_bDDR = t.isDdr;
    std::copy(std::begin(t.bins), std::end(t.bins), cam.m_szBins);

    cam.m_bHasGain = cam.m_bHasExposure = cam.m_bHasGamma = true;
    cam.m_bHasBrightness = t.caps & CAP_BRIGHTNESS;
    cam.m_bHasBandwidth = t.caps & CAP_BANDWIDTH;
    cam.m_bHasWB_R = t.caps & CAP_WB_R;
    cam.m_bHasWB_B = t.caps & CAP_WB_B;
    cam.m_bHasOverCLK = t.caps & CAP_OVERCLK;
    cam.m_bHasTemperature = t.caps & CAP_TEMPERATURE;
    cam.m_bHasFlip = t.caps & CAP_FLIP;
    cam.m_bHasAuto = t.caps & CAP_AUTO;
    cam.m_bImgRAW8 = t.types & TYPE_RAW8;
    cam.m_bImgRGB24 = t.types & TYPE_RGB24;
    cam.m_bImgY8 = t.types & TYPE_Y8;
    cam.m_bImgRAW16 = t.types & TYPE_RAW16;

    cam.m_iGainMin = t.gain.min;
    cam.m_iGainMax = t.gain.max;
    cam.m_iGain = cam.m_iGainDef = t.gain.def;
    cam.m_iExpMin = t.exposure.min;
    cam.m_iExpMax = t.exposure.max;
    cam.m_iExpDef = t.exposure.def;
    cam.m_lExposure = static_cast<uint64_t>(t.exposure.def);
    cam.m_iGammaMin = 1;
    cam.m_iGammaMax = 100;
    cam.m_iGamma = cam.m_iGammaDef = 50;
    cam.m_iWB_R = cam.m_iWB_RDef = t.wbR;
    cam.m_iWB_B = cam.m_iWB_BDef = t.wbB;
    cam.m_iWBMin = t.wbMin;
    cam.m_iWBMax = t.wbMax;
    cam.m_iBrightMin = t.brightness.min;
    cam.m_iBrightMax = t.brightness.max;
    cam.m_iBrightness = cam.m_iBrightDef = t.brightness.def;
    cam.m_iFPSPerc = t.fpsPerc;
    cam.m_iFPSPercUSB3 = t.fpsPercUsb3;
    cam.m_iCMOSClk = t.clock;
    cam.m_iHMAX = t.hmax;
    if (t.autoGainMax != 0)
        cam.m_iAutoGainMax = t.autoGainMax;
    if (t.autoExpMaxCap >= 0)
        cam.m_iAutoExpMax = std::min<int32_t>(cam.m_iAutoExpMax, t.autoExpMaxCap);
    cam.m_bHardwareBin = (t.start & START_HARDWARE_BIN) != 0;
    cam.m_bHighSpeed = (t.start & START_HIGH_SPEED) != 0;
    cam.m_bAutoFPS = (t.start & START_AUTO_FPS) != 0;
    cam.m_bOpen = false;
    cam.m_iDroppedFrames = 0;
}

void FinishConstruction(CCameraBase& cam, const ModelTraits& t)
{
    cam.LoadSetting(t.key);
    cam.SetRGBBalance(cam.m_iWB_R, cam.m_iWB_B, cam.m_bAutoWB);

    cam.m_iNumOfControls = 0;
    for (const int8_t control : t.controls) {
        if (control < 0)
            break;
        cam.m_ControlList[cam.m_iNumOfControls++] = static_cast<uint8_t>(control);
    }
    cam.m_bIsCooler = t.hasCooler;
    for (const PhaseRow& row : t.phases) {
        if (row.bin == 0)
            break;
        int8_t* p = cam.m_pTable80 + ptrdiff_t{ row.bin } * 16;
        p[0] = row.x1;
        p[1] = row.y1;
        p[2] = row.x2;
        p[3] = row.y2;
    }
}

// The families that keep their index for ReConnectCamera.
static bool KeepsIndex(Family f)
{
    switch (f) {
    case Family::Beryl:
    case Family::Ebony:
    case Family::Flint:
    case Family::Halite:
    case Family::Kyanite:
    case Family::Lapis:
    case Family::Marble:
    case Family::Nephrite:
    case Family::Onyx:
    case Family::Pyrite:
    case Family::Quartz: return true;
    default: return false;
    }
}

bool OpenCamera(CCameraBase& cam, IModel& m, int deviceIndex)
{
    if (cam.m_bOpen)
        return true;
    const ModelTraits& t = m.Traits();
    if (KeepsIndex(t.family))
        cam.m_iDevIndex = deviceIndex;
    CUsbLink* link = cam.m_pUsbLink;
    if (link == nullptr)
        return false;

    const int n = link->DeviceCount();
    int matches = 0;
    const ProductName* found = nullptr;
    for (int i = 0; i < n && found == nullptr; ++i) {
        link->Open(static_cast<uint8_t>(i));  // false also for a damaged configuration; the IDs are known then
        if (link->m_vendorId != platform::CAMERA_VENDOR_ID)
            continue;
        for (const ProductName& p : t.products) {
            if (p.productId == 0)
                break;
            if (p.productId == link->m_productId && ++matches == deviceIndex)
                found = &p;
        }
    }
    if (found == nullptr) {
        KOV_LOG(Warn, "%s number %d is not there: %d devices of its interface, %d of the model", cam.m_pszName, deviceIndex, n,
                matches);
        cam.m_bOpen = false;
        return false;
    }
    if (found->name != nullptr)
        cam.m_pszName = found->name;
    if (!link->Claim()) {  // another program has it: nothing is sent to a camera that is in use
        KOV_LOG(Warn, "%s cannot be taken, error %u: close the program that uses it, or allow the user to access USB devices",
                cam.m_pszName, link->m_uLastError);
        link->Close();
        return false;
    }
    cam.m_bOpen = true;
    return m.FirmwareStep();
}

bool CloseCamera(CCameraBase& cam, CCameraCool* cool, const ModelTraits& t, CaptureSession& s)
{
    if (!cam.HasLink() && !s.IsCapturing())  // a reconnection of the capture thread has none for a while
        return false;
    if (cam.m_bSnapMode)
        cam.SaveSetting(t.key);
    cam.StopCapture();
    if (cool != nullptr && cool->m_bTempThrRun)
        cool->StopAutoTempThr();
    // A thread past StopCapture's time limit, or a snap's in its end sequence, still uses the link.
    s.Stop();
    s.Wait(platform::WAIT_FOREVER);
    platform::FlushSettings();

    if ((t.close & CLOSE_LINK) && cam.m_bOpen)
        cam.m_pUsbLink->Close();
    cam.m_bOpen = false;
    // QUIRK: the classes that keep the pointer can be closed twice with success. Where only the pointer is given up,
    // the device is let go all the same: nothing could ever close it later.
    if (t.close & CLOSE_CLEARS_POINTER)
        cam.ReplaceLink(nullptr);
    return true;
}

static bool TracesCapture(const ModelTraits& t) { return t.family == Family::Garnet && !t.isColor; }

bool StartCapture(CCameraBase& cam, const ModelTraits& t, CaptureSession& s, bool snap)
{
    if (!cam.m_bOpen)
        return false;
    if (s.IsCapturing())
        return true;
    if (TracesCapture(t))
        TraceLine("start capture create thread\n");
    s.Start(snap);
    return true;
}

bool StopCapture(CCameraBase& cam, const ModelTraits& t, CaptureSession& s)
{
    if (!s.IsCapturing())
        return true;
    if (!cam.m_bOpen)
        return false;
    if (TracesCapture(t))
        TraceLine("stop capture\n");
    cam.m_bStopping = true;
    if (!cam.m_bSnapMode)
        cam.SaveSetting(t.key);
    s.Stop();
    if (TracesCapture(t))
        TraceLine(">> wait Working thread exit\n");
    s.Wait(5000);
    if (TracesCapture(t))
        TraceLine("<< wait Working thread exit\n");
    cam.m_bStopping = false;
    return true;
}

void StartCooler(CCameraCool& cam)
{
    if (!cam.m_bTempThrRun)
        cam.StartAutoTempThr(&cam);
    cam.SetPowerPerc(0.0f);
    cam.m_bAutoTemp = false;
    cam.PID_init(0.2f, 0.0f, 0.6f);
}

void InitLink(CCameraBase& cam)
{
    cam.m_bUSB3Host = cam.IsUSB3Host();
    if (cam.m_bUSB3Host)
        cam.m_iFPSPerc = cam.m_iFPSPercUSB3;
    cam.SetHPCStates(true);
}

uint8_t ReadFirmwareVer(CCameraBase& cam)
{
    uint8_t ver = 0;
    cam.GetFirmwareVer(&ver);
    return cam.m_FirmwareVer = ver;
}

bool UpdateFirmware(CCameraBase& cam, const ModelTraits& t, const uint8_t* image, int32_t size, uint8_t needed)
{
    if (ReadFirmwareVer(cam) >= needed || image == nullptr)
        return true;

    cam.UpdateFW(image, size);
    cam.m_pUsbLink->CyclePort();
    cam.ReplaceLink(nullptr);
    // QUIRK: the first device of the interface is opened again, whichever it was before: with two cameras of one model
    // the object may land on the other one.
    for (int attempt = 0; attempt < 2; ++attempt) {
        platform::SleepMs(1000);
        auto link = std::make_unique<CUsbLink>(nullptr, platform::g_InterfaceGuids[t.guidSlot - 1], false);
        if (link->Open(0) && link->Claim()) {  // another program may hold the one that comes first
            cam.ReplaceLink(link.release());
            ReadFirmwareVer(cam);
            return true;
        }
    }
    cam.m_bOpen = false;
    return false;
}

template <class Write>
static void RunTable(std::span<const RegEntry> table, Write write)
{
    for (const RegEntry& e : table) {
        if (e.address == REG_DELAY)
            platform::SleepMs(e.wValue);
        else
            write(e.address, e.wValue);
    }
}

void RunTable8(CCameraBase& cam, std::span<const RegEntry> table)
{
    RunTable(table, [&](uint16_t a, uint16_t v) { cam.WriteCameraRegisterByte(a, static_cast<uint8_t>(v)); });
}

void RunTable16(CCameraBase& cam, std::span<const RegEntry> table)
{
    RunTable(table, [&](uint16_t a, uint16_t v) { cam.WriteCameraRegister(a, v); });
}

bool RegionFits(const CCameraBase& cam, int width, int height, int bin, int type)
{
    return width > 0 && height > 0 && bin > 0 && type >= IMAGE_8BIT && type <= IMAGE_16BIT &&
           int64_t{ width } * bin <= cam.m_iMaxWidth && int64_t{ height } * bin <= cam.m_iMaxHeight;
}

void TakeRegion(CCameraBase& cam, int width, int height, int bin, IMAGE_TYPE type)
{
    cam.m_iHeight = height;
    cam.m_iWidth = width;
    cam.m_ImgType = type;
    cam.m_iBin = bin;
    // QUIRK: every change of region recentres; a start that the host has set is lost.
    cam.m_iStartX = (cam.m_iMaxWidth - width * bin) / 2;
    cam.m_iStartY = (cam.m_iMaxHeight - height * bin) / 2;
}

void TakeStart(CCameraBase& cam, int x, int y)
{
    const int w = cam.m_iWidth * cam.m_iBin, h = cam.m_iHeight * cam.m_iBin;
    cam.m_iStartY = h > cam.m_iMaxHeight - y ? cam.m_iMaxHeight - h : y;
    cam.m_iStartX = w > cam.m_iMaxWidth - x ? cam.m_iMaxWidth - w : x;
}

void FitTables(CCameraBase& cam, const ModelTraits& t)
{
    if (cam.m_bUsingDark)
        FitDarkFrame(cam);
    if (t.isUsb3 && cam.m_bHPCEnable)
        FitHotPixels(cam);
}

}  // namespace model

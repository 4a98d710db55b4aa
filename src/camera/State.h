// The state of a camera, by concern. The structs are bases of CCameraBase, so that a field is reached by its name alone.
//
// Threads. "host": a thread of the application inside an exported function. "WorkingThread": the capture thread.
// "automation": the auxiliary threads beside it. "cooler": AutoTempThread. Fields of type Shared<> are written by one of
// them and read by others; the loops read them afresh each pass.
//
// Invariants hold between two operations of the host. Another thread may meet a setter half-way: what it indexes a buffer
// with is bounded where it is read.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>

#include "KOVCamera2.h"
#include "base/Shared.h"
#include "camera/HotPixels.h"
#include "exchange/FrameExchange.h"
#include "imaging/CAlgorithm.h"

// Format that SetResolution receives and m_ImgType keeps.
enum IMAGE_TYPE {
    IMAGE_8BIT = 0,  // raw if m_bRawOutput is set, else luminance
    IMAGE_RGB24 = 1,
    IMAGE_YUV = 2,        // not reachable from the C interface
    IMAGE_16BIT_ALT = 3,  // not reachable from the C interface
    IMAGE_16BIT = 4,
};

// What an image looks like. Host writes, all threads read.
// Always: start, and start plus size times bin, lie within the sensor. After SetResolution: m_bOutput16Bits tells whether
// m_ImgType is one of the 16-bit formats.
struct RegionState {
    int32_t m_iMaxWidth = 0, m_iMaxHeight = 0;  // sensor pixels; constructor
    Shared<int32_t> m_iWidth, m_iHeight;        // output pixels
    Shared<int32_t> m_iBin;
    Shared<int32_t> m_iStartX, m_iStartY;  // sensor pixels
    Shared<bool> m_bHardwareBin;
    Shared<IMAGE_TYPE> m_ImgType;
    Shared<bool> m_bRawOutput;
    Shared<bool> m_bOutput16Bits;
    Shared<bool> m_bFlipRow, m_bFlipColumn;
    Shared<bool> m_bTimeMark;
    bool m_bBottomUp = false;  // the sensor's rows count from below; constructor
};

// Exposure, clock and line length. Host and automation write, all threads read.
// From InitCamera on: m_lExposure lies within m_iExpMin and m_iExpMax; before, it is what the settings hold, 0.1 s at most.
// SetFPSPerc keeps m_iFPSPerc within m_iBandwidthMin and m_iBandwidthMax. QUIRK: Iolite keeps a percentage that it refuses.
struct ExposureState {
    Shared<uint64_t> m_lExposure;  // us
    Shared<int32_t> m_iExpLines;
    Shared<bool> m_bLongExp;
    Shared<bool> m_bSnapMode;
    Shared<int32_t> m_iCMOSClk;  // kHz or MHz, by family
    Shared<bool> m_bSensorHighBits;
    Shared<bool> m_bHighSpeed;
    Shared<bool> m_bSensorCLKStopped;
    Shared<int32_t> m_iHMAX;       // line length, sensor clocks
    Shared<int32_t> m_iFrameTime;  // us
    Shared<int32_t> m_iFPSPerc;
    int32_t m_iFPSPercUSB3 = 0;  // host
    Shared<bool> m_bAutoFPS;
    Shared<int32_t> m_iOverCLKPerc;
    Shared<float> m_fMaxDataRate, m_fMaxFPS;  // MB/s, frames/s
};

// Gain, gamma and black level. Host and automation write, all threads read.
// From InitCamera on: m_iGain lies within m_iGainMin and m_iGainMax. QUIRK: m_iGamma (see SetGamma) and m_iBrightness may be
// any number. m_Gamma8 is the curve of m_gammaExponent; m_pGamma16 is it too where both exponents are alike.
struct GainState {
    Shared<int32_t> m_iGain;
    Shared<int32_t> m_iGamma;
    Shared<int32_t> m_iBrightness;
    Shared<int32_t> m_iAutoBLCount;
    Shared<bool> m_bAutoBL, m_bAutoBLBusy;
    Shared<uint8_t> m_iBL_EE, m_iBL_OO, m_iBL_EO, m_iBL_OE;
    // Rewritten by SetGamma on the host while a frame may be mapped with them: entries are relaxed atomics.
    std::atomic<uint8_t> m_Gamma8[256];
    // 65536 entries; made for SetGamma's last value when a 16-bit frame first needs it, which FillGamma16 sees to.
    std::atomic<uint16_t>* m_pGamma16 = nullptr;

protected:
    Shared<int32_t> m_gammaExponent{ INT32_MIN };    // hundredths, as SetGamma has chosen it; none yet
    Shared<int32_t> m_gamma16Exponent{ INT32_MIN };  // of what m_pGamma16 holds
};

// White balance and colour. Host and automation write.
// Of a colour camera m_iWB_R and m_iWB_B lie within m_iWBMin and m_iWBMax, once it is constructed.
struct BalanceState {
    Shared<int32_t> m_iWB_R, m_iWB_B;
    Shared<bool> m_bAutoWB;
    CAlgorithm m_Algorithm;

protected:
    uint8_t m_BayerIdx[4][4];  // 0 red, 1 green, 2 blue; constructor
};

// What the automation aims at. Host writes, automation reads.
// QUIRK: a host may write any number; the model's SetGain and SetExp limit what comes of it.
struct AutomationState {
    Shared<bool> m_bAutoExp, m_bAutoGain;
    Shared<int32_t> m_iAutoGainMax;
    Shared<int32_t> m_iAutoExpMax;  // s
    Shared<int32_t> m_iDestBrightness;
};

// A running capture and its frames.
// At the end of a run m_bCapturing and m_ExpStatus change together, under RunControl's lock. From construction on no buffer
// is null; all are made for the full sensor.
struct CaptureState {
    Shared<bool> m_bCapturing;  // host writes, WorkingThread and automation poll
    Shared<bool> m_bStopping;
    Shared<KOV_EXPOSURE_STATUS> m_ExpStatus;
    Shared<uint32_t> m_iDroppedFrames;
    std::unique_ptr<FrameExchange> m_pFrameExchange;
    // Frames that USB transfers fill; blocks of the exchange, which takes a finished frame in exchange for an empty one.
    // Written by WorkingThread.
    Shared<uint8_t*> m_pAuxBuf1, m_pAuxBuf2;
    // Of the reader that has the exchange's turn.
    uint8_t* m_pImgBuf = nullptr;  // 2 bytes a sensor pixel; delivery works in the frame itself and uses only single places of it
    uint8_t* m_pRGBBuf = nullptr;  // 3 bytes a sensor pixel

protected:
    uint8_t* m_pQuarterBuf = nullptr;  // 3/4 of a byte; nothing of the library needs it
};

// Dark frame. Host writes; the reader of frames collects while m_bGettingDark.
// m_iDarkNum is 1 to 5. The first m_lDeadPixelNum places of m_pDarkPixels ascend and are those set in m_pDarkTmp; all others
// are 0. A setting that names a damaged file leaves m_bUsingDark with a dark frame of zeros.
struct DarkState {
    Shared<bool> m_bUsingDark;
    char m_szBMPPath[256];
    uint16_t* m_pDarkBuf = nullptr;  // dark frame, full sensor
    uint16_t* m_pDarkSum = nullptr;  // accumulator, then the dark frame of the region
    Shared<bool> m_bGettingDark;
    Shared<int32_t> m_iDarkNum, m_iDarkCount;
    Shared<uint32_t> m_iDarkAve;
    Shared<int32_t> m_lDeadPixelNum;  // entries of m_pDarkPixels
    int32_t *m_pDarkPixels = nullptr, *m_pDarkTmp = nullptr;
};

// Hot-pixel table. Host, under m_hot.mutex; the reader of frames sees the list of the region.
// The first m_iHPCNum places of m_pHotPixels ascend and are set in m_pHPCBuf2. The lists in m_hot tell what the flags tell;
// who writes flags himself calls AdjustHPCTable. QUIRK: on USB 2 m_bHPCEnable may be set without a table.
struct HotPixelFields {
    Shared<bool> m_bHPCEnable;
    Shared<bool> m_bHPCRun;
    Shared<int32_t> m_iHPCNum;  // entries of m_pHotPixels
    int32_t* m_pHotPixels = nullptr;
    int32_t *m_pHPCBuf1 = nullptr, *m_pHPCBuf2 = nullptr;  // flags: full sensor; current region
    int8_t* m_pTable80 = nullptr;                          // BinPhaseTable: 5 rows of 8 pairs (x, y); 127 is no entry

private:
    // The functions of camera/HotPixels.cpp.
    friend class CCameraBase;
    friend void FitDarkFrame(CCameraBase& cam);
    friend void FitHotPixels(CCameraBase& cam);
    friend void SetHotPixels(CCameraBase& cam, std::vector<int32_t> sensor);
    friend void ForgetHotPixels(CCameraBase& cam);
    HotPixelState m_hot;
};

// Temperature and cooler. Host and cooler write.
// Of an initialised cooled camera m_fCoolPowerPerc is 0 to 100; before, and without a cooler, it is what the settings hold.
// m_bAutoTemp regulates only while m_bTempThrRun.
struct ThermalState {
    Shared<bool> m_bTempThrRun;  // while set, readers take m_fSensorTemp instead of asking the sensor
    Shared<float> m_fCoolPowerPerc;
    Shared<bool> m_bAutoTemp;
    Shared<float> m_fSensorTemp;           // degrees Celsius
    Shared<int32_t> m_iTargetTemp;         // degrees Celsius
    int32_t m_iLUTMax = 0, m_iLUTMin = 0;  // degrees Celsius; constructor
};

// What the model is and can do. Constructor writes (name and identity: OpenCamera), then all threads read.
// A default lies within its limits. m_szBins begins with 1, ascends and ends with 0. The first m_iNumOfControls controls of the
// list differ, all others are 0; white balance is among them of a colour camera, the cooler's just of a cooled one. QUIRK:
// BerylMono lists white balance too, QuartzMono that of blue.
struct Capabilities {
    const char* m_pszName = "";
    bool m_bUSB3Camera = true;
    float m_fElecPerADU = 0;
    int32_t m_iPropA = 0, m_iPropB = 0;
    bool m_bDDR = false;  // hardware binning of this sensor sums
    int32_t m_iPropC = -1, m_iPropD = -1;
    int32_t m_iFPSMin = 0, m_iFPSMax = 0;
    int32_t m_iMaxExposure = 0;  // us
    double m_dPixelSize = 0;     // um
    BayerPattern m_ColorBayer = BAYER_RG;
    int8_t m_szBins[16];
    bool m_bHasGain = false, m_bHasExposure = false, m_bHasGamma = false, m_bHasBrightness = false;
    bool m_bHasBandwidth = false, m_bHasWB_R = false, m_bHasWB_B = false;
    bool m_bImgRAW8 = false, m_bImgRGB24 = false, m_bImgY8 = false, m_bImgRAW16 = false;
    bool m_bBandwidthAuto = false;
    bool m_bIsColor = false;
    bool m_bHasOverCLK = false, m_bHasTemperature = false, m_bHasFlip = false, m_bHasAuto = false;
    bool m_bIsCooler = false;
    int32_t m_iGainDef = 0, m_iGainMax = 0, m_iGainMin = 0;
    int32_t m_iExpDef = 0, m_iExpMax = 0, m_iExpMin = 0;  // us
    int32_t m_iGammaDef = 0, m_iGammaMax = 0, m_iGammaMin = 0;
    int32_t m_iWB_RDef = 0, m_iWB_BDef = 0, m_iWBMax = 0, m_iWBMin = 0;
    int32_t m_iBrightDef = 0, m_iBrightMax = 0, m_iBrightMin = 0;
    int32_t m_iBandwidthMin = 0, m_iBandwidthMax = 0;
    int32_t m_ControlList[64];
    int32_t m_iNumOfControls = 0;
};

// The open device. Host, and WorkingThread while it reconnects.
// m_iDevIndex counts from 1. It stays 0 in families that do not keep it (sensors/Model.cpp): they do not reconnect.
struct DeviceState {
    Shared<int32_t> m_iDevIndex;
    Shared<bool> m_bUSB3Host;
    Shared<uint8_t> m_FirmwareVer;
    uint8_t m_FPGAVer[2] = {};
    bool m_ownedByFrame = false;  // destroyed by the C interface: the destructor neither saves nor closes
};

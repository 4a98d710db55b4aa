// The abstract camera: what all models share. It knows nothing of any sensor; each model class fills the capability
// fields in its constructor and implements the virtual operations.
//
// Threads. "host": a thread of the application inside an exported function. "WorkingThread": the capture thread.
// "automation": the auxiliary threads beside it. "cooler": AutoTempThread. Fields of type Shared<> are written by one of
// them and read by others; the loops read them afresh each pass.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "KOVCamera2.h"
#include "automation/HotPixels.h"
#include "capture/FrameExchange.h"
#include "core/Export.h"
#include "core/Shared.h"
#include "core/Trace.h"
#include "imaging/CAlgorithm.h"
#include "usb/CCameraFX3.h"

// Format that SetResolution receives and m_ImgType keeps.
enum IMAGE_TYPE {
    IMAGE_8BIT = 0,       // raw if m_bRawOutput is set, else luminance
    IMAGE_RGB24 = 1,
    IMAGE_YUV = 2,        // not reachable from the C interface
    IMAGE_16BIT_ALT = 3,  // not reachable from the C interface
    IMAGE_16BIT = 4,
};

// Numbers of isAvailable.
enum Control_TYPE {
    HAS_GAIN, HAS_EXPOSURE, HAS_GAMMA, HAS_WB_R, HAS_WB_B, HAS_BRIGHTNESS, HAS_BANDWIDTH, HAS_OVERCLK, HAS_TEMPERATURE,
    HAS_FLIP, HAS_AUTO, HAS_COOLER, HAS_COOL_POWER, HAS_TARGET_TEMP,
};

using GuideD = KOV_GUIDE_DIRECTION;
enum HPCStatus { HPC_STOP = 0, HPC_LOAD = 1, HPC_OFF = 2, HPC_QUERY = 3 };

class KOV_CLASS CCameraBase : public CCameraFX3 {
public:
    // Size of the sensor in pixels. Allocates all working buffers, for the full sensor, once.
    CCameraBase(int width, int height);
    virtual ~CCameraBase();

    // The object behind an open camera ID of the C interface, or nullptr. It stays the C interface's: valid until
    // KOVCloseCamera.
    static CCameraBase* FromID(int id);

    // --- what a model supplies. Host threads; SetGain, SetExp, SetRGBBalance and SetFPSPerc also from WorkingThread and
    //     automation ---
    virtual bool OpenCamera(int deviceIndex) = 0;  // 1-based among the cameras of this model
    virtual bool InitCamera() = 0;
    virtual bool CloseCamera() = 0;
    virtual bool SetResolution(int width, int height, int bin, IMAGE_TYPE type) = 0;  // output pixels
    virtual bool SetStartPos(int x, int y) = 0;                                       // sensor pixels
    virtual bool SetGain(int gain, bool autoMode) = 0;
    virtual int GetGain(bool* autoMode);
    virtual bool SetGamma(int value);
    virtual int GetGamma();
    void FillGamma16();  // one thread at a time
    virtual bool SetBrightness(int value);
    virtual bool SetHighSpeedMode(bool on);
    virtual bool SetHardwareBin(bool on);
    virtual bool SetFPSPerc(int percent, bool autoMode);
    virtual bool GetFPSPerc(int* percent, bool* autoMode);
    virtual bool SetOverCLKPerc(int percent);
    virtual void SetRGBBalance(int red, int blue, bool autoMode) = 0;
    virtual bool SetExp(uint64_t microseconds, bool autoMode) = 0;
    virtual bool GetImage(uint8_t* buffer, int size, uint32_t waitMs) = 0;
    virtual float GetSensorTemp();  // degrees Celsius
    virtual bool StartCapture(bool snap) = 0;
    virtual bool StopCapture() = 0;
    virtual bool IsHardBinRun();

    // --- plain accessors ---
    int GetBin() const { return m_iBin; }
    int GetWidth() const { return m_iWidth; }
    int GetHeight() const { return m_iHeight; }
    int GetMaxWidth() const { return m_iMaxWidth; }
    int GetMaxHeight() const { return m_iMaxHeight; }
    IMAGE_TYPE GetImgType() const { return m_ImgType; }
    bool IsRawOutput() const { return m_bRawOutput; }
    void SetRawOutput(bool raw) { m_bRawOutput = raw; }
    bool IsTimeMark() const { return m_bTimeMark; }
    void SetTimeMark(bool on) { m_bTimeMark = on; }
    bool IsUsingDark() const { return m_bUsingDark; }
    void UsingDark(bool on) { m_bUsingDark = on; }
    uint32_t GetDroppedFrame() const { return m_iDroppedFrames; }
    int GetNumOfControls() const { return m_iNumOfControls; }
    bool GetStartPos(int* x, int* y) const { *x = m_iStartX; *y = m_iStartY; return true; }
    bool IsHighSpeedMode() const { return m_bHighSpeed; }
    char* GetBMPPath() { return m_szBMPPath; }
    int GetCMOSClk() const { return m_iCMOSClk; }
    bool IsOutput16Bits() const { return m_bOutput16Bits; }
    int getFPSMin() const { return m_iFPSMin; }
    int getFPSMax() const { return m_iFPSMax; }
    double getPixelSize() const { return m_dPixelSize; }
    BayerPattern getColorBayer() const { return m_ColorBayer; }
    int getMAXExposure() const { return m_iMaxExposure; }
    int GetBrightness() const { return m_iBrightness; }
    bool IsHPCEnable() const { return m_bHPCEnable; }
    int GetOverCLKPerc() const { return m_iOverCLKPerc; }
    bool IsHardwareBin() const { return m_bHardwareBin; }
    // QUIRK: true while the dark capture still runs, contrary to the name.
    bool IsGetDarkOver() const { return m_bGettingDark; }
    void GetDarkCount(int* done, int* wanted) const { *done = m_iDarkCount; *wanted = m_iDarkNum; }
    void GetHPSum(int* inDark, int* inTable) const { *inDark = m_lDeadPixelNum; *inTable = m_iHPCNum; }
    uint32_t GetExp(bool* autoMode) const;  // low 32 bits
    void GetRGBBalance(int* red, int* blue, bool* autoMode) const;
    bool GetMaxFPS(float* dataRate, float* frames) const;  // MB/s, frames/s
    void SetMisc(bool flipRow, bool flipColumn) { m_bFlipRow = flipRow; m_bFlipColumn = flipColumn; }
    void GetMisc(bool* flipRow, bool* flipColumn) const { *flipRow = m_bFlipRow; *flipColumn = m_bFlipColumn; }
    void SetAutoPara(int maxGain, int maxExp, int destBrightness);
    void GetAutoPara(int* maxGain, int* maxExp, int* destBrightness) const;

    // --- streaming and link ---
    bool StartUSBStreaming();
    bool StopUSBStreaming();
    bool StartSensorCLK();
    bool StopSensorCLK();
    bool SetTransferCount(long bytes);
    bool ReConnectCamera();

    // --- properties and controls ---
    bool isAvailable(Control_TYPE control) const;
    bool isImgTypeSupported(IMG_TYPE type) const;
    void StartExposure();
    void StopExposure();
    bool GetImageAfterExp(uint8_t* buffer, int size);
    void GetCameraProperty(KOV_CAMERA_INFO* info);
    bool GetControlCaps(int index, KOV_CONTROL_CAPS* caps);
    bool GetControlValue(KOV_CONTROL_TYPE control, int32_t* value, KOV_BOOL* autoMode);
    KOV_ERROR_CODE SetControlValue(KOV_CONTROL_TYPE control, int32_t value, bool autoMode);

    // --- persistent settings ---
    void LoadSetting(const wchar_t* key);
    void SaveSetting(const wchar_t* key);

    // --- guiding and user ID ---
    bool pulseGuide(GuideD direction, int milliseconds);
    bool pulseGuideOn(GuideD direction);
    bool pulseGuideOff(GuideD direction);
    bool ReadIDFromSPI(KOV_ID* out);
    bool WriteIDToSPI(KOV_ID value);

    // --- automation (src/automation) ---
    void AutoExpGain(uint8_t* frame);
    void AutoWhiBal(uint8_t* frame);
    void AutoWB_RAW(uint8_t* frame);
    void Get_variance_ave_RAW(uint8_t* frame, int x0, int y0, int blockW, int blockH, int pitch, int height, int* devR,
                              int* devG, int* devB, int* meanR, int* meanG, int* meanB);
    void HandleHotPixels();
    bool DeNoiseHPC(int x, int y, int W, int H);
    bool AutoGetHPC(int* found, int minNum, int maxNum, unsigned long* running, uint8_t* buf, int bufLen);
    bool ManualHPC(bool save, int* count);
    bool SetHPCStates(bool on);
    bool ChangeHPCStatus(HPCStatus status, unsigned long* count);
    int GettingDark(bool on, uint64_t ignored);
    void AdjustDarkBuff(uint16_t* src, uint16_t* dst);
    void AdjustHPCTable(int32_t* src, int32_t* dst);
    uint8_t* Compress(uint8_t* src, int n, int* outLen);  // the caller frees it with free()
    uint8_t* Uncompress(uint8_t* src, int L);             // the caller frees it with free()
    bool SaveHPCTable();
    bool LoadHPCTable();
    int LoadBMPFromFile(const char* path);  // 1 success, 0 bad content, 6 cannot open, 7 wrong size
    int SaveBMPToFile(const char* path);    // always 1
    int CreateBMP(int width, int height, uint8_t* pixels, const char* path);

    // --- image helpers (src/imaging) ---
    void AddTimeMark(uint8_t* image, int width, IMAGE_TYPE type);
    void Bayer2RGB24(uint8_t* src, uint8_t* dst, int width, int height);

    // --- temperature (src/thermal) ---
    float GetADTemp();
    float GetTemp();
    float CalculTempuature(uint8_t ad, int seriesKOhm);
    float ReadDigitalTemp();  // body of GetSensorTemp on the models with the digital form

    // --- state ---
    Shared<bool> m_bCapturing;      // host writes, WorkingThread and automation poll
    Shared<bool> m_bStopping;
    Shared<bool> m_bTempThrRun;     // while set, readers take m_fSensorTemp instead of asking the sensor
    Shared<int32_t> m_iWidth;       // output pixels
    int32_t m_iMaxWidth = 0;        // sensor
    Shared<int32_t> m_iHeight;
    int32_t m_iMaxHeight = 0;
    Shared<int32_t> m_iBin;
    Shared<uint64_t> m_lExposure;   // us
    Shared<int32_t> m_iExpLines;
    Shared<bool> m_bLongExp;
    Shared<bool> m_bSnapMode;
    Shared<bool> m_bSensorCLKStopped;
    Shared<bool> m_bHardwareBin;
    Shared<int32_t> m_iGain;
    Shared<int32_t> m_iGamma;
    Shared<int32_t> m_iBrightness;
    Shared<int32_t> m_iDevIndex;
    Shared<int32_t> m_iCMOSClk;     // kHz or MHz, by family
    Shared<bool> m_bOutput16Bits;
    Shared<bool> m_bSensorHighBits;
    Shared<bool> m_bHighSpeed;
    Shared<bool> m_bRawOutput;
    Shared<int32_t> m_iHMAX;        // line length, sensor clocks
    Shared<int32_t> m_iFrameTime;   // us
    Shared<int32_t> m_iFPSPerc;
    Shared<bool> m_bAutoFPS;
    Shared<bool> m_bFlipRow, m_bFlipColumn;
    Shared<int32_t> m_iWB_R, m_iWB_B;
    Shared<bool> m_bAutoExp, m_bAutoGain, m_bAutoWB;
    Shared<bool> m_bTimeMark;
    Shared<int32_t> m_iStartX, m_iStartY;  // sensor pixels
    Shared<int32_t> m_iAutoBLCount;
    Shared<bool> m_bAutoBL, m_bAutoBLBusy;
    Shared<uint8_t> m_iBL_EE, m_iBL_OO, m_iBL_EO, m_iBL_OE;
    Shared<IMAGE_TYPE> m_ImgType;
    Shared<int32_t> m_iAutoGainMax;
    Shared<int32_t> m_iAutoExpMax;  // s
    Shared<int32_t> m_iDestBrightness;
    Shared<bool> m_bUSB3Host;
    Shared<bool> m_bHPCEnable;
    Shared<bool> m_bUsingDark;
    char m_szBMPPath[256];
    Shared<KOV_EXPOSURE_STATUS> m_ExpStatus;
    Shared<float> m_fCoolPowerPerc;
    Shared<bool> m_bAutoTemp;
    Shared<float> m_fSensorTemp;    // degrees Celsius
    Shared<int32_t> m_iTargetTemp;  // degrees Celsius
    Shared<int32_t> m_iOverCLKPerc;
    Shared<float> m_fMaxDataRate, m_fMaxFPS;
    bool m_bBottomUp = false;
    bool m_bUSB3Camera = true;
    float m_fElecPerADU = 0;
    int32_t m_iPropA = 0, m_iPropB = 0;
    bool m_bDDR = false;            // hardware binning of this sensor sums
    int32_t m_iPropC = -1, m_iPropD = -1;
    int32_t m_iFPSMin = 0, m_iFPSMax = 0;
    int32_t m_iMaxExposure = 0;     // us
    const char* m_pszName = "";
    double m_dPixelSize = 0;        // um
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
    int32_t m_iExpDef = 0, m_iExpMax = 0, m_iExpMin = 0;
    int32_t m_iGammaDef = 0, m_iGammaMax = 0, m_iGammaMin = 0;
    int32_t m_iWB_RDef = 0, m_iWB_BDef = 0, m_iWBMax = 0, m_iWBMin = 0;
    int32_t m_iBrightDef = 0, m_iBrightMax = 0, m_iBrightMin = 0;
    int32_t m_iBandwidthMin = 0, m_iBandwidthMax = 0;
    Shared<uint8_t> m_FirmwareVer;
    uint8_t m_FPGAVer[2] = {};
    // Rewritten by SetGamma on the host while a frame may be mapped with them: entries are relaxed atomics.
    std::atomic<uint8_t> m_Gamma8[256];
    // 65536 entries; made for SetGamma's last value when a 16-bit frame first needs it, which FillGamma16 sees to.
    std::atomic<uint16_t>* m_pGamma16 = nullptr;
    Shared<int32_t> m_iGammaExponent{ INT32_MIN };    // hundredths, as SetGamma has chosen it; none yet
    Shared<int32_t> m_iGamma16Exponent{ INT32_MIN };  // of what m_pGamma16 holds
    Shared<int32_t> m_iHPCNum;
    int32_t* m_pHotPixels = nullptr;
    int32_t *m_pHPCBuf1 = nullptr, *m_pHPCBuf2 = nullptr;  // flags: full sensor; current region
    HotPixelState m_Hot;
    uint16_t* m_pDarkBuf = nullptr;  // dark frame, full sensor
    uint16_t* m_pDarkSum = nullptr;  // accumulator, then the dark frame of the region
    Shared<bool> m_bGettingDark;
    Shared<int32_t> m_iDarkNum, m_iDarkCount;
    Shared<uint32_t> m_iDarkAve;
    Shared<int32_t> m_lDeadPixelNum;
    int32_t *m_pDarkPixels = nullptr, *m_pDarkTmp = nullptr;
    Shared<uint32_t> m_iDroppedFrames;
    uint8_t* m_pImgBuf = nullptr;      // 2 bytes a sensor pixel; delivery works in the frame itself and uses only single places of it
    uint8_t* m_pRGBBuf = nullptr;      // 3 bytes a sensor pixel
    uint8_t* m_pQuarterBuf = nullptr;  // 3/4 of a byte; nothing of the library needs it
    std::unique_ptr<FrameExchange> m_pFrameExchange;
    // Frames that USB transfers fill; blocks of the exchange, which takes a finished frame in exchange for an empty one.
    // Written by WorkingThread.
    Shared<uint8_t*> m_pAuxBuf1, m_pAuxBuf2;
    int32_t m_iFPSPercUSB3 = 0;
    int32_t m_ControlList[64];
    int32_t m_iNumOfControls = 0;
    Shared<bool> m_bHPCRun;
    uint8_t m_BayerIdx[4][4];          // 0 red, 1 green, 2 blue
    int8_t* m_pTable80 = nullptr;      // BinPhaseTable: 5 rows of 8 pairs (x, y); 127 is no entry
    CAlgorithm m_Algorithm;
    int32_t m_iLUTMax = 0, m_iLUTMin = 0;
    bool m_bOwnedByFrame = false;      // destroyed by the C interface: the destructor neither saves nor closes

private:
    struct Buffers;
    std::unique_ptr<Buffers> m_pBuffers;  // owns what the pointers above point at
};

// The abstract camera: what all models share. It knows nothing of any sensor; each model class fills the capability
// fields in its constructor and implements the virtual operations. Its state stands in camera/State.h.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "KOVCamera2.h"
#include "base/Export.h"
#include "base/Trace.h"
#include "camera/State.h"
#include "usb/CCameraFX3.h"

// Numbers of isAvailable.
enum Control_TYPE {
    HAS_GAIN,
    HAS_EXPOSURE,
    HAS_GAMMA,
    HAS_WB_R,
    HAS_WB_B,
    HAS_BRIGHTNESS,
    HAS_BANDWIDTH,
    HAS_OVERCLK,
    HAS_TEMPERATURE,
    HAS_FLIP,
    HAS_AUTO,
    HAS_COOLER,
    HAS_COOL_POWER,
    HAS_TARGET_TEMP,
};

using GuideD = KOV_GUIDE_DIRECTION;
enum HPCStatus { HPC_STOP = 0, HPC_LOAD = 1, HPC_OFF = 2, HPC_QUERY = 3 };

class KOV_CLASS CCameraBase : public CCameraFX3,
                              public RegionState,
                              public ExposureState,
                              public GainState,
                              public BalanceState,
                              public AutomationState,
                              public CaptureState,
                              public DarkState,
                              public HotPixelFields,
                              public ThermalState,
                              public Capabilities,
                              public DeviceState {
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
    // SetFPSPerc, and a line in the log when that changes the percentage. Text: why, for the log.
    bool ChangeFPSPerc(int percent, bool autoMode, const char* reason);
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
    bool GetStartPos(int* x, int* y) const
    {
        *x = m_iStartX;
        *y = m_iStartY;
        return true;
    }
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
    void GetDarkCount(int* done, int* wanted) const
    {
        *done = m_iDarkCount;
        *wanted = m_iDarkNum;
    }
    void GetHPSum(int* inDark, int* inTable) const
    {
        *inDark = m_lDeadPixelNum;
        *inTable = m_iHPCNum;
    }
    uint32_t GetExp(bool* autoMode) const;  // low 32 bits
    void GetRGBBalance(int* red, int* blue, bool* autoMode) const;
    bool GetMaxFPS(float* dataRate, float* frames) const;  // MB/s, frames/s
    void SetMisc(bool flipRow, bool flipColumn)
    {
        m_bFlipRow = flipRow;
        m_bFlipColumn = flipColumn;
    }
    void GetMisc(bool* flipRow, bool* flipColumn) const
    {
        *flipRow = m_bFlipRow;
        *flipColumn = m_bFlipColumn;
    }
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

    // --- automation, hot pixels, dark frames ---
    void AutoExpGain(uint8_t* frame);
    void AutoWhiBal(uint8_t* frame);
    void AutoWB_RAW(uint8_t* frame);
    void Get_variance_ave_RAW(uint8_t* frame, int x0, int y0, int blockW, int blockH, int pitch, int height, int* devR, int* devG,
                              int* devB, int* meanR, int* meanG, int* meanB);
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

    // --- image helpers ---
    void AddTimeMark(uint8_t* image, int width, IMAGE_TYPE type);
    void Bayer2RGB24(uint8_t* src, uint8_t* dst, int width, int height);

    // --- temperature ---
    float GetADTemp();
    float GetTemp();
    float CalculTempuature(uint8_t ad, int seriesKOhm);
    float ReadDigitalTemp();  // body of GetSensorTemp on the models with the digital form

private:
    struct Buffers;
    std::unique_ptr<Buffers> m_buffers;  // owns what the pointers above point at
};

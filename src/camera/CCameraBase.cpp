// Construction, accessors and the plain commands of the abstract camera.
#include "camera/CCameraBase.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <new>

#include "base/Attempt.h"
#include "base/Log.h"
#include "exchange/FrameExchange.h"
#include "imaging/CAlgorithm.h"
#include "platform/Pages.h"
#include "platform/Platform.h"
#include "thermal/Thermistor.h"
#include "usb/CUsbLink.h"

namespace {

constexpr size_t BUFFER_PAD = 64;                                 // bytes that a vector kernel may read past the end
constexpr uint32_t TRANSFER_UNIT = 49152;                         // bytes; the camera counts a frame in these
constexpr uint32_t RECONNECT_FIRST = 50, RECONNECT_AGAIN = 1000;  // ms

constexpr uint8_t BAYER_INDEX[4][4] = {
    { 0, 1, 1, 2 },  // RG
    { 2, 1, 1, 0 },  // BG
    { 1, 0, 2, 1 },  // GR
    { 1, 2, 0, 1 },  // GB
};

}  // namespace

// Fresh pages of the system are zero and cost nothing until they are touched. 38 bytes a sensor pixel are asked for here, of
// which a camera without dark frame and hot-pixel table never touches the greater part.
struct CCameraBase::Buffers {
    std::vector<platform::Pages<void>> owned;
    std::unique_ptr<std::atomic<uint16_t>[]> gamma16 = std::make_unique<std::atomic<uint16_t>[]>(65536);

    template <class T>
    void Make(T** pp, size_t bytes)
    {
        void* const p = platform::AllocPages(bytes + BUFFER_PAD);
        if (!p)
            throw std::bad_alloc();
        owned.emplace_back(p, platform::PagesDeleter{ bytes + BUFFER_PAD });
        *pp = static_cast<T*>(p);
    }
};

CCameraBase::CCameraBase(int width, int height) : m_buffers(std::make_unique<Buffers>())
{
    m_iMaxWidth = width;
    m_iWidth = width;
    m_iMaxHeight = height;
    m_iHeight = height;
    m_iBin = 1;
    m_iAutoExpMax = 30;  // s
    m_iAutoGainMax = 50;
    m_iDestBrightness = 100;
    m_iDarkNum = 1;
    std::memset(m_szBMPPath, 0, sizeof m_szBMPPath);
    std::memset(m_szBins, 0, sizeof m_szBins);
    m_szBins[0] = 1;
    std::memset(m_ControlList, 0, sizeof m_ControlList);

    const size_t pixels = static_cast<size_t>(width) * static_cast<size_t>(height);
    Buffers& b = *m_buffers;
    m_pGamma16 = b.gamma16.get();
    b.Make(&m_pDarkBuf, 2 * pixels);
    b.Make(&m_pDarkSum, 2 * pixels);
    b.Make(&m_pDarkPixels, 4 * pixels);
    b.Make(&m_pDarkTmp, 4 * pixels);
    b.Make(&m_pHPCBuf1, 4 * pixels);
    b.Make(&m_pHPCBuf2, 4 * pixels);
    b.Make(&m_pHotPixels, 4 * pixels);
    m_pFrameExchange = std::make_unique<FrameExchange>(static_cast<uint32_t>(2 * pixels));
    m_pAuxBuf1 = m_pFrameExchange->MakeBlock();
    m_pAuxBuf2 = m_pFrameExchange->MakeBlock();
    b.Make(&m_pImgBuf, 2 * pixels);
    b.Make(&m_pRGBBuf, 3 * pixels);
    b.Make(&m_pQuarterBuf, 3 * pixels / 4);

    m_Algorithm.RGBYUV_Init();  // the tables are one for the process: a new camera sets all others to unity gain
    std::memcpy(m_BayerIdx, BAYER_INDEX, sizeof m_BayerIdx);

    m_iLUTMax = m_iLUTMin = g_ThermistorTable[0].degrees;
    for (const ThermistorRow& row : g_ThermistorTable) {
        m_iLUTMax = std::max(m_iLUTMax, row.degrees);
        m_iLUTMin = std::min(m_iLUTMin, row.degrees);
    }
    b.Make(&m_pTable80, 80);
    std::memset(m_pTable80, 127, 80);
}

CCameraBase::~CCameraBase()
{
    // Also a link that CloseCamera has left open.
    ReplaceLink(nullptr);
}

bool CCameraBase::ChangeFPSPerc(int percent, bool autoMode, const char* reason)
{
    const int before = m_iFPSPerc;
    const bool ok = SetFPSPerc(percent, autoMode);
    if (m_iFPSPerc != before)
        KOV_LOG(Info, "bandwidth from %d to %d: %s", before, m_iFPSPerc.Get(), reason);
    return ok;
}

// --- what a model may leave as it is ---------------------------------------------------------------------------------

int CCameraBase::GetGain(bool* autoMode)
{
    *autoMode = m_bAutoGain;
    return m_iGain;
}
bool CCameraBase::SetBrightness(int) { return false; }
bool CCameraBase::SetHighSpeedMode(bool) { return false; }
bool CCameraBase::SetHardwareBin(bool) { return false; }
bool CCameraBase::SetFPSPerc(int, bool) { return false; }
bool CCameraBase::GetFPSPerc(int*, bool*) { return false; }
bool CCameraBase::SetOverCLKPerc(int) { return false; }
float CCameraBase::GetSensorTemp() { return 0.0f; }
bool CCameraBase::IsHardBinRun() { return m_bHardwareBin && m_iBin >= 2; }

// --- accessors --------------------------------------------------------------------------------------------------------

uint32_t CCameraBase::GetExp(bool* autoMode) const
{
    *autoMode = m_bAutoExp;
    return static_cast<uint32_t>(m_lExposure);
}

void CCameraBase::GetRGBBalance(int* red, int* blue, bool* autoMode) const
{
    *red = m_iWB_R;
    *blue = m_iWB_B;
    *autoMode = m_bAutoWB;
}

bool CCameraBase::GetMaxFPS(float* dataRate, float* frames) const
{
    *dataRate = m_fMaxDataRate;
    *frames = m_fMaxFPS;
    return true;
}

void CCameraBase::SetAutoPara(int maxGain, int maxExp, int destBrightness)
{
    m_iAutoGainMax = maxGain;
    m_iAutoExpMax = maxExp;
    m_iDestBrightness = destBrightness;
}

void CCameraBase::GetAutoPara(int* maxGain, int* maxExp, int* destBrightness) const
{
    *maxGain = m_iAutoGainMax;
    *maxExp = m_iAutoExpMax;
    *destBrightness = m_iDestBrightness;
}

// --- streaming and link -----------------------------------------------------------------------------------------------

bool CCameraBase::StartUSBStreaming() { return SendCMD(REQ_START_STREAM); }
bool CCameraBase::StopUSBStreaming() { return SendCMD(REQ_STOP_STREAM); }

bool CCameraBase::StartSensorCLK()
{
    if (!SendCMD(REQ_START_SENSOR_CLOCK))
        return false;
    m_bSensorCLKStopped = false;
    return true;
}

bool CCameraBase::StopSensorCLK()
{
    if (!SendCMD(REQ_STOP_SENSOR_CLOCK))
        return false;
    m_bSensorCLKStopped = true;
    return true;
}

bool CCameraBase::SetTransferCount(long bytes)
{
    const auto low32 = static_cast<uint32_t>(bytes);  // a long has 32 bits to the camera
    const uint32_t count = low32 / TRANSFER_UNIT + (low32 % TRANSFER_UNIT != 0);
    int32_t length = 0;
    return SendCMD(REQ_TRANSFER_COUNT, static_cast<uint16_t>(count >> 16), static_cast<uint16_t>(count), false, nullptr, &length);
}

bool CCameraBase::ReConnectCamera()
{
    if (!m_pUsbLink)
        return false;
    m_bOpen = false;  // first, so that other threads send nothing more
    ReplaceLink(nullptr);
    platform::SleepMs(RECONNECT_FIRST);
    bool isOpen = false;
    const auto open = [&] {
        if (!m_pUsbLink)
            ReplaceLink(new CUsbLink(nullptr, m_guid, true));
        isOpen = OpenCamera(m_iDevIndex);
    };
    Attempt("reconnection", open);
    if (isOpen)
        return true;
    platform::SleepMs(RECONNECT_AGAIN);
    Attempt("reconnection", open);
    return isOpen;
}

// --- properties -------------------------------------------------------------------------------------------------------

bool CCameraBase::isAvailable(Control_TYPE control) const
{
    switch (control) {
    case HAS_GAIN: return m_bHasGain;
    case HAS_EXPOSURE: return m_bHasExposure;
    case HAS_GAMMA: return m_bHasGamma;
    case HAS_WB_R: return m_bHasWB_R;
    case HAS_WB_B: return m_bHasWB_B;
    case HAS_BRIGHTNESS: return m_bHasBrightness;
    case HAS_BANDWIDTH: return m_bHasBandwidth;
    case HAS_OVERCLK: return m_bHasOverCLK;
    case HAS_TEMPERATURE: return m_bHasTemperature;
    case HAS_FLIP: return m_bHasFlip;
    case HAS_AUTO: return m_bHasAuto;
    case HAS_COOLER:
    case HAS_COOL_POWER:
    case HAS_TARGET_TEMP: return m_bIsCooler;
    }
    return false;
}

bool CCameraBase::isImgTypeSupported(IMG_TYPE type) const
{
    switch (type) {
    case IMG_RAW8: return m_bImgRAW8;
    case IMG_RGB24: return m_bImgRGB24;
    case IMG_RAW16: return m_bImgRAW16;
    case IMG_Y8: return m_bImgY8;
    case IMG_END: break;
    }
    return false;
}

void CCameraBase::StartExposure() { StartCapture(true); }

void CCameraBase::StopExposure()
{
    StopCapture();
    m_ExpStatus = EXP_IDLE;
}

bool CCameraBase::GetImageAfterExp(uint8_t* buffer, int size) { return GetImage(buffer, size, platform::WAIT_FOREVER); }

void CCameraBase::GetCameraProperty(KOV_CAMERA_INFO* info)
{
    const size_t name = std::min(std::strlen(m_pszName), sizeof info->Name - 1);
    std::memcpy(info->Name, m_pszName, name);
    info->Name[name] = 0;
    info->MaxHeight = m_iMaxHeight;
    info->MaxWidth = m_iMaxWidth;
    info->BayerPattern = m_ColorBayer;
    info->IsColorCam = m_bIsColor ? KOV_TRUE : KOV_FALSE;
    info->PixelSize = m_dPixelSize;

    // A list without end mark fills all places, and then has no 0 behind it.
    size_t n = 0;
    while (n < std::size(info->SupportedBins) && m_szBins[n] >= 1) {
        info->SupportedBins[n] = static_cast<uint8_t>(m_szBins[n]);
        ++n;
    }
    if (n < std::size(info->SupportedBins))
        info->SupportedBins[n] = 0;

    IMG_TYPE* next = info->SupportedImgTypes;
    for (const IMG_TYPE type : { IMG_RAW8, IMG_RGB24, IMG_Y8, IMG_RAW16 })
        if (isImgTypeSupported(type))
            *next++ = type;
    *next = IMG_END;

    info->HasShutter = KOV_FALSE;
    info->HasGuidePort = KOV_TRUE;
    info->IsCooled = m_bIsCooler ? KOV_TRUE : KOV_FALSE;
    info->IsUSB3Host = m_bUSB3Host ? KOV_TRUE : KOV_FALSE;
    info->IsUSB3Camera = m_bUSB3Camera ? KOV_TRUE : KOV_FALSE;
    info->ElecPerADU = m_fElecPerADU;
    info->SensorParamA = m_iPropA;
    info->SensorParamB = m_iPropB;
}

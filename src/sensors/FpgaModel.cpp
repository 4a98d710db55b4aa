#include "sensors/FpgaModel.h"

#include <algorithm>

template <class Base>
bool CFpgaModel<Base>::InitCamera()
{
    if (!this->m_bOpen)
        return false;
    model::InitLink(*this);
    uint8_t ver = 0, fpga[4] = {};
    this->GetFirmwareVer(&ver);
    this->m_FirmwareVer = ver;
    this->GetFPGAVer(&this->m_FPGAVer[0], fpga);
    this->m_FPGAVer[1] = fpga[0];
    if (CCameraCool* pCool = this->Cool())
        model::StartCooler(*pCool);

    InitSensor();
    this->SetGamma(this->m_iGamma);
    this->SetRGBBalance(this->m_iWB_R, this->m_iWB_B, this->m_bAutoWB);
    this->SetBrightness(this->m_iBrightness);
    InitControls();
    if (this->m_bAutoFPS)
        this->m_iFPSPerc = AutoPerc();
    InitClock();
    this->SetGain(this->m_iGain, this->m_bAutoGain);
    this->SetExp(this->m_lExposure, this->m_bAutoExp);
    InitDone();
    return true;
}

template <class Base>
bool CFpgaModel<Base>::SetResolution(int width, int height, int bin, IMAGE_TYPE type)
{
    if (!model::RegionFits(*this, width, height, bin, type) || !AcceptsSize(width, height))
        return false;
    this->m_iHeight = height;
    this->m_iWidth = width;
    this->m_ImgType = type;
    this->m_iBin = bin;
    // QUIRK: every change of region recentres; a start that the host has set is lost.
    this->m_iStartX = (this->m_iMaxWidth - width * bin) / 2;
    this->m_iStartY = (this->m_iMaxHeight - height * bin) / 2;
    this->SetStartPos(this->m_iStartX, this->m_iStartY);
    this->SetOutput16Bits(type == IMAGE_16BIT_ALT || type == IMAGE_16BIT);
    this->Cam_SetResolution();
    ResolutionClock();
    this->SetFPSPerc(this->m_iFPSPerc, this->m_bAutoFPS);
    this->SetExp(this->m_lExposure, this->m_bAutoExp);
    return true;
}

template <class Base>
bool CFpgaModel<Base>::SetStartPos(int x, int y)
{
    x = RoundX(std::max(x, 0));
    y = std::max(y, 0) & ~1;
    const int w = this->m_iWidth * this->m_iBin, h = this->m_iHeight * this->m_iBin;
    this->m_iStartY = h > this->m_iMaxHeight - y ? this->m_iMaxHeight - h : y;
    this->m_iStartX = w > this->m_iMaxWidth - x ? this->m_iMaxWidth - w : x;
    if (this->m_bUsingDark)
        this->AdjustDarkBuff(this->m_pDarkBuf, this->m_pDarkSum);
    if (this->m_bHPCEnable)
        this->AdjustHPCTable(this->m_pHPCBuf1, this->m_pHPCBuf2);
    WriteStart(this->m_iStartX, this->m_iStartY);
    return true;
}

template <class Base>
bool CFpgaModel<Base>::SetFPSPerc(int percent, bool autoMode)
{
    if (this->m_iCMOSClk < ClockFloor())
        return false;
    // QUIRK: on the switch to auto the argument is ignored; while auto is on, it is taken.
    if (!autoMode || this->m_bAutoFPS)
        this->m_iFPSPerc = std::clamp<int32_t>(percent, this->m_iBandwidthMin, 100);
    else
        this->m_iFPSPerc = AutoPerc();
    this->m_bAutoFPS = autoMode;

    const int32_t iBudget = this->m_iFPSPerc * m_Vars.iBandwidthUnit;
    const float fps =
        float(iBudget) * 10.0f / float(this->m_bOutput16Bits + 1) / float(SensorH()) / float(SensorW());
    const float lineTime = 1e6f / fps / float(SensorLines() + m_Fpga.iVBlank);
    this->m_iHMAX = std::min(std::max(LineFromTime(lineTime), m_Vars.iMinHMAX.load()), 65535);
    WriteHMAX();
    AfterSetFPS();
    this->CalcMaxFPS();
    return true;
}

template <class Base>
bool CFpgaModel<Base>::GetFPSPerc(int* percent, bool* autoMode)
{
    *percent = this->m_iFPSPerc;
    *autoMode = this->m_bAutoFPS;
    return true;
}

template <class Base>
int32_t CFpgaModel<Base>::LineFromTime(float lineTime) const
{
    const float value = lineTime * float(this->m_iCMOSClk) / 1000.0f;
    return value < 65536.0f ? TruncToInt(value) : 65535;
}

template <class Base>
bool CFpgaModel<Base>::WriteHMAX()
{
    Fpga(FPGA_HOLD, 1);
    WriteFpga(FPGA_HMAX, uint32_t(this->m_iHMAX), 2);
    return Fpga(FPGA_HOLD, 0);
}

template <class Base>
bool CFpgaModel<Base>::SetHighSpeedMode(bool on)
{
    this->m_bHighSpeed = on;
    if (InHardBin2())
        return true;
    this->SetOutput16Bits(this->m_bOutput16Bits);
    InitClock();
    this->SetFPSPerc(this->m_iFPSPerc, this->m_bAutoFPS);
    this->SetExp(this->m_lExposure, this->m_bAutoExp);
    this->SetBrightness(this->m_iBrightness);
    return true;
}

template <class Base>
bool CFpgaModel<Base>::SetHardwareBin(bool on)
{
    this->m_bHardwareBin = on;
    if (!BinMatters())
        return true;
    const bool bCapturing = this->m_bCapturing;
    const int x = this->m_iStartX, y = this->m_iStartY;
    this->StopCapture();
    this->SetResolution(this->m_iWidth, this->m_iHeight, this->m_iBin, this->m_ImgType);
    this->SetStartPos(x, y);
    if (bCapturing)
        this->StartCapture(false);
    return true;
}

template <class Base>
void CFpgaModel<Base>::SetRGBBalance(int red, int blue, bool autoMode)
{
    if (!this->m_bIsColor)
        return;
    this->m_iWB_R = std::clamp(red, 1, 99);
    this->m_iWB_B = std::clamp(blue, 1, 99);
    this->m_bAutoWB = autoMode;
    const bool bHold = BalanceHolds();
    if (bHold)
        Fpga(FPGA_HOLD, 1);
    Fpga(RedGain(), uint32_t(this->m_iWB_R * 256 / 100));
    Fpga(BlueGain(), uint32_t(this->m_iWB_B * 256 / 100));
    if (bHold)
        Fpga(FPGA_HOLD, 0);
}

template <class Base>
int32_t CFpgaModel<Base>::GetRealImageSize()
{
    return SensorW() * SensorH() * (this->m_bOutput16Bits ? 2 : 1);
}

template <class Base>
float CFpgaModel<Base>::MaxFPSNow()
{
    return 1e6f / float(this->m_iFrameTime);
}

template <class Base>
void CFpgaModel<Base>::CalcMaxFPS()
{
    if (m_Fpga.lFPSLimit != 0 && this->m_lExposure >= m_Fpga.lFPSLimit)
        return;
    const float fps = MaxFPSNow();
    this->m_fMaxFPS = fps;
    const int iBytes = m_Fpga.bRateCounts16Bits && this->m_bOutput16Bits ? 2 : 1;
    this->m_fMaxDataRate = float(iBytes * SensorW() * SensorH()) * fps / 1e6f;
}

template <class Base>
bool CFpgaModel<Base>::WriteBytes(uint16_t reg, uint32_t value, int n)
{
    bool ok = true;
    for (int i = 0; i < n; ++i)
        ok = this->WriteSONYREG(static_cast<uint16_t>(reg + i), static_cast<uint8_t>(value >> (8 * i)));
    return ok;
}

template <class Base>
bool CFpgaModel<Base>::WriteFpga(uint16_t reg, uint32_t value, int n)
{
    bool ok = true;
    for (int i = 0; i < n; ++i)
        ok = this->WriteFPGAREG(static_cast<uint16_t>(reg + i), static_cast<uint8_t>(value >> (8 * i)));
    return ok;
}

template class CFpgaModel<CCameraBase>;
template class CFpgaModel<CCameraCool>;
template class CFpgaModel<CCameraPython>;

#include "sensors/FpgaModel.h"

#include <algorithm>

template <class Base>
bool CFpgaModel<Base>::InitCamera()
{
    if (!this->m_bOpen)
        return false;
    model::InitLink(*this);
    model::ReadFirmwareVer(*this);
    uint8_t fpga[4] = {};
    this->GetFPGAVer(&this->m_FPGAVer[0], fpga);
    this->m_FPGAVer[1] = fpga[0];
    if (CCameraCool* cool = this->Cool())
        model::StartCooler(*cool);

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
    model::TakeRegion(*this, width, height, bin, type);
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
    model::TakeStart(*this, RoundX(std::max(x, 0)), std::max(y, 0) & ~1);
    model::FitTables(*this, this->m_traits);
    WriteStart(this->m_iStartX, this->m_iStartY);
    return true;
}

template <class Base>
bool CFpgaModel<Base>::WriteStart(int x, int y)
{
    return WriteHeld({ { m_fpga.regs.left, uint32_t(x), 2 }, { m_fpga.regs.top, uint32_t(y), 2 } });
}

template <class Base>
bool CFpgaModel<Base>::SetBrightness(int value)
{
    this->m_iBrightness = value;
    Write8(static_cast<uint16_t>(m_fpga.regs.black + 1), uint32_t(value) >> 8);  // the high byte goes first
    return Write8(m_fpga.regs.black, uint32_t(value));
}

template <class Base>
bool CFpgaModel<Base>::SetFPSPerc(int percent, bool autoMode)
{
    if (this->m_iCMOSClk < ClockFloor())
        return false;
    this->TakePercentage(percent, autoMode, AutoPerc());

    const int32_t budget = this->m_iFPSPerc * m_vars.bandwidthUnit;
    const float fps = float(budget) * 10.0f / float(this->m_bOutput16Bits + 1) / float(SensorH()) / float(SensorW());
    const float lineTime = 1e6f / fps / float(SensorLines() + m_fpga.vBlank);
    this->m_iHMAX = std::min(std::max(LineFromTime(lineTime), m_vars.minHmax.load()), 65535);
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
    if (!SpeedMatters())
        return true;
    this->SetOutput16Bits(this->m_bOutput16Bits);
    this->SetCMOSClk();
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
    const bool capturing = this->m_bCapturing;
    const int x = this->m_iStartX, y = this->m_iStartY;
    this->StopCapture();
    this->SetResolution(this->m_iWidth, this->m_iHeight, this->m_iBin, this->m_ImgType);
    this->SetStartPos(x, y);
    if (capturing)
        this->StartCapture(false);
    return true;
}

template <class Base>
void CFpgaModel<Base>::SetRGBBalance(int red, int blue, bool autoMode)
{
    if (!this->m_bIsColor)
        return;
    this->TakeBalance(red, blue, autoMode);
    const bool hold = BalanceHolds();
    if (hold)
        Fpga(FPGA_HOLD, 1);
    Fpga(RedGain(), uint32_t(this->m_iWB_R * 256 / 100));
    Fpga(BlueGain(), uint32_t(this->m_iWB_B * 256 / 100));
    if (hold)
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
    if (m_fpga.fpsLimit != 0 && this->m_lExposure >= m_fpga.fpsLimit)
        return;
    const float fps = MaxFPSNow();
    this->m_fMaxFPS = fps;
    const int bytes = m_fpga.rateCounts16Bits && this->m_bOutput16Bits ? 2 : 1;
    this->m_fMaxDataRate = float(bytes * SensorW() * SensorH()) * fps / 1e6f;
}

template <class Write>
static bool LowByteFirst(uint16_t reg, uint32_t value, int n, Write write)
{
    bool ok = true;
    for (int i = 0; i < n; ++i)
        ok = write(static_cast<uint16_t>(reg + i), static_cast<uint8_t>(value >> (8 * i)));
    return ok;
}

template <class Base>
bool CFpgaModel<Base>::WriteBytes(uint16_t reg, uint32_t value, int n)
{
    return LowByteFirst(reg, value, n, [this](uint16_t r, uint8_t b) { return this->WriteSONYREG(r, b); });
}

template <class Base>
bool CFpgaModel<Base>::WriteFpga(uint16_t reg, uint32_t value, int n)
{
    return LowByteFirst(reg, value, n, [this](uint16_t r, uint8_t b) { return this->WriteFPGAREG(r, b); });
}

template <class Base>
bool CFpgaModel<Base>::WriteHeld(std::initializer_list<RegBytes> writes)
{
    Write8(m_fpga.regs.hold, 1);
    for (const RegBytes& w : writes)
        WriteBytes(w.reg, w.value, w.n);
    return Write8(m_fpga.regs.hold, 0);
}

template class CFpgaModel<CCameraBase>;
template class CFpgaModel<CCameraCool>;
template class CFpgaModel<CCameraPython>;

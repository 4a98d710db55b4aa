#include "sensors/Usb2Model.h"

#include <algorithm>

bool CUsb2Model::SetStartPos(int x, int y)
{
    if (!MovesAtFullSize() && IsFullSize())
        return true;
    x = std::max(x, 0) & ~1;
    y = std::max(y, 0) & ~1;
    m_iStartY = SensorH() > m_iMaxHeight - y ? m_iMaxHeight - SensorH() : y;
    m_iStartX = SensorW() > m_iMaxWidth - x ? m_iMaxWidth - SensorW() : x;
    FitTables();
    WriteStart();
    return true;
}

int32_t CUsb2Model::GetRealImageSize()
{
    const int iBin = m_bHardwareBin ? 1 : m_iBin.Get();  // only a stored setting sets the flag on these cameras
    return m_iWidth * m_iHeight * iBin * iBin * BytesPerPixel();
}

bool CUsb2Model::TakeRegion(int width, int height, int bin, IMAGE_TYPE type, int unit)
{
    if (!model::RegionFits(*this, width, height, bin, type) || width * height * bin * bin % unit != 0)
        return false;
    m_iHeight = height;
    m_iWidth = width;
    m_ImgType = type;
    m_iBin = bin;
    // QUIRK: every change of region recentres; a start that the host has set is lost.
    m_iStartX = (m_iMaxWidth - width * bin) / 2;
    m_iStartY = (m_iMaxHeight - height * bin) / 2;
    return true;
}

void CUsb2Model::FitTables()
{
    if (m_bUsingDark)
        AdjustDarkBuff(m_pDarkBuf, m_pDarkSum);
    if (m_Traits.bUSB3 && m_bHPCEnable)
        AdjustHPCTable(m_pHPCBuf1, m_pHPCBuf2);
}

bool CUsb2Model::SendTransferModeStopped(bool on)
{
    const bool bRan = m_bCapturing;
    if (bRan)
        StopCapture();
    const bool ok = SendTransferMode(on);
    if (bRan)
        StartCapture(false);
    return ok;
}

void CUsb2Model::TakePercentage(int percent, bool autoMode, int minPercent, int autoPercent)
{
    m_iFPSPerc = !autoMode || m_bAutoFPS ? std::clamp(percent, minPercent, 100) : autoPercent;
    m_bAutoFPS = autoMode;
}

void CUsb2Model::ReadFirmwareVer()
{
    uint8_t ver = 0;
    GetFirmwareVer(&ver);
    m_FirmwareVer = ver;
}

bool CUsb2Model::UpdateTo(uint8_t needed, FirmwareId id)
{
    // Without the loader the EEPROM is out of reach: the camera is left as it is, as without an image.
    const bool bLoader = FindFirmware(FirmwareId::LoaderPart1) && FindFirmware(FirmwareId::LoaderPart2);
    const FirmwareImage image = bLoader ? FindFirmware(id) : FirmwareImage{};
    // QUIRK: a bridge that does not answer counts as version 1. Cobalt and Iolite that lost their firmware in an update
    // are therefore opened as they are and never updated again.
    return model::UpdateFirmware(*this, m_Traits, image.pData, image.iSize, needed);
}

#include "sensors/Usb2Model.h"

#include <algorithm>

#include "platform/Platform.h"

bool CUsb2Model::SetStartPos(int x, int y)
{
    if (!MovesAtFullSize() && IsFullSize())
        return true;
    model::TakeStart(*this, std::max(x, 0) & ~1, std::max(y, 0) & ~1);
    FitTables();
    WriteStart();
    return true;
}

int32_t CUsb2Model::GetRealImageSize()
{
    const int bin = m_bHardwareBin ? 1 : m_iBin.Get();  // only a stored setting sets the flag on these cameras
    return m_iWidth * m_iHeight * bin * bin * BytesPerPixel();
}

bool CUsb2Model::TakeRegion(int width, int height, int bin, IMAGE_TYPE type, int unit)
{
    if (!model::RegionFits(*this, width, height, bin, type) || width * height * bin * bin % unit != 0)
        return false;
    model::TakeRegion(*this, width, height, bin, type);
    return true;
}

void CUsb2Model::PlaceRegion()
{
    if (!m_bUsingDark) {
        SetStartPos(m_iStartX, m_iStartY);
        return;
    }
    model::TakeStart(*this, m_iStartX & ~1, m_iStartY & ~1);
    FitTables();
}

void CUsb2Model::ApplyRegion(IMAGE_TYPE type, std::initializer_list<RegEntry> wake)
{
    PlaceRegion();
    SetOutput16Bits(IsType16(type));
    Cam_SetResolution();
    if (!m_bLongExp)
        return;
    // The sensor clock may stand: the window is written again with the clock running.
    m_bLongExp = false;
    SendCMD(REQ_START_SENSOR_CLOCK);
    platform::SleepMs(500);
    model::RunTable16(*this, wake);
    Cam_SetResolution();
    m_bLongExp = true;
}

bool CUsb2Model::SendTransferModeStopped(bool on)
{
    const bool ran = m_bCapturing;
    if (ran)
        StopCapture();
    const bool ok = SendTransferMode(on);
    if (ran)
        StartCapture(false);
    return ok;
}

bool CUsb2Model::SettleAndSendTransferMode(bool on)
{
    if (on && !m_bCapturing)
        platform::SleepMs(200);
    return SendTransferModeStopped(on);
}

bool CUsb2Model::UpdateTo(uint8_t needed, FirmwareId id)
{
    // Without the loader the EEPROM is out of reach: the camera is left as it is, as without an image.
    const bool loader = FindFirmware(FirmwareId::LoaderPart1) && FindFirmware(FirmwareId::LoaderPart2);
    const FirmwareImage image = loader ? FindFirmware(id) : FirmwareImage{};
    // QUIRK: a bridge that does not answer counts as version 1. Cobalt and Iolite that lost their firmware in an update
    // are therefore opened as they are and never updated again.
    return model::UpdateFirmware(*this, m_traits, image.data, image.size, needed);
}

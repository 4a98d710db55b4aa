// What the families without an FPGA do alike: test of a region, its start, transfer mode of the bridge. A family
// derives from CUsb2Model and adds its registers. All of them have 16-bit sensor registers.
#pragma once
#include <cstdint>
#include <initializer_list>

#include "base/Export.h"
#include "sensors/Model.h"
#include "sensors/RegisterTable.h"
#include "usb/FirmwareImages.h"

class KOV_CLASS CUsb2Model : public CModel<CCameraBase> {
public:
    using CModel::CModel;

    bool SetStartPos(int x, int y) override;
    int32_t GetRealImageSize() override;

    // Empty operations of these classes that direct callers may know.
    bool ResetFrame() { return true; }
    bool GetBLOffset(bool*, char*, char*, char*, char*) { return true; }

protected:
    virtual bool MovesAtFullSize() const { return false; }  // SetStartPos works although there is no room to move
    virtual void WriteStart() = 0;                          // m_iStartX, m_iStartY to the sensor

    // Tests a region against the sensor and against `unit` (the area on the sensor is a multiple of it), stores it and
    // centres it. False: nothing is stored.
    bool TakeRegion(int width, int height, int bin, IMAGE_TYPE type, int unit);
    void FitTables() { model::FitTables(*this, m_traits); }
    // Puts the centred region on even coordinates, so that a colour window begins on a cell, and fits the dark frame to it.
    void PlaceRegion();
    // Last part of SetResolution: the region and its format to the camera, and once more when the host times the
    // exposure; `wake` is written between.
    void ApplyRegion(IMAGE_TYPE type, std::initializer_list<RegEntry> wake = {});
    bool SendTransferMode(bool on) { return SendCMD(on ? REQ_MODE_16BIT : REQ_MODE_8BIT); }
    // The same with a running capture stopped around it. QUIRK: what runs again afterwards is video, also after a snap.
    bool SendTransferModeStopped(bool on);
    // The same; a sensor at rest has to settle before its samples become longer.
    bool SettleAndSendTransferMode(bool on);
    bool UpdateTo(uint8_t needed, FirmwareId id);  // body of FirmwareStep

    // Sends the low 16 bits.
    bool Write(uint16_t reg, int64_t value) { return WriteCameraRegister(reg, static_cast<uint16_t>(value)); }
    int SensorW() const { return m_iWidth * m_iBin; }  // the region on the sensor, pixels
    int SensorH() const { return m_iHeight * m_iBin; }
    int BytesPerPixel() const { return m_bOutput16Bits ? 2 : 1; }
    bool IsFullSize() const { return SensorW() == m_iMaxWidth && SensorH() == m_iMaxHeight; }

    static bool IsType16(IMAGE_TYPE type) { return type == IMAGE_16BIT_ALT || type == IMAGE_16BIT; }
    // Truncates; what lies outside (or is no number) gives the nearer end, the lower one for no number.
    static int32_t TruncClamp(double v, int32_t lo, int32_t hi) { return v > lo ? static_cast<int32_t>(v < hi ? v : hi) : lo; }
};

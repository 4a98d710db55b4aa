// Cobalt: 728 x 512 colour sensor that is a small system of its own: registers, byte-wide variables, and a controller
// with a mailbox. While capture runs, exposure and gain are stored only; the automation thread applies them (ApplyExp,
// ApplyGain) every 200 ms.
#pragma once
#include <cstdint>

#include "base/Export.h"
#include "sensors/Usb2Model.h"
#include "usb/FirmwareImages.h"

class KOV_CLASS CCameraSCobaltCol final : public CUsb2Model {
public:
    explicit CCameraSCobaltCol(void* handle = nullptr);
    ~CCameraSCobaltCol() override { Shutdown(); }

    bool InitCamera() override;
    bool SetResolution(int width, int height, int bin, IMAGE_TYPE type) override;
    bool SetGain(int gain, bool autoMode) override;
    bool SetBrightness(int value) override;
    bool SetFPSPerc(int percent, bool autoMode) override;
    bool GetFPSPerc(int* percent, bool* autoMode) override;
    void SetRGBBalance(int red, int blue, bool autoMode) override;
    bool SetExp(uint64_t microseconds, bool autoMode) override;

    bool SetOutput16Bits(bool on) override;
    bool Cam_SetResolution() override;
    bool SetCMOSClk() override { return true; }
    bool SetCMOSClk(int clock) override;  // MHz, 24 or 48; others are only stored
    bool ApplyExp() override;
    bool ApplyGain() override;
    bool FirmwareStep() override { return UpdateTo(1, FirmwareId::CobaltCol); }

    // --- the controller's mailbox; InitCamera only ---
    int WriteVar16(uint16_t driver, uint16_t offset, uint16_t value);  // 1 always
    uint16_t ReadVar16(uint16_t driver, uint16_t offset);
    // The controller's result, 0 for success; MAILBOX_TIMEOUT when it is busy over 100 polls.
    int issueCommand(uint16_t command);
    int setState(uint8_t state);
    int getState(uint8_t* state);
    int changeConfig();

    // Gain as a factor to the sensor's word: stage bits and a mantissa. Clamps to 1 to 128.
    static int GainValue2Reg(float gain);

    static constexpr int MAILBOX_TIMEOUT = 6, MAILBOX_WRONG_STATE = 12;

protected:
    void WriteStart() override;

private:
    void RunInitTable();
    void WriteLineClocks();
    bool FitLine(int percent, bool autoMode);  // line length by bandwidth; caps the shutter until the exposure follows
    bool Reexpose();                           // the same exposure again, after a change of line or clock
    bool WriteBalance();
    int64_t ShutterLines() const;  // m_lExposure; not limited
    float GainFactor() const;      // of m_iGain

    Shared<uint64_t> m_lastExp;    // exposure in force, us
    Shared<int32_t> m_normalHMAX;  // line length before the slow clock
};

// Iolite: 1280 x 1024 monochrome sensor with registers below 0x100, USB 2, and a black level that calibrates itself.
#pragma once
#include <cstdint>

#include "base/Export.h"
#include "sensors/Usb2Model.h"
#include "usb/FirmwareImages.h"

class KOV_CLASS CCameraSIoliteMono final : public CUsb2Model {
public:
    explicit CCameraSIoliteMono(void* handle = nullptr);
    ~CCameraSIoliteMono() override { Shutdown(); }

    bool InitCamera() override;
    bool SetResolution(int width, int height, int bin, IMAGE_TYPE type) override;
    bool SetGain(int gain, bool autoMode) override;
    bool SetHighSpeedMode(bool on) override;
    bool SetFPSPerc(int percent, bool autoMode) override;  // 1 or 2: 24 or 48 MHz
    bool GetFPSPerc(int* percent, bool* autoMode) override;
    void SetRGBBalance(int red, int blue, bool autoMode) override;
    bool SetExp(uint64_t microseconds, bool autoMode) override;

    bool SetOutput16Bits(bool on) override;
    bool Cam_SetResolution() override;
    bool SetCMOSClk() override { return true; }
    bool SetCMOSClk(int clock) override;  // MHz, 24 or 48; false and nothing for any other
    bool FirmwareStep() override { return UpdateTo(1, FirmwareId::IoliteMono); }

    // Black level: automatic, or the offsets of the four pixel phases (9 bits, sign and magnitude). Reads of
    // GetBLOffset that fail give the last offset set; it is false then.
    bool SetBLOffset(bool automatic, char a, char b, char c, char d) override;
    bool GetBLOffset(bool* automatic, char* a, char* b, char* c, char* d);

protected:
    void WriteStart() override;
};

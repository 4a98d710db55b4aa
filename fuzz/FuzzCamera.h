// A camera for fuzzing: no sensor, no device.
#pragma once
#include "camera/CCameraBase.h"

class FuzzCamera : public CCameraBase {
public:
    FuzzCamera(int width, int height) : CCameraBase(width, height) { m_pszName = "VYR KOVFuzz"; }
    bool OpenCamera(int) override { return false; }
    bool InitCamera() override { return false; }
    bool CloseCamera() override { return false; }
    bool SetResolution(int, int, int, IMAGE_TYPE) override { return false; }
    bool SetStartPos(int, int) override { return false; }
    bool SetGain(int, bool) override { return false; }
    void SetRGBBalance(int, int, bool) override {}
    bool SetExp(uint64_t, bool) override { return false; }
    bool GetImage(uint8_t*, int, uint32_t) override { return false; }
    bool StartCapture(bool) override { return false; }
    bool StopCapture() override { return false; }
};

// A camera without a sensor: the operations of a model note what they were asked and store it, as models do.
#pragma once
#include <algorithm>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "camera/CCameraBase.h"
#include "camera/CCameraCool.h"
#include "platform/UsbAdapter.h"
#include "support/RecordingStack.h"
#include "usb/CUsbLink.h"

template <class Base>
class TestCameraOf : public Base {
public:
    explicit TestCameraOf(int width = 160, int height = 120) : Base(width, height)
    {
        this->m_pszName = "VYR KOVTest";
        this->m_iGamma = 50;
        this->m_iGainMax = 300;
        this->m_lExposure = 10000;
        this->m_iExpLines = 100;
    }

    bool OpenCamera(int deviceIndex) override
    {
        Note("open", deviceIndex);
        return bResult;
    }
    bool InitCamera() override { return true; }
    bool CloseCamera() override { return true; }
    bool SetResolution(int, int, int, IMAGE_TYPE) override { return true; }
    bool SetStartPos(int, int) override { return true; }
    bool SetGain(int gain, bool autoMode) override
    {
        Note("gain", gain, autoMode);
        this->m_iGain = gain;
        return bResult;
    }
    bool SetExp(uint64_t microseconds, bool autoMode) override
    {
        Note("exp", static_cast<int64_t>(microseconds), autoMode);
        this->m_lExposure = microseconds;
        if (iLinesAfterExp >= 0)
            this->m_iExpLines = iLinesAfterExp;
        return bResult;
    }
    void SetRGBBalance(int red, int blue, bool autoMode) override
    {
        Note("wb", red, blue);
        this->m_iWB_R = red;
        this->m_iWB_B = blue;
        this->m_bAutoWB = autoMode;
    }
    bool SetBrightness(int value) override
    {
        Note("brightness", value);
        return bResult;
    }
    bool SetHardwareBin(bool on) override
    {
        Note("hardbin", on);
        return bResult;
    }
    bool SetHighSpeedMode(bool on) override
    {
        Note("highspeed", on);
        return bResult;
    }
    bool GetImage(uint8_t*, int, uint32_t) override
    {
        Note("image");
        if (OnImage)
            OnImage();
        return true;
    }
    bool StartCapture(bool snap) override
    {
        Note("start", snap);
        this->m_ExpStatus = snapResult;
        return bResult;
    }
    bool StopCapture() override
    {
        Note("stop");
        return true;
    }
    float GetSensorTemp() override
    {
        ++iTempReads;
        if (bThrows)
            throw std::bad_alloc();
        this->m_fSensorTemp = fTemp.Get();
        return fTemp;
    }

    // What the model was asked since the last call.
    std::vector<std::string> Asked() { return std::exchange(m_asked, {}); }

    bool bResult = true;
    int iLinesAfterExp = -1;
    KOV_EXPOSURE_STATUS snapResult = EXP_SUCCESS;
    std::function<void()> OnImage;
    Shared<float> fTemp{ 0.0f };
    Shared<int> iTempReads{ 0 };
    Shared<bool> bThrows{ false };

private:
    template <class... Args>
    void Note(const char* sz, Args... args)
    {
        std::string s = sz;
        ((s += " " + std::to_string(args)), ...);
        m_asked.push_back(std::move(s));
    }
    std::vector<std::string> m_asked;
};
using TestCamera = TestCameraOf<CCameraBase>;
using Asked = std::vector<std::string>;

// A stack with one fake device, which any camera may be connected to.
class FakeUsb {
public:
    FakeUsb() : dev(stack.Add(0xFFFF)) { platform::SetUsbStack(&stack); }
    ~FakeUsb() { platform::SetUsbStack(nullptr); }
    void Connect(CCameraBase& cam)
    {
        cam.ReplaceLink(new CUsbLink(nullptr, cam.m_guid, true));
        cam.m_bOpen = true;
    }
    RecordingStack stack;
    FakeUsbDevice& dev;
};

// Time runs faster while one of these lives.
class FastClock {
public:
    explicit FastClock(double rate) { platform::SetClockRate(rate); }
    ~FastClock() { platform::SetClockRate(1.0); }
};

// The camera's SPI flash behind the fake device: erase, page write and read.
class FakeFlash {
public:
    explicit FakeFlash(FakeUsbDevice& dev) : m_bytes(0x80000, 0xFF)
    {
        dev.OnFail = [this](const RecordedRequest& r) {
            if (r.bRequest == REQ_FLASH_ERASE && bEraseFails)
                return true;
            if (!r.bIn && r.bRequest == REQ_FLASH_ERASE)
                std::fill_n(m_bytes.begin() + r.wIndex * 0x10000, 0x10000, uint8_t{ 0xFF });
            if (!r.bIn && r.bRequest == REQ_FLASH_WRITE && iDeadWrites-- <= 0)
                std::copy(r.data.begin(), r.data.end(), m_bytes.begin() + r.wIndex * 256);
            return false;
        };
        dev.OnIn = [this](const RecordedRequest& r, uint8_t* p, uint16_t n) {
            if (r.bRequest == REQ_FLASH_READ)
                std::copy_n(m_bytes.begin() + r.wIndex * 256, n, p);
        };
    }
    uint8_t* At(uint32_t dwAddress) { return m_bytes.data() + dwAddress; }
    bool bEraseFails = false;
    int iDeadWrites = 0;  // writes that change nothing

private:
    std::vector<uint8_t> m_bytes;
};

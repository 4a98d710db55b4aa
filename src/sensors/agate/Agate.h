// Agate (640 x 480) and Dunite (752 x 480): one small sensor with registers below 0x100, USB 2, 8 bits to the host.
// White balance is done in the demosaic; so the automatic form measures a demosaiced image.
#pragma once
#include <atomic>
#include <cstdint>

#include "base/Export.h"
#include "sensors/Usb2Model.h"

struct AgateForm;  // what differs between the two families beyond the model row

class KOV_CLASS CAgate : public CUsb2Model {
public:
    // lastIndex: last entry of the gain table, shared by all cameras of the class.
    CAgate(const ModelTraits& t, const AgateForm& f, std::atomic<int>& lastIndex, void* handle);

    bool InitCamera() override;
    bool SetResolution(int width, int height, int bin, IMAGE_TYPE type) override;
    bool SetGain(int gain, bool autoMode) override;
    void SetRGBBalance(int red, int blue, bool autoMode) override;
    bool SetExp(uint64_t microseconds, bool autoMode) override;

    int32_t GetRealImageSize() override;
    bool SetOutput16Bits(bool on) override;
    bool Cam_SetResolution() override;
    bool SetCMOSClk() override { return true; }
    bool SetCMOSClk(int clock) override;  // MHz, 24 or 48; false and nothing for any other
    void ModelWhiteBalance(uint8_t* frame) override { AutoWhiBal(frame); }

    // One step on a raw frame, which may be in transfer. Nothing in 16-bit mode and on the monochrome model.
    void AutoWhiBal(uint8_t* frame);
    // The same on an image of 3 bytes a pixel: blue, green, red.
    void AutoWB(uint8_t* rgb);
    // Mean and mean deviation of each byte position (0 blue, 1 green, 2 red) over a block of pixels. A deviation that
    // comes in as 0 is not measured: each pixel counts 1.
    void Get_variance_ave(uint8_t* rgb, int x0, int y0, int blockW, int blockH, int* dev0, int* dev1, int* dev2, int* mean0,
                          int* mean1, int* mean2);

protected:
    void WriteStart() override;
    void FinishConstruction();

private:
    int m_wbTop;  // upper limit of the balance
    const AgateForm& m_form;
    std::atomic<int>& m_lastIndex;
};

KOV_MODEL(CCameraSAgateCol, CAgate);
KOV_MODEL(CCameraSDuniteMono, CAgate);
KOV_MODEL(CCameraSDuniteCol, CAgate);

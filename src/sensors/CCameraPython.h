// The layer between CCameraBase and the cameras with a PYTHON sensor: register routines for that sensor, and no fields.
#pragma once
#include "base/Export.h"
#include "camera/CCameraBase.h"

class KOV_CLASS CCameraPython : public CCameraBase {
public:
    CCameraPython(int width, int height) : CCameraBase(width, height) {}

    void EnableClockMngmnt1();
    void EnableClockMngmnt2();
    void RequiredUploads();
    void SoftPowerUp();
    void SoftPowerDown();
    void InitializeCDSwithNROT();
    void InitializeCDSwithZROT();
    void InitializeUDSwithNROT();
    void InitializeUDSwithZROT();
    void InitializeCDSwithNROT_LTN();
    void InitializeMSCwithNROT();
    void InitializeMSCwithZeroROT();
    void InitializeMSLwithNROT();
};

// A copy of libKOVCamera2 for each camera.
//
// Camera IDs are places in a table that each enumeration rewrites, and an open camera above the new count is out of
// reach. One table therefore cannot serve cameras that come and go independently of each other. Each camera of this
// driver has a loaded copy of the library of its own, with its own table; only that camera's threads call into it.
#pragma once
#include <memory>

#include "KOVCamera2.h"

namespace kovindi {

struct Library {
    decltype(&KOVGetNumOfConnectedCameras) GetNumOfConnectedCameras;
    decltype(&KOVGetCameraProperty) GetCameraProperty;
    decltype(&KOVOpenCamera) OpenCamera;
    decltype(&KOVCloseCamera) CloseCamera;
    decltype(&KOVGetNumOfControls) GetNumOfControls;
    decltype(&KOVGetControlCaps) GetControlCaps;
    decltype(&KOVGetControlValue) GetControlValue;
    decltype(&KOVSetControlValue) SetControlValue;
    decltype(&KOVSetROIFormat) SetROIFormat;
    decltype(&KOVGetROIFormat) GetROIFormat;
    decltype(&KOVSetStartPos) SetStartPos;
    decltype(&KOVGetStartPos) GetStartPos;
    decltype(&KOVGetDroppedFrames) GetDroppedFrames;
    decltype(&KOVEnableDarkSubtract) EnableDarkSubtract;
    decltype(&KOVDisableDarkSubtract) DisableDarkSubtract;
    decltype(&KOVStartVideoCapture) StartVideoCapture;
    decltype(&KOVStopVideoCapture) StopVideoCapture;
    decltype(&KOVGetVideoData) GetVideoData;
    decltype(&KOVStartExposure) StartExposure;
    decltype(&KOVStopExposure) StopExposure;
    decltype(&KOVGetExpStatus) GetExpStatus;
    decltype(&KOVGetDataAfterExp) GetDataAfterExp;
    decltype(&KOVPulseGuideOn) PulseGuideOn;
    decltype(&KOVPulseGuideOff) PulseGuideOff;
    decltype(&KOVGetID) GetID;
};

// A copy that nobody else holds; it goes back for the next camera when the last pointer goes. Any thread.
// Throws std::runtime_error, with what to do, when the system gives no memory for it.
std::shared_ptr<const Library> BorrowLibrary();

}  // namespace kovindi

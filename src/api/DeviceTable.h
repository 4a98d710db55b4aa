// The device table: product ID and object per camera ID. Static data, zero at load, no lock; atomic, since a host may
// look for cameras, or close one, while another of its threads reads frames.
#pragma once
#include <cstdint>

#include "base/Shared.h"
#include "camera/CCameraBase.h"

// Ten interfaces with at most 255 devices each: no ID can leave the tables.
constexpr int DEVICE_MAX = 2560;

extern Shared<int32_t> g_aProductID[DEVICE_MAX];  // written by enumeration; entries above the count keep what they had
extern Shared<int32_t> g_iCameraCount;            // every bound check reads it
extern Shared<int32_t> g_iLastOpened;             // written only
// The object just built for a property query belongs to a class whose name is known only after the device search.
extern Shared<bool> g_bReopenProbe;
extern Shared<CCameraBase*> g_apCamera[DEVICE_MAX];  // owned; null is closed
extern Shared<int32_t> g_aImageBytes[DEVICE_MAX];    // bytes of one delivered image

// Walks the ten interface GUIDs and returns the count, which is stored only at the end.
int32_t EnumerateCameras();
// The object of the class of this product ID, or nullptr. The caller owns it. Raises g_bReopenProbe for the classes whose
// name depends on the device, unless it is called for opening.
CCameraBase* CreateCameraObject(int id, bool forOpen);
// Cameras before this one that OpenCamera counts as the same model.
int RunningIndex(int id);

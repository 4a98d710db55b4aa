// The exported functions: each checks the ID, finds the object and forwards.
#include "KOVCamera2.h"

#include "api/DeviceTable.h"
#include "base/Log.h"
#include "camera/CCameraCool.h"

namespace {

// Runs a body so that no exception crosses the C interface.
template <class Body>
KOV_ERROR_CODE Guarded(Body body) noexcept
{
    try {
        return body();
    } catch (...) {
        return KOV_ERROR_GENERAL;
    }
}

bool IsKnown(int id) { return id >= 0 && id < g_iCameraCount; }

// The checks that every function shares: ID, then slot.
template <class Body>
KOV_ERROR_CODE WithCamera(int id, Body body) noexcept
{
    return Guarded([&] {
        if (!IsKnown(id))
            return KOV_ERROR_BAD_ID;
        CCameraBase* cam = g_apCamera[id];
        if (cam == nullptr)
            return KOV_ERROR_NOT_OPEN;
        const logging::CameraScope scope({ id, cam->m_pszName });
        return body(*cam);
    });
}

KOV_ERROR_CODE OkOr(bool ok, KOV_ERROR_CODE error) { return ok ? KOV_SUCCESS : error; }

void Destroy(int id)
{
    CCameraBase* cam = g_apCamera[id];
    g_apCamera[id] = nullptr;
    delete cam;
}

KOV_ERROR_CODE SetCooler(CCameraBase& cam, KOV_CONTROL_TYPE control, int32_t value)
{
    auto* cool = cam.m_bIsCooler ? dynamic_cast<CCameraCool*>(&cam) : nullptr;
    if (cool == nullptr)
        return KOV_ERROR_GENERAL;
    if (control == CTRL_TARGET_TEMP) {
        cool->SetAutoTemp(cam.m_bAutoTemp, static_cast<float>(value));
    } else {
        cool->SetAutoTemp(value > 0, static_cast<float>(cam.m_iTargetTemp.Get()));
        if (value <= 0)
            cool->SetPowerPerc(0.0f);
    }
    return KOV_SUCCESS;
}

// The format that the model layer works with, and the bytes of a delivered pixel.
struct Format {
    bool isRaw;
    IMAGE_TYPE type;
    int bytes;
};
constexpr Format g_Formats[] = {
    { true, IMAGE_8BIT, 1 },    // IMG_RAW8
    { false, IMAGE_RGB24, 3 },  // IMG_RGB24
    { true, IMAGE_16BIT, 2 },   // IMG_RAW16
    { false, IMAGE_8BIT, 1 },   // IMG_Y8
};

}  // namespace

CCameraBase* CCameraBase::FromID(int id) { return IsKnown(id) ? g_apCamera[id].Get() : nullptr; }

extern "C" {

int32_t KOVGetNumOfConnectedCameras(void)
{
    try {
        return EnumerateCameras();
    } catch (...) {
        return g_iCameraCount;
    }
}

KOV_ERROR_CODE KOVGetCameraProperty(KOV_CAMERA_INFO* info, int32_t index)
{
    return Guarded([&] {
        if (!IsKnown(index))
            return KOV_ERROR_BAD_INDEX;
        info->CameraID = index;
        bool temporary = false;
        if (g_apCamera[index] == nullptr) {
            g_apCamera[index] = CreateCameraObject(index, false);
            temporary = true;
            if (g_apCamera[index] == nullptr)
                return KOV_ERROR_NOT_OPEN;
        }
        if (g_bReopenProbe)
            KOVOpenCamera(index);
        g_apCamera[index].Get()->GetCameraProperty(info);
        if (temporary) {
            if (g_bReopenProbe)
                KOVCloseCamera(index);
            else
                Destroy(index);
        }
        g_bReopenProbe = false;
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVOpenCamera(int32_t id)
{
    return Guarded([&] {
        if (g_iCameraCount == 0)
            EnumerateCameras();
        if (!IsKnown(id))
            return KOV_ERROR_BAD_ID;
        // QUIRK: an object that a failed open left in its slot counts as open: the next open succeeds and does nothing.
        if (g_apCamera[id] != nullptr && !g_bReopenProbe)
            return KOV_SUCCESS;
        if (g_apCamera[id] == nullptr)
            g_apCamera[id] = CreateCameraObject(id, true);
        CCameraBase* cam = g_apCamera[id];
        g_iLastOpened = id;
        if (cam == nullptr)
            return KOV_ERROR_OPEN_FAILED;
        const logging::CameraScope scope({ id, cam->m_pszName });
        bool ok = false;
        try {
            ok = cam->OpenCamera(RunningIndex(id) + 1);
        } catch (const char* error) {
            KOV_LOG(Error, "%s The camera is not opened", error);
        }
        cam->m_bTimeMark = false;
        if (!ok)
            return KOV_ERROR_OPEN_FAILED;
        if (g_bReopenProbe)
            return KOV_SUCCESS;
        cam->InitCamera();
        cam->m_bRawOutput = true;
        if (cam->SetResolution(cam->m_iMaxWidth, cam->m_iMaxHeight, 1, IMAGE_8BIT))
            g_aImageBytes[id] = cam->m_iMaxWidth * cam->m_iMaxHeight;
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVCloseCamera(int32_t id)
{
    return Guarded([&] {
        if (!IsKnown(id))
            return KOV_ERROR_BAD_ID;
        if (g_apCamera[id] != nullptr) {
            const logging::CameraScope scope({ id, g_apCamera[id].Get()->m_pszName });
            try {
                g_apCamera[id].Get()->CloseCamera();
            } catch (const char* error) {
                // The object goes all the same, and its link tries once more.
                KOV_LOG(Warn, "%s", error);
            }
            Destroy(id);
        }
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVGetNumOfControls(int32_t id, int32_t* count)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        *count = cam.m_iNumOfControls;
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVGetControlCaps(int32_t id, int32_t index, KOV_CONTROL_CAPS* caps)
{
    return WithCamera(id, [&](CCameraBase& cam) { return OkOr(cam.GetControlCaps(index, caps), KOV_ERROR_BAD_CONTROL); });
}

KOV_ERROR_CODE KOVGetControlValue(int32_t id, KOV_CONTROL_TYPE control, int32_t* value, KOV_BOOL* automatic)
{
    return WithCamera(
        id, [&](CCameraBase& cam) { return OkOr(cam.GetControlValue(control, value, automatic), KOV_ERROR_BAD_CONTROL); });
}

KOV_ERROR_CODE KOVSetControlValue(int32_t id, KOV_CONTROL_TYPE control, int32_t value, KOV_BOOL automatic)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        if (control == CTRL_TARGET_TEMP || control == CTRL_COOLER_ON)
            return SetCooler(cam, control, value);
        return cam.SetControlValue(control, value, automatic == KOV_TRUE);
    });
}

KOV_ERROR_CODE KOVSetROIFormat(int32_t id, int32_t width, int32_t height, int32_t bin, IMG_TYPE type)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        if (type < IMG_RAW8 || type > IMG_Y8)
            return KOV_ERROR_BAD_IMAGE_TYPE;
        const Format& f = g_Formats[type];
        cam.m_bRawOutput = f.isRaw;  // stays written when the region is refused
        if (!cam.SetResolution(width, height, bin, f.type))
            return KOV_ERROR_BAD_SIZE;
        g_aImageBytes[id] = width * height * f.bytes;
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVGetROIFormat(int32_t id, int32_t* width, int32_t* height, int32_t* bin, IMG_TYPE* type)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        *width = cam.m_iWidth;
        *height = cam.m_iHeight;
        *bin = cam.m_iBin;
        switch (cam.m_ImgType) {
        case IMAGE_8BIT: *type = cam.m_bRawOutput ? IMG_RAW8 : IMG_Y8; break;
        case IMAGE_RGB24: *type = IMG_RGB24; break;
        case IMAGE_16BIT: *type = IMG_RAW16; break;
        default: *type = IMG_Y8; break;
        }
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVSetStartPos(int32_t id, int32_t x, int32_t y)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        // Products wrap as unsigned; a model pushes what comes out into its sensor.
        const uint32_t b = static_cast<uint32_t>(cam.m_iBin.Get());
        const uint32_t row = cam.m_bBottomUp ? static_cast<uint32_t>(cam.m_iMaxHeight) -
                                                   (static_cast<uint32_t>(cam.m_iHeight.Get()) + static_cast<uint32_t>(y)) * b
                                             : b * static_cast<uint32_t>(y);
        const bool ok = cam.SetStartPos(static_cast<int32_t>(b * static_cast<uint32_t>(x)), static_cast<int32_t>(row));
        return OkOr(ok, KOV_ERROR_OUT_OF_BOUNDS);
    });
}

KOV_ERROR_CODE KOVGetStartPos(int32_t id, int32_t* x, int32_t* y)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        *x = cam.m_iStartX / cam.m_iBin;
        // QUIRK: counted from the bottom, the stored start row enters unscaled.
        *y = cam.m_bBottomUp ? cam.m_iMaxHeight / cam.m_iBin - cam.m_iHeight - cam.m_iStartY : cam.m_iStartY / cam.m_iBin;
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVGetDroppedFrames(int32_t id, int32_t* count)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        *count = static_cast<int32_t>(cam.m_iDroppedFrames.Get());
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVEnableDarkSubtract(int32_t id, const char* path, KOV_BOOL* flag)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        if (*flag == KOV_FALSE) {
            *flag = cam.m_bUsingDark ? KOV_TRUE : KOV_FALSE;
            return KOV_SUCCESS;
        }
        switch (cam.LoadBMPFromFile(path)) {
        case 0:
        case 7: return KOV_ERROR_BAD_FILE;
        case 6: return KOV_ERROR_BAD_PATH;
        default: return KOV_SUCCESS;
        }
    });
}

KOV_ERROR_CODE KOVDisableDarkSubtract(int32_t id)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        cam.m_bUsingDark = false;
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVStartVideoCapture(int32_t id)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        if (cam.m_bSnapMode && cam.m_ExpStatus == EXP_WORKING)
            return KOV_ERROR_EXPOSING;
        return OkOr(cam.StartCapture(false), KOV_ERROR_NOT_OPEN);
    });
}

KOV_ERROR_CODE KOVStopVideoCapture(int32_t id)
{
    return WithCamera(id, [&](CCameraBase& cam) { return OkOr(cam.StopCapture(), KOV_ERROR_NOT_OPEN); });
}

KOV_ERROR_CODE KOVGetVideoData(int32_t id, uint8_t* buffer, int32_t size, int32_t waitMs)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        if (size < g_aImageBytes[id])
            return KOV_ERROR_BUFFER_SMALL;
        return OkOr(cam.GetImage(buffer, g_aImageBytes[id], static_cast<uint32_t>(waitMs)), KOV_ERROR_TIMEOUT);
    });
}

KOV_ERROR_CODE KOVStartExposure(int32_t id)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        if (!cam.m_bSnapMode && cam.m_bCapturing)
            return KOV_ERROR_VIDEO_ACTIVE;
        cam.StartCapture(true);
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVStopExposure(int32_t id)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        cam.StopExposure();
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVGetExpStatus(int32_t id, KOV_EXPOSURE_STATUS* status)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        const int s = cam.m_ExpStatus;
        if (s >= EXP_IDLE && s <= EXP_FAILED)
            *status = static_cast<KOV_EXPOSURE_STATUS>(s);
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVGetDataAfterExp(int32_t id, uint8_t* buffer, int32_t size)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        if (size < g_aImageBytes[id])
            return KOV_ERROR_BUFFER_SMALL;
        cam.GetImageAfterExp(buffer, g_aImageBytes[id]);
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVPulseGuideOn(int32_t id, KOV_GUIDE_DIRECTION direction)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        cam.pulseGuideOn(direction);
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVPulseGuideOff(int32_t id, KOV_GUIDE_DIRECTION direction)
{
    return WithCamera(id, [&](CCameraBase& cam) {
        cam.pulseGuideOff(direction);
        return KOV_SUCCESS;
    });
}

KOV_ERROR_CODE KOVGetID(int32_t id, KOV_ID* out)
{
    return WithCamera(id, [&](CCameraBase& cam) { return OkOr(cam.ReadIDFromSPI(out), KOV_ERROR_GENERAL); });
}

KOV_ERROR_CODE KOVSetID(int32_t id, KOV_ID value)
{
    return WithCamera(id, [&](CCameraBase& cam) { return OkOr(cam.WriteIDToSPI(value), KOV_ERROR_GENERAL); });
}

}  // extern "C"

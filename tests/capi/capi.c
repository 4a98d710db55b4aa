/* The C interface as a host program in C99 sees it: nothing but the header and the shared library. A virtual QuartzCol is
 * on the bus (see CMakeLists.txt). All 26 functions, in the right order and in wrong ones. */
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "KOVCamera2.h"

enum { W = 1936, H = 1096 };

static int g_failures;

static void Check(int ok, const char* what, int line, long got, long want)
{
    if (ok)
        return;
    fprintf(stderr, "capi.c:%d: %s: %ld instead of %ld\n", line, what, got, want);
    ++g_failures;
}
#define IS(expr, want)                                                \
  do {                                                                \
    const long got_ = (long)(expr);                                   \
    Check(got_ == (long)(want), #expr, __LINE__, got_, (long)(want)); \
  } while (0)

/* Every function that takes an ID and has no answer of its own for a camera that is not there. */
static void AllAnswer(int32_t id, KOV_ERROR_CODE code)
{
    static const KOV_ID kid = { { 0 } };
    int32_t a = 0, b = 0, c = 0;
    uint8_t byte = 0;
    KOV_BOOL flag = KOV_FALSE;
    IMG_TYPE type;
    KOV_CONTROL_CAPS caps;
    KOV_EXPOSURE_STATUS status;
    KOV_ID out;
    IS(KOVGetNumOfControls(id, &a), code);
    IS(KOVGetControlCaps(id, 0, &caps), code);
    IS(KOVGetControlValue(id, CTRL_GAIN, &a, &flag), code);
    IS(KOVSetControlValue(id, CTRL_GAIN, 100, KOV_FALSE), code);
    IS(KOVSetControlValue(id, CTRL_COOLER_ON, 1, KOV_FALSE), code);
    IS(KOVSetROIFormat(id, W, H, 1, IMG_RAW8), code);
    IS(KOVGetROIFormat(id, &a, &b, &c, &type), code);
    IS(KOVSetStartPos(id, 0, 0), code);
    IS(KOVGetStartPos(id, &a, &b), code);
    IS(KOVGetDroppedFrames(id, &a), code);
    IS(KOVEnableDarkSubtract(id, "", &flag), code);
    IS(KOVDisableDarkSubtract(id), code);
    IS(KOVStartVideoCapture(id), code);
    IS(KOVStopVideoCapture(id), code);
    IS(KOVGetVideoData(id, &byte, 1, 0), code);
    IS(KOVStartExposure(id), code);
    IS(KOVStopExposure(id), code);
    IS(KOVGetExpStatus(id, &status), code);
    IS(KOVGetDataAfterExp(id, &byte, 1), code);
    IS(KOVPulseGuideOn(id, KOV_GUIDE_0), code);
    IS(KOVPulseGuideOff(id, KOV_GUIDE_0), code);
    IS(KOVGetID(id, &out), code);
    IS(KOVSetID(id, kid), code);
}

static void BeforeOpen(void)
{
    KOV_CAMERA_INFO info;
    memset(&info, 0x5A, sizeof info);
    /* Before any enumeration there is no camera at all, but opening would look for one. */
    IS(KOVGetCameraProperty(&info, 0), KOV_ERROR_BAD_INDEX);
    AllAnswer(0, KOV_ERROR_BAD_ID);
    IS(KOVCloseCamera(0), KOV_ERROR_BAD_ID);

    IS(KOVGetNumOfConnectedCameras(), 1);
    AllAnswer(1, KOV_ERROR_BAD_ID);
    AllAnswer(-1, KOV_ERROR_BAD_ID);
    AllAnswer(INT_MAX, KOV_ERROR_BAD_ID);
    IS(KOVOpenCamera(1), KOV_ERROR_BAD_ID);
    IS(KOVCloseCamera(-1), KOV_ERROR_BAD_ID);
    IS(KOVGetCameraProperty(&info, 1), KOV_ERROR_BAD_INDEX);
    IS(KOVGetCameraProperty(&info, -1), KOV_ERROR_BAD_INDEX);

    IS(KOVGetCameraProperty(&info, 0), KOV_SUCCESS);
    IS(strcmp(info.Name, "VYR KOVQuartzCol"), 0);
    IS(info.CameraID, 0);
    IS(info.MaxWidth, W);
    IS(info.MaxHeight, H);
    IS(info.IsColorCam, KOV_TRUE);
    IS(info.BayerPattern, BAYER_RG);
    IS(info.SupportedBins[0], 1);
    IS(info.SupportedBins[1], 0);
    IS(info.SupportedImgTypes[0], IMG_RAW8);
    IS(info.SupportedImgTypes[1], IMG_RGB24);
    IS(info.SupportedImgTypes[2], IMG_Y8);
    IS(info.SupportedImgTypes[3], IMG_RAW16);
    IS(info.SupportedImgTypes[4], IMG_END);
    IS(info.PixelSize * 100, 375);
    IS(info.HasShutter, KOV_FALSE);
    IS(info.HasGuidePort, KOV_TRUE);
    IS(info.IsCooled, KOV_FALSE);
    IS(info.IsUSB3Host, KOV_FALSE); /* not opened yet */
    IS(info.IsUSB3Camera, KOV_TRUE);
    IS(info.ElecPerADU * 1000 + 0.5f, 3584);
    IS(info.SensorParamA, 10);
    IS(info.SensorParamB, 18);
    AllAnswer(0, KOV_ERROR_NOT_OPEN);
    IS(KOVCloseCamera(0), KOV_SUCCESS);
}

static void Controls(void)
{
    int32_t count = 0, value = 0, i;
    KOV_BOOL automatic = KOV_TRUE;
    KOV_CONTROL_CAPS caps;
    KOV_CAMERA_INFO info;
    IS(KOVGetCameraProperty(&info, 0), KOV_SUCCESS);
    IS(info.IsUSB3Host, KOV_TRUE);

    IS(KOVGetNumOfControls(0, &count), KOV_SUCCESS);
    IS(count, 13);
    for (i = 0; i < count; ++i) {
        IS(KOVGetControlCaps(0, i, &caps), KOV_SUCCESS);
        IS(KOVGetControlValue(0, caps.ControlType, &value, &automatic), KOV_SUCCESS);
    }
    IS(KOVGetControlCaps(0, 0, &caps), KOV_SUCCESS);
    IS(strcmp(caps.Name, "Gain"), 0);
    IS(caps.MaxValue, 600);
    IS(KOVGetControlCaps(0, count, &caps), KOV_ERROR_BAD_CONTROL);
    IS(KOVGetControlCaps(0, -1, &caps), KOV_ERROR_BAD_CONTROL);
    IS(KOVGetControlCaps(0, INT_MIN, &caps), KOV_ERROR_BAD_CONTROL);

    automatic = KOV_TRUE;
    IS(KOVGetControlValue(0, (KOV_CONTROL_TYPE)18, &value, &automatic), KOV_ERROR_BAD_CONTROL);
    IS(automatic, KOV_FALSE);
    IS(KOVSetControlValue(0, (KOV_CONTROL_TYPE)18, 1, KOV_FALSE), KOV_ERROR_BAD_CONTROL);
    IS(KOVSetControlValue(0, (KOV_CONTROL_TYPE)-1, 1, KOV_FALSE), KOV_ERROR_BAD_CONTROL);
    IS(KOVSetControlValue(0, CTRL_COOLER_ON, 1, KOV_FALSE), KOV_ERROR_GENERAL);
    IS(KOVSetControlValue(0, CTRL_TARGET_TEMP, 0, KOV_FALSE), KOV_ERROR_GENERAL);
    IS(KOVSetControlValue(0, CTRL_COOL_POWER_PERC, 50, KOV_FALSE), KOV_SUCCESS);

    IS(KOVSetControlValue(0, CTRL_GAIN, 1000, KOV_TRUE), KOV_SUCCESS);
    IS(KOVGetControlValue(0, CTRL_GAIN, &value, &automatic), KOV_SUCCESS);
    IS(value, 600);
    IS(automatic, KOV_TRUE);
    IS(KOVSetControlValue(0, CTRL_GAIN, 0, (KOV_BOOL)2), KOV_SUCCESS); /* only 1 is auto */
    IS(KOVGetControlValue(0, CTRL_GAIN, &value, &automatic), KOV_SUCCESS);
    IS(value, 0);
    IS(automatic, KOV_FALSE);
    IS(KOVSetControlValue(0, CTRL_EXPOSURE, 10000, KOV_FALSE), KOV_SUCCESS);
}

static void Region(void)
{
    int32_t w = 0, h = 0, bin = 0, x = 0, y = 0;
    IMG_TYPE type = IMG_END;
    IS(KOVGetROIFormat(0, &w, &h, &bin, &type), KOV_SUCCESS);
    IS(w == W && h == H && bin == 1 && type == IMG_RAW8, 1);
    IS(KOVSetROIFormat(0, 640, 480, 1, (IMG_TYPE)4), KOV_ERROR_BAD_IMAGE_TYPE);
    IS(KOVSetROIFormat(0, 640, 480, 1, IMG_END), KOV_ERROR_BAD_IMAGE_TYPE);
    IS(KOVSetROIFormat(0, 642, 480, 1, IMG_RAW8), KOV_ERROR_BAD_SIZE);
    IS(KOVSetROIFormat(0, 640, 481, 1, IMG_RAW8), KOV_ERROR_BAD_SIZE);
    IS(KOVSetROIFormat(0, W + 4, H, 1, IMG_RAW8), KOV_ERROR_BAD_SIZE);
    IS(KOVSetROIFormat(0, INT_MAX - 3, H, INT_MAX, IMG_RAW8), KOV_ERROR_BAD_SIZE);
    IS(KOVSetROIFormat(0, 0, 0, 0, IMG_RAW8), KOV_ERROR_BAD_SIZE);
    IS(KOVGetROIFormat(0, &w, &h, &bin, &type), KOV_SUCCESS);
    IS(w == W && h == H && bin == 1, 1);
    IS(KOVSetROIFormat(0, 640, 480, 1, IMG_RGB24), KOV_SUCCESS);
    IS(KOVGetROIFormat(0, &w, &h, &bin, &type), KOV_SUCCESS);
    IS(w == 640 && h == 480 && bin == 1 && type == IMG_RGB24, 1);
    IS(KOVSetROIFormat(0, 640, 480, 1, IMG_Y8), KOV_SUCCESS);
    IS(KOVGetROIFormat(0, &w, &h, &bin, &type), KOV_SUCCESS);
    IS(type, IMG_Y8);
    IS(KOVSetROIFormat(0, 640, 480, 1, IMG_RAW16), KOV_SUCCESS);
    IS(KOVGetROIFormat(0, &w, &h, &bin, &type), KOV_SUCCESS);
    IS(type, IMG_RAW16);
    IS(KOVGetStartPos(0, &x, &y), KOV_SUCCESS);
    IS(x == 648 && y == 308, 1); /* centred */
    IS(KOVSetStartPos(0, 103, 51), KOV_SUCCESS);
    IS(KOVGetStartPos(0, &x, &y), KOV_SUCCESS);
    IS(x == 100 && y == 50, 1);
    IS(KOVSetStartPos(0, INT_MAX, INT_MIN), KOV_SUCCESS);
    IS(KOVGetStartPos(0, &x, &y), KOV_SUCCESS);
    IS(x == W - 640 && y == 0, 1);
    IS(KOVSetROIFormat(0, 640, 480, 1, IMG_RAW8), KOV_SUCCESS);
}

static void Put(FILE* f, uint32_t value, int bytes)
{
    for (; bytes > 0; --bytes, value >>= 8)
        fputc((int)(value & 0xFF), f);
}

/* An 8-bit BMP whose head tells the size, and nothing behind it but zeros. */
static void WriteBmp(const char* path, uint32_t w, uint32_t h)
{
    FILE* f = fopen(path, "wb");
    uint32_t i;
    if (f == NULL) {
        ++g_failures;
        return;
    }
    fputs("BM", f);
    Put(f, 1078 + w * h, 4);
    Put(f, 0, 4);
    Put(f, 1078, 4);
    Put(f, 40, 4);
    Put(f, w, 4);
    Put(f, h, 4);
    Put(f, 1, 2);
    Put(f, 8, 2);
    for (i = 0; i < 24 + 1024 + w * h; ++i)
        fputc(0, f);
    fclose(f);
}

static void Dark(void)
{
    KOV_BOOL flag = KOV_FALSE;
    IS(KOVEnableDarkSubtract(0, "no/such/file.bmp", &flag), KOV_SUCCESS); /* only asked */
    IS(flag, KOV_FALSE);
    flag = KOV_TRUE;
    IS(KOVEnableDarkSubtract(0, "no/such/file.bmp", &flag), KOV_ERROR_BAD_PATH);
    WriteBmp("capi-small.bmp", 64, 64);
    IS(KOVEnableDarkSubtract(0, "capi-small.bmp", &flag), KOV_ERROR_BAD_FILE);
    {
        FILE* f = fopen("capi-text.bmp", "wb");
        if (f != NULL) {
            fputs("no picture", f);
            fclose(f);
        }
    }
    IS(KOVEnableDarkSubtract(0, "capi-text.bmp", &flag), KOV_ERROR_BAD_FILE);
    WriteBmp("capi-dark.bmp", W, H);
    IS(KOVEnableDarkSubtract(0, "capi-dark.bmp", &flag), KOV_SUCCESS);
    flag = KOV_FALSE;
    IS(KOVEnableDarkSubtract(0, NULL, &flag), KOV_SUCCESS);
    IS(flag, KOV_TRUE);
    IS(KOVDisableDarkSubtract(0), KOV_SUCCESS);
    flag = KOV_FALSE;
    IS(KOVEnableDarkSubtract(0, NULL, &flag), KOV_SUCCESS);
    IS(flag, KOV_FALSE);
}

static void Video(uint8_t* buffer)
{
    const int32_t size = 640 * 480;
    int32_t dropped = -1;
    int i;
    IS(KOVGetVideoData(0, buffer, size, 20), KOV_ERROR_TIMEOUT); /* nothing runs */
    IS(KOVStopVideoCapture(0), KOV_SUCCESS);
    IS(KOVStartVideoCapture(0), KOV_SUCCESS);
    IS(KOVStartVideoCapture(0), KOV_SUCCESS);
    IS(KOVStartExposure(0), KOV_ERROR_VIDEO_ACTIVE);
    IS(KOVGetVideoData(0, buffer, size - 1, 20), KOV_ERROR_BUFFER_SMALL);
    IS(KOVGetVideoData(0, buffer, -1, 20), KOV_ERROR_BUFFER_SMALL);
    for (i = 0; i < 3; ++i) {
        buffer[size] = 0xA5;
        IS(KOVGetVideoData(0, buffer, size + 1, i == 0 ? -1 : 5000), KOV_SUCCESS);
        IS(buffer[size], 0xA5); /* one image and not a byte more */
    }
    IS(KOVGetDroppedFrames(0, &dropped), KOV_SUCCESS);
    IS(dropped >= 0, 1); /* a busy machine may lose some */
    IS(KOVOpenCamera(0), KOV_SUCCESS);
    IS(KOVStopVideoCapture(0), KOV_SUCCESS);
    IS(KOVGetDroppedFrames(0, &dropped), KOV_SUCCESS);
    IS(dropped, 0);
    IS(KOVStopVideoCapture(0), KOV_SUCCESS);
}

static void Exposure(uint8_t* buffer)
{
    const int32_t size = 640 * 480;
    KOV_EXPOSURE_STATUS status = EXP_FAILED;
    IS(KOVSetControlValue(0, CTRL_EXPOSURE, 900000, KOV_FALSE), KOV_SUCCESS);
    IS(KOVStartExposure(0), KOV_SUCCESS);
    IS(KOVStartVideoCapture(0), KOV_ERROR_EXPOSING);
    IS(KOVStartExposure(0), KOV_SUCCESS); /* once more is no error */
    IS(KOVGetExpStatus(0, &status), KOV_SUCCESS);
    IS(status, EXP_WORKING);
    IS(KOVStopExposure(0), KOV_SUCCESS);
    IS(KOVGetExpStatus(0, &status), KOV_SUCCESS);
    IS(status, EXP_IDLE);

    IS(KOVSetControlValue(0, CTRL_EXPOSURE, 20000, KOV_FALSE), KOV_SUCCESS);
    IS(KOVStartExposure(0), KOV_SUCCESS);
    IS(KOVGetDataAfterExp(0, buffer, size - 1), KOV_ERROR_BUFFER_SMALL);
    IS(KOVGetDataAfterExp(0, buffer, size), KOV_SUCCESS); /* waits for the frame */
    do
        KOVGetExpStatus(0, &status);
    while (status == EXP_WORKING);
    IS(status, EXP_SUCCESS);
    IS(KOVStopExposure(0), KOV_SUCCESS);
}

static void GuideAndId(void)
{
    static const KOV_ID mine = { { 'c', 'a', 'p', 'i', 0, 1, 2, 255 } };
    KOV_ID read = { { 0 } };
    int i;
    for (i = 0; i < 4; ++i) {
        IS(KOVPulseGuideOn(0, (KOV_GUIDE_DIRECTION)i), KOV_SUCCESS);
        IS(KOVPulseGuideOff(0, (KOV_GUIDE_DIRECTION)i), KOV_SUCCESS);
    }
    IS(KOVPulseGuideOn(0, (KOV_GUIDE_DIRECTION)7), KOV_SUCCESS); /* whatever comes of it */
    IS(KOVGetID(0, &read), KOV_ERROR_GENERAL);                   /* none stored */
    IS(KOVSetID(0, mine), KOV_SUCCESS);
    IS(KOVGetID(0, &read), KOV_SUCCESS);
    IS(memcmp(&read, &mine, sizeof mine), 0);
}

int main(void)
{
    uint8_t* buffer = malloc(W * H);
    if (buffer == NULL)
        return 2;
    BeforeOpen();
    IS(KOVOpenCamera(0), KOV_SUCCESS);
    IS(KOVOpenCamera(0), KOV_SUCCESS);
    Controls();
    Region();
    Dark();
    Video(buffer);
    Exposure(buffer);
    GuideAndId();
    /* Closing while video runs, then everything on a camera that is gone. */
    IS(KOVStartVideoCapture(0), KOV_SUCCESS);
    IS(KOVCloseCamera(0), KOV_SUCCESS);
    IS(KOVCloseCamera(0), KOV_SUCCESS);
    AllAnswer(0, KOV_ERROR_NOT_OPEN);
    IS(KOVOpenCamera(0), KOV_SUCCESS);
    IS(KOVCloseCamera(0), KOV_SUCCESS);
    free(buffer);
    if (g_failures != 0)
        fprintf(stderr, "%d failures\n", g_failures);
    return g_failures != 0;
}

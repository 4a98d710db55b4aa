/* The calls of a program with one virtual camera of 1280 x 960 or more, in wrong orders too. Each is written FN(name),
 * so that it goes through the import library or through a pointer. Included once. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int g_failures;
#define EXPECT(condition)                                            \
  do {                                                               \
    if (!(condition)) {                                              \
      printf("%s:%d: not so: %s\n", __FILE__, __LINE__, #condition); \
      ++g_failures;                                                  \
    }                                                                \
  } while (0)

/* No camera is plugged in: every function answers, with the code for an ID that does not exist. */
static void CallAllWithoutCamera(void)
{
    KOV_CAMERA_INFO info;
    KOV_CONTROL_CAPS caps;
    KOV_BOOL flag = KOV_FALSE;
    KOV_EXPOSURE_STATUS status;
    KOV_ID id = { { 0 } };
    IMG_TYPE type;
    int32_t a, b, c;
    uint8_t byte[4];
    memset(&info, 0, sizeof info);
    EXPECT(FN(KOVGetCameraProperty)(&info, 0) == KOV_ERROR_BAD_INDEX);
    EXPECT(FN(KOVGetNumOfConnectedCameras)() == 0);
    EXPECT(FN(KOVGetCameraProperty)(&info, 0) == KOV_ERROR_BAD_INDEX);
    EXPECT(FN(KOVOpenCamera)(0) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVCloseCamera)(0) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVGetNumOfControls)(0, &a) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVGetControlCaps)(0, 0, &caps) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVGetControlValue)(-1, CTRL_GAIN, &a, &flag) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVSetControlValue)(0, CTRL_GAIN, 1, KOV_FALSE) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVSetROIFormat)(0, 64, 64, 1, IMG_RAW8) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVGetROIFormat)(0, &a, &b, &c, &type) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVSetStartPos)(0, 0, 0) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVGetStartPos)(0, &a, &b) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVGetDroppedFrames)(0, &a) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVEnableDarkSubtract)(0, "nowhere", &flag) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVDisableDarkSubtract)(0) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVStartVideoCapture)(0) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVStopVideoCapture)(0) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVGetVideoData)(0, byte, sizeof byte, 1) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVStartExposure)(0) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVStopExposure)(0) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVGetExpStatus)(0, &status) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVGetDataAfterExp)(0, byte, sizeof byte) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVPulseGuideOn)(0, KOV_GUIDE_0) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVPulseGuideOff)(0, KOV_GUIDE_0) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVGetID)(0, &id) == KOV_ERROR_BAD_ID);
    EXPECT(FN(KOVSetID)(0, id) == KOV_ERROR_BAD_ID);
}

/* One virtual camera: video, and a picture that is not all one value. */
static void TakePictures(void)
{
    KOV_CAMERA_INFO info;
    const int32_t size = 640 * 480;
    uint8_t* image = malloc((size_t)size);
    int32_t width = 0, height = 0, bin = 0, dropped = -1;
    IMG_TYPE type = IMG_END;
    int same = 1, i;
    EXPECT(FN(KOVGetNumOfConnectedCameras)() == 1);
    EXPECT(FN(KOVGetCameraProperty)(&info, 0) == KOV_SUCCESS);
    printf("%s, %d x %d\n", info.Name, (int)info.MaxWidth, (int)info.MaxHeight);
    EXPECT(FN(KOVStartVideoCapture)(0) == KOV_ERROR_NOT_OPEN);
    EXPECT(FN(KOVOpenCamera)(0) == KOV_SUCCESS);
    EXPECT(FN(KOVSetROIFormat)(0, 640, 480, 1, IMG_RAW8) == KOV_SUCCESS);
    EXPECT(FN(KOVGetROIFormat)(0, &width, &height, &bin, &type) == KOV_SUCCESS);
    EXPECT(width == 640 && height == 480 && bin == 1 && type == IMG_RAW8);
    EXPECT(FN(KOVSetControlValue)(0, CTRL_EXPOSURE, 10000, KOV_FALSE) == KOV_SUCCESS);
    EXPECT(FN(KOVStartVideoCapture)(0) == KOV_SUCCESS);
    EXPECT(FN(KOVGetVideoData)(0, image, size - 1, 1000) == KOV_ERROR_BUFFER_SMALL);
    for (i = 0; i < 3; ++i)
        EXPECT(FN(KOVGetVideoData)(0, image, size, 5000) == KOV_SUCCESS);
    for (i = 1; i < size; ++i)
        same = same && image[i] == image[0];
    EXPECT(!same);
    EXPECT(FN(KOVGetDroppedFrames)(0, &dropped) == KOV_SUCCESS && dropped >= 0);
    EXPECT(FN(KOVStopVideoCapture)(0) == KOV_SUCCESS);
    EXPECT(FN(KOVCloseCamera)(0) == KOV_SUCCESS);
    free(image);
}

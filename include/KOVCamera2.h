/**
 * @file
 * KOVCamera2: drives a family of USB cameras for astronomy and guiding.
 *
 * Conventions, valid for every function below:
 *
 *  1. A camera is named by its ID: the index of the camera in the last enumeration, from 0. There is no handle.
 *     Objects stay at the index where they were opened, also when a later enumeration finds another bus.
 *  2. Every function but KOVGetNumOfConnectedCameras returns a KOV_ERROR_CODE. Checks run in this order: the ID
 *     (KOV_ERROR_BAD_ID), the open camera (KOV_ERROR_NOT_OPEN), then what the function itself tells.
 *  3. No function tests a pointer: each pointer argument must point at memory of the caller that is large enough.
 *     Records and image buffers belong to the caller. The library keeps no pointer after the call returns.
 *  4. Exposures are in microseconds, except CTRL_AUTOEXP_MAX_EXP (seconds). Temperatures are in tenths of a degree
 *     Celsius at CTRL_TEMPERATURE and in whole degrees at CTRL_TARGET_TEMP. Waits are in milliseconds.
 *  5. IMG_RGB24 lies in memory as blue, green, red. IMG_RAW16 is little-endian, rows from the top, no padding.
 *  6. Calls for different cameras may come from different threads. For one camera, one thread may be inside
 *     KOVGetVideoData or KOVGetDataAfterExp while another calls the control functions. Region and format are to be
 *     changed with capture stopped. Enumeration, open and close must not overlap with other calls.
 *  7. No exception leaves the library.
 *  8. The environment variable KOV_LOG=error|warn|info|debug|trace[:room] makes the library tell what it does, on
 *     standard error or at the end of the file that KOV_LOG_FILE names. It is read once, with the first call.
 *
 * Order of calls: KOVGetNumOfConnectedCameras, KOVGetCameraProperty for each index if wanted, KOVOpenCamera; then
 * region, format and controls; then KOVStartVideoCapture, KOVGetVideoData repeatedly, KOVStopVideoCapture; or
 * KOVStartExposure, KOVGetExpStatus until it leaves EXP_WORKING, KOVGetDataAfterExp; last KOVCloseCamera.
 */
#ifndef KOVCAMERA2_H
#define KOVCAMERA2_H

#include <stdint.h>

#if defined(_WIN32)
#  if defined(KOVCAMERA2_BUILD)
#    define KOV_API __declspec(dllexport)
#  elif defined(KOVCAMERA2_STATIC)
#    define KOV_API
#  else
#    define KOV_API __declspec(dllimport)
#  endif
#else
#  define KOV_API __attribute__((visibility("default")))
#endif

/** Enums are 32-bit signed integers; a value outside the list is allowed to be passed and is answered with an error. */
#ifdef __cplusplus
#  define KOV_INT32 : int32_t
extern "C" {
#else
#  define KOV_INT32
#endif

/** Result of a call. */
typedef enum KOV_ERROR_CODE KOV_INT32 {
    KOV_SUCCESS = 0,
    KOV_ERROR_BAD_INDEX = 1,      /**< index out of range in KOVGetCameraProperty */
    KOV_ERROR_BAD_ID = 2,         /**< camera ID out of range */
    KOV_ERROR_BAD_CONTROL = 3,    /**< unknown control, or control index out of range */
    KOV_ERROR_NOT_OPEN = 4,       /**< camera is not open; also a capture that failed to start or stop */
    KOV_ERROR_OPEN_FAILED = 5,    /**< the device was not found or could not be opened */
    KOV_ERROR_BAD_PATH = 6,       /**< dark file cannot be opened */
    KOV_ERROR_BAD_FILE = 7,       /**< dark file has the wrong format or size */
    KOV_ERROR_BAD_SIZE = 8,       /**< the camera refused the region */
    KOV_ERROR_BAD_IMAGE_TYPE = 9, /**< image type is none of the four public ones */
    KOV_ERROR_OUT_OF_BOUNDS = 10, /**< the camera refused the start position */
    KOV_ERROR_TIMEOUT = 11,       /**< no frame came within the wait */
    /* 12 is reserved and never returned */
    KOV_ERROR_BUFFER_SMALL = 13, /**< the buffer is smaller than one image */
    KOV_ERROR_VIDEO_ACTIVE = 14, /**< a single exposure was requested while video runs */
    KOV_ERROR_EXPOSING = 15,     /**< video was requested while a single exposure runs */
    KOV_ERROR_GENERAL = 16       /**< a control operation failed, or the camera has no cooler, or the ID flash failed */
} KOV_ERROR_CODE;

/** Two values; the library writes no other. */
typedef enum KOV_BOOL KOV_INT32 { KOV_FALSE = 0, KOV_TRUE = 1 } KOV_BOOL;

/** Image format as delivered. IMG_END ends a list of types. */
typedef enum IMG_TYPE KOV_INT32 {
    IMG_RAW8 = 0,  /**< 1 byte a pixel, as the sensor's mosaic */
    IMG_RGB24 = 1, /**< 3 bytes a pixel: blue, green, red */
    IMG_RAW16 = 2, /**< 2 bytes a pixel, little-endian, sample in the upper bits */
    IMG_Y8 = 3,    /**< 1 byte a pixel, luminance */
    IMG_END = -1
} IMG_TYPE;

/** Outcome of a single exposure. */
typedef enum KOV_EXPOSURE_STATUS KOV_INT32 {
    EXP_IDLE = 0,    /**< nothing taken, or stopped */
    EXP_WORKING = 1, /**< exposure runs */
    EXP_SUCCESS = 2, /**< a frame waits for KOVGetDataAfterExp */
    EXP_FAILED = 3   /**< no frame could be had */
} KOV_EXPOSURE_STATUS;

/** A pin of the guide port. The number goes to the camera unchanged. */
typedef enum KOV_GUIDE_DIRECTION KOV_INT32 {
    KOV_GUIDE_0 = 0,
    KOV_GUIDE_1 = 1,
    KOV_GUIDE_2 = 2,
    KOV_GUIDE_3 = 3
} KOV_GUIDE_DIRECTION;

/** The first row of the sensor's colour cell. */
typedef enum BayerPattern KOV_INT32 { BAYER_RG = 0, BAYER_BG = 1, BAYER_GR = 2, BAYER_GB = 3 } BayerPattern;

/** Eight bytes that a host may store in the camera's own flash. */
typedef struct KOV_ID {
    uint8_t id[8]; /**< any bytes */
} KOV_ID;

/** What KOVGetCameraProperty tells of a camera. */
typedef struct KOV_CAMERA_INFO {
    char Name[64];                  /**< zero-ended */
    int32_t CameraID;               /**< the index that the caller passed */
    int32_t MaxHeight;              /**< sensor height, pixels */
    int32_t MaxWidth;               /**< sensor width, pixels */
    KOV_BOOL IsColorCam;            /**< KOV_FALSE: monochrome */
    enum BayerPattern BayerPattern; /**< means nothing on a monochrome camera */
    int32_t SupportedBins[16];      /**< ended by 0 */
    IMG_TYPE SupportedImgTypes[8];  /**< ended by IMG_END */
    double PixelSize;               /**< micrometres */
    KOV_BOOL HasShutter;            /**< always KOV_FALSE */
    KOV_BOOL HasGuidePort;          /**< always KOV_TRUE */
    KOV_BOOL IsCooled;              /**< has a cooler, and its controls */
    KOV_BOOL IsUSB3Host;            /**< KOV_FALSE until the camera has been opened */
    KOV_BOOL IsUSB3Camera;          /**< the camera could use a USB 3 port */
    float ElecPerADU;               /**< 0 where the model tells none */
    int32_t SensorParamA;           /**< per-model constant, or 0 */
    int32_t SensorParamB;           /**< per-model constant, or 0 */
} KOV_CAMERA_INFO;

/** The controls. A camera has those that KOVGetControlCaps lists. */
typedef enum KOV_CONTROL_TYPE KOV_INT32 {
    CTRL_GAIN = 0,
    CTRL_EXPOSURE = 1,    /**< microseconds. GarnetCol: automatic exposure stands still from 100 ms on. Cobalt: in
                             regions narrower than about 228 avoid 450 to 600 ms: frames of 86 ms come */
    CTRL_GAMMA = 2,       /**< 1 to 100, 50 is neutral */
    CTRL_WB_R = 3,        /**< DuniteCol lists up to 100 and takes 100 as 99 */
    CTRL_WB_B = 4,        /**< the same */
    CTRL_BRIGHTNESS = 5,  /**< black offset */
    CTRL_BANDWIDTH = 6,   /**< percent of the link */
    CTRL_OVERCLK = 7,     /**< percent */
    CTRL_TEMPERATURE = 8, /**< tenths of a degree Celsius, read only */
    CTRL_FLIP = 9,        /**< 0 none, 1 horizontal, 2 vertical, 3 both */
    CTRL_AUTOEXP_MAX_GAIN = 10,
    CTRL_AUTOEXP_MAX_EXP = 11,        /**< seconds */
    CTRL_AUTOEXP_MAX_BRIGHTNESS = 12, /* target brightness, 0 to 255 */
    CTRL_HARDWARE_BIN = 13,
    CTRL_HIGH_SPEED_MODE = 14,
    CTRL_COOL_POWER_PERC = 15, /**< percent, read only */
    CTRL_TARGET_TEMP = 16,     /**< whole degrees Celsius */
    CTRL_COOLER_ON = 17
} KOV_CONTROL_TYPE;

/** What KOVGetControlCaps tells of a control. Limits are in the control's unit. */
typedef struct KOV_CONTROL_CAPS {
    char Name[64];                /**< zero-ended; the rest keeps what the caller had there */
    char Description[128];        /**< zero-ended; the rest keeps what the caller had there */
    int32_t MaxValue;             /**< largest value */
    int32_t MinValue;             /**< smallest value */
    int32_t DefaultValue;         /**< value of a camera that nobody has set */
    KOV_BOOL IsAutoSupported;     /**< the camera can regulate it */
    KOV_BOOL IsWritable;          /**< KOV_FALSE: can only be read */
    KOV_CONTROL_TYPE ControlType; /**< its number, for KOVGetControlValue and KOVSetControlValue */
} KOV_CONTROL_CAPS;

/** Searches the bus anew. Returns the number of cameras; IDs run from 0 to that number - 1. */
KOV_API int32_t KOVGetNumOfConnectedCameras(void);

/** Fills *info for the camera at index. The camera need not be open; it is left as it was.
 * KOV_ERROR_BAD_INDEX: index out of range (always, before the first enumeration).
 * KOV_ERROR_NOT_OPEN: the model is unknown to this library. */
KOV_API KOV_ERROR_CODE KOVGetCameraProperty(KOV_CAMERA_INFO* info, int32_t index);

/** Opens the camera, brings it up and sets the full frame in 8 bits. Enumerates if that was never done or found none.
 * A camera that is open already gives KOV_SUCCESS and nothing is sent. KOV_ERROR_OPEN_FAILED: device not found. */
KOV_API KOV_ERROR_CODE KOVOpenCamera(int32_t id);

/** Stops capture and closes the camera. A camera that is not open gives KOV_SUCCESS. */
KOV_API KOV_ERROR_CODE KOVCloseCamera(int32_t id);

/** How many controls the camera has. */
KOV_API KOV_ERROR_CODE KOVGetNumOfControls(int32_t id, int32_t* count);

/** index is the place in the list, 0 to count - 1. KOV_ERROR_BAD_CONTROL when out of range; caps->ControlType is
 * written even then. */
KOV_API KOV_ERROR_CODE KOVGetControlCaps(int32_t id, int32_t index, KOV_CONTROL_CAPS* caps);

/** Reads a control and its auto switch. *automatic is cleared even when KOV_ERROR_BAD_CONTROL is returned. */
KOV_API KOV_ERROR_CODE KOVGetControlValue(int32_t id, KOV_CONTROL_TYPE control, int32_t* value, KOV_BOOL* automatic);

/** Sets a control. Values beyond the limits are clamped by the camera where it has a limit. KOV_ERROR_BAD_CONTROL:
 * unknown control. KOV_ERROR_GENERAL: the camera refused, or a cooler control on a camera without cooler. */
KOV_API KOV_ERROR_CODE KOVSetControlValue(int32_t id, KOV_CONTROL_TYPE control, int32_t value, KOV_BOOL automatic);

/** Width and height are output pixels, after binning. The region is centred; a start position must be set after it.
 * KOV_ERROR_BAD_IMAGE_TYPE, KOV_ERROR_BAD_SIZE. */
KOV_API KOV_ERROR_CODE KOVSetROIFormat(int32_t id, int32_t width, int32_t height, int32_t bin, IMG_TYPE type);

/** The size in output pixels, the bin and the format in force. */
KOV_API KOV_ERROR_CODE KOVGetROIFormat(int32_t id, int32_t* width, int32_t* height, int32_t* bin, IMG_TYPE* type);

/** Start of the region in binned pixels; rounded and pushed into range by the camera. Flint and Halite in bin 3 with
 * hardware binning: take x as a multiple of 4, else the colours may change places. KOV_ERROR_OUT_OF_BOUNDS. */
KOV_API KOV_ERROR_CODE KOVSetStartPos(int32_t id, int32_t x, int32_t y);

/** The start in force, in binned pixels. */
KOV_API KOV_ERROR_CODE KOVGetStartPos(int32_t id, int32_t* x, int32_t* y);

/** Frames lost since capture started; 0 after it has stopped. */
KOV_API KOV_ERROR_CODE KOVGetDroppedFrames(int32_t id, int32_t* count);

/** *flag KOV_FALSE: only reports, *flag tells whether subtraction is on. Otherwise loads the dark frame at path (8-bit
 * BMP of full-sensor size) and switches subtraction on. KOV_ERROR_BAD_PATH, KOV_ERROR_BAD_FILE. */
KOV_API KOV_ERROR_CODE KOVEnableDarkSubtract(int32_t id, const char* path, KOV_BOOL* flag);

/** Switches subtraction off. */
KOV_API KOV_ERROR_CODE KOVDisableDarkSubtract(int32_t id);

/** Starts video. KOV_ERROR_EXPOSING while a single exposure runs; KOV_ERROR_NOT_OPEN when capture could not start. */
KOV_API KOV_ERROR_CODE KOVStartVideoCapture(int32_t id);

/** Stops video. KOV_ERROR_NOT_OPEN also when capture could not be stopped. */
KOV_API KOV_ERROR_CODE KOVStopVideoCapture(int32_t id);

/** Waits at most waitMs (-1: without end) for a frame and writes it into buffer. size is the size of buffer in bytes:
 * width * height for IMG_RAW8 and IMG_Y8, twice that for IMG_RAW16, three times for IMG_RGB24.
 * KOV_ERROR_BUFFER_SMALL, KOV_ERROR_TIMEOUT. A camera that has gone away shows as time-outs. Damaged frames of USB 2
 * cameras are passed over, and the wait begins anew for each: a time-out may then take four times waitMs, or 5 s where that
 * is more. USB 2 cameras at exposures that the library times: each frame comes one exposure late, and the first after three
 * (Garnet from 4 s on, Cobalt from 60 s); Agate, Dunite and Iolite from 0.2 to 1.1 s by width and clock, one or two late. */
KOV_API KOV_ERROR_CODE KOVGetVideoData(int32_t id, uint8_t* buffer, int32_t size, int32_t waitMs);

/** Starts a single exposure of CTRL_EXPOSURE. KOV_ERROR_VIDEO_ACTIVE while video runs. */
KOV_API KOV_ERROR_CODE KOVStartExposure(int32_t id);

/** Ends a single exposure early; its frame is lost. */
KOV_API KOV_ERROR_CODE KOVStopExposure(int32_t id);

/** How far the single exposure is. Returns at once. */
KOV_API KOV_ERROR_CODE KOVGetExpStatus(int32_t id, KOV_EXPOSURE_STATUS* status);

/** Call it once KOVGetExpStatus has told EXP_SUCCESS: it waits for the frame without limit. KOV_ERROR_BUFFER_SMALL. */
KOV_API KOV_ERROR_CODE KOVGetDataAfterExp(int32_t id, uint8_t* buffer, int32_t size);

/** Asserts a pin of the guide port until KOVPulseGuideOff. */
KOV_API KOV_ERROR_CODE KOVPulseGuideOn(int32_t id, KOV_GUIDE_DIRECTION direction);

/** Releases a pin of the guide port. */
KOV_API KOV_ERROR_CODE KOVPulseGuideOff(int32_t id, KOV_GUIDE_DIRECTION direction);

/** The user ID in the camera's flash. KOV_ERROR_GENERAL: none stored, or the flash failed. Not during capture. */
KOV_API KOV_ERROR_CODE KOVGetID(int32_t id, KOV_ID* out);

/** Stores the user ID in the camera's flash. KOV_ERROR_GENERAL: the flash failed. Not during capture. */
KOV_API KOV_ERROR_CODE KOVSetID(int32_t id, KOV_ID value);

#ifdef __cplusplus
}
#endif

#endif

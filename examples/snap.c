/* Takes one exposure and writes it as a PGM file, 16 bits a pixel: snap SECONDS FILE.pgm */
#include <KOVCamera2.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static int Fail(const char* what, int code)
{
    fprintf(stderr, "%s failed with error %d\n", what, code);
    return 1;
}

/* PGM wants the high byte first. */
static int WritePgm(const char* path, const uint8_t* image, int32_t width, int32_t height)
{
    FILE* f = fopen(path, "wb");
    if (f == NULL)
        return Fail("writing the file", 0);
    fprintf(f, "P5 %d %d 65535\n", width, height);
    for (int64_t i = 0; i < (int64_t)width * height; ++i) {
        fputc(image[2 * i + 1], f);
        fputc(image[2 * i], f);
    }
    return fclose(f) == 0 ? 0 : Fail("writing the file", 0);
}

static int Snap(double seconds, const char* path)
{
    int32_t width, height, bin;
    IMG_TYPE type;
    KOVGetROIFormat(0, &width, &height, &bin, &type);
    int code = KOVSetROIFormat(0, width, height, 1, IMG_RAW16);
    if (code != KOV_SUCCESS)
        return Fail("setting the format", code);
    KOVSetControlValue(0, CTRL_EXPOSURE, (int32_t)(seconds * 1e6), KOV_FALSE);
    KOVSetControlValue(0, CTRL_GAIN, 100, KOV_FALSE);

    code = KOVStartExposure(0);
    if (code != KOV_SUCCESS)
        return Fail("starting the exposure", code);
    KOV_EXPOSURE_STATUS status = EXP_WORKING;
    const struct timespec tick = { 0, 20 * 1000 * 1000 };
    while (KOVGetExpStatus(0, &status) == KOV_SUCCESS && status == EXP_WORKING)
        nanosleep(&tick, NULL); /* a program with a window shows its progress here, and may call KOVStopExposure */
    if (status != EXP_SUCCESS)
        return Fail("the exposure", status);

    const int32_t size = width * height * 2;
    uint8_t* image = malloc((size_t)size);
    if (image == NULL)
        return Fail("allocating the image", 0);
    code = KOVGetDataAfterExp(0, image, size);
    code = code == KOV_SUCCESS ? WritePgm(path, image, width, height) : Fail("fetching the image", code);
    free(image);
    return code;
}

int main(int argc, char** argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: snap SECONDS FILE.pgm\n");
        return 2;
    }
    if (KOVGetNumOfConnectedCameras() == 0 || KOVOpenCamera(0) != KOV_SUCCESS)
        return Fail("opening the first camera", KOV_ERROR_OPEN_FAILED);
    const int code = Snap(atof(argv[1]), argv[2]);
    KOVCloseCamera(0);
    return code;
}

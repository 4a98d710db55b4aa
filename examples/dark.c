/* Makes a dark frame, and switches its subtraction on: dark FILE.bmp. Put the cap on first.
 *
 * The library reads a dark frame from an 8-bit BMP file of the whole sensor and subtracts it from 8-bit pictures. */
#include <KOVCamera2.h>
#include <stdio.h>
#include <stdlib.h>

enum { FRAMES = 16, EXPOSURE_US = 500000 };

static void Put(FILE* f, uint32_t value, int bytes)
{
    for (; bytes > 0; --bytes, value >>= 8)
        fputc((int)(value & 255), f);
}

/* Rows padded to four bytes, after a palette of 256 greys. The library takes the first row of the file for the first of the
 * sensor, so viewers show the file upside down. */
static int WriteBmp(const char* path, const uint8_t* image, int32_t width, int32_t height)
{
    FILE* f = fopen(path, "wb");
    const uint32_t row = ((uint32_t)width + 3) / 4 * 4, bytes = row * (uint32_t)height;
    if (f == NULL)
        return 0;
    fputs("BM", f);
    Put(f, 14 + 40 + 1024 + bytes, 4), Put(f, 0, 4), Put(f, 14 + 40 + 1024, 4);
    Put(f, 40, 4), Put(f, (uint32_t)width, 4), Put(f, (uint32_t)height, 4), Put(f, 1, 2), Put(f, 8, 2);
    Put(f, 0, 4), Put(f, bytes, 4), Put(f, 0, 4), Put(f, 0, 4), Put(f, 256, 4), Put(f, 0, 4);
    for (uint32_t grey = 0; grey < 256; ++grey)
        Put(f, grey * 0x010101u, 4);
    for (int32_t y = 0; y < height; ++y) {
        fwrite(image + (size_t)y * (size_t)width, 1, (size_t)width, f);
        Put(f, 0, (int)(row - (uint32_t)width));
    }
    return fclose(f) == 0;
}

/* Leaves the mean of FRAMES frames in image. */
static int Average(uint8_t* image, uint32_t* sum, int32_t size)
{
    for (int n = 0; n < FRAMES; ++n) {
        if (KOVGetVideoData(0, image, size, 3 * EXPOSURE_US / 1000) != KOV_SUCCESS)
            return 0;
        for (int32_t i = 0; i < size; ++i)
            sum[i] += image[i];
    }
    for (int32_t i = 0; i < size; ++i)
        image[i] = (uint8_t)((sum[i] + FRAMES / 2) / FRAMES);
    return 1;
}

int main(int argc, char** argv)
{
    KOV_CAMERA_INFO info;
    if (argc != 2 || KOVGetNumOfConnectedCameras() == 0 || KOVOpenCamera(0) != KOV_SUCCESS)
        return 2;
    KOVGetCameraProperty(&info, 0);
    const int32_t size = info.MaxWidth * info.MaxHeight;
    uint8_t* image = malloc((size_t)size);
    uint32_t* sum = calloc((size_t)size, sizeof *sum);
    KOVDisableDarkSubtract(0);
    KOVSetROIFormat(0, info.MaxWidth, info.MaxHeight, 1, IMG_RAW8);
    KOVSetControlValue(0, CTRL_EXPOSURE, EXPOSURE_US, KOV_FALSE); /* the dark frame is good for this exposure and gain */
    int ok = image != NULL && sum != NULL && KOVStartVideoCapture(0) == KOV_SUCCESS && Average(image, sum, size);
    KOVStopVideoCapture(0);
    KOV_BOOL on = KOV_TRUE;
    ok = ok && WriteBmp(argv[1], image, info.MaxWidth, info.MaxHeight) && KOVEnableDarkSubtract(0, argv[1], &on) == KOV_SUCCESS;
    printf(ok ? "%s is in use\n" : "%s could not be made\n", argv[1]);
    free(image);
    free(sum);
    KOVCloseCamera(0);
    return ok ? 0 : 1;
}

/* Takes video in 8 bits and tells the rate, the brightness and what was lost: video FRAMES */
#include <KOVCamera2.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static double Now(void)
{
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + (double)t.tv_nsec / 1e9;
}

static double Mean(const uint8_t* image, int32_t size)
{
    int64_t sum = 0;
    for (int32_t i = 0; i < size; ++i)
        sum += image[i];
    return (double)sum / size;
}

/* The number of frames that came. */
static int Run(int frames, uint8_t* image, int32_t size, int32_t exposure)
{
    /* Twice the exposure and half a second more is the longest that a healthy camera lets one wait. */
    const int32_t wait = exposure / 1000 * 2 + 500;
    int got = 0, late = 0;
    const double start = Now();
    while (got < frames && late < 5) {
        const KOV_ERROR_CODE code = KOVGetVideoData(0, image, size, wait);
        if (code == KOV_ERROR_TIMEOUT) {
            ++late; /* pulled out, or a bad cable: the library goes on trying, and so may the program */
            continue;
        }
        if (code != KOV_SUCCESS)
            break;
        late = 0;
        ++got;
        if (got % 10 == 0)
            printf("frame %d, mean %.1f\n", got, Mean(image, size));
    }
    int32_t dropped = 0;
    KOVGetDroppedFrames(0, &dropped); /* before capture stops: then it is 0 again */
    printf("%d frames, %.1f a second, %d dropped\n", got, got / (Now() - start), dropped);
    return got;
}

int main(int argc, char** argv)
{
    const int frames = argc > 1 ? atoi(argv[1]) : 50;
    const int32_t exposure = 10000; /* microseconds */
    if (KOVGetNumOfConnectedCameras() == 0 || KOVOpenCamera(0) != KOV_SUCCESS) {
        fprintf(stderr, "no camera can be opened; 'kovcam doctor' tells why\n");
        return 1;
    }
    int32_t width, height, bin;
    IMG_TYPE type;
    KOVGetROIFormat(0, &width, &height, &bin, &type);
    KOVSetROIFormat(0, width, height, 1, IMG_RAW8);
    KOVSetControlValue(0, CTRL_EXPOSURE, exposure, KOV_FALSE);

    uint8_t* image = malloc((size_t)width * (size_t)height);
    int got = 0;
    if (image != NULL && KOVStartVideoCapture(0) == KOV_SUCCESS) {
        got = Run(frames, image, width * height, exposure);
        KOVStopVideoCapture(0);
    }
    free(image);
    KOVCloseCamera(0);
    return got == frames ? 0 : 1;
}

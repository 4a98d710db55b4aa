/* Keeps a star in its place: finds the brightest spot, and pulses the guide port when it has moved: guide CORRECTIONS
 *
 * Which pin moves the star which way depends on the mount and on how the camera is turned. This program finds out first,
 * with one long pulse on the pin that it will use. */
#include <KOVCamera2.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

enum { SIDE = 400, BOX = 8 };
static uint8_t g_image[SIDE * SIDE];

static void Sleep(int ms)
{
    const struct timespec t = { ms / 1000, ms % 1000 * 1000000L };
    nanosleep(&t, NULL);
}

/* Row of the star's centre: the weighted mean around the brightest pixel, above the sky around it. */
static double StarRow(void)
{
    int at = BOX * SIDE + BOX;
    double weight = 0, sum = 0, sky = 0;
    if (KOVGetVideoData(0, g_image, sizeof g_image, 2000) != KOV_SUCCESS)
        return NAN;
    for (int y = BOX; y < SIDE - BOX; ++y)
        for (int x = BOX; x < SIDE - BOX; ++x)
            at = g_image[y * SIDE + x] > g_image[at] ? y * SIDE + x : at;
    for (int i = 0; i < SIDE * SIDE; ++i)
        sky += g_image[i] / (double)(SIDE * SIDE);
    for (int dy = -BOX; dy <= BOX; ++dy)
        for (int dx = -BOX; dx <= BOX; ++dx) {
            const double light = fmax(0, g_image[at + dy * SIDE + dx] - sky - 8);
            weight += light;
            sum += light * (at / SIDE + dy);
        }
    return weight > 0 ? sum / weight : NAN;
}

static double RowAfterPulse(KOV_GUIDE_DIRECTION pin, int ms)
{
    KOVPulseGuideOn(0, pin);
    Sleep(ms);
    KOVPulseGuideOff(0, pin);
    for (int i = 0; i < 3; ++i) /* frames that were exposed while the mount moved */
        StarRow();
    return StarRow();
}

int main(int argc, char** argv)
{
    int corrections = argc > 1 ? atoi(argv[1]) : 5;
    if (KOVGetNumOfConnectedCameras() == 0 || KOVOpenCamera(0) != KOV_SUCCESS ||
        KOVSetROIFormat(0, SIDE, SIDE, 1, IMG_RAW8) != KOV_SUCCESS)
        return 1;
    KOVSetControlValue(0, CTRL_EXPOSURE, 200000, KOV_FALSE);
    KOVSetControlValue(0, CTRL_GAIN, 100, KOV_FALSE);
    KOVStartVideoCapture(0);
    const double home = StarRow();
    double now = RowAfterPulse(KOV_GUIDE_0, 3000);
    const double perMs = (now - home) / 3000;
    printf("star on row %.2f; pin 0 moves it by %.2f pixels a second\n", home, perMs * 1000);
    for (; corrections > 0 && isfinite(now) && fabs(perMs) > 1e-5; --corrections) {
        const double ms = (home - now) / perMs;
        now = RowAfterPulse(ms > 0 ? KOV_GUIDE_0 : KOV_GUIDE_1, (int)fmin(fabs(ms), 5000));
        printf("off by %+.2f pixels after a pulse of %.0f ms\n", now - home, ms);
    }
    KOVCloseCamera(0); /* stops the capture too */
    return fabs(now - home) < 0.5 ? 0 : 1;
}

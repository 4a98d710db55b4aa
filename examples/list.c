/* Lists the cameras and what each can do. */
#include <KOVCamera2.h>
#include <stdio.h>

static void PrintControls(int id)
{
    int32_t count = 0;
    KOVGetNumOfControls(id, &count);
    for (int32_t i = 0; i < count; ++i) {
        KOV_CONTROL_CAPS caps;
        int32_t value;
        KOV_BOOL automatic;
        if (KOVGetControlCaps(id, i, &caps) != KOV_SUCCESS ||
            KOVGetControlValue(id, caps.ControlType, &value, &automatic) != KOV_SUCCESS)
            continue;
        printf("    %-22s %8d  (%d to %d, usually %d)%s%s\n", caps.Name, value, caps.MinValue, caps.MaxValue, caps.DefaultValue,
               automatic ? "  automatic" : "", caps.IsWritable ? "" : "  read only");
    }
}

int main(void)
{
    const int32_t cameras = KOVGetNumOfConnectedCameras();
    printf("%d camera%s\n", cameras, cameras == 1 ? "" : "s");
    for (int32_t id = 0; id < cameras; ++id) {
        KOV_CAMERA_INFO info;
        if (KOVGetCameraProperty(&info, id) != KOV_SUCCESS)
            continue; /* a model that this version of the library does not know */
        printf("\n%d: %s, %d x %d pixels of %.2f um, %s%s\n", id, info.Name, info.MaxWidth, info.MaxHeight, info.PixelSize,
               info.IsColorCam ? "colour" : "mono", info.IsCooled ? ", cooled" : "");
        printf("    bins:");
        for (int i = 0; i < 16 && info.SupportedBins[i] != 0; ++i)
            printf(" %d", info.SupportedBins[i]);
        printf("\n");

        /* The properties can be had of every camera; the controls only of one that is open. */
        if (KOVOpenCamera(id) == KOV_SUCCESS)
            PrintControls(id);
        else
            printf("    in use by another program, or no right to open it: see 'kovcam doctor'\n");
        KOVCloseCamera(id);
    }
    return cameras > 0 ? 0 : 1;
}

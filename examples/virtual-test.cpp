// A test of a program that uses cameras, without a camera: a virtual one, a frame of it, and a fault.
#include <KOVCamera2.h>
#include <virtual/InProcess.h>
#include <virtual/VirtualBus.h>

#include <cstdio>
#include <vector>

#define CHECK(what) \
  if (!(what))      \
  return std::fprintf(stderr, "line %d: %s is not so\n", __LINE__, #what), 1

int main()
{
    kovsim::VirtualBus bus(4);  // four times faster than real time
    kovsim::CameraSettings settings;
    settings.wProductId = 0xC11A;  // kovsim models lists them
    settings.scene = kovsim::Scene::Flat(20000);
    kovsim::VirtualCamera& camera = bus.Plug(settings);
    kovsim::Attach(&bus);

    CHECK(KOVGetNumOfConnectedCameras() == 1);
    CHECK(KOVOpenCamera(0) == KOV_SUCCESS);
    CHECK(KOVSetROIFormat(0, 640, 480, 1, IMG_RAW8) == KOV_SUCCESS);
    CHECK(KOVSetControlValue(0, CTRL_EXPOSURE, 20000, KOV_FALSE) == KOV_SUCCESS);
    CHECK(KOVStartVideoCapture(0) == KOV_SUCCESS);
    std::vector<uint8_t> image(640 * 480);
    const auto next = [&] { return KOVGetVideoData(0, image.data(), static_cast<int32_t>(image.size()), 2000); };
    CHECK(next() == KOV_SUCCESS);
    CHECK(camera.CurrentReadout().iW >= 640);

    // What does the program do when frames are torn, or when somebody trips over the cable?
    camera.Inject({ kovsim::FaultKind::ShortFrame, 1000, 0, 1 });
    for (int i = 0; i < 8; ++i)
        CHECK(next() == KOV_SUCCESS);
    CHECK(camera.Counters().uSpoiled > 0);
    camera.Unplug();
    while (next() == KOV_SUCCESS) {
    }
    CHECK(KOVCloseCamera(0) == KOV_SUCCESS);
    CHECK(KOVGetNumOfConnectedCameras() == 0);
    kovsim::Attach(nullptr);
    std::puts("all well");
    return 0;
}

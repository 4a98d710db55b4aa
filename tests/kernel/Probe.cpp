// The program that runs inside the guest of ./dev kernel: frames against the scene, and the same calls on USB and on the
// virtual bus.
//
//   kovprobe frames ID WIDTHxHEIGHT raw8|raw16 COUNT [snap|FILE]   the cameras look at the pattern, without noise; as a video, as
//                            single exposures, or as a video of COUNT frames and more until there is such a file; it closes a
//                            camera that is gone and opens it again when it has come back
//   kovprobe firmware ID     the version that camera ID tells beside the library
//   kovprobe calls [MODEL]   a run of calls on camera 0; with a model, on the virtual bus, whose vendor requests it prints
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "KOVCamera2.h"
#include "common/Firmware.h"
#include "virtual/InProcess.h"
#include "virtual/SimOptions.h"

namespace {

constexpr int32_t WAIT_MS = 30000;  // an emulated processor takes its time

void Check(KOV_ERROR_CODE code, const char* szCall)
{
    if (code == KOV_SUCCESS)
        return;
    std::printf("%s: error %d\n", szCall, int(code));
    std::exit(1);
}
#define CHECK(call) Check(call, #call)

struct Region {
    int32_t x = 0, y = 0, w = 0, h = 0;
    IMG_TYPE type = IMG_RAW8;
    int32_t Bytes() const { return w * h * (type == IMG_RAW16 ? 2 : 1); }
};

// Pixels that differ from others of the same colour and the same number in the scene, and numbers that are not brighter than
// those below. The marks of a frame and what repairs them are in the first and the last row.
int Wrong(const std::vector<uint8_t>& image, const Region& r)
{
    constexpr int NUMBERS = 251, NONE = -1;
    std::array<std::array<int, NUMBERS>, 4> seen;
    for (auto& s : seen)
        s.fill(NONE);
    int wrong = 0;
    for (int y = 1; y < r.h - 1; ++y)
        for (int x = 0; x < r.w; ++x) {
            const size_t at = size_t(y) * size_t(r.w) + size_t(x);
            const int value = r.type == IMG_RAW16 ? image[2 * at] | image[2 * at + 1] << 8 : image[at];
            int& first = seen[size_t((y & 1) * 2 + (x & 1))][size_t(((r.x + x) * 7 + (r.y + y) * 13) % NUMBERS)];
            if (first == NONE)
                first = value;
            wrong += first != value;
        }
    for (const auto& s : seen) {
        wrong += std::count(s.begin(), s.end(), NONE) > 0 || s.back() - s.front() < 64;
        wrong += !std::is_sorted(s.begin(), s.end());
    }
    return wrong;
}

void Open(int32_t id, Region& r)
{
    if (KOVGetNumOfConnectedCameras() <= id)
        Check(KOV_ERROR_BAD_INDEX, "KOVGetNumOfConnectedCameras");
    CHECK(KOVOpenCamera(id));
    CHECK(KOVSetROIFormat(id, r.w, r.h, 1, r.type));
    CHECK(KOVGetStartPos(id, &r.x, &r.y));
    CHECK(KOVSetControlValue(id, CTRL_GAIN, 0, KOV_FALSE));
    CHECK(KOVSetControlValue(id, CTRL_EXPOSURE, 5000, KOV_FALSE));
    KOVSetControlValue(id, CTRL_BANDWIDTH, 40, KOV_FALSE);  // DuniteMono has none
}

bool Snap(int32_t id, std::vector<uint8_t>& image)
{
    CHECK(KOVStartExposure(id));
    KOV_EXPOSURE_STATUS status = EXP_WORKING;
    for (int i = 0; i < WAIT_MS / 10 && status == EXP_WORKING; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        CHECK(KOVGetExpStatus(id, &status));
    }
    return status == EXP_SUCCESS && KOVGetDataAfterExp(id, image.data(), int32_t(image.size())) == KOV_SUCCESS;
}

int32_t Dropped(int32_t id)
{
    int32_t n = 0;
    CHECK(KOVGetDroppedFrames(id, &n));
    return n;
}

void Reopen(int32_t id, Region& r)
{
    CHECK(KOVCloseCamera(id));
    for (int i = 0; i < WAIT_MS / 100 && KOVGetNumOfConnectedCameras() <= id; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    Open(id, r);
    CHECK(KOVStartVideoCapture(id));
}

int Frames(char** argv, int argc)
{
    const int32_t id = std::atoi(argv[0]), count = std::atoi(argv[3]);
    const std::string how = argc > 4 ? argv[4] : "";
    const bool snap = how == "snap", until = !how.empty() && !snap;
    Region r;
    r.type = std::strcmp(argv[2], "raw16") == 0 ? IMG_RAW16 : IMG_RAW8;
    if (std::sscanf(argv[1], "%dx%d", &r.w, &r.h) != 2)
        return 2;
    Open(id, r);
    std::vector<uint8_t> image(size_t(r.Bytes()));
    if (!snap)
        CHECK(KOVStartVideoCapture(id));
    std::printf("started\n");
    std::fflush(stdout);
    int32_t frames = 0, good = 0, opened = 1;
    const auto start = std::chrono::steady_clock::now();
    while (frames < count || (until && access(how.c_str(), F_OK) != 0)) {
        if (snap ? Snap(id, image)
                 : KOVGetVideoData(id, image.data(), int32_t(image.size()), until ? 3000 : WAIT_MS) == KOV_SUCCESS) {
            ++frames;
            good += Wrong(image, r) == 0;
        } else if (until && opened < 3) {
            Reopen(id, r);
            ++opened;
        } else {
            break;
        }
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("%d of %d right, %d dropped, opened %d times, %.1f s\n", int(good), int(frames), int(snap ? 0 : Dropped(id)),
                int(opened), seconds);
    CHECK(KOVCloseCamera(id));
    return frames >= count && good == frames ? 0 : 1;
}

int Firmware(int32_t id)
{
    if (KOVGetNumOfConnectedCameras() <= id)
        Check(KOV_ERROR_BAD_INDEX, "KOVGetNumOfConnectedCameras");
    const kovtools::OpeningOfCamera opening;
    CHECK(KOVOpenCamera(id));
    std::printf("%d\n", opening.FirmwareVersion().value_or(-1));
    CHECK(KOVCloseCamera(id));
    return 0;
}

void RunCalls()
{
    Region r{ 0, 0, 320, 240, IMG_RAW8 };
    Open(0, r);
    std::vector<uint8_t> image(size_t(r.Bytes()));
    for (const int32_t gain : { 0, 100, 200 })
        CHECK(KOVSetControlValue(0, CTRL_GAIN, gain, KOV_FALSE));
    for (const int32_t us : { 100, 5000, 200000 })
        CHECK(KOVSetControlValue(0, CTRL_EXPOSURE, us, KOV_FALSE));
    CHECK(KOVSetControlValue(0, CTRL_BRIGHTNESS, 10, KOV_FALSE));
    CHECK(KOVSetControlValue(0, CTRL_BANDWIDTH, 50, KOV_FALSE));
    CHECK(KOVSetControlValue(0, CTRL_FLIP, 3, KOV_FALSE));
    CHECK(KOVSetStartPos(0, 64, 48));
    if (!Snap(0, image))
        Check(KOV_ERROR_GENERAL, "snap");
    // A snap's own thread stops the sensor, after the host has its picture: it has ended when the camera is closed, and not
    // before.
    CHECK(KOVCloseCamera(0));
    Open(0, r);
    CHECK(KOVSetROIFormat(0, 160, 120, 2, IMG_RAW16));
    image.resize(160 * 120 * 2);
    CHECK(KOVStartVideoCapture(0));
    for (int i = 0; i < 3; ++i)
        CHECK(KOVGetVideoData(0, image.data(), int32_t(image.size()), WAIT_MS));
    CHECK(KOVStopVideoCapture(0));
    CHECK(KOVPulseGuideOn(0, KOV_GUIDE_1));
    CHECK(KOVPulseGuideOff(0, KOV_GUIDE_1));
    KOV_ID id{ { 'k', 'e', 'r', 'n', 'e', 'l' } };
    CHECK(KOVSetID(0, id));
    CHECK(KOVGetID(0, &id));
    CHECK(KOVCloseCamera(0));
}

int Calls(const char* szModel)
{
    kovsim::VirtualBus bus;
    if (szModel) {
        kovsim::SimOptions options;
        std::string error;
        if (!kovsim::ParseSimOptions(szModel, &options, &error)) {
            std::printf("%s\n", error.c_str());
            return 2;
        }
        kovsim::PlugAll(bus, std::move(options));
        kovsim::Attach(&bus);
    }
    RunCalls();
    if (!szModel)
        return 0;
    for (const kovsim::Request& q : bus.Cameras().at(0)->Requests()) {
        std::printf("%s %02x %04x %04x %04x", q.bIn ? "c0" : "40", unsigned(q.bRequest), unsigned(q.wValue), unsigned(q.wIndex),
                    unsigned(q.wLength));
        if (!q.bIn && !q.data.empty()) {
            std::printf(" ");
            for (size_t i = 0; i < std::min<size_t>(q.data.size(), 32); ++i)
                std::printf("%02x", unsigned(q.data[i]));
        }
        std::printf("\n");
    }
    kovsim::Attach(nullptr);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "frames" && argc >= 6)
        return Frames(argv + 2, argc - 2);
    if (command == "firmware" && argc == 3)
        return Firmware(std::atoi(argv[2]));
    if (command == "calls")
        return Calls(argc > 2 ? argv[2] : nullptr);
    std::fprintf(stderr, "kovprobe: frames, firmware or calls expected\n");
    return 2;
}

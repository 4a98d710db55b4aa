#include "kovcam/Capture.h"

#include <fmt/format.h>

#include <algorithm>
#include <thread>

namespace kovcam {

Picture Describe(const Camera& cam)
{
    Picture p;
    if (cam.Has(CTRL_TEMPERATURE))
        cam.Get(CTRL_TEMPERATURE);  // waits until it is known
    p.state = kovtools::ReadCameraState(cam.Id());
    p.data.resize(p.View().Bytes());
    return p;
}

constexpr double SHORT_EXPOSURE = 1, PATIENCE = 30;  // s

bool TakeSnap(Camera& cam, Picture& p, const std::string& label)
{
    const double exposure = p.state.exposure;
    p.times.start = std::chrono::system_clock::now();
    const Stopwatch watch;
    Check(KOVStartExposure(cam.Id()), "starting the exposure");
    Progress progress(label);
    KOV_EXPOSURE_STATUS status = EXP_WORKING;
    while (true) {
        Check(KOVGetExpStatus(cam.Id(), &status), "exposure");
        if (status != EXP_WORKING)
            break;
        if (Interrupted()) {
            KOVStopExposure(cam.Id());
            throw UserError("interrupted; the exposure was stopped", 130);
        }
        const double t = watch.Seconds();
        // At short exposures the library never gives up a USB 3 camera that sends nothing.
        if (exposure < SHORT_EXPOSURE && t > PATIENCE) {
            KOVStopExposure(cam.Id());
            break;
        }
        if (exposure > 1)
            progress.Show(t / exposure, t < exposure
                                            ? fmt::format("{:.0f} of {:.0f} s, {:.0f} s to go", t, exposure, exposure - t)
                                            : "reading out");
        std::this_thread::sleep_for(std::chrono::milliseconds(exposure > 1 ? 20 : 2));
    }
    progress.End();
    p.times.end =
        p.times.start + std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::duration<double>(exposure));
    if (status != EXP_SUCCESS)
        return false;
    Check(KOVGetDataAfterExp(cam.Id(), p.data.data(), static_cast<int32_t>(p.data.size())), "reading the image");
    return true;
}

VideoResult RunVideo(Camera& cam, const std::function<bool(Picture&)>& onFrame)
{
    VideoResult r;
    Picture p = Describe(cam);
    // Stops capture whatever happens.
    struct Running {
        int iId;
        explicit Running(int id) : iId(id) { Check(KOVStartVideoCapture(id), "starting video"); }
        ~Running() { KOVStopVideoCapture(iId); }
    } running(cam.Id());
    const Stopwatch watch;
    int inARow = 0;
    while (!Interrupted()) {
        const int32_t exposureMs = cam.Get(CTRL_EXPOSURE) / 1000;
        // Short waits, so that Ctrl-C is noticed during long frames.
        KOV_ERROR_CODE code = KOV_ERROR_TIMEOUT;
        const double limit = watch.Seconds() + 2e-3 * exposureMs + std::max(3.0, 3.0 * ClockRate());
        while (code == KOV_ERROR_TIMEOUT && watch.Seconds() < limit && !Interrupted())
            code = KOVGetVideoData(cam.Id(), p.data.data(), static_cast<int32_t>(p.data.size()), 200);
        if (Interrupted())
            break;
        int32_t dropped = 0;
        KOVGetDroppedFrames(cam.Id(), &dropped);
        r.dropped = std::max(r.dropped, dropped);
        if (code == KOV_ERROR_TIMEOUT) {
            ++r.timeouts;
            if (++inARow == 3)
                throw UserError(fmt::format("video: {}", kovtools::ErrorText(code)), 4);
            continue;
        }
        Check(code, "video");
        inARow = 0;
        p.arrival = kovtools::FrameClock::Steady::now();
        p.dropped = r.dropped;
        const std::chrono::microseconds exposure(cam.Get(CTRL_EXPOSURE));
        p.state.exposure = static_cast<double>(exposure.count()) / 1e6;
        p.times.end = std::chrono::system_clock::now();
        p.times.start = p.times.end - exposure;
        ++r.frames;
        r.seconds = watch.Seconds();
        if (!onFrame(p))
            break;
    }
    r.seconds = watch.Seconds();
    return r;
}

}  // namespace kovcam

#include "kovcam/Capture.h"

#include <fmt/format.h>

#include <algorithm>
#include <thread>

namespace kovcam {

Picture Describe(const Camera& cam, const std::string& imageType)
{
    Picture p;
    p.iWidth = cam.Width();
    p.iHeight = cam.Height();
    p.type = cam.Type();
    p.bColor = cam.Info().IsColorCam != KOV_FALSE;
    p.pattern = cam.Pattern();
    p.sCamera = cam.Info().Name;
    p.sImageType = imageType;
    p.dExposure = cam.Get(CTRL_EXPOSURE) / 1e6;
    p.iGain = cam.Get(CTRL_GAIN);
    p.iOffset = cam.Get(CTRL_BRIGHTNESS);
    p.iBin = cam.Bin();
    p.dElecPerADU = cam.Info().ElecPerADU;
    p.dPixelUm = cam.Info().PixelSize;
    if (cam.Has(CTRL_TEMPERATURE)) {
        p.bHasTemp = true;
        p.dTemp = cam.Get(CTRL_TEMPERATURE) / 10.0;
    }
    if (cam.Info().IsCooled && cam.Get(CTRL_COOLER_ON) != 0) {
        p.bHasTarget = true;
        p.dTarget = cam.Get(CTRL_TARGET_TEMP);
    }
    return p;
}

constexpr double SHORT_EXPOSURE = 1, PATIENCE = 30;  // s

bool TakeSnap(Camera& cam, Picture& p, const std::string& label)
{
    const double exposure = p.dExposure;
    p.start = std::chrono::system_clock::now();
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
            progress.Show(t / exposure, t < exposure ? fmt::format("{:.0f} of {:.0f} s, {:.0f} s to go", t, exposure, exposure - t)
                                                     : "reading out");
        std::this_thread::sleep_for(std::chrono::milliseconds(exposure > 1 ? 20 : 2));
    }
    progress.End();
    p.end = p.start + std::chrono::duration_cast<std::chrono::system_clock::duration>(std::chrono::duration<double>(exposure));
    if (status != EXP_SUCCESS)
        return false;
    p.data.resize(static_cast<size_t>(cam.ImageBytes()));
    Check(KOVGetDataAfterExp(cam.Id(), p.data.data(), static_cast<int32_t>(p.data.size())), "reading the image");
    return true;
}

VideoResult RunVideo(Camera& cam, const std::function<bool(Picture&)>& onFrame)
{
    VideoResult r;
    Picture p = Describe(cam);
    p.data.resize(static_cast<size_t>(cam.ImageBytes()));
    // Stops capture whatever happens.
    struct Running {
        int iId;
        explicit Running(int id) : iId(id) { Check(KOVStartVideoCapture(id), "starting video"); }
        ~Running() { KOVStopVideoCapture(iId); }
    } running(cam.Id());
    const Stopwatch watch;
    int iInARow = 0;
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
        r.iDropped = std::max(r.iDropped, dropped);
        if (code == KOV_ERROR_TIMEOUT) {
            ++r.iTimeouts;
            if (++iInARow == 3)
                throw UserError(fmt::format("video: {}", ErrorName(code)), 4);
            continue;
        }
        Check(code, "video");
        iInARow = 0;
        p.end = std::chrono::system_clock::now();
        p.dExposure = cam.Get(CTRL_EXPOSURE) / 1e6;
        p.start = p.end - std::chrono::microseconds(cam.Get(CTRL_EXPOSURE));
        ++r.iFrames;
        r.dSeconds = watch.Seconds();
        if (!onFrame(p))
            break;
    }
    r.dSeconds = watch.Seconds();
    return r;
}

}  // namespace kovcam

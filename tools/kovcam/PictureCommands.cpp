#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "kovcam/Capture.h"
#include "kovcam/Commands.h"
#include "kovcam/Cooling.h"

namespace kovcam {

namespace {

struct SnapOptions {
    PictureOptions picture;
    std::string sOut = "snap";
    int iCount = 1;
    bool bNoFits = false, bNoPng = false, bLinear = false;
    std::string sImageType = "Light Frame";
};

std::string Numbered(const std::string& stem, int i, int count)
{
    return count == 1 ? stem : fmt::format("{}-{:04}", stem, i + 1);
}

void Snap(const Globals& g, const SnapOptions& o)
{
    Camera cam(g.sCamera);
    cam.Apply(o.picture, IMG_RAW16);
    CoolFor(cam, o.picture);
    int iFailed = 0;
    for (int i = 0; i < o.iCount && !Interrupted(); ++i) {
        Picture p = Describe(cam, o.sImageType);
        if (!TakeSnap(cam, p, o.iCount == 1 ? "exposing" : fmt::format("exposing {} of {}", i + 1, o.iCount))) {
            ++iFailed;
            fmt::print(stderr, "exposure {} failed: the camera sent no good frame\n", i + 1);
            continue;
        }
        const std::string stem = Numbered(o.sOut, i, o.iCount);
        std::vector<std::string> files;
        if (!o.bNoFits) {
            files.push_back(stem + ".fits");
            WriteFits(files.back(), p);
        }
        if (!o.bNoPng) {
            files.push_back(stem + ".png");
            WritePng(files.back(), p, o.bLinear ? Stretch::None : Stretch::Auto);
        }
        const auto [low, high] = std::minmax_element(p.data.begin(), p.data.end());
        if (g.bJson) {
            std::string list;
            for (const std::string& f : files)
                list += (list.empty() ? "" : ", ") + JsonText(f);
            fmt::print("{{\"files\": [{}], \"width\": {}, \"height\": {}, \"type\": \"{}\", \"exposure\": {}}}\n", list,
                       p.iWidth, p.iHeight, TypeText(p.type), p.dExposure);
        } else {
            for (const std::string& f : files)
                fmt::print("{}\n", f);
            if (p.type != IMG_RAW16 && *low == 255)
                fmt::print(stderr, "every pixel is saturated: shorten the exposure or lower the gain\n");
            if (p.type != IMG_RAW16 && *high == 0)
                fmt::print(stderr, "every pixel is black\n");
        }
    }
    if (iFailed > 0)
        throw UserError(fmt::format("{} of {} exposures failed; check cable and port, or try 'kovcam doctor'", iFailed, o.iCount), 4);
}

struct VideoOptions {
    PictureOptions picture;
    std::string sOut = "video";
    int iFrames = 0;
    double dSeconds = 0;
    bool bNoPng = false;
};

void Video(const Globals& g, VideoOptions o)
{
    Camera cam(g.sCamera);
    cam.Apply(o.picture, IMG_RAW8);
    CoolFor(cam, o.picture);
    if (o.iFrames == 0 && o.dSeconds <= 0)
        o.iFrames = 100;
    SerWriter ser(o.sOut + ".ser", Describe(cam));
    Progress progress("video");
    Picture last;
    const Stopwatch watch;
    const VideoResult r = RunVideo(cam, [&](Picture& p) {
        ser.Add(p);
        if (!o.bNoPng)
            last = p;
        const double t = watch.Seconds();
        int32_t dropped = 0;
        KOVGetDroppedFrames(cam.Id(), &dropped);
        const double done = o.iFrames > 0 ? static_cast<double>(ser.Frames()) / o.iFrames : t / o.dSeconds;
        progress.Show(done, fmt::format("{} frames, {:.1f} a second, {} dropped, exposure {}, gain {}", ser.Frames(),
                                        ser.Frames() / std::max(t, 1e-3), dropped,
                                        ExposureText(cam.Get(CTRL_EXPOSURE)), cam.Get(CTRL_GAIN)));
        return (o.iFrames == 0 || ser.Frames() < o.iFrames) && (o.dSeconds <= 0 || t < o.dSeconds);
    });
    progress.End();
    ser.Finish();
    if (!o.bNoPng && r.iFrames > 0)
        WritePng(o.sOut + ".png", last, Stretch::Auto);
    const double fps = r.iFrames / std::max(r.dSeconds, 1e-3);
    if (g.bJson) {
        fmt::print("{{\"file\": {}, \"frames\": {}, \"seconds\": {:.3f}, \"fps\": {:.2f}, \"dropped\": {}}}\n", JsonText(o.sOut + ".ser"),
                   r.iFrames, r.dSeconds, fps, r.iDropped);
    } else {
        fmt::print("{}.ser\n", o.sOut);
        if (!o.bNoPng && r.iFrames > 0)
            fmt::print("{}.png\n", o.sOut);
        fmt::print("{} frames in {:.1f} s, {:.1f} a second, {} dropped{}\n", r.iFrames, r.dSeconds, fps, r.iDropped,
                   Interrupted() ? "; interrupted" : "");
    }
}

void Bench(const Globals& g, PictureOptions picture, double seconds)
{
    Camera cam(g.sCamera);
    if (picture.sExposure.empty())
        picture.sExposure = "1ms";
    fmt::print("{:<8} {:>10} {:>12} {:>9}\n", "format", "frames/s", "MB/s", "dropped");
    for (const IMG_TYPE type : cam.Info().SupportedImgTypes) {
        if (type == IMG_END || Interrupted())
            break;
        picture.sFormat = TypeText(type);
        cam.Apply(picture, type);
        const Stopwatch watch;
        const VideoResult r = RunVideo(cam, [&](Picture&) { return watch.Seconds() < seconds; });
        const double fps = r.iFrames / std::max(r.dSeconds, 1e-3);
        fmt::print("{:<8} {:>10.2f} {:>12.1f} {:>9}\n", TypeText(type), fps, fps * cam.ImageBytes() / 1e6, r.iDropped);
    }
}

}  // namespace

void AddPictureCommands(CLI::App& app, Globals& g)
{
    auto* pSnap = app.add_subcommand("snap", "Take single exposures; writes FITS and PNG");
    auto s = std::make_shared<SnapOptions>();
    s->picture.AddTo(*pSnap);
    pSnap->add_option("-o,--out", s->sOut, "File name without ending")->capture_default_str();
    pSnap->add_option("-n,--count", s->iCount, "Number of exposures")->check(CLI::PositiveNumber);
    pSnap->add_option("--image-type", s->sImageType, "Light Frame, Dark Frame, Flat Field, Bias Frame")->capture_default_str();
    pSnap->add_flag("--no-fits", s->bNoFits, "No FITS file");
    pSnap->add_flag("--no-png", s->bNoPng, "No PNG file");
    pSnap->add_flag("--linear", s->bLinear, "PNG without stretching the faint end");
    pSnap->callback([&g, s] { Snap(g, *s); });

    auto* pVideo = app.add_subcommand("video", "Record video; writes SER and the last frame as PNG");
    auto v = std::make_shared<VideoOptions>();
    v->picture.AddTo(*pVideo);
    pVideo->add_option("-o,--out", v->sOut, "File name without ending")->capture_default_str();
    pVideo->add_option("-n,--frames", v->iFrames, "Stop after that many frames (100 if nothing is said)");
    pVideo->add_option("-t,--seconds", v->dSeconds, "Stop after that time");
    pVideo->add_flag("--no-png", v->bNoPng, "No PNG file");
    pVideo->callback([&g, v] { Video(g, *v); });

    auto* pBench = app.add_subcommand("bench", "Frame rate of each format over this camera and port");
    auto b = std::make_shared<std::pair<PictureOptions, double>>(PictureOptions{}, 5.0);
    b->first.AddTo(*pBench);
    pBench->add_option("-t,--seconds", b->second, "Time for each format")->capture_default_str();
    pBench->callback([&g, b] { Bench(g, b->first, b->second); });
}

}  // namespace kovcam

#include <fmt/format.h>

#include <algorithm>
#include <filesystem>

#include "camera/CCameraBase.h"
#include "common/Measure.h"
#include "common/Pictures.h"
#include "common/Ser.h"
#include "common/Text.h"
#include "kovcam/Capture.h"
#include "kovcam/Commands.h"
#include "kovcam/Cooling.h"
#include "kovcam/Json.h"

namespace kovcam {

namespace {

using kovtools::Stretch;

// Settings outlive a program, which surprises whoever set them an hour ago; and some models start otherwise than they list.
void TellDeviations(const Globals& g, const Camera& cam, const PictureOptions& o)
{
    std::vector<std::string> parts;
    const std::vector<std::string> given = o.Given();
    for (const Camera::Deviation& d : cam.Deviations()) {
        if (std::find(given.begin(), given.end(), d.name) != given.end())
            continue;
        const bool time = d.name == NameOf(CTRL_EXPOSURE);
        parts.push_back(d.automatic ? d.name + " auto"
                                    : fmt::format("{} {} ({})", d.name, time ? ExposureText(d.value) : std::to_string(d.value),
                                                  time ? ExposureText(d.standard) : std::to_string(d.standard)));
    }
    if (!parts.empty() && !g.json)
        fmt::print(stderr, "not at its default: {}. --defaults starts from the values in brackets\n", kovtools::Joined(parts));
}

Json DeviationsJson(const Camera& cam)
{
    Json list = Json::array();
    for (const Camera::Deviation& d : cam.Deviations())
        list.push_back({ { "name", d.name }, { "value", d.value }, { "default", d.standard }, { "auto", d.automatic } });
    return list;
}

// What a person tells of the picture, as options.
struct NoteOptions {
    std::string object, telescope, ra, dec, imageType = "Light Frame";
    double focalLength = 0;
    std::vector<std::string> keywords;

    void AddTo(CLI::App& app)
    {
        app.add_option("--image-type", imageType, "FITS: Light Frame, Dark Frame, Flat Field, Bias Frame")->capture_default_str();
        app.add_option("--object", object, "FITS: what is pictured");
        app.add_option("--telescope", telescope, "FITS: telescope or lens");
        app.add_option("--focal-length", focalLength, "FITS: focal length, mm")->check(CLI::PositiveNumber);
        app.add_option("--ra", ra, "FITS: right ascension of the centre, 05:35:17 (hours) or 83.822 (degrees)");
        app.add_option("--dec", dec, "FITS: declination of the centre, -05:23:28 or -5.391");
        app.add_option("--keyword", keywords, "FITS: any other keyword, KEY=VALUE; may be given again");
    }
    kovtools::FitsNotes Notes() const
    try {
        kovtools::FitsNotes n;
        n.imageType = imageType;
        n.object = object;
        n.telescope = telescope;
        n.software = "kovcam " KOV_VERSION;
        if (focalLength > 0)
            n.focalLength = focalLength;
        if (!ra.empty())
            n.ra = kovtools::ParseAngle(ra, true);
        if (!dec.empty())
            n.dec = kovtools::ParseAngle(dec, false);
        for (const std::string& k : keywords)
            n.more.push_back(kovtools::ParseFitsCard(k));
        return n;
    } catch (const std::invalid_argument& e) {
        throw UserError(e.what(), 2);
    }
};

struct SnapOptions {
    PictureOptions picture;
    NoteOptions notes;
    std::string out = "snap";
    int count = 1;
    bool noFits = false, noPng = false, linear = false, tiff = false;
};

// Who names one kind of file by its ending gets that one alone.
SnapOptions ByEnding(SnapOptions o)
{
    const std::filesystem::path path(o.out);
    const std::string ending = path.extension().string();
    const bool fits = ending == ".fits" || ending == ".fit", tiff = ending == ".tif" || ending == ".tiff", png = ending == ".png";
    if (!fits && !tiff && !png)
        return o;
    o.out = (path.parent_path() / path.stem()).string();
    o.noFits = !fits;
    o.noPng = !png;
    o.tiff = tiff;
    return o;
}

std::string Numbered(const std::string& stem, int i, int count)
{
    return count == 1 ? stem : fmt::format("{}-{:04}", stem, i + 1);
}

std::vector<std::string> WriteFiles(const std::string& stem, const SnapOptions& o, const Picture& p,
                                    const kovtools::FitsNotes& notes)
{
    std::vector<std::string> files;
    if (!o.noFits) {
        files.push_back(stem + ".fits");
        kovtools::WriteFits(files.back(), p.View(), kovtools::MakeFitsCards(p.state, p.times, notes));
    }
    if (o.tiff) {
        files.push_back(stem + ".tif");
        kovtools::WriteTiff(files.back(), p.View(), p.state, p.times);
    }
    if (!o.noPng) {
        files.push_back(stem + ".png");
        kovtools::WritePng(files.back(), p.View(), p.state, o.linear ? Stretch::Linear : Stretch::Auto);
    }
    return files;
}

void WarnOfLevel(const kovtools::FrameStatistics& s)
{
    constexpr double NOTABLE = 0.005;  // of all samples; a star's core is less
    if (s.saturated >= 1)
        fmt::print(stderr, "every pixel is saturated: shorten the exposure or lower the gain\n");
    else if (s.saturated > NOTABLE)
        fmt::print(stderr, "{:.1f} % of the pixels are saturated: shorten the exposure or lower the gain\n", 100 * s.saturated);
    if (s.max == 0)
        fmt::print(stderr, "every pixel is black: lengthen the exposure or raise gain or brightness\n");
}

void TellSnap(const Globals& g, const Camera& cam, const Picture& p, const std::vector<std::string>& files)
{
    const kovtools::FrameStatistics s = kovtools::MeasureFrame(p.View());
    if (!g.json) {
        for (const std::string& f : files)
            fmt::print("{}\n", f);
        WarnOfLevel(s);
        return;
    }
    Print({ { "files", files },
            { "width", p.state.width },
            { "height", p.state.height },
            { "type", kovtools::TypeName(p.state.type) },
            { "exposure", p.state.exposure },
            { "gain", p.state.gain },
            { "min", s.min },
            { "max", s.max },
            { "mean", s.mean },
            { "median", s.median },
            { "saturated", s.saturated },
            { "notDefault", DeviationsJson(cam) } });
}

void Snap(const Globals& g, const SnapOptions& given)
{
    const SnapOptions o = ByEnding(given);
    kovtools::FitsNotes notes = o.notes.Notes();
    if (o.tiff && !kovtools::WRITES_TIFF)
        throw UserError("this build writes no TIFF; FITS has the same samples", 2);
    Camera cam(g.camera);
    cam.Apply(o.picture, IMG_RAW16);
    TellDeviations(g, cam, o.picture);
    CoolFor(cam, o.picture);
    if (!o.picture.sDark.empty())
        notes.history.push_back("dark frame subtracted: " + o.picture.sDark);
    if (cam.Object().IsHPCEnable())
        notes.history.push_back("hot pixels repaired by the table in the camera");
    int failed = 0;
    for (int i = 0; i < o.count && !Interrupted(); ++i) {
        Picture p = Describe(cam);
        if (!TakeSnap(cam, p, o.count == 1 ? "exposing" : fmt::format("exposing {} of {}", i + 1, o.count))) {
            ++failed;
            fmt::print(stderr, "exposure {} failed: the camera sent no good frame\n", i + 1);
            continue;
        }
        TellSnap(g, cam, p, WriteFiles(Numbered(o.out, i, o.count), o, p, notes));
    }
    if (failed > 0)
        throw UserError(fmt::format("{} of {} exposures failed; check cable and port, or try 'kovcam doctor'", failed, o.count),
                        4);
}

struct VideoOptions {
    PictureOptions picture;
    std::string out = "video", time;
    int frames = 0;
    bool noPng = false, linear = false;
};

void Video(const Globals& g, VideoOptions o)
{
    const double seconds = o.time.empty() ? 0 : ParseSeconds(o.time);
    Camera cam(g.camera);
    cam.Apply(o.picture, IMG_RAW8);
    TellDeviations(g, cam, o.picture);
    CoolFor(cam, o.picture);
    if (o.frames == 0 && seconds <= 0)
        o.frames = 100;
    if (o.out.ends_with(".ser"))
        o.out.resize(o.out.size() - 4);
    kovtools::SerWriter ser(o.out + ".ser", Describe(cam).state);
    Progress progress("video");
    Picture last;
    const Stopwatch watch;
    const VideoResult r = RunVideo(cam, [&](Picture& p) {
        ser.Add(p.View(), p.arrival, p.dropped, p.state.exposure);
        if (!o.noPng)
            last = p;
        const double t = watch.Seconds();
        const double done = o.frames > 0 ? static_cast<double>(ser.Frames()) / o.frames : t / seconds;
        progress.Show(done, fmt::format("{} frames, {:.1f} a second, {} dropped, exposure {}, gain {}", ser.Frames(),
                                        ser.Frames() / std::max(t, 1e-3), p.dropped, ExposureText(cam.Get(CTRL_EXPOSURE)),
                                        cam.Get(CTRL_GAIN)));
        return (o.frames == 0 || ser.Frames() < o.frames) && (seconds <= 0 || t < seconds);
    });
    progress.End();
    ser.Finish();
    std::vector<std::string> files = { o.out + ".ser" };
    if (!o.noPng && r.frames > 0) {
        files.push_back(o.out + ".png");
        kovtools::WritePng(files.back(), last.View(), last.state, o.linear ? Stretch::Linear : Stretch::Auto);
    }
    const double fps = r.frames / std::max(r.seconds, 1e-3);
    if (g.json) {
        Print({ { "files", files },
                { "frames", r.frames },
                { "seconds", r.seconds },
                { "fps", fps },
                { "dropped", r.dropped },
                { "notDefault", DeviationsJson(cam) } });
        return;
    }
    for (const std::string& f : files)
        fmt::print("{}\n", f);
    fmt::print("{} frames in {:.1f} s, {:.1f} a second, {} dropped{}\n", r.frames, r.seconds, fps, r.dropped,
               Interrupted() ? "; interrupted" : "");
}

void Bench(const Globals& g, PictureOptions picture, const std::string& time)
{
    const double seconds = ParseSeconds(time);
    Camera cam(g.camera);
    if (picture.sExposure.empty())
        picture.sExposure = "1ms";
    Json list = Json::array();
    if (!g.json)
        fmt::print("{:<8} {:>10} {:>12} {:>9}\n", "format", "frames/s", "MB/s", "dropped");
    for (const IMG_TYPE type : kovtools::TypesOf(cam.Info())) {
        if (Interrupted())
            break;
        picture.sFormat = kovtools::TypeName(type);
        cam.Apply(picture, type);
        const Stopwatch watch;
        const VideoResult r = RunVideo(cam, [&](Picture&) { return watch.Seconds() < seconds; });
        const double fps = r.frames / std::max(r.seconds, 1e-3), rate = fps * cam.ImageBytes();
        if (g.json)
            list.push_back(
                { { "format", picture.sFormat }, { "fps", fps }, { "bytesPerSecond", rate }, { "dropped", r.dropped } });
        else
            fmt::print("{:<8} {:>10.2f} {:>12.1f} {:>9}\n", picture.sFormat, fps, rate / 1e6, r.dropped);
    }
    if (g.json)
        Print(list);
}

}  // namespace

void AddPictureCommands(CLI::App& app, Globals& g)
{
    using P = PictureOptions;
    auto* pSnap = app.add_subcommand("snap", "Take single exposures; writes FITS and PNG");
    auto s = std::make_shared<SnapOptions>();
    s->picture.AddTo(*pSnap, P::Exposure | P::Geometry | P::Format | P::Finish | P::Cooler);
    pSnap->add_option("-o,--out", s->out, "File name; with .fits, .tif or .png that file alone is written")
        ->capture_default_str();
    pSnap->add_option("-n,--count", s->count, "Number of exposures")->check(CLI::PositiveNumber);
    pSnap->add_flag("--no-fits", s->noFits, "No FITS file");
    pSnap->add_flag("--no-png", s->noPng, "No PNG file");
    pSnap->add_flag("--tiff", s->tiff, "A TIFF file too, the samples as they are");
    pSnap->add_flag("--linear", s->linear, "PNG without stretching the faint end");
    s->notes.AddTo(*pSnap);
    pSnap->callback([&g, s] { Snap(g, *s); });

    auto* pVideo = app.add_subcommand("video", "Record video; writes SER and the last frame as PNG");
    auto v = std::make_shared<VideoOptions>();
    v->picture.AddTo(*pVideo, P::Exposure | P::Geometry | P::Format | P::Finish | P::Cooler | P::Automation);
    pVideo->add_option("-o,--out", v->out, "File name; .ser and .png are added")->capture_default_str();
    pVideo->add_option("-n,--frames", v->frames, "Stop after that many frames (100 if nothing is said)")
        ->check(CLI::PositiveNumber);
    pVideo->add_option("-t,--time", v->time, "Stop after that time, such as 10s or 2m");
    pVideo->add_flag("--no-png", v->noPng, "No PNG file");
    pVideo->add_flag("--linear", v->linear, "PNG without stretching the faint end");
    pVideo->callback([&g, v] { Video(g, *v); });

    auto* pBench = app.add_subcommand("bench", "Frame rate of each format over this camera and port");
    auto b = std::make_shared<std::pair<PictureOptions, std::string>>(PictureOptions{}, "5s");
    b->first.AddTo(*pBench, P::Exposure | P::Geometry);
    pBench->add_option("-t,--time", b->second, "Time for each format")->capture_default_str();
    pBench->callback([&g, b] { Bench(g, b->first, b->second); });
}

}  // namespace kovcam

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <thread>

#include "camera/CCameraBase.h"
#include "common/Files.h"
#include "kovcam/Capture.h"
#include "kovcam/Commands.h"
#include "kovcam/Cooling.h"
#include "kovcam/Json.h"

namespace kovcam {

namespace fs = std::filesystem;

namespace {

// What the collection of dark frames needs: 8 bits of the whole sensor.
void ApplyWhole(Camera& cam, const PictureOptions& o)
{
    PictureOptions fixed = o;
    fixed.bHardwareBin = false;
    if (!cam.Has(CTRL_HARDWARE_BIN))
        fixed.bHardwareBin.reset();
    if (fixed.sExposure.empty())
        fixed.sExposure = std::to_string(cam.Get(CTRL_EXPOSURE)) + "us";  // ends an auto mode of an earlier run
    if (fixed.iGain < 0)
        fixed.iGain = cam.Get(CTRL_GAIN);
    cam.Apply(fixed, IMG_RAW8);
    CoolFor(cam, o);
}

// Lets frames flow until the library has its dark frame. false: interrupted.
bool Collect(Camera& cam)
{
    CCameraBase& object = cam.Object();
    const int wanted = object.GettingDark(true, 0);
    Progress progress("collecting dark frames");
    const double exposure = cam.Get(CTRL_EXPOSURE) / 1e6;
    const Stopwatch watch;
    RunVideo(cam, [&](Picture&) {
        int done = 0, number = 0;
        object.GetDarkCount(&done, &number);
        progress.Show(static_cast<double>(done) / wanted,
                      fmt::format("{} of {}, about {:.0f} s to go", done, wanted, exposure * (wanted - done)));
        return object.IsGetDarkOver();  // true as long as it collects
    });
    return !object.IsGetDarkOver();
}

double MeanOfDark(const CCameraBase& object)
{
    const size_t n = static_cast<size_t>(object.m_iMaxWidth) * static_cast<size_t>(object.m_iMaxHeight);
    uint64_t sum = 0;
    for (size_t i = 0; i < n; ++i)
        sum += object.m_pDarkBuf[i];
    return static_cast<double>(sum) / static_cast<double>(n);
}

struct DarkOptions {
    PictureOptions picture;
    std::string sOut = "dark.bmp";
};

void Dark(const Globals& g, const DarkOptions& o)
{
    const std::string path = kovtools::AbsolutePath(o.sOut);
    if (path.size() > 255)
        throw UserError(fmt::format("the path is too long for the camera's settings: {}", path), 2);
    Camera cam(g.camera);
    ApplyWhole(cam, o.picture);
    if (!Collect(cam))
        throw UserError("interrupted; nothing was written", 130);
    CCameraBase& object = cam.Object();
    kovtools::WholeFile whole(path);
    std::error_code ec;
    object.SaveBMPToFile(whole.Temporary().c_str());  // tells success in any case
    const auto pixels = static_cast<uintmax_t>(cam.Info().MaxWidth) * static_cast<uintmax_t>(cam.Info().MaxHeight);
    if (fs::file_size(kovtools::PathOf(whole.Temporary()), ec) < pixels || ec)
        kovtools::FailToWrite(o.sOut);
    whole.Commit();
    int inDark = 0, inTable = 0;
    object.GetHPSum(&inDark, &inTable);
    const double mean = MeanOfDark(object);
    const std::string exposure = ExposureText(cam.Get(CTRL_EXPOSURE));
    if (g.json) {
        Print({ { "file", o.sOut },
                { "frames", object.m_iDarkNum.Get() },
                { "exposure", cam.Get(CTRL_EXPOSURE) / 1e6 },
                { "gain", cam.Get(CTRL_GAIN) },
                { "mean", mean },
                { "standOut", inDark } });
        return;
    }
    fmt::print("{}\n", o.sOut);
    fmt::print("mean of {} frames of {}, gain {}: {:.2f} of 255\n", object.m_iDarkNum.Get(), exposure, cam.Get(CTRL_GAIN), mean);
    fmt::print("{} pixels stand out by 31 or more, {} of a million\n", inDark,
               static_cast<int64_t>(inDark) * 1000000 / static_cast<int64_t>(pixels));
    fmt::print("use it: kovcam snap --format raw8 -e {}us --dark {}\n", cam.Get(CTRL_EXPOSURE), o.sOut);
    if (mean > 80)
        fmt::print(stderr, "that is bright for a dark frame: is the cap on?\n");
}

unsigned long TableSize(Camera& cam)
{
    int inDark = 0, inTable = 0;
    cam.Object().GetHPSum(&inDark, &inTable);
    return static_cast<unsigned long>(inTable);
}

void TellTable(const Globals& g, Camera& cam)
{
    const bool on = cam.Object().IsHPCEnable();
    if (g.json)
        Print({ { "on", on }, { "pixels", on ? TableSize(cam) : 0 } });
    else if (on)
        fmt::print("the repair is on; the table in the camera lists {} pixels\n", TableSize(cam));
    else
        fmt::print("the repair is off\n");
}

void LoadTable(Camera& cam)
{
    unsigned long count = 0;
    if (!cam.Object().ChangeHPCStatus(HPC_LOAD, &count))
        throw UserError("the camera holds no table. Make one, with the cap on: kovcam hotpixels search --min 50 --max 500", 4);
}

struct SearchOptions {
    PictureOptions picture;
    int iMin = 50, iMax = 500;
    std::string sFor = "10m";
};

void Search(const Globals& g, const SearchOptions& o)
{
    if (o.iMin >= o.iMax)
        throw UserError("--min has to be below --max", 2);
    const double limit = ParseSeconds(o.sFor);
    Camera cam(g.camera);
    ApplyWhole(cam, o.picture);
    CCameraBase& object = cam.Object();
    std::vector<uint8_t> buffer(static_cast<size_t>(cam.ImageBytes()));
    int found = 0;
    unsigned long running = 0;
    bool ok = false;
    std::atomic<bool> bOver{ false };
    std::thread search([&] {
        ok = object.AutoGetHPC(&found, o.iMin, o.iMax, &running, buffer.data(), static_cast<int>(buffer.size()));
        bOver = true;
    });
    Progress progress("searching");
    const Stopwatch watch;
    bool bStopped = false, bLate = false, bAway = false, automatic = false;
    const double start = cam.Get(CTRL_EXPOSURE) / 1e6;
    while (!bOver) {
        const double exposure = object.GetExp(&automatic) / 1e6;
        bLate = bLate || watch.Seconds() > limit;
        // A step below zero wraps around and ends at the longest exposure, from where the search does not come back.
        bAway = bAway || exposure > std::max(60.0, 100 * start);
        if ((Interrupted() || bLate || bAway) && !bStopped) {
            object.ChangeHPCStatus(HPC_STOP, nullptr);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            if (exposure > 1)
                KOVStopExposure(cam.Id());  // else it would be waited for
            bStopped = true;
        }
        int inDark = 0, inTable = 0;
        object.GetHPSum(&inDark, &inTable);
        progress.Show(-1, bStopped ? "stopping after this dark frame; Ctrl-C again leaves at once"
                                   : fmt::format("{:.0f} s: {} pixels at {}, wanted {} to {}", watch.Seconds(), inDark,
                                                 ExposureText(object.GetExp(&automatic)), o.iMin, o.iMax));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    search.join();
    progress.End();
    if (!ok && Interrupted())
        throw UserError("interrupted; the table in the camera is as it was", 130);
    if (!ok && bAway)
        throw UserError(
            fmt::format("more than {} pixels stand out at every exposure that was tried, and the search left its range."
                        " Begin with a longer exposure and a lower gain, or raise --max",
                        o.iMax),
            4);
    if (!ok && bLate)
        throw UserError(fmt::format("no exposure with {} to {} hot pixels within {}. Is the cap on? Widen the range,"
                                    " or begin with another exposure or gain",
                                    o.iMin, o.iMax, o.sFor),
                        4);
    if (!ok)
        throw UserError("the table could not be saved in the camera's flash", 4);
    LoadTable(cam);
    cam.KeepSettings();
    const uint32_t exposure = object.GetExp(&automatic);
    if (g.json)
        Print({ { "found", found }, { "exposure", exposure / 1e6 } });
    else
        fmt::print("{} hot pixels found at {}; the table is in the camera and the repair is on\n", found, ExposureText(exposure));
}

struct CountOptions {
    PictureOptions picture;
    bool bSave = false;
};

void Count(const Globals& g, const CountOptions& o)
{
    Camera cam(g.camera);
    ApplyWhole(cam, o.picture);
    CCameraBase& object = cam.Object();
    int count = 0;
    std::atomic<bool> bOver{ false };
    // It waits for frames that somebody else fetches, and arms the collection first.
    std::thread manual([&] {
        object.ManualHPC(false, &count);
        bOver = true;
    });
    Progress progress("counting");
    const auto stop = [&] {
        object.ChangeHPCStatus(HPC_STOP, nullptr);
        manual.join();
    };
    try {
        RunVideo(cam, [&](Picture&) {
            int done = 0, wanted = 0;
            object.GetDarkCount(&done, &wanted);
            progress.Show(wanted > 0 ? static_cast<double>(done) / wanted : -1, fmt::format("{} of {} frames", done, wanted));
            return !bOver;
        });
    } catch (...) {
        stop();
        throw;
    }
    progress.End();
    const bool bDone = bOver;
    stop();
    if (!bDone)
        throw UserError("interrupted", 130);
    if (o.bSave) {
        if (!object.ManualHPC(true, &count))
            throw UserError("the table could not be saved in the camera's flash", 4);
        LoadTable(cam);
        cam.KeepSettings();
    }
    if (g.json)
        Print({ { "count", count }, { "exposure", cam.Get(CTRL_EXPOSURE) / 1e6 }, { "saved", o.bSave } });
    else
        fmt::print("{} pixels stand out at {}, gain {}{}\n", count, ExposureText(cam.Get(CTRL_EXPOSURE)), cam.Get(CTRL_GAIN),
                   o.bSave ? "; the table is in the camera and the repair is on" : "; --save keeps them in the camera");
}

void SaveFrom(const Globals& g, const std::string& dark)
{
    Camera cam(g.camera);
    KOV_BOOL on = KOV_TRUE;
    Check(KOVEnableDarkSubtract(cam.Id(), kovtools::AbsolutePath(dark).c_str(), &on), fmt::format("dark frame {}", dark));
    int ignored = 0;
    if (!cam.Object().ManualHPC(true, &ignored))
        throw UserError("the table could not be saved in the camera's flash", 4);
    KOVDisableDarkSubtract(cam.Id());
    LoadTable(cam);
    cam.KeepSettings();
    TellTable(g, cam);
}

}  // namespace

void AddDarkCommands(CLI::App& app, Globals& g)
{
    auto* pDark = app.add_subcommand("dark", "Take a dark frame, cap on; writes a BMP for --dark of snap and video");
    auto d = std::make_shared<DarkOptions>();
    d->picture.AddTo(*pDark, PictureOptions::Exposure | PictureOptions::Cooler);
    pDark->add_option("-o,--out", d->sOut, "BMP to write")->capture_default_str();
    pDark->callback([&g, d] { Dark(g, *d); });

    auto* pHot = app.add_subcommand("hotpixels", "The table of hot pixels that the camera keeps in its flash");
    pHot->require_subcommand(1);
    pHot->add_subcommand("status", "Whether the repair is on, and how many pixels the table lists")->callback([&g] {
        Camera cam(g.camera);
        TellTable(g, cam);
    });
    pHot->add_subcommand("load", "Load the table and switch the repair on")->callback([&g] {
        Camera cam(g.camera);
        LoadTable(cam);
        cam.KeepSettings();
        TellTable(g, cam);
    });
    pHot->add_subcommand("off", "Switch the repair off; the table stays in the camera")->callback([&g] {
        Camera cam(g.camera);
        cam.Object().ChangeHPCStatus(HPC_OFF, nullptr);
        cam.KeepSettings();
        TellTable(g, cam);
    });
    auto* pSearch = pHot->add_subcommand("search", "Cap on: find an exposure that shows so many hot pixels, and keep the table");
    auto s = std::make_shared<SearchOptions>();
    s->picture.AddTo(*pSearch, PictureOptions::Exposure | PictureOptions::Cooler);
    pSearch->add_option("--min", s->iMin, "Fewest")->check(CLI::NonNegativeNumber)->capture_default_str();
    pSearch->add_option("--max", s->iMax, "Most")->check(CLI::PositiveNumber)->capture_default_str();
    pSearch->add_option("--for", s->sFor, "Give up after that time")->capture_default_str();
    pSearch->callback([&g, s] { Search(g, *s); });
    auto* pCount = pHot->add_subcommand("count", "Cap on: count the hot pixels at the exposure that is given");
    auto c = std::make_shared<CountOptions>();
    c->picture.AddTo(*pCount, PictureOptions::Exposure | PictureOptions::Cooler);
    pCount->add_flag("--save", c->bSave, "Keep them in the camera as its table");
    pCount->callback([&g, c] { Count(g, *c); });
    auto* pSave = pHot->add_subcommand("save", "Keep the hot pixels of a dark frame in the camera as its table");
    auto file = std::make_shared<std::string>();
    pSave->add_option("dark", *file, "BMP of 'kovcam dark'")->required();
    pSave->callback([&g, file] { SaveFrom(g, *file); });
}

}  // namespace kovcam

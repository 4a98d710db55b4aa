// What somebody who is to help wants to know, in one file.
#include <fmt/format.h>

#include <chrono>
#include <fstream>
#include <iterator>

#include "common/Doctor.h"
#include "common/Files.h"
#include "common/Host.h"
#include "common/Measure.h"
#include "common/Text.h"
#include "kovcam/Capture.h"
#include "kovcam/Commands.h"

namespace kovcam {

namespace {

std::string Heading(const std::string& title) { return fmt::format("\n== {} ==\n", title); }

std::string DescribeCamera(int index)
{
    const KOV_CAMERA_INFO listed = InfoOf(index);
    std::string out = Heading(fmt::format("camera {}: {}", index, listed.Name));
    Camera cam(std::to_string(index));
    const KOV_CAMERA_INFO& i = cam.Info();
    out += fmt::format("{} x {} pixels, {}, USB 3 camera {}, on a USB 3 port {}, cooled {}\n", i.MaxWidth, i.MaxHeight,
                       i.IsColorCam ? "colour" : "mono", i.IsUSB3Camera != 0, i.IsUSB3Host != 0, i.IsCooled != 0);
    for (const KOV_CONTROL_CAPS& c : cam.Controls()) {
        bool automatic = false;
        const int32_t value = cam.Get(c.ControlType, &automatic);
        out += fmt::format("  {:<20} {} (from {} to {}, default {}){}\n", NameOf(c.ControlType), value, c.MinValue, c.MaxValue,
                           c.DefaultValue, automatic ? ", auto" : "");
    }
    // As a program finds the camera, but for an exposure that is soon over.
    PictureOptions o;
    o.sExposure = "100ms";
    const int32_t before = cam.Get(CTRL_EXPOSURE);
    cam.Apply(o, IMG_RAW8);
    Picture p = Describe(cam);
    const Stopwatch watch;
    if (TakeSnap(cam, p)) {
        const kovtools::FrameStatistics s = kovtools::MeasureFrame(p.View());
        out += fmt::format(
            "test frame of 100 ms: {:.2f} s, samples {} to {}, mean {:.2f}, median {:.0f}, deviation {:.2f}, "
            "saturated {:.4f} %, {} stars\n",
            watch.Seconds(), s.min, s.max, s.mean, s.median, s.deviation, 100 * s.saturated,
            kovtools::MeasureStars(p.View(), p.state).stars.size());
    } else {
        out += "test frame of 100 ms: the camera sent no good frame\n";
    }
    cam.Set(CTRL_EXPOSURE, before);
    cam.KeepSettings();
    return out;
}

}  // namespace

void WriteReport(const std::string& path)
{
    // The library reads these before its first line.
    const std::string logFile = path + ".log.part";
    kovtools::SetVariable("KOV_LOG", "debug");
    kovtools::SetVariable("KOV_LOG_FILE", logFile);
    std::string text = fmt::format("kovcam {}, {} UTC\n", KOV_VERSION, kovtools::UtcText(std::chrono::system_clock::now()));
    if (kovtools::LoadedPlugin() != nullptr)
        text += "with virtual cameras\n";
    text += Heading("system") + kovtools::DescribeSystem() + Heading("findings");
    for (const kovtools::Finding& f : kovtools::Examine())
        text += fmt::format("{:<8} {}: {}\n", SeverityText(f.severity), f.check, f.text);
    const int n = KOVGetNumOfConnectedCameras();
    for (int i = 0; i < n && !Interrupted(); ++i) {
        try {
            text += DescribeCamera(i);
        } catch (const std::exception& e) {
            text += fmt::format("{}\n", e.what());
        }
    }
    constexpr size_t LONGEST_LOG = 4 << 20;  // issue trackers take no more
    std::ifstream in(kovtools::PathOf(logFile), std::ios::binary);
    std::string log(std::istreambuf_iterator<char>(in), {});
    in.close();
    std::error_code ignored;
    std::filesystem::remove(kovtools::PathOf(logFile), ignored);
    if (log.size() > LONGEST_LOG)
        log = "(the first part is left out)\n" + log.substr(log.size() - LONGEST_LOG);
    text += Heading("log") + log;

    kovtools::WholeFile whole(path);
    std::ofstream out(kovtools::PathOf(whole.Temporary()), std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out)
        kovtools::FailToWrite(path);
    whole.Commit();
    fmt::print("{}\nAttach it to your report. It holds no pictures, but names of devices and of the settings folder.\n", path);
}

}  // namespace kovcam

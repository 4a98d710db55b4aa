#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "common/Text.h"
#include "kovcam/Camera.h"
#include "kovcam/Commands.h"
#include "kovcam/Json.h"

namespace kovcam {

namespace {

std::string Bins(const KOV_CAMERA_INFO& info) { return fmt::format("{}", fmt::join(kovtools::BinsOf(info), ", ")); }

std::vector<std::string> Types(const KOV_CAMERA_INFO& info)
{
    std::vector<std::string> names;
    for (const IMG_TYPE t : kovtools::TypesOf(info))
        names.push_back(kovtools::TypeName(t));
    return names;
}

const char* YesNo(KOV_BOOL b) { return b ? "yes" : "no"; }

Json InfoJson(const KOV_CAMERA_INFO& i)
{
    const auto yes = [](KOV_BOOL b) { return b != KOV_FALSE; };
    return { { "index", i.CameraID },
             { "name", i.Name },
             { "width", i.MaxWidth },
             { "height", i.MaxHeight },
             { "color", yes(i.IsColorCam) },
             { "bayer", kovtools::PatternName(i.BayerPattern) },
             { "bins", kovtools::BinsOf(i) },
             { "types", Types(i) },
             { "pixelSize", i.PixelSize },
             { "shutter", yes(i.HasShutter) },
             { "guidePort", yes(i.HasGuidePort) },
             { "cooled", yes(i.IsCooled) },
             { "usb3Host", yes(i.IsUSB3Host) },
             { "usb3Camera", yes(i.IsUSB3Camera) },
             { "elecPerADU", i.ElecPerADU },
             { "sensorParamA", i.SensorParamA },
             { "sensorParamB", i.SensorParamB } };
}

void List(const Globals& g)
{
    const int n = g.json ? KOVGetNumOfConnectedCameras() : CountCameras();
    Json list = Json::array();
    for (int i = 0; i < n; ++i) {
        KOV_CAMERA_INFO info{};
        if (KOVGetCameraProperty(&info, i) != KOV_SUCCESS) {
            if (!g.json)
                fmt::print("{}  (a model that this library does not know)\n", i);
            continue;
        }
        if (g.json)
            list.push_back(InfoJson(info));
        else
            fmt::print("{}  {:<28} {} x {}  {}{}\n", i, info.Name, info.MaxWidth, info.MaxHeight,
                       info.IsColorCam ? "colour" : "mono", info.IsCooled ? ", cooled" : "");
    }
    if (g.json)
        Print(list);
}

void Info(const Globals& g)
{
    Camera cam(g.camera);
    const KOV_CAMERA_INFO& i = cam.Info();
    if (g.json) {
        Print(InfoJson(i));
        return;
    }
    fmt::print("{}\n", i.Name);
    fmt::print("  sensor        {} x {} pixels of {} um, {}\n", i.MaxWidth, i.MaxHeight, i.PixelSize,
               i.IsColorCam ? fmt::format("colour, {}", kovtools::PatternName(i.BayerPattern)) : std::string("mono"));
    fmt::print("  bins          {}\n  formats       {}\n", Bins(i), kovtools::Joined(Types(i)));
    fmt::print("  cooled        {}\n  guide port    {}\n", YesNo(i.IsCooled), YesNo(i.HasGuidePort));
    fmt::print("  USB 3         camera {}, host port {}\n", YesNo(i.IsUSB3Camera), YesNo(i.IsUSB3Host));
    if (i.ElecPerADU > 0)
        fmt::print("  electrons     {:.3f} an ADU\n", i.ElecPerADU);
    if (cam.Has(CTRL_TEMPERATURE))
        fmt::print("  temperature   {:.1f} C\n", cam.Get(CTRL_TEMPERATURE) / 10.0);
}

void Controls(const Globals& g)
{
    Camera cam(g.camera);
    if (!g.json)
        fmt::print("{:<20} {:>11} {:>11} {:>11} {:>11}  {}\n", "control", "value", "min", "max", "default", "");
    Json list = Json::array();
    for (const KOV_CONTROL_CAPS& c : cam.Controls()) {
        bool automatic = false;
        const int32_t value = cam.Get(c.ControlType, &automatic);
        if (g.json)
            list.push_back({ { "name", NameOf(c.ControlType) },
                             { "type", static_cast<int>(c.ControlType) },
                             { "label", c.Name },
                             { "description", c.Description },
                             { "value", value },
                             { "auto", automatic },
                             { "min", c.MinValue },
                             { "max", c.MaxValue },
                             { "default", c.DefaultValue },
                             { "autoSupported", c.IsAutoSupported != KOV_FALSE },
                             { "writable", c.IsWritable != KOV_FALSE } });
        else
            fmt::print("{:<20} {:>11} {:>11} {:>11} {:>11}  {}{}{}\n", NameOf(c.ControlType), value, c.MinValue, c.MaxValue,
                       c.DefaultValue, c.Description, automatic ? " [auto]" : "", c.IsWritable ? "" : " [read only]");
    }
    if (g.json)
        Print(list);
}

int32_t ParseValue(KOV_CONTROL_TYPE type, const std::string& text)
{
    if (type == CTRL_EXPOSURE)
        return ParseExposure(text);
    if (type == CTRL_AUTOEXP_MAX_EXP)
        return static_cast<int32_t>(std::min(ParseSeconds(text), 2147483647.0));
    int32_t value = 0;
    const char* const end = text.data() + text.size();
    if (const auto r = std::from_chars(text.data(), end, value); r.ec != std::errc() || r.ptr != end)
        throw UserError(fmt::format("'{}' is no whole number", text), 2);
    return value;
}

struct SetOptions {
    std::string control, value;
    bool automatic = false;
};

// These hold as long as a program holds the camera; the library keeps the others with the settings.
bool IsKept(KOV_CONTROL_TYPE type) { return type != CTRL_COOLER_ON && type != CTRL_TARGET_TEMP; }

void Set(const Globals& g, const SetOptions& o)
{
    const KOV_CONTROL_TYPE type = ParseControl(o.control);
    const int32_t value = ParseValue(type, o.value);
    int32_t now = 0;
    bool automatic = false, kept = false;
    {
        Camera cam(g.camera);
        const KOV_CONTROL_CAPS caps = cam.Caps(type);
        if (!caps.IsWritable)
            throw UserError(fmt::format("{} can only be read", NameOf(type)), 2);
        if (o.automatic && !caps.IsAutoSupported)
            throw UserError(fmt::format("the camera does not regulate {} by itself", NameOf(type)), 2);
        cam.Set(type, value, o.automatic);
        cam.KeepSettings();
        now = cam.Get(type, &automatic);
    }
    if (IsKept(type)) {
        Camera again(g.camera);
        kept = automatic || again.Get(type) == now;
    }
    if (g.json) {
        Print({ { "control", NameOf(type) }, { "asked", value }, { "value", now }, { "auto", automatic }, { "kept", kept } });
    } else {
        fmt::print("{} is {}{}\n", NameOf(type), now, automatic ? ", auto" : "");
        if (now != value && !automatic)
            fmt::print("the camera's limits changed {} to {}\n", value, now);
        if (!IsKept(type))
            fmt::print("it held while this program held the camera; for cold pictures use 'kovcam cool' or --cool\n");
    }
    if (IsKept(type) && !kept)
        throw UserError("the value could not be kept for later programs; 'kovcam doctor' tells why", 4);
}

}  // namespace

void AddControlCommands(CLI::App& app, Globals& g)
{
    app.add_subcommand("list", "The connected cameras")->callback([&g] { List(g); });
    app.add_subcommand("info", "Everything the camera tells of itself")->callback([&g] { Info(g); });
    app.add_subcommand("controls", "All controls with values and limits")->callback([&g] { Controls(g); });

    auto* pGet = app.add_subcommand("get", "The value of one control");
    auto pName = std::make_shared<std::string>();
    pGet->add_option("control", *pName, "Name, as 'kovcam controls' lists it")->required();
    pGet->callback([&g, pName] {
        const KOV_CONTROL_TYPE type = ParseControl(*pName);
        Camera cam(g.camera);
        cam.Caps(type);  // complains of a control that the camera lacks
        bool automatic = false;
        const int32_t value = cam.Get(type, &automatic);
        if (g.json)
            Print({ { "value", value }, { "auto", automatic } });
        else
            fmt::print("{}{}\n", value, automatic ? " auto" : "");
    });

    // The library keeps settings when a capture ends, so a value that is only set would be forgotten with the program.
    auto* pSet = app.add_subcommand("set", "Set a control, show what the camera made of it, and keep it for later captures");
    auto set = std::make_shared<SetOptions>();
    pSet->add_option("control", set->control, "Name, as 'kovcam controls' lists it")->required();
    pSet->add_option("value", set->value, "A whole number; times as 10ms or 2s")->required();
    pSet->add_flag("--auto", set->automatic, "Let the camera regulate it");
    pSet->callback([&g, set] { Set(g, *set); });
}

}  // namespace kovcam

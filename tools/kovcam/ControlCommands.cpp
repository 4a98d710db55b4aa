#include <fmt/format.h>

#include "kovcam/Camera.h"
#include "kovcam/Commands.h"

namespace kovcam {

namespace {

std::string Bins(const KOV_CAMERA_INFO& i, const char* separator)
{
    std::string s;
    for (const int32_t b : i.SupportedBins) {
        if (b == 0)
            break;
        s += (s.empty() ? "" : separator) + std::to_string(b);
    }
    return s;
}

std::string Types(const KOV_CAMERA_INFO& i, const char* separator, const char* quote)
{
    std::string s;
    for (const IMG_TYPE t : i.SupportedImgTypes) {
        if (t == IMG_END)
            break;
        s += fmt::format("{}{}{}{}", s.empty() ? "" : separator, quote, TypeText(t), quote);
    }
    return s;
}

const char* YesNo(KOV_BOOL b) { return b ? "yes" : "no"; }
const char* Json(KOV_BOOL b) { return b ? "true" : "false"; }

std::string InfoJson(const KOV_CAMERA_INFO& i)
{
    return fmt::format(
        R"({{"index": {}, "name": "{}", "width": {}, "height": {}, "color": {}, "bayer": "{}", "bins": [{}], "types": [{}], )"
        R"("pixelSize": {}, "shutter": {}, "guidePort": {}, "cooled": {}, "usb3Host": {}, "usb3Camera": {}, )"
        R"("elecPerADU": {:.3f}, "sensorParamA": {}, "sensorParamB": {}}})",
        i.CameraID, i.Name, i.MaxWidth, i.MaxHeight, Json(i.IsColorCam), PatternText(i.BayerPattern), Bins(i, ", "),
        Types(i, ", ", "\""), i.PixelSize, Json(i.HasShutter), Json(i.HasGuidePort), Json(i.IsCooled), Json(i.IsUSB3Host),
        Json(i.IsUSB3Camera), i.ElecPerADU, i.SensorParamA, i.SensorParamB);
}

void List(const Globals& g)
{
    const int n = g.bJson ? KOVGetNumOfConnectedCameras() : CountCameras();
    std::string json;
    for (int i = 0; i < n; ++i) {
        KOV_CAMERA_INFO info{};
        if (KOVGetCameraProperty(&info, i) != KOV_SUCCESS) {
            if (!g.bJson)
                fmt::print("{}  (a model that this library does not know)\n", i);
            continue;
        }
        if (g.bJson)
            json += (json.empty() ? "" : ",\n ") + InfoJson(info);
        else
            fmt::print("{}  {:<28} {} x {}  {}{}\n", i, info.Name, info.MaxWidth, info.MaxHeight,
                       info.IsColorCam ? "colour" : "mono", info.IsCooled ? ", cooled" : "");
    }
    if (g.bJson)
        fmt::print("[{}]\n", json);
}

void Info(const Globals& g)
{
    Camera cam(g.sCamera);
    const KOV_CAMERA_INFO& i = cam.Info();
    if (g.bJson) {
        fmt::print("{}\n", InfoJson(i));
        return;
    }
    fmt::print("{}\n", i.Name);
    fmt::print("  sensor        {} x {} pixels of {} um, {}\n", i.MaxWidth, i.MaxHeight, i.PixelSize,
               i.IsColorCam ? fmt::format("colour, {}", PatternText(i.BayerPattern)) : std::string("mono"));
    fmt::print("  bins          {}\n  formats       {}\n", Bins(i, ", "), Types(i, ", ", ""));
    fmt::print("  cooled        {}\n  guide port    {}\n", YesNo(i.IsCooled), YesNo(i.HasGuidePort));
    fmt::print("  USB 3         camera {}, host port {}\n", YesNo(i.IsUSB3Camera), YesNo(i.IsUSB3Host));
    if (i.ElecPerADU > 0)
        fmt::print("  electrons     {:.3f} an ADU\n", i.ElecPerADU);
    if (cam.Has(CTRL_TEMPERATURE))
        fmt::print("  temperature   {:.1f} C\n", cam.Get(CTRL_TEMPERATURE) / 10.0);
}

void Controls(const Globals& g)
{
    Camera cam(g.sCamera);
    int n = 0;
    Check(KOVGetNumOfControls(cam.Id(), &n), "controls");
    if (!g.bJson)
        fmt::print("{:<20} {:>11} {:>11} {:>11} {:>11}  {}\n", "control", "value", "min", "max", "default", "");
    std::string json;
    for (int i = 0; i < n; ++i) {
        KOV_CONTROL_CAPS c{};
        Check(KOVGetControlCaps(cam.Id(), i, &c), "control");
        bool automatic = false;
        const int32_t value = cam.Get(c.ControlType, &automatic);
        if (g.bJson) {
            json += fmt::format(R"({}{{"name": "{}", "type": {}, "label": "{}", "description": "{}", "value": {}, "auto": {}, )"
                                R"("min": {}, "max": {}, "default": {}, "autoSupported": {}, "writable": {}}})",
                                json.empty() ? "" : ",\n ", NameOf(c.ControlType), static_cast<int>(c.ControlType), c.Name,
                                c.Description, value, automatic, c.MinValue, c.MaxValue, c.DefaultValue,
                                Json(c.IsAutoSupported), Json(c.IsWritable));
        } else {
            fmt::print("{:<20} {:>11} {:>11} {:>11} {:>11}  {}{}{}\n", NameOf(c.ControlType), value, c.MinValue, c.MaxValue,
                       c.DefaultValue, c.Description, automatic ? " [auto]" : "", c.IsWritable ? "" : " [read only]");
        }
    }
    if (g.bJson)
        fmt::print("[{}]\n", json);
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
        Camera cam(g.sCamera);
        bool automatic = false;
        const int32_t value = cam.Get(type, &automatic);
        if (g.bJson)
            fmt::print("{{\"value\": {}, \"auto\": {}}}\n", value, automatic);
        else
            fmt::print("{}{}\n", value, automatic ? " auto" : "");
    });

    // The library keeps settings when a capture ends, so a value that is only set would be forgotten with the program.
    auto* pSet = app.add_subcommand("set", "Set a control, show what the camera made of it, and keep it for later captures");
    auto pSetName = std::make_shared<std::string>();
    auto pValue = std::make_shared<std::string>();
    auto pAuto = std::make_shared<bool>(false);
    pSet->add_option("control", *pSetName, "Name, as 'kovcam controls' lists it")->required();
    pSet->add_option("value", *pValue, "A number; exposures also as 10ms or 2s")->required();
    pSet->add_flag("--auto", *pAuto, "Let the camera regulate it");
    pSet->callback([&g, pSetName, pValue, pAuto] {
        const KOV_CONTROL_TYPE type = ParseControl(*pSetName);
        int32_t value = 0;
        if (type == CTRL_EXPOSURE) {
            value = static_cast<int32_t>(ParseExposure(*pValue));
        } else {
            try {
                value = std::stoi(*pValue);
            } catch (const std::exception&) {
                throw UserError(fmt::format("'{}' is no whole number", *pValue), 2);
            }
        }
        Camera cam(g.sCamera);
        cam.Set(type, value, *pAuto);
        cam.KeepSettings();
        bool automatic = false;
        const int32_t now = cam.Get(type, &automatic);
        fmt::print("{} is {}{}\n", NameOf(type), now, automatic ? ", auto" : "");
        if (now != value && !automatic)
            fmt::print("the camera's limits changed {} to {}\n", value, now);
    });
}

}  // namespace kovcam

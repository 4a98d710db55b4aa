// What keeps cameras from working on this machine, and how to mend it.
#include <fmt/format.h>

#include "kovcam/Camera.h"
#include "kovcam/Commands.h"

#include <windows.h>

#include <setupapi.h>

namespace kovcam {

namespace {

constexpr const wchar_t* HARDWARE_ID = L"VID_0E5A";

enum class State { Good, Bad };
struct Finding { State state; std::string sText, sCommand; };

std::wstring Property(HDEVINFO list, SP_DEVINFO_DATA& data, DWORD dwProperty)
{
    wchar_t sz[512] = {};
    SetupDiGetDeviceRegistryPropertyW(list, &data, dwProperty, nullptr, reinterpret_cast<BYTE*>(sz), sizeof sz - 2, nullptr);
    return sz;
}

// Devices of our vendor that are plugged in; with and without a driver.
void CountDevices(int* pWith, int* pWithout)
{
    const HDEVINFO list = SetupDiGetClassDevsW(nullptr, L"USB", nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES);
    if (list == INVALID_HANDLE_VALUE)
        return;
    SP_DEVINFO_DATA data{};
    data.cbSize = sizeof data;
    for (DWORD i = 0; SetupDiEnumDeviceInfo(list, i, &data); ++i)
        if (Property(list, data, SPDRP_HARDWAREID).find(HARDWARE_ID) != std::wstring::npos)
            ++(Property(list, data, SPDRP_SERVICE).empty() ? *pWithout : *pWith);
    SetupDiDestroyDeviceInfoList(list);
}

std::vector<Finding> Examine()
{
    std::vector<Finding> out;
    int iWith = 0, iWithout = 0;
    CountDevices(&iWith, &iWithout);
    if (iWithout > 0)
        out.push_back({ State::Bad, fmt::format("{} camera(s) without a driver", iWithout),
                        "install the camera driver: the Device Manager lists them under other devices" });
    const int n = KOVGetNumOfConnectedCameras();
    if (n == 0 && iWith > 0)
        out.push_back({ State::Bad, fmt::format("{} device(s) of vendor 0E5A have a driver, but not the cameras' one", iWith),
                        "install the camera driver over it" });
    else if (n == 0 && iWithout == 0)
        out.push_back({ State::Bad, "no camera on the bus: no USB device of vendor 0E5A",
                        "check plug, cable and power of the hub. To try without a camera: kovsim run --camera QuartzCol -- kovcam doctor" });
    for (int i = 0; i < n; ++i) {
        KOV_CAMERA_INFO info{};
        if (KOVGetCameraProperty(&info, i) != KOV_SUCCESS) {
            out.push_back({ State::Bad, fmt::format("camera {}: a model that this library does not know", i), "update the library" });
            continue;
        }
        if (KOVOpenCamera(i) != KOV_SUCCESS) {
            out.push_back({ State::Bad, fmt::format("{} does not open", info.Name),
                            "close other programs that use it; if there are none, unplug it and plug it in again" });
            continue;
        }
        info = InfoOf(i);
        out.push_back({ State::Good, fmt::format("{} opens and answers", info.Name), "" });
        if (info.IsUSB3Camera && !info.IsUSB3Host)
            out.push_back({ State::Bad, fmt::format("{} is a USB 3 camera on a USB 2 link: frames come at a tenth of the rate", info.Name),
                            "plug it into a blue or SS port with a USB 3 cable, push the plug in fully, and leave hubs out" });
        KOVCloseCamera(i);
    }
    return out;
}

void Tell(const Globals& g, const std::vector<Finding>& findings)
{
    int iBad = 0;
    std::string json;
    for (const Finding& f : findings) {
        iBad += f.state == State::Bad;
        const char* const szMark = f.state == State::Bad ? "PROBLEM" : "ok";
        if (g.bJson)
            json += fmt::format(R"({}{{"state": "{}", "text": {}, "command": {}}})", json.empty() ? "" : ",\n ", szMark,
                                JsonText(f.sText), JsonText(f.sCommand));
        else
            fmt::print("{:<8} {}{}{}\n", szMark, f.sText, f.sCommand.empty() ? "" : "\n         mend: ", f.sCommand);
    }
    if (g.bJson)
        fmt::print("[{}]\n", json);
    else
        fmt::print("{}\n", iBad == 0 ? "all well" : fmt::format("{} problem{}", iBad, iBad == 1 ? "" : "s"));
    if (iBad > 0)
        throw UserError("", 1);
}

}  // namespace

void AddDoctorCommand(CLI::App& app, Globals& g)
{
    app.add_subcommand("doctor", "Find out what keeps cameras from working, and how to mend it")->callback([&g] { Tell(g, Examine()); });
}

}  // namespace kovcam

// What keeps cameras from working on this machine, and how to mend it.
#include <fmt/format.h>

#include "KOVCamera2.h"
#include "common/Doctor.h"

#include <windows.h>

#include <setupapi.h>

namespace kovtools {

namespace {

constexpr const wchar_t* HARDWARE_ID = L"VID_0E5A";

using Severity = Finding::Severity;

std::wstring Property(HDEVINFO list, SP_DEVINFO_DATA& data, DWORD dwProperty)
{
    wchar_t sz[512] = {};
    SetupDiGetDeviceRegistryPropertyW(list, &data, dwProperty, nullptr, reinterpret_cast<BYTE*>(sz), sizeof sz - 2, nullptr);
    return sz;
}

// Devices of our vendor that are plugged in; with and without a driver.
void CountDevices(int* with, int* without)
{
    const HDEVINFO list = SetupDiGetClassDevsW(nullptr, L"USB", nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES);
    if (list == INVALID_HANDLE_VALUE)
        return;
    SP_DEVINFO_DATA data{};
    data.cbSize = sizeof data;
    for (DWORD i = 0; SetupDiEnumDeviceInfo(list, i, &data); ++i)
        if (Property(list, data, SPDRP_HARDWAREID).find(HARDWARE_ID) != std::wstring::npos)
            ++(Property(list, data, SPDRP_SERVICE).empty() ? *without : *with);
    SetupDiDestroyDeviceInfoList(list);
}

std::vector<Finding> Look(bool openCameras)
{
    std::vector<Finding> out;
    int with = 0, without = 0;
    CountDevices(&with, &without);
    if (without > 0)
        out.push_back({ Severity::Problem, "driver", fmt::format("{} camera(s) without a driver", without),
                        "install the camera driver: the Device Manager lists them under other devices" });
    if (!openCameras)
        return out;
    const int n = KOVGetNumOfConnectedCameras();
    if (n == 0 && with > 0)
        out.push_back({ Severity::Problem, "driver",
                        fmt::format("{} device(s) of vendor 0E5A have a driver, but not the cameras' one", with),
                        "install the camera driver over it" });
    else if (n == 0 && without == 0)
        out.push_back({ Severity::Problem, "bus", "no camera on the bus: no USB device of vendor 0E5A",
                        "check plug, cable and power of the hub. To try without a camera: kovsim run --camera QuartzCol -- "
                        "kovcam doctor" });
    for (int i = 0; i < n; ++i) {
        KOV_CAMERA_INFO info{};
        if (KOVGetCameraProperty(&info, i) != KOV_SUCCESS) {
            out.push_back({ Severity::Problem, "model", fmt::format("camera {}: a model that this library does not know", i),
                            "update the library" });
            continue;
        }
        if (KOVOpenCamera(i) != KOV_SUCCESS) {
            out.push_back({ Severity::Problem, "open", fmt::format("{} does not open", info.Name),
                            "close other programs that use it; if there are none, unplug it and plug it in again" });
            continue;
        }
        KOVGetCameraProperty(&info, i);
        out.push_back({ Severity::Good, "open", fmt::format("{} opens and answers", info.Name), "" });
        if (info.IsUSB3Camera && !info.IsUSB3Host)
            out.push_back(SlowLink(info.Name));
        KOVCloseCamera(i);
    }
    return out;
}

}  // namespace

std::string DescribeSystem()
{
    int with = 0, without = 0;
    CountDevices(&with, &without);
    return fmt::format("Windows; devices of vendor 0E5A: {} with a driver, {} without\n", with, without);
}

std::vector<Finding> Examine(const Examination& examination) { return Look(examination.openCameras); }

}  // namespace kovtools

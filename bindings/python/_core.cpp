// The C interface as Python functions: one each, errors as exceptions, the interpreter free in every wait. The package
// around it makes the objects that people use.
#include <dlfcn.h>
#include <pybind11/pybind11.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <thread>

#include "KOVCamera2.h"

namespace py = pybind11;

namespace {

// So long a wait goes on before Ctrl-C is looked at.
constexpr int32_t SLICE_MS = 100;

// Enumeration, opening and closing must not overlap.
std::mutex g_life;

template <class Call>
auto Unlocked(Call call)
{
    const py::gil_scoped_release release;
    return call();
}

[[noreturn]] void Raise(KOV_ERROR_CODE code, const std::string& what)
{
    const py::object error = py::module_::import("kovcamera2._errors").attr("make")(static_cast<int>(code), what);
    PyErr_SetObject(reinterpret_cast<PyObject*>(Py_TYPE(error.ptr())), error.ptr());
    throw py::error_already_set();
}

void Check(KOV_ERROR_CODE code, const std::string& what)
{
    if (code != KOV_SUCCESS)
        Raise(code, what);
}

struct Buffer {
    explicit Buffer(const py::buffer& b) : info(b.request(true)) {}
    uint8_t* Data() const { return static_cast<uint8_t*>(info.ptr); }
    int32_t Size() const { return static_cast<int32_t>(std::min<py::ssize_t>(info.size * info.itemsize, INT32_MAX)); }
    py::buffer_info info;
};

int Count()
{
    return Unlocked([] {
        const std::lock_guard lock(g_life);
        return KOVGetNumOfConnectedCameras();
    });
}

py::dict Info(int index)
{
    KOV_CAMERA_INFO info{};
    const KOV_ERROR_CODE code = Unlocked([&] {
        const std::lock_guard lock(g_life);
        return KOVGetCameraProperty(&info, index);
    });
    Check(code, "reading the camera's properties");
    py::list bins, formats;
    for (int i = 0; i < 16 && info.SupportedBins[i] != 0; ++i)
        bins.append(info.SupportedBins[i]);
    for (int i = 0; i < 8 && info.SupportedImgTypes[i] != IMG_END; ++i)
        formats.append(static_cast<int>(info.SupportedImgTypes[i]));
    py::dict d;
    d["index"] = index;
    d["name"] = std::string(info.Name);
    d["width"] = info.MaxWidth;
    d["height"] = info.MaxHeight;
    d["color"] = info.IsColorCam == KOV_TRUE;
    d["bayer"] = static_cast<int>(info.BayerPattern);
    d["bins"] = py::tuple(bins);
    d["formats"] = py::tuple(formats);
    d["pixel_size"] = info.PixelSize;
    d["cooled"] = info.IsCooled == KOV_TRUE;
    d["usb3_camera"] = info.IsUSB3Camera == KOV_TRUE;
    d["usb3_host"] = info.IsUSB3Host == KOV_TRUE;
    d["electrons_per_adu"] = info.ElecPerADU;
    return d;
}

void Open(int id)
{
    const KOV_ERROR_CODE code = Unlocked([&] {
        const std::lock_guard lock(g_life);
        const KOV_ERROR_CODE opened = KOVOpenCamera(id);
        if (opened != KOV_SUCCESS)
            KOVCloseCamera(id);  // what a failed open leaves behind would count as an open camera
        return opened;
    });
    Check(code, "opening the camera");
}

void Close(int id)
{
    Unlocked([&] {
        const std::lock_guard lock(g_life);
        return KOVCloseCamera(id);
    });
}

py::list Controls(int id)
{
    int32_t count = 0;
    Check(KOVGetNumOfControls(id, &count), "reading the controls");
    py::list out;
    for (int32_t i = 0; i < count; ++i) {
        KOV_CONTROL_CAPS caps{};
        Check(Unlocked([&] { return KOVGetControlCaps(id, i, &caps); }), "reading the controls");
        out.append(py::make_tuple(static_cast<int>(caps.ControlType), std::string(caps.Name), std::string(caps.Description),
                                  caps.MinValue, caps.MaxValue, caps.DefaultValue, caps.IsAutoSupported == KOV_TRUE,
                                  caps.IsWritable == KOV_TRUE));
    }
    return out;
}

py::tuple GetControl(int id, int control)
{
    int32_t value = 0;
    KOV_BOOL automatic = KOV_FALSE;
    Check(Unlocked([&] { return KOVGetControlValue(id, static_cast<KOV_CONTROL_TYPE>(control), &value, &automatic); }),
          "reading a control");
    return py::make_tuple(value, automatic == KOV_TRUE);
}

void SetControl(int id, int control, int32_t value, bool automatic)
{
    Check(Unlocked([&] {
              return KOVSetControlValue(id, static_cast<KOV_CONTROL_TYPE>(control), value, automatic ? KOV_TRUE : KOV_FALSE);
          }),
          "setting a control");
}

py::tuple GetFormat(int id)
{
    int32_t width = 0, height = 0, bin = 0, x = 0, y = 0;
    IMG_TYPE type = IMG_RAW8;
    Check(KOVGetROIFormat(id, &width, &height, &bin, &type), "reading the region");
    Check(KOVGetStartPos(id, &x, &y), "reading the region");
    return py::make_tuple(x, y, width, height, bin, static_cast<int>(type));
}

void SetFormat(int id, int32_t width, int32_t height, int32_t bin, int type)
{
    Check(Unlocked([&] { return KOVSetROIFormat(id, width, height, bin, static_cast<IMG_TYPE>(type)); }), "setting the region");
}

void SetStart(int id, int32_t x, int32_t y)
{
    Check(Unlocked([&] { return KOVSetStartPos(id, x, y); }), "setting the region's start");
}

int Dropped(int id)
{
    int32_t count = 0;
    Check(KOVGetDroppedFrames(id, &count), "reading the count of dropped frames");
    return count;
}

// A negative wait has no end. The wait is cut into slices, in which a frame is as good as in a whole one.
void GetFrame(int id, const py::buffer& buffer, int32_t waitMs)
{
    const Buffer b(buffer);
    for (int32_t left = waitMs;;) {
        const int32_t slice = left < 0 ? SLICE_MS : std::min(left, SLICE_MS);
        const KOV_ERROR_CODE code = Unlocked([&] { return KOVGetVideoData(id, b.Data(), b.Size(), slice); });
        if (PyErr_CheckSignals() != 0)
            throw py::error_already_set();
        left -= left < 0 ? 0 : slice;
        if (code == KOV_ERROR_TIMEOUT && left != 0)
            continue;
        return Check(code, "waiting for a frame");
    }
}

int Status(int id)
{
    KOV_EXPOSURE_STATUS status = EXP_IDLE;
    Check(KOVGetExpStatus(id, &status), "asking for the exposure");
    return status;
}

void GetExposed(int id, const py::buffer& buffer)
{
    const Buffer b(buffer);
    Check(Unlocked([&] { return KOVGetDataAfterExp(id, b.Data(), b.Size()); }), "fetching the exposure");
}

// Whether subtraction is on. Without a path it only tells.
bool Dark(int id, const char* path)
{
    KOV_BOOL flag = path != nullptr ? KOV_TRUE : KOV_FALSE;
    Check(Unlocked([&] { return KOVEnableDarkSubtract(id, path != nullptr ? path : "", &flag); }), "switching dark subtraction");
    return flag == KOV_TRUE;
}

py::bytes GetId(int id)
{
    KOV_ID value{};
    Check(Unlocked([&] { return KOVGetID(id, &value); }), "reading the ID");
    return { reinterpret_cast<const char*>(value.id), sizeof value.id };
}

void SetId(int id, const std::string& bytes)
{
    KOV_ID value{};
    std::copy_n(bytes.data(), std::min(bytes.size(), sizeof value.id), value.id);
    Check(Unlocked([&] { return KOVSetID(id, value); }), "storing the ID");
}

// A function of the library that takes a camera and nothing else.
template <KOV_ERROR_CODE (*F)(int32_t)>
void Simple(py::module_& m, const char* szName, const char* szWhat)
{
    m.def(szName, [szWhat](int id) { Check(Unlocked([&] { return F(id); }), szWhat); });
}

template <KOV_ERROR_CODE (*F)(int32_t, KOV_GUIDE_DIRECTION)>
void Pin(py::module_& m, const char* szName)
{
    m.def(szName, [](int id, int pin) {
        Check(Unlocked([&] { return F(id, static_cast<KOV_GUIDE_DIRECTION>(pin)); }), "driving the guide port");
    });
}

std::string LibraryPath()
{
    Dl_info info{};
    return dladdr(reinterpret_cast<const void*>(&KOVOpenCamera), &info) != 0 ? info.dli_fname : "";
}

}  // namespace

PYBIND11_MODULE(_core, m)
{
    m.attr("__version__") = KOV_VERSION;
    m.def("count", Count);
    m.def("info", Info);
    m.def("open", Open);
    m.def("close", Close);
    m.def("controls", Controls);
    m.def("get_control", GetControl);
    m.def("set_control", SetControl);
    m.def("get_format", GetFormat);
    m.def("set_format", SetFormat);
    m.def("set_start", SetStart);
    m.def("dropped", Dropped);
    Simple<KOVStartVideoCapture>(m, "start_video", "starting video");
    Simple<KOVStopVideoCapture>(m, "stop_video", "stopping video");
    m.def("get_frame", GetFrame);
    Simple<KOVStartExposure>(m, "start_exposure", "starting the exposure");
    Simple<KOVStopExposure>(m, "stop_exposure", "stopping the exposure");
    m.def("status", Status);
    m.def("get_exposed", GetExposed);
    m.def("dark", Dark);
    Simple<KOVDisableDarkSubtract>(m, "disable_dark", "switching dark subtraction off");
    m.def("get_id", GetId);
    m.def("set_id", SetId);
    Pin<KOVPulseGuideOn>(m, "guide_on");
    Pin<KOVPulseGuideOff>(m, "guide_off");
    m.def("path_of_library", LibraryPath);
}

#include "kovcam/serve/Alpaca.h"

#include <fmt/format.h>
#include <httplib.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <set>

#include "common/Text.h"
#include "kovcam/serve/Columns.h"
#include "kovcam/serve/Http.h"
#include "kovcam/serve/Parameters.h"

namespace kovserve {

using json = nlohmann::json;
using Steady = std::chrono::steady_clock;

namespace {

// What a client is told with HTTP status 200.
class DeviceError : public std::runtime_error {
public:
    DeviceError(int number, const std::string& text) : std::runtime_error(text), number(number) {}
    int number;
};
constexpr int NOT_IMPLEMENTED = 0x400, INVALID_VALUE = 0x401, NOT_CONNECTED = 0x407, INVALID_OPERATION = 0x40B,
              DRIVER_ERROR = 0x500;

[[noreturn]] void NotImplemented(const std::string& what)
{
    throw DeviceError(NOT_IMPLEMENTED, what + " is not implemented by this camera");
}

enum class Transmission { Byte = 6, UInt16 = 8, Int32 = 2 };

}  // namespace

// What the interface keeps for one camera beside the engine: the values for the next exposure, and the last image.
class AlpacaCamera : public std::enable_shared_from_this<AlpacaCamera> {
public:
    AlpacaCamera(std::shared_ptr<CameraEngine> engine, std::string uniqueId)
        : m_engine(std::move(engine)), m_uniqueId(std::move(uniqueId))
    {
    }

    struct ReadoutMode {
        std::string name;
        IMG_TYPE type;
        std::optional<bool> highSpeed;
    };
    struct Image {
        FramePtr frame;
        std::shared_ptr<const std::string> columns;
        bool ready = false;
        std::string error;
    };

    CameraEngine& Engine() const { return *m_engine; }
    const std::string& UniqueId() const { return m_uniqueId; }

    bool IsConnected(const uint32_t* client) const
    {
        const std::lock_guard lock(m_mutex);
        return client != nullptr ? m_clients.count(*client) != 0 : !m_clients.empty();
    }
    void Connect(uint32_t client, bool on)
    {
        if (on && m_engine->GetState()->controls.empty()) {
            const StatePtr s = m_engine->GetState();
            // A camera that is just being opened gets the time for it.
            for (int i = 0; i < 100 && m_engine->GetState()->controls.empty() && m_engine->GetState()->phase != Phase::Failed;
                 ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            if (m_engine->GetState()->controls.empty())
                throw DeviceError(DRIVER_ERROR, s->problem.empty() ? "the camera does not open" : s->problem);
        }
        const std::lock_guard lock(m_mutex);
        if (on)
            m_clients.insert(client);
        else
            m_clients.erase(client);
    }

    const ControlState& Control(const StatePtr& s, KOV_CONTROL_TYPE type, const char* name) const
    {
        const ControlState* const c = s->Find(type);
        if (c == nullptr)
            NotImplemented(name);
        return *c;
    }

    std::vector<ReadoutMode> Modes() const
    {
        const KOV_CAMERA_INFO info = m_engine->Info();
        const bool fast = m_engine->GetState()->Find(CTRL_HIGH_SPEED_MODE) != nullptr;
        std::vector<ReadoutMode> modes;
        const auto add = [&](const char* name, IMG_TYPE type, std::optional<bool> speed) {
            if (Delivers(info, type))
                modes.push_back({ name, type, speed });
        };
        add("16 bit", IMG_RAW16, fast ? std::optional(false) : std::nullopt);
        if (fast)
            add("16 bit, high speed", IMG_RAW16, true);
        add("8 bit", IMG_RAW8, fast ? std::optional(false) : std::nullopt);
        if (fast)
            add("8 bit, high speed", IMG_RAW8, true);
        if (info.IsColorCam)
            add("Colour, 8 bit", IMG_RGB24, fast ? std::optional(false) : std::nullopt);
        return modes;
    }
    ReadoutMode Mode() const
    {
        const auto modes = Modes();
        const std::lock_guard lock(m_mutex);
        return modes.at(std::min(m_mode, modes.size() - 1));
    }

    void StartExposure(const std::string& who, double seconds, bool light);
    void Abort(const std::string& who)
    {
        if (IsExposing())
            m_engine->Abort(who);
        const std::lock_guard lock(m_mutex);
        m_image = {};
        m_failed.clear();
    }
    bool IsExposing() const
    {
        const std::lock_guard lock(m_mutex);
        return m_exposing;
    }
    Image LastImage() const
    {
        const std::lock_guard lock(m_mutex);
        return { m_image, m_columns, m_image != nullptr, m_failed };
    }
    int CameraState() const
    {
        const Phase phase = m_engine->GetState()->phase;
        const std::lock_guard lock(m_mutex);
        if (phase == Phase::Downloading)
            return 4;
        if (m_exposing || phase == Phase::Exposing)
            return 2;
        return m_failed.empty() ? 0 : 5;
    }
    int PercentCompleted() const
    {
        const StatePtr s = m_engine->GetState();
        const std::lock_guard lock(m_mutex);
        if (!m_exposing)
            throw DeviceError(INVALID_OPERATION, "no exposure runs");
        if (s->phase == Phase::Downloading)
            return 100;
        if (s->phase != Phase::Exposing || s->exposureUs <= 0)
            return 0;
        const double done = std::chrono::duration<double, std::micro>(Steady::now() - s->exposureStart).count();
        return std::clamp(static_cast<int>(100 * done / static_cast<double>(s->exposureUs)), 0, 100);
    }
    std::pair<double, Clock::time_point> LastExposure() const
    {
        const std::lock_guard lock(m_mutex);
        if (!m_lastStart)
            throw DeviceError(INVALID_OPERATION, "no exposure has been taken");
        return { m_lastSeconds, *m_lastStart };
    }

    void SetMode(size_t m)
    {
        const std::lock_guard lock(m_mutex);
        m_mode = m;
    }
    size_t GetMode() const
    {
        const std::lock_guard lock(m_mutex);
        return m_mode;
    }
    // Values for the next exposure, in binned pixels; checked only at its start.
    struct Frame {
        int bin = 1, startX = 0, startY = 0, sizeX = 0, sizeY = 0;
    };
    Frame GetFrame() const
    {
        const KOV_CAMERA_INFO info = m_engine->Info();
        const std::lock_guard lock(m_mutex);
        Frame f = m_frame;
        if (!m_sizeXSet)
            f.sizeX = info.MaxWidth;
        if (!m_sizeYSet)
            f.sizeY = info.MaxHeight;
        return f;
    }
    void Set(int Frame::*field, int value)
    {
        const std::lock_guard lock(m_mutex);
        m_frame.*field = value;
        m_sizeXSet = m_sizeXSet || field == &Frame::sizeX;
        m_sizeYSet = m_sizeYSet || field == &Frame::sizeY;
    }

    static bool Delivers(const KOV_CAMERA_INFO& info, IMG_TYPE type)
    {
        const std::vector<IMG_TYPE> types = kovtools::TypesOf(info);
        return std::find(types.begin(), types.end(), type) != types.end();
    }
    static bool Bins(const KOV_CAMERA_INFO& info, int bin)
    {
        const std::vector<int> bins = kovtools::BinsOf(info);
        return std::find(bins.begin(), bins.end(), bin) != bins.end();
    }

private:
    const std::shared_ptr<CameraEngine> m_engine;
    const std::string m_uniqueId;
    mutable std::mutex m_mutex;
    std::set<uint32_t> m_clients;
    Frame m_frame;
    bool m_sizeXSet = false, m_sizeYSet = false;
    size_t m_mode = 0;
    bool m_exposing = false;
    uint64_t m_exposure = 0;  // tells an aborted one's late end from that of the next
    FramePtr m_image;
    std::shared_ptr<const std::string> m_columns;  // of m_image, made before it is told to be ready
    std::string m_failed;
    double m_lastSeconds = 0;
    std::optional<Clock::time_point> m_lastStart;
};

void AlpacaCamera::StartExposure(const std::string& who, double seconds, bool light)
{
    const StatePtr s = m_engine->GetState();
    const KOV_CAMERA_INFO info = m_engine->Info();
    const ControlState& exposure = Control(s, CTRL_EXPOSURE, "exposure");
    const double us = std::round(seconds * 1e6);
    if (seconds < 0 || us > exposure.max || (light && us < exposure.min))
        throw DeviceError(INVALID_VALUE, fmt::format("Duration {} s is out of range {} to {} s", seconds, exposure.min / 1e6,
                                                     exposure.max / 1e6));
    const Frame f = GetFrame();
    const int width = info.MaxWidth / f.bin, height = info.MaxHeight / f.bin;
    if (f.sizeX < 1 || f.startX < 0 || int64_t{ f.startX } + f.sizeX > width)
        throw DeviceError(INVALID_VALUE, fmt::format("StartX {} and NumX {} do not fit the {} binned pixels of a row", f.startX,
                                                     f.sizeX, width));
    if (f.sizeY < 1 || f.startY < 0 || int64_t{ f.startY } + f.sizeY > height)
        throw DeviceError(INVALID_VALUE,
                          fmt::format("StartY {} and NumY {} do not fit the {} binned rows", f.startY, f.sizeY, height));
    const ReadoutMode readout = Mode();
    ExposureRequest request;
    request.us = static_cast<int64_t>(std::max<double>(us, exposure.min));
    request.region = { f.startX, f.startY, f.sizeX, f.sizeY, f.bin };
    request.type = readout.type;
    request.highSpeed = readout.highSpeed;
    request.exact = true;
    uint64_t number = 0;
    {
        const std::lock_guard lock(m_mutex);
        if (m_exposing)
            throw DeviceError(INVALID_OPERATION, "an exposure runs already");
        number = ++m_exposure;
        m_exposing = true;
        m_image.reset();
        m_failed.clear();
    }
    // The end may come when nobody asks for this camera any more.
    request.taken = [self = shared_from_this(), number](const FramePtr& frame, int) {
        auto columns = std::make_shared<const std::string>(Columns(*frame, false));
        const std::lock_guard lock(self->m_mutex);
        if (number != self->m_exposure)
            return;
        self->m_image = frame;
        self->m_columns = std::move(columns);
        self->m_lastSeconds = frame->exposure;
        self->m_lastStart = frame->start;
    };
    request.ended = [self = shared_from_this(), number](const std::string& error) {
        const std::lock_guard lock(self->m_mutex);
        if (number != self->m_exposure)
            return;
        self->m_exposing = false;
        if (!error.empty()) {
            self->m_image.reset();
            self->m_failed = error == "aborted" ? "" : error;
        }
    };
    try {
        m_engine->StartExposure(who, std::move(request));
    } catch (const CommandError& e) {
        const std::lock_guard lock(m_mutex);
        m_exposing = false;
        throw DeviceError(INVALID_OPERATION, e.what());
    }
}

namespace {

// ---- the table of the camera's commands

struct Call {
    AlpacaCamera& camera;
    const Parameters& parameters;
    StatePtr state;
    KOV_CAMERA_INFO info;
    std::string who;
    const uint32_t* client;
};
using Handler = json (*)(const Call&);
struct Command {
    const char* name;
    Handler get, put;
    bool connected = true;
};

json None(const Call&) { return nullptr; }

int32_t InRange(const char* name, int32_t value, int32_t min, int32_t max)
{
    if (value < min || value > max)
        throw DeviceError(INVALID_VALUE, fmt::format("{} {} is out of range {} to {}", name, value, min, max));
    return value;
}

const ControlState& ControlOf(const Call& c, KOV_CONTROL_TYPE type, const char* name)
{
    return c.camera.Control(c.state, type, name);
}

json SetBin(const Call& c, const char* name)
{
    const int32_t bin = c.parameters.Integer(name);
    if (!AlpacaCamera::Bins(c.info, bin))
        throw DeviceError(INVALID_VALUE, fmt::format("{} {}: this camera does not bin so", name, bin));
    c.camera.Set(&AlpacaCamera::Frame::bin, bin);  // both directions together
    return nullptr;
}

json SetField(const Call& c, const char* name, int AlpacaCamera::Frame::*field)
{
    c.camera.Set(field, c.parameters.Integer(name));
    return nullptr;
}

json SetControl(const Call& c, const char* name, KOV_CONTROL_TYPE type)
{
    const int32_t value = c.parameters.Integer(name);
    const ControlState& control = ControlOf(c, type, name);
    InRange(name, value, control.min, control.max);
    c.camera.Engine().SetControl(c.who, type, value, false);
    return nullptr;
}

int MaxBin(const Call& c)
{
    const std::vector<int> bins = kovtools::BinsOf(c.info);
    return *std::max_element(bins.begin(), bins.end());
}

bool IsColourMode(const Call& c) { return c.camera.Mode().type == IMG_RGB24; }

json BayerOffset(const Call& c, bool y)
{
    if (!c.info.IsColorCam)
        NotImplemented("a Bayer offset");
    if (IsColourMode(c))
        return 0;
    // Of the sensor's first pixel; exposures are taken unflipped.
    const auto& cell = kovtools::CellColours(c.info.BayerPattern);
    const auto red = std::find(cell.begin(), cell.end(), 0) - cell.begin();
    return y ? red / 2 : red % 2;
}

// For an exposure with the values that are set now.
double ElectronsPerAdu(const Call& c)
{
    kovtools::CameraState next = c.camera.Engine().Settings();
    next.type = c.camera.Mode().type;
    next.bin = c.camera.GetFrame().bin;
    const std::optional<double> electrons = kovtools::ElectronsPerSample(next);
    if (!electrons)
        NotImplemented("the conversion factor");
    return *electrons;
}

json Temperature(const Call& c)
{
    ControlOf(c, CTRL_TEMPERATURE, "a temperature");
    if (!c.state->temperature)
        throw DeviceError(INVALID_OPERATION, "the temperature is not known before the camera has been open for a second");
    return *c.state->temperature;
}

void RequireCooler(const Call& c)
{
    if (!c.info.IsCooled)
        NotImplemented("cooling");
}

json RawCommand(const Call& c)
{
    c.parameters.Text("Command");
    c.parameters.Bool("Raw");
    NotImplemented("a raw command");
}

const Command COMMANDS[] = {
    // common to all devices
    { "connected", [](const Call& c) -> json { return c.camera.IsConnected(c.client); },
      [](const Call& c) -> json {
          c.camera.Connect(c.client ? *c.client : 0, c.parameters.Bool("Connected"));
          return nullptr;
      },
      false },
    { "description", [](const Call& c) -> json { return c.camera.Engine().Key() + " USB camera"; }, nullptr, false },
    { "driverinfo", [](const Call&) -> json { return "KOVCamera2: kovcam serve, " KOV_VERSION; }, nullptr, false },
    { "driverversion",
      [](const Call&) -> json {
          const std::string v = KOV_VERSION;
          return v.substr(0, v.find('.', v.find('.') + 1));
      },
      nullptr, false },
    { "interfaceversion", [](const Call&) -> json { return 3; }, nullptr, false },
    { "name", [](const Call& c) -> json { return c.camera.Engine().Key(); }, nullptr, false },
    { "supportedactions", [](const Call&) -> json { return json::array(); }, nullptr, false },
    { "action", nullptr,
      [](const Call& c) -> json {
          c.parameters.Text("Action");
          c.parameters.Text("Parameters");
          NotImplemented("an action");
      } },
    { "commandblind", nullptr, RawCommand },
    { "commandbool", nullptr, RawCommand },
    { "commandstring", nullptr, RawCommand },

    // sensor
    { "cameraxsize", [](const Call& c) -> json { return c.info.MaxWidth; }, nullptr },
    { "cameraysize", [](const Call& c) -> json { return c.info.MaxHeight; }, nullptr },
    { "pixelsizex", [](const Call& c) -> json { return c.info.PixelSize; }, nullptr },
    { "pixelsizey", [](const Call& c) -> json { return c.info.PixelSize; }, nullptr },
    { "maxadu", [](const Call& c) -> json { return c.camera.Mode().type == IMG_RAW16 ? 65535 : 255; }, nullptr },
    { "maxbinx", [](const Call& c) -> json { return MaxBin(c); }, nullptr },
    { "maxbiny", [](const Call& c) -> json { return MaxBin(c); }, nullptr },
    { "sensorname", [](const Call&) -> json { return ""; }, nullptr },
    { "sensortype", [](const Call& c) -> json { return !c.info.IsColorCam ? 0
                                                       : IsColourMode(c)  ? 1
                                                                          : 2; }, nullptr },
    { "bayeroffsetx", [](const Call& c) -> json { return BayerOffset(c, false); }, nullptr },
    { "bayeroffsety", [](const Call& c) -> json { return BayerOffset(c, true); }, nullptr },
    { "electronsperadu", [](const Call& c) -> json { return ElectronsPerAdu(c); }, nullptr },
    { "fullwellcapacity",
      [](const Call& c) -> json { return ElectronsPerAdu(c) * (c.camera.Mode().type == IMG_RAW16 ? 65535 : 255); }, nullptr },
    { "exposuremin", [](const Call& c) -> json { return std::max(1, ControlOf(c, CTRL_EXPOSURE, "exposure").min) / 1e6; },
      nullptr },
    { "exposuremax", [](const Call& c) -> json { return ControlOf(c, CTRL_EXPOSURE, "exposure").max / 1e6; }, nullptr },
    { "exposureresolution", [](const Call&) -> json { return 1e-6; }, nullptr },
    { "hasshutter", [](const Call&) -> json { return false; }, nullptr },
    { "canabortexposure", [](const Call&) -> json { return true; }, nullptr },
    { "canstopexposure", [](const Call&) -> json { return false; }, nullptr },
    { "canasymmetricbin", [](const Call&) -> json { return false; }, nullptr },
    { "canfastreadout", [](const Call&) -> json { return false; }, nullptr },
    { "cangetcoolerpower", [](const Call& c) -> json { return c.info.IsCooled != KOV_FALSE; }, nullptr },
    { "canpulseguide", [](const Call& c) -> json { return c.info.HasGuidePort != KOV_FALSE; }, nullptr },
    { "cansetccdtemperature", [](const Call& c) -> json { return c.info.IsCooled != KOV_FALSE; }, nullptr },

    // binning and sub-frame
    { "binx", [](const Call& c) -> json { return c.camera.GetFrame().bin; },
      [](const Call& c) -> json { return SetBin(c, "BinX"); } },
    { "biny", [](const Call& c) -> json { return c.camera.GetFrame().bin; },
      [](const Call& c) -> json { return SetBin(c, "BinY"); } },
    { "numx", [](const Call& c) -> json { return c.camera.GetFrame().sizeX; },
      [](const Call& c) -> json { return SetField(c, "NumX", &AlpacaCamera::Frame::sizeX); } },
    { "numy", [](const Call& c) -> json { return c.camera.GetFrame().sizeY; },
      [](const Call& c) -> json { return SetField(c, "NumY", &AlpacaCamera::Frame::sizeY); } },
    { "startx", [](const Call& c) -> json { return c.camera.GetFrame().startX; },
      [](const Call& c) -> json { return SetField(c, "StartX", &AlpacaCamera::Frame::startX); } },
    { "starty", [](const Call& c) -> json { return c.camera.GetFrame().startY; },
      [](const Call& c) -> json { return SetField(c, "StartY", &AlpacaCamera::Frame::startY); } },

    // gain, offset, modes
    { "gain", [](const Call& c) -> json { return ControlOf(c, CTRL_GAIN, "gain").value; },
      [](const Call& c) -> json { return SetControl(c, "Gain", CTRL_GAIN); } },
    { "gainmin", [](const Call& c) -> json { return ControlOf(c, CTRL_GAIN, "gain").min; }, nullptr },
    { "gainmax", [](const Call& c) -> json { return ControlOf(c, CTRL_GAIN, "gain").max; }, nullptr },
    { "gains", [](const Call&) -> json { NotImplemented("a list of gains (gain is a value)"); }, nullptr },
    { "offset", [](const Call& c) -> json { return ControlOf(c, CTRL_BRIGHTNESS, "offset").value; },
      [](const Call& c) -> json { return SetControl(c, "Offset", CTRL_BRIGHTNESS); } },
    { "offsetmin", [](const Call& c) -> json { return ControlOf(c, CTRL_BRIGHTNESS, "offset").min; }, nullptr },
    { "offsetmax", [](const Call& c) -> json { return ControlOf(c, CTRL_BRIGHTNESS, "offset").max; }, nullptr },
    { "offsets", [](const Call&) -> json { NotImplemented("a list of offsets (offset is a value)"); }, nullptr },
    { "readoutmodes",
      [](const Call& c) -> json {
          json names = json::array();
          for (const auto& m : c.camera.Modes())
              names.push_back(m.name);
          return names;
      },
      nullptr },
    { "readoutmode", [](const Call& c) -> json { return c.camera.GetMode(); },
      [](const Call& c) -> json {
          const auto last = static_cast<int32_t>(c.camera.Modes().size()) - 1;
          c.camera.SetMode(static_cast<size_t>(InRange("ReadoutMode", c.parameters.Integer("ReadoutMode"), 0, last)));
          return nullptr;
      } },
    { "fastreadout", [](const Call&) -> json { NotImplemented("fast readout (readout modes are)"); },
      [](const Call& c) -> json {
          c.parameters.Bool("FastReadout");
          NotImplemented("fast readout (readout modes are)");
      } },
    { "subexposureduration", [](const Call&) -> json { NotImplemented("stacking in the camera"); },
      [](const Call& c) -> json {
          c.parameters.Number("SubExposureDuration");
          NotImplemented("stacking in the camera");
      } },

    // cooling
    { "ccdtemperature", Temperature, nullptr },
    { "heatsinktemperature", [](const Call&) -> json { NotImplemented("the heat sink's temperature"); }, nullptr },
    { "setccdtemperature",
      [](const Call& c) -> json {
          RequireCooler(c);
          return ControlOf(c, CTRL_TARGET_TEMP, "cooling").value;
      },
      [](const Call& c) -> json {
          const double target = c.parameters.Number("SetCCDTemperature");
          RequireCooler(c);
          const ControlState& control = ControlOf(c, CTRL_TARGET_TEMP, "cooling");
          if (target < control.min || target > control.max)
              throw DeviceError(INVALID_VALUE,
                                fmt::format("SetCCDTemperature {} is out of range {} to {}", target, control.min, control.max));
          c.camera.Engine().SetControl(c.who, CTRL_TARGET_TEMP, static_cast<int32_t>(std::lround(target)), false);
          return nullptr;
      } },
    { "cooleron",
      [](const Call& c) -> json {
          RequireCooler(c);
          return c.state->coolerOn;
      },
      [](const Call& c) -> json {
          const bool on = c.parameters.Bool("CoolerOn");
          RequireCooler(c);
          c.camera.Engine().SetControl(c.who, CTRL_COOLER_ON, on ? 1 : 0, false);
          return nullptr;
      } },
    { "coolerpower",
      [](const Call& c) -> json {
          RequireCooler(c);
          return c.state->coolerOn ? c.state->coolerPower.value_or(0) : 0.0;
      },
      nullptr },

    // exposures
    { "camerastate", [](const Call& c) -> json { return c.camera.CameraState(); }, nullptr },
    { "imageready", [](const Call& c) -> json { return c.camera.LastImage().ready && !c.camera.IsExposing(); }, nullptr },
    { "percentcompleted", [](const Call& c) -> json { return c.camera.PercentCompleted(); }, nullptr },
    { "lastexposureduration", [](const Call& c) -> json { return c.camera.LastExposure().first; }, nullptr },
    { "lastexposurestarttime", [](const Call& c) -> json { return kovtools::UtcText(c.camera.LastExposure().second); }, nullptr },
    { "startexposure", nullptr,
      [](const Call& c) -> json {
          const double seconds = c.parameters.Number("Duration");
          c.camera.StartExposure(c.who, seconds, c.parameters.Bool("Light"));
          return nullptr;
      } },
    { "stopexposure", nullptr, [](const Call&) -> json { NotImplemented("stopping with a readout (aborting is)"); } },
    { "abortexposure", nullptr,
      [](const Call& c) -> json {
          c.camera.Abort(c.who);
          return nullptr;
      } },
    { "ispulseguiding", [](const Call& c) -> json { return c.camera.Engine().IsPulseGuiding(); }, nullptr },
    { "pulseguide", nullptr,
      [](const Call& c) -> json {
          const int32_t direction = c.parameters.Integer("Direction"), ms = c.parameters.Integer("Duration");
          InRange("Direction", direction, 0, 3);
          InRange("Duration", ms, 0, 600000);
          c.camera.Engine().PulseGuide(c.who, static_cast<KOV_GUIDE_DIRECTION>(direction), std::chrono::milliseconds(ms));
          return nullptr;
      } },
    { "imagearray", None, nullptr },
    { "imagearrayvariant", None, nullptr },
};

const Command* FindCommand(const std::string& name)
{
    const auto it = std::find_if(std::begin(COMMANDS), std::end(COMMANDS), [&](const Command& c) { return name == c.name; });
    return it == std::end(COMMANDS) ? nullptr : &*it;
}

// ---- images

struct Header {
    int32_t version = 1, error = 0;
    uint32_t client = 0, server = 0;
    int32_t dataStart = 44, element = 0, transmission = 0, rank = 0, size1 = 0, size2 = 0, size3 = 0;
};
static_assert(sizeof(Header) == 44);

std::string ImageBytesError(uint32_t client, uint32_t server, int number, const std::string& text)
{
    const Header h{ .error = number, .client = client, .server = server };
    std::string out(reinterpret_cast<const char*>(&h), sizeof(h));
    return out + text;
}

// Header and samples, without another copy of the samples.
void SendImageBytes(httplib::Response& response, const AlpacaCamera::Image& image, uint32_t client, uint32_t server, bool wide)
{
    const Frame& f = *image.frame;
    Header h{ .client = client,
              .server = server,
              .element = 2,
              .rank = f.type == IMG_RGB24 ? 3 : 2,
              .size1 = f.width,
              .size2 = f.height,
              .size3 = f.type == IMG_RGB24 ? 3 : 0 };
    h.transmission = static_cast<int32_t>(wide                  ? Transmission::Int32
                                          : f.type == IMG_RAW16 ? Transmission::UInt16
                                                                : Transmission::Byte);
    const std::string head(reinterpret_cast<const char*>(&h), sizeof(h));
    const auto columns = wide ? std::make_shared<const std::string>(Columns(f, true)) : image.columns;
    response.set_content_provider(head.size() + columns->size(), "application/imagebytes",
                                  [head, columns](size_t offset, size_t, httplib::DataSink& sink) {
                                      if (offset < head.size())
                                          return sink.write(head.data() + offset, head.size() - offset);
                                      const size_t at = offset - head.size();
                                      return sink.write(columns->data() + at, std::min<size_t>(columns->size() - at, 1 << 20));
                                  });
}

// As text it is some 80 MB for 16 megapixels: sent column by column.
void SendJsonImage(httplib::Response& response, const FramePtr& frame, uint32_t client, uint32_t server)
{
    auto column = std::make_shared<int>(-1);
    response.set_chunked_content_provider("application/json", [=](size_t, httplib::DataSink& sink) {
        std::string text;
        if (*column < 0) {
            text = fmt::format("{{\"Type\":2,\"Rank\":{},\"Value\":[", frame->type == IMG_RGB24 ? 3 : 2);
            *column = 0;
        }
        for (; *column < frame->width && text.size() < 262144; ++*column) {
            if (*column != 0)
                text += ',';
            AppendColumn(*frame, *column, text);
        }
        const bool over = *column >= frame->width;
        if (over)
            text +=
                fmt::format("],\"ClientTransactionID\":{},\"ServerTransactionID\":{},\"ErrorNumber\":0,\"ErrorMessage\":\"\"}}",
                            client, server);
        if (!sink.write(text.data(), text.size()))
            return false;
        if (over)
            sink.done();
        return true;
    });
}

void SendJson(httplib::Response& response, json value, bool hasValue, uint32_t client, uint32_t server, int error,
              const std::string& text)
{
    json out{
        { "ClientTransactionID", client }, { "ServerTransactionID", server }, { "ErrorNumber", error }, { "ErrorMessage", text }
    };
    if (hasValue && error == 0)
        out["Value"] = std::move(value);
    response.set_content(out.dump(), "application/json");
}

}  // namespace

Alpaca::Alpaca(Observatory& observatory, const std::filesystem::path& folder, std::string version)
    : m_observatory(observatory), m_file(folder / "alpaca.json"), m_version(std::move(version))
{
    std::ifstream in(m_file);
    const json kept = json::parse(in, nullptr, false);
    if (kept.is_object())
        for (const auto& [key, id] : kept.items())
            if (id.is_string())
                m_ids[key] = id.get<std::string>();
}

Alpaca::~Alpaca() = default;

std::string Alpaca::UniqueId(const std::string& key)
{
    std::string& id = m_ids[key];
    if (!id.empty())
        return id;
    std::random_device random;
    id = fmt::format("{:08x}-{:04x}-4{:03x}-{:04x}-{:08x}{:04x}", random(), random() & 0xFFFF, random() & 0xFFF,
                     (random() & 0x3FFF) | 0x8000, random(), random() & 0xFFFF);
    std::error_code ec;
    std::filesystem::create_directories(m_file.parent_path(), ec);
    const std::filesystem::path beside = m_file.string() + ".new";
    std::ofstream(beside) << json(m_ids).dump(1) << '\n';
    std::filesystem::rename(beside, m_file, ec);
    return id;
}

std::shared_ptr<AlpacaCamera> Alpaca::Find(const std::string& number)
{
    size_t index = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), index);
    const std::lock_guard lock(m_mutex);
    for (const auto engines = m_observatory.Cameras(); m_cameras.size() < engines.size();) {
        const auto& engine = engines[m_cameras.size()];
        m_cameras.push_back(std::make_shared<AlpacaCamera>(engine, UniqueId(engine->Key())));
    }
    if (error != std::errc() || end != number.data() + number.size() || index >= m_cameras.size())
        return nullptr;
    return m_cameras[index];
}

void Alpaca::Device(const httplib::Request& request, httplib::Response& response, bool put)
{
    const Parameters parameters = put ? Parameters::OfForm(request.body) : Parameters::OfQuery(request.params);
    bool hasClient = false, hasTransaction = false;
    const uint32_t client = parameters.Id("ClientID", &hasClient);
    const uint32_t transaction = parameters.Id("ClientTransactionID", &hasTransaction);
    const auto camera = Find(request.matches[1]);
    if (!camera)
        throw BadRequest(fmt::format("there is no camera {}", std::string(request.matches[1])));
    const Command* const command = FindCommand(request.matches[2]);
    if (command == nullptr)
        throw BadRequest(fmt::format("a camera has no command '{}' (names are lower case)", std::string(request.matches[2])));
    const Handler handler = put ? command->put : command->get;
    if (handler == nullptr)
        throw BadRequest(fmt::format("'{}' is {}", command->name, put ? "read only: use GET" : "an action: use PUT"));
    const uint32_t server = ++m_transaction;
    const bool image = handler == static_cast<Handler>(None);
    const bool bytes = image && request.get_header_value("Accept").find("application/imagebytes") != std::string::npos;
    int error = 0;
    std::string text;
    json value;
    try {
        if (command->connected && !camera->IsConnected(nullptr))
            throw DeviceError(NOT_CONNECTED, "the camera is not connected: PUT connected first");
        const StatePtr state = camera->Engine().GetState();
        if (command->connected && state->controls.empty())
            throw DeviceError(NOT_CONNECTED, state->problem.empty() ? "the camera is not open" : state->problem);
        const Call call{ *camera,
                         parameters,
                         state,
                         camera->Engine().Info(),
                         fmt::format("Alpaca client {}", client),
                         hasClient ? &client : nullptr };
        value = handler(call);
        if (image) {
            const AlpacaCamera::Image last = camera->LastImage();
            if (!last.ready || camera->IsExposing())
                throw DeviceError(last.error.empty() ? INVALID_OPERATION : DRIVER_ERROR,
                                  last.error.empty() ? "no image is ready" : last.error);
            if (bytes)
                SendImageBytes(response, last, transaction, server, command->name == std::string("imagearrayvariant"));
            else
                SendJsonImage(response, last.frame, transaction, server);
            return;
        }
    } catch (const DeviceError& e) {
        error = e.number;
        text = e.what();
    } catch (const CommandError& e) {
        error = DRIVER_ERROR;
        text = e.what();
    }
    if (bytes)
        response.set_content(ImageBytesError(transaction, server, error, text), "application/imagebytes");
    else
        SendJson(response, std::move(value), !put, transaction, server, error, text);
}

void Alpaca::Management(const httplib::Request& request, httplib::Response& response)
{
    const Parameters parameters = Parameters::OfQuery(request.params);
    bool present = false;
    parameters.Id("ClientID", &present);
    const uint32_t transaction = parameters.Id("ClientTransactionID", &present);
    json value;
    if (request.path == "/management/apiversions") {
        value = json::array({ 1 });
    } else if (request.path == "/management/v1/description") {
        value = { { "ServerName", "kovcam serve" },
                  { "Manufacturer", "KOVCamera2" },
                  { "ManufacturerVersion", m_version },
                  { "Location", HostName() } };
    } else {
        value = json::array();
        Find("0");
        const std::lock_guard lock(m_mutex);
        for (size_t i = 0; i < m_cameras.size(); ++i)
            value.push_back({ { "DeviceName", m_cameras[i]->Engine().Key() },
                              { "DeviceType", "Camera" },
                              { "DeviceNumber", i },
                              { "UniqueID", m_cameras[i]->UniqueId() } });
    }
    SendJson(response, std::move(value), true, transaction, ++m_transaction, 0, "");
}

void Alpaca::AddRoutes(httplib::Server& server)
{
    static const char* const device = R"(/api/v1/camera/(\d+)/([^/]+))";
    server.Get(device, [this](const httplib::Request& q, httplib::Response& r) { Device(q, r, false); });
    server.Put(device, [this](const httplib::Request& q, httplib::Response& r) { Device(q, r, true); });
    for (const char* path : { "/management/apiversions", "/management/v1/description", "/management/v1/configureddevices" })
        server.Get(path, [this](const httplib::Request& q, httplib::Response& r) { Management(q, r); });
    server.Get("/setup", [this](const httplib::Request&, httplib::Response& r) {
        r.set_content(
            fmt::format(
                "<!doctype html><html lang=en><meta charset=utf-8><title>kovcam serve</title><h1>KOVCamera2: kovcam serve {}</h1>"
                "<p>The port and the discovery port are options of <code>kovcam serve</code>. The cameras are set on <a "
                "href=\"/\">their page</a>.",
                m_version),
            "text/html");
    });
    server.Get(R"(/setup/v1/camera/(\d+)/setup)", [this](const httplib::Request& q, httplib::Response& r) {
        if (Find(q.matches[1]) == nullptr) {
            r.status = 403;
            r.set_content("<!doctype html><title>no such camera</title><p>There is no such camera.", "text/html");
            return;
        }
        r.set_redirect("/#camera=" + std::string(q.matches[1]));
    });
}

}  // namespace kovserve

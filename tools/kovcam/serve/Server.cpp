#include "kovcam/serve/Server.h"

#include <fmt/format.h>
#include <httplib.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>

#include "common/Doctor.h"
#include "common/Text.h"
#include "kovcam/serve/Alpaca.h"
#include "kovcam/serve/Captures.h"
#include "kovcam/serve/Connections.h"
#include "kovcam/serve/Http.h"
#include "kovcam/serve/Measure.h"
#include "kovcam/serve/Observatory.h"
#include "kovcam/serve/Page.h"  // made by CMake from page/

namespace kovserve {

using namespace std::chrono_literals;
using json = nlohmann::json;

namespace {

constexpr int STREAMS = 48;                   // endless answers at once: the rest is left for commands
constexpr size_t BODY = size_t{ 64 } * 1024;  // bytes of a request
constexpr int CONFLICT = 409;                 // understood, and refused by the camera
constexpr auto PICTURE_PATIENCE = 5s;

double ToNumber(const std::string& text, const char* name)
{
    double value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || !std::isfinite(value))
        throw BadRequest(fmt::format("{}: '{}' is no number", name, text));
    return value;
}

double Query(const httplib::Request& q, const char* name, double standard)
{
    return q.has_param(name) ? ToNumber(q.get_param_value(name), name) : standard;
}

// A field of a command's JSON. Every kind of wrong value gives 400 with the field's name.
template <class T>
T Field(const json& body, const char* name)
{
    const auto it = body.find(name);
    if (it == body.end())
        throw BadRequest(fmt::format("\"{}\" is missing", name));
    if constexpr (std::is_same_v<T, bool>) {
        if (!it->is_boolean())
            throw BadRequest(fmt::format("\"{}\" has to be true or false", name));
    } else if constexpr (std::is_same_v<T, std::string>) {
        if (!it->is_string())
            throw BadRequest(fmt::format("\"{}\" has to be text", name));
    } else {
        const double v = it->is_number() ? it->get<double>() : NAN;
        if (!std::isfinite(v) || std::abs(v) > 2147483647.0)
            throw BadRequest(fmt::format("\"{}\" has to be a number", name));
    }
    return it->get<T>();
}
template <class T>
T Field(const json& body, const char* name, T standard)
{
    return body.contains(name) ? Field<T>(body, name) : standard;
}

IMG_TYPE TypeOf(const std::string& name)
{
    for (const IMG_TYPE type : { IMG_RAW8, IMG_RGB24, IMG_RAW16, IMG_Y8 })
        if (name == kovtools::TypeName(type))
            return type;
    throw BadRequest(fmt::format("unknown format '{}'; formats are raw8, rgb24, raw16 and y8", name));
}

json Describe(const CameraEngine& camera, size_t index)
{
    const KOV_CAMERA_INFO info = camera.Info();
    const StatePtr s = camera.GetState();
    json j{ { "index", index }, { "name", camera.Key() }, { "phase", NameOf(s->phase) }, { "problem", s->problem } };
    if (info.MaxWidth > 0) {
        json types = json::array();
        for (const IMG_TYPE t : kovtools::TypesOf(info))
            types.push_back(kovtools::TypeName(t));
        j["sensor"] = { { "width", info.MaxWidth },
                        { "height", info.MaxHeight },
                        { "pixelSize", info.PixelSize },
                        { "colour", info.IsColorCam != KOV_FALSE },
                        { "cooled", info.IsCooled != KOV_FALSE },
                        { "usb3", info.IsUSB3Host != KOV_FALSE },
                        { "bins", kovtools::BinsOf(info) },
                        { "formats", types } };
    }
    return j;
}

json Describe(const State& s)
{
    json controls = json::array();
    for (const ControlState& c : s.controls)
        controls.push_back({ { "type", c.type },
                             { "name", c.name },
                             { "description", c.description },
                             { "value", c.value },
                             { "min", c.min },
                             { "max", c.max },
                             { "default", c.standard },
                             { "auto", c.automatic },
                             { "canBeAuto", c.canBeAutomatic },
                             { "writable", c.writable } });
    json j{ { "phase", NameOf(s.phase) },
            { "problem", s.problem },
            { "controls", controls },
            { "format", kovtools::TypeName(s.type) },
            { "region",
              { { "x", s.region.x },
                { "y", s.region.y },
                { "width", s.region.width },
                { "height", s.region.height },
                { "bin", s.region.bin } } },
            { "framesPerSecond", s.framesPerSecond },
            { "dropped", s.dropped },
            { "dark", s.darkInUse },
            { "darkName", s.darkName },
            { "collecting", s.darkFrames > 0 ? json{ { "done", s.darkDone }, { "frames", s.darkFrames } } : json() },
            { "hotPixelsOn", s.hotPixelsOn },
            { "hotPixels", s.hotPixels },
            { "recording", s.recording },
            { "recordedFrames", s.recordedFrames },
            { "recordedBytes", s.recordedBytes },
            { "recordingLost", s.recordingLost },
            { "recordingName", std::filesystem::path(s.recordingPath).filename().string() },
            { "coolerOn", s.coolerOn } };
    if (s.temperature)
        j["temperature"] = *s.temperature;
    if (s.coolerPower)
        j["coolerPower"] = *s.coolerPower;
    if (s.shots > 0)
        j["exposure"] = { { "seconds", static_cast<double>(s.exposureUs) / 1e6 },
                          { "shot", s.shot },
                          { "shots", s.shots },
                          { "elapsed",
                            std::chrono::duration<double>(std::chrono::steady_clock::now() - s.exposureStart).count() } };
    return j;
}

json Describe(const Statistics& s, IMG_TYPE type)
{
    json channels = json::array(), stars = json::array();
    for (size_t c = 0; c < static_cast<size_t>(s.channels); ++c)
        channels.push_back({ { "median", s.channel[c].median }, { "histogram", s.channel[c].histogram } });
    for (size_t i = 0; i < std::min<size_t>(s.field.stars.size(), 200); ++i) {
        const kovtools::Star& star = s.field.stars[i];
        stars.push_back({ { "x", star.x },
                          { "y", star.y },
                          { "hfr", star.hfr },
                          { "flux", star.flux },
                          { "peak", star.peak },
                          { "saturated", star.saturated } });
    }
    return { { "frame", s.sequence },
             { "scale", kovtools::TopSample(type) },
             { "min", s.all.min },
             { "max", s.all.max },
             { "mean", s.all.mean },
             { "median", s.all.median },
             { "deviation", s.all.deviation },
             { "saturated", s.all.saturated },
             { "channels", channels },
             { "stars", stars },
             { "starCount", s.field.stars.size() },
             { "hfr", s.field.hfr > 0 ? json(s.field.hfr) : json() } };
}

json Describe(const std::vector<JournalEntry>& journal, uint64_t after)
{
    json out = json::array();
    for (const JournalEntry& e : journal)
        if (e.number > after)
            out.push_back({ { "number", e.number },
                            { "time", kovtools::UtcText(e.when) },
                            { "who", e.who },
                            { "what", e.what },
                            { "result", e.result } });
    return out;
}

// The checks of `kovcam doctor` that leave the cameras alone; the server holds them itself.
json Doctor()
{
    json out = json::array();
    for (const kovtools::Finding& f : kovtools::Examine({ .openCameras = false }))
        out.push_back({ { "state", kovtools::SeverityText(f.severity) }, { "text", f.text }, { "command", f.command } });
    return out;
}

// Pictures of the newest frames that have been made already: viewers of the same part share one.
class PictureCache {
public:
    std::shared_ptr<const std::string> Get(const CameraEngine& camera, const FramePtr& frame, const View& view)
    {
        const Key key{ &camera, frame->sequence, view };
        std::shared_ptr<Entry> entry;
        {
            const std::lock_guard lock(m_mutex);
            std::erase_if(m_entries,
                          [&](const auto& e) { return e.first.camera == &camera && e.first.sequence + 2 < frame->sequence; });
            std::shared_ptr<Entry>& slot = m_entries[key];
            if (!slot)
                slot = std::make_shared<Entry>();
            entry = slot;
        }
        std::call_once(entry->made, [&] {
            const StatisticsPtr statistics = camera.NewestStatistics();
            entry->jpeg = std::make_shared<std::string>(Jpeg(Render(*frame, statistics.get(), view), view.quality));
        });
        return entry->jpeg;
    }

private:
    struct Key {
        const CameraEngine* camera;
        uint64_t sequence;
        View view;
        bool operator<(const Key& o) const
        {
            return camera != o.camera ? camera < o.camera : sequence != o.sequence ? sequence < o.sequence : view < o.view;
        }
    };
    struct Entry {
        std::once_flag made;
        std::shared_ptr<const std::string> jpeg;
    };
    std::mutex m_mutex;
    std::map<Key, std::shared_ptr<Entry>> m_entries;
};

View ViewOf(const httplib::Request& q)
{
    View v;
    v.x = Query(q, "x", 0);
    v.y = Query(q, "y", 0);
    v.width = Query(q, "w", 0);
    v.height = Query(q, "h", 0);
    v.outWidth = static_cast<int>(std::clamp(Query(q, "out", 1280), 16.0, 8192.0));
    v.quality = static_cast<int>(std::clamp(Query(q, "quality", 80), 10.0, 98.0));
    const std::string stretch = q.has_param("stretch") ? q.get_param_value("stretch") : "auto";
    if (stretch == "auto")
        return v;
    std::istringstream in(stretch);
    std::string part;
    double* const fields[] = { &v.black, &v.white, &v.middle };
    for (double* field : fields) {
        if (!std::getline(in, part, ','))
            throw BadRequest("stretch is 'auto' or three numbers from 0 to 1: black,white,middle");
        *field = std::clamp(ToNumber(part, "stretch"), 0.0, 1.0);
    }
    v.middle = std::clamp(v.middle, 0.001, 0.999);
    v.automatic = false;
    return v;
}

class Site {
public:
    Site(const ServerOptions& options, const std::function<bool()>& stop)
        : m_options(options), m_stop(stop), m_captures(options.folder), m_alpaca(m_observatory, SettingsFolder(), options.version)
    {
        m_server.set_payload_max_length(BODY);
        m_server.set_tcp_nodelay(true);
        m_server.set_pre_routing_handler([this](const httplib::Request& q, httplib::Response& r) { return Guard(q, r); });
        m_server.set_exception_handler(
            [](const httplib::Request&, httplib::Response& r, const std::exception_ptr& error) { Explain(r, error); });
        m_server.set_error_handler([](const httplib::Request& q, httplib::Response& r) {
            // A body that was not read must not be taken for the next request.
            if (r.status != CONFLICT)
                r.set_header("Connection", "close");
            if (!r.body.empty())
                return;
            r.set_content(WhyRefused(r.status, q), "text/plain");
            // A path that does not exist is the client's mistake; Alpaca wants 400 for it.
            if (r.status == 404 && (q.path.rfind("/api/", 0) == 0 || q.path.rfind("/management", 0) == 0))
                r.status = 400;
        });
        AddPage();
        AddRoutes();
        m_alpaca.AddRoutes(m_server);
    }

    void Run()
    {
        const bool network = m_options.listen != "127.0.0.1" && m_options.listen != "localhost" && m_options.listen != "::1";
        int port = m_options.port;
        if (port == 0)
            port = m_server.bind_to_any_port(m_options.listen);
        else if (!m_server.bind_to_port(m_options.listen, port))
            port = -1;
        if (port < 0)
            throw std::runtime_error(
                fmt::format("port {} at {} cannot be had: another program has it, or the address is not of this machine. "
                            "Choose another with --port",
                            m_options.port, m_options.listen));
        const bool any = m_options.listen == "0.0.0.0" || m_options.listen == "::";
        fmt::print("{} cameras; the page: http://{}:{}/\n", m_observatory.Cameras().size(), any ? HostName() : m_options.listen,
                   port);
        if (network)
            fmt::print("open to the network: whoever reaches {}:{} sees and steers the cameras\n", m_options.listen, port);
        std::fflush(stdout);
        std::unique_ptr<Discovery> discovery;
        if (m_options.discoveryPort > 0)
            discovery = std::make_unique<Discovery>(m_options.discoveryPort, port, m_options.listen);
        std::thread watch([this] {
            while (!m_stop())
                std::this_thread::sleep_for(50ms);
            m_stopping = true;
            m_server.stop();
        });
        m_server.listen_after_bind();
        m_stopping = true;
        watch.join();
    }

private:
    static std::filesystem::path SettingsFolder()
    {
        const char* const xdg = std::getenv("XDG_CONFIG_HOME");
        const char* const home = std::getenv("HOME");
        const std::filesystem::path base = xdg != nullptr && *xdg != 0 ? std::filesystem::path(xdg)
                                           : home != nullptr           ? std::filesystem::path(home) / ".config"
                                                                       : std::filesystem::path("/var/lib");
        return base / "kovcamera2";
    }

    // Of what httplib refuses by itself.
    static std::string WhyRefused(int status, const httplib::Request& q)
    {
        switch (status) {
        case 404: return fmt::format("{} {}: there is nothing of that name here\n", q.method, q.path);
        case 413: return fmt::format("the body of a request has {} bytes at most\n", BODY);
        case 414: return "the address is too long\n";
        default:
            return fmt::format(
                "the request could not be read. Its head has 16 KiB at most, a line of it 8 KiB, its body {} bytes\n", BODY);
        }
    }

    httplib::Server::HandlerResponse Guard(const httplib::Request& q, httplib::Response& r) const
    {
        if (q.get_header_value_count("Host") > 1 || q.has_header("Content-Encoding") ||
            (q.method == "GET" && q.get_header_value("Content-Length", 0).find_first_not_of('0') != std::string::npos)) {
            r.status = 400;
            r.set_content("a request has one Host, no compressed body, and a GET has no body\n", "text/plain");
            return httplib::Server::HandlerResponse::Handled;
        }
        if (IsOwn(q.get_header_value("Host"), q.get_header_value("Origin"), m_options.hostName))
            return httplib::Server::HandlerResponse::Unhandled;
        r.status = 403;
        r.set_content(
            "this server answers only its own page and programs that call it by an address. If you call it by a name, "
            "start it with --host NAME\n",
            "text/plain");
        return httplib::Server::HandlerResponse::Handled;
    }

    static void Explain(httplib::Response& r, const std::exception_ptr& error)
    {
        try {
            std::rethrow_exception(error);
        } catch (const BadRequest& e) {
            r.status = 400;
            r.set_content(std::string(e.what()) + "\n", "text/plain");
        } catch (const std::exception& e) {
            r.status = 500;
            r.set_content(std::string(e.what()) + "\n", "text/plain");
        }
    }

    std::shared_ptr<CameraEngine> Camera(const httplib::Request& q) const
    {
        const std::string number = q.matches[1];
        auto camera = number.size() < 6 ? m_observatory.Find(static_cast<size_t>(std::stoi(number))) : nullptr;
        if (!camera)
            throw BadRequest(fmt::format("there is no camera {}", number));
        return camera;
    }

    void AddPage()
    {
        for (const PageFile& f : PAGE_FILES)
            m_server.Get(f.path, [f](const httplib::Request&, httplib::Response& r) {
                r.set_header("Cache-Control", "no-cache");
                r.set_header("Content-Security-Policy",
                             "default-src 'self'; img-src 'self' blob: data:; style-src 'self' 'unsafe-inline'");
                r.set_content(f.data, f.size, f.type);
            });
    }

    // A place among the endless answers, or 503.
    std::shared_ptr<void> Stream(httplib::Response& r)
    {
        if (++m_streams > STREAMS) {
            --m_streams;
            r.status = 503;
            r.set_content("too many viewers\n", "text/plain");
            return nullptr;
        }
        return { this, [this](void*) { --m_streams; } };
    }

    void SendPicture(const httplib::Request& q, httplib::Response& r)
    {
        const auto camera = Camera(q);
        const View view = ViewOf(q);
        const double after = Query(q, "after", 0);
        const FramePtr frame = camera->WaitNewer(after > 0 ? static_cast<uint64_t>(after) : 0, PICTURE_PATIENCE);
        if (!frame) {
            r.status = 204;
            return;
        }
        const auto jpeg = m_pictures.Get(*camera, frame, view);
        r.set_header("X-Frame", std::to_string(frame->sequence));
        r.set_header("X-Frame-Size", fmt::format("{}x{}", frame->width, frame->height));
        r.set_header("X-Frame-End",
                     fmt::format("{:.3f}", std::chrono::duration<double, std::milli>(frame->end.time_since_epoch()).count()));
        r.set_header("Cache-Control", "no-store");
        r.set_content(*jpeg, "image/jpeg");
    }

    void SendLive(const httplib::Request& q, httplib::Response& r)
    {
        const auto camera = Camera(q);
        const View view = ViewOf(q);
        const auto place = Stream(r);
        if (!place)
            return;
        auto last = std::make_shared<uint64_t>(0);
        r.set_content_provider("multipart/x-mixed-replace; boundary=frame", [=, this](size_t, httplib::DataSink& sink) {
            (void)place;
            const FramePtr frame = camera->WaitNewer(*last, 1s);
            if (m_stopping)
                return false;
            if (!frame)
                return true;
            *last = frame->sequence;
            const auto jpeg = m_pictures.Get(*camera, frame, view);
            const std::string head =
                fmt::format("--frame\r\nContent-Type: image/jpeg\r\nX-Frame: {}\r\nContent-Length: {}\r\n\r\n", frame->sequence,
                            jpeg->size());
            return sink.write(head.data(), head.size()) && sink.write(jpeg->data(), jpeg->size()) && sink.write("\r\n", 2);
        });
    }

    void SendEvents(const httplib::Request& q, httplib::Response& r)
    {
        const auto camera = Camera(q);
        const auto place = Stream(r);
        if (!place)
            return;
        struct Seen {
            uint64_t version = 0, statistics = 0, journal = 0, captures = 0;
            std::string state;
            int quiet = 0;
        };
        auto seen = std::make_shared<Seen>();
        const std::string number = q.matches[1];
        r.set_header("Cache-Control", "no-store");
        r.set_chunked_content_provider("text/event-stream", [=, this](size_t, httplib::DataSink& sink) {
            (void)place;
            for (int i = 0; i < 10 && camera->Version() == seen->version && m_captures.Version() == seen->captures && !m_stopping;
                 ++i)
                std::this_thread::sleep_for(50ms);
            if (m_stopping)
                return false;
            seen->version = camera->Version();
            std::string out;
            const auto event = [&](const char* name, const json& data) {
                out += fmt::format("event: {}\ndata: {}\n\n", name, data.dump(-1, ' ', false, json::error_handler_t::replace));
            };
            const StatePtr s = camera->GetState();
            json described = Describe(*s);
            described["freeBytes"] = m_captures.FreeBytes() / 10'000'000 * 10'000'000;  // coarse, or each look would be a change
            std::string state = described.dump(-1, ' ', false, json::error_handler_t::replace);
            if (state != seen->state) {
                seen->state = std::move(state);
                out += fmt::format("event: state\ndata: {}\n\n", seen->state);
            }
            if (const StatisticsPtr st = camera->NewestStatistics(); st && st->sequence != seen->statistics) {
                seen->statistics = st->sequence;
                event("statistics", Describe(*st, s->type));
            }
            const auto journal = camera->Journal();
            if (!journal.empty() && journal.back().number != seen->journal) {
                event("journal", Describe(journal, seen->journal));
                seen->journal = journal.back().number;
            }
            if (m_captures.Version() != seen->captures) {
                seen->captures = m_captures.Version();
                event("captures", m_captures.List());
            }
            if (out.empty() && ++seen->quiet < 10)
                return true;
            seen->quiet = 0;
            if (out.empty())
                out = ": still here\n\n";  // so that a viewer that has gone is noticed
            return sink.write(out.data(), out.size());
        });
    }

    // Commands, by the last part of the path.
    using Action = void (Site::*)(CameraEngine& camera, const std::string& who, const json& body);
    struct ActionRow {
        const char* name;
        Action action;
        const char* takes;
    };
    static const std::vector<ActionRow>& Actions()
    {
        static const std::vector<ActionRow> rows = {
            { "control", &Site::SetControl, "type, value, auto" },
            { "region", &Site::SetRegion, "x, y, width, height (output pixels; width 0: all), bin, format" },
            { "video", &Site::SetVideo, "on" },
            { "exposure", &Site::Expose, "seconds, count, bin, format, whole, name, formats (fits, tiff, png), kind" },
            { "abort", &Site::Abort, "" },
            { "record", &Site::Record, "on, name" },
            { "guide", &Site::Guide, "direction (0 to 3), milliseconds" },
            { "takedark", &Site::TakeDark, "name of the dark frame to make; cap on" },
            { "dark", &Site::Dark, "name of a dark frame in the folder; empty: none" },
            { "hotpixels", &Site::HotPixels, "do: load, off, or save (those of the dark frame in use into the camera)" },
        };
        return rows;
    }

    void SetControl(CameraEngine& camera, const std::string& who, const json& body)
    {
        camera.SetControl(who, static_cast<KOV_CONTROL_TYPE>(Field<int>(body, "type")), Field<int>(body, "value"),
                          Field<bool>(body, "auto", false));
    }
    void SetRegion(CameraEngine& camera, const std::string& who, const json& body)
    {
        const StatePtr s = camera.GetState();
        Region region;
        region.x = Field<int>(body, "x", 0);
        region.y = Field<int>(body, "y", 0);
        region.width = Field<int>(body, "width", 0);
        region.height = Field<int>(body, "height", 0);
        region.bin = Field<int>(body, "bin", s->region.bin);
        if (!Supports(camera, region.bin))
            throw CommandError(fmt::format("this camera does not bin by {}", region.bin));
        camera.SetRegion(who, region, body.contains("format") ? TypeOf(Field<std::string>(body, "format")) : s->type);
    }
    static bool Supports(const CameraEngine& camera, int bin)
    {
        const std::vector<int> bins = kovtools::BinsOf(camera.Info());
        return std::find(bins.begin(), bins.end(), bin) != bins.end();
    }
    void SetVideo(CameraEngine& camera, const std::string& who, const json& body)
    {
        camera.SetVideo(who, Field<bool>(body, "on"));
    }
    void Abort(CameraEngine& camera, const std::string& who, const json&) { camera.Abort(who); }
    void Guide(CameraEngine& camera, const std::string& who, const json& body)
    {
        const int direction = Field<int>(body, "direction"), ms = Field<int>(body, "milliseconds");
        if (direction < 0 || direction > 3 || ms < 1 || ms > 600000)
            throw BadRequest("direction is 0 to 3, milliseconds 1 to 600000");
        camera.PulseGuide(who, static_cast<KOV_GUIDE_DIRECTION>(direction), std::chrono::milliseconds(ms));
    }
    void Expose(CameraEngine& camera, const std::string& who, const json& body)
    {
        const StatePtr s = camera.GetState();
        const ControlState* const exposure = s->Find(CTRL_EXPOSURE);
        const double seconds = Field<double>(body, "seconds");
        if (exposure != nullptr && (seconds * 1e6 < exposure->min || seconds * 1e6 > exposure->max))
            throw CommandError(fmt::format("exposures are {} to {} s", exposure->min / 1e6, exposure->max / 1e6));
        ExposureRequest request;
        request.us = std::llround(seconds * 1e6);
        request.count = Field<int>(body, "count", 1);
        if (request.count < 1 || request.count > 10000)
            throw BadRequest("count is 1 to 10000");
        request.region = s->region;
        if (Field<bool>(body, "whole", true))
            request.region = { 0, 0, 0, 0, s->region.bin };
        request.region.bin = Field<int>(body, "bin", s->region.bin);
        if (!Supports(camera, request.region.bin))
            throw CommandError(fmt::format("this camera does not bin by {}", request.region.bin));
        request.type = TypeOf(Field<std::string>(body, "format", "raw16"));
        CaptureOptions options;
        options.name = Field<std::string>(body, "name", "capture");
        options.kind = Field<std::string>(body, "kind", "Light Frame");
        options.formats = { "fits" };
        if (const auto it = body.find("formats"); it != body.end()) {
            if (!it->is_array())
                throw BadRequest("\"formats\" is a list of fits, tiff and png");
            options.formats.clear();
            for (const json& f : *it)
                options.formats.push_back(f.is_string() ? f.get<std::string>() : "");
        }
        m_captures.CheckOptions(options);
        request.taken = [this, options, count = request.count](const FramePtr& frame, int shot) {
            m_captures.Save(*frame, options, count > 1 ? shot : 0);
        };
        camera.StartExposure(who, std::move(request));
    }
    void Record(CameraEngine& camera, const std::string& who, const json& body)
    {
        if (!Field<bool>(body, "on"))
            return camera.StopRecording(who);
        CaptureOptions options;
        options.name = Field<std::string>(body, "name", "video");
        m_captures.CheckOptions(options);
        const std::filesystem::path path = m_captures.NewPath(options.name, ".ser");
        camera.StartRecording(who, path.string(), [this, path](const Frame& first) { return m_captures.OpenSer(path, first); });
    }
    void TakeDark(CameraEngine& camera, const std::string& who, const json& body)
    {
        const std::string name = Field<std::string>(body, "name");
        camera.TakeDark(who, m_captures.PathOf(name + ".bmp"),
                        [this](const std::filesystem::path& path, const std::string& text) { m_captures.AddDark(path, text); });
    }
    void Dark(CameraEngine& camera, const std::string& who, const json& body)
    {
        const std::string name = Field<std::string>(body, "name");
        camera.UseDark(who, name.empty() ? std::filesystem::path() : m_captures.PathOf(name));
    }
    void HotPixels(CameraEngine& camera, const std::string& who, const json& body)
    {
        const std::string what = Field<std::string>(body, "do");
        if (what != "load" && what != "off" && what != "save")
            throw BadRequest("\"do\" is load, off or save");
        camera.HotPixels(who, what);
    }

    void Command(const httplib::Request& q, httplib::Response& r)
    {
        const auto camera = Camera(q);
        const std::string name = q.matches[2];
        const auto& rows = Actions();
        const auto row = std::find_if(rows.begin(), rows.end(), [&](const ActionRow& a) { return name == a.name; });
        if (row == rows.end())
            throw BadRequest(fmt::format("there is no command '{}'", name));
        const json body = q.body.empty() ? json::object() : json::parse(q.body, nullptr, false);
        if (!body.is_object())
            throw BadRequest(fmt::format("the body has to be a JSON object with: {}", row->takes));
        try {
            (this->*row->action)(*camera, q.remote_addr, body);
            r.set_content("{}", "application/json");
        } catch (const CommandError& e) {
            r.status = CONFLICT;
            r.set_content(json{ { "error", e.what() } }.dump(), "application/json");
        }
    }

    void AddRoutes()
    {
        using Q = const httplib::Request&;
        using R = httplib::Response&;
        const auto send = [](R r, const json& j) {
            r.set_content(j.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
        };
        m_server.Get("/api/cameras", [this, send](Q, R r) {
            json list = json::array();
            const auto cameras = m_observatory.Cameras();
            for (size_t i = 0; i < cameras.size(); ++i)
                list.push_back(Describe(*cameras[i], i));
            send(r, list);
        });
        m_server.Get(R"(/api/cameras/(\d+)/state)", [this, send](Q q, R r) {
            const auto camera = Camera(q);
            json j = Describe(*camera, static_cast<size_t>(std::stoi(q.matches[1])));
            j["state"] = Describe(*camera->GetState());
            if (const StatisticsPtr s = camera->NewestStatistics())
                j["statistics"] = Describe(*s, camera->GetState()->type);
            j["journal"] = Describe(camera->Journal(), 0);
            j["history"] = json::array();
            for (const CoolingPoint& p : camera->Cooling())
                j["history"].push_back({ std::chrono::duration<double>(p.when.time_since_epoch()).count(), p.temperature,
                                         p.target ? json(*p.target) : json(), p.power });
            send(r, j);
        });
        m_server.Get(R"(/api/cameras/(\d+)/events)", [this](Q q, R r) { SendEvents(q, r); });
        m_server.Get(R"(/api/cameras/(\d+)/picture.jpg)", [this](Q q, R r) { SendPicture(q, r); });
        m_server.Get(R"(/api/cameras/(\d+)/live.mjpg)", [this](Q q, R r) { SendLive(q, r); });
        m_server.Get(R"(/api/cameras/(\d+)/frame\.(fits|tiff|png))", [this](Q q, R r) {
            const auto camera = Camera(q);
            const FramePtr frame = camera->Newest();
            if (!frame)
                throw BadRequest("there is no frame yet");
            const std::string format = q.matches[2];
            r.set_header("Content-Disposition", fmt::format("attachment; filename=\"frame-{}.{}\"", frame->sequence, format));
            r.set_content(m_captures.Encode(*frame, format), "application/octet-stream");
        });
        m_server.Put(R"(/api/cameras/(\d+)/([a-z]+))", [this](Q q, R r) { Command(q, r); });
        m_server.Get("/api/captures", [this, send](Q, R r) { send(r, m_captures.List()); });
        m_server.Get(R"(/api/captures/([^/]+)/thumb)", [this](Q q, R r) {
            const auto thumb = m_captures.Thumbnail(q.matches[1]);
            if (!thumb)
                throw BadRequest("there is no such picture");
            r.set_content(*thumb, "image/jpeg");
        });
        m_server.Get(R"(/api/captures/([^/]+))", [this](Q q, R r) { m_captures.SendFile(q.matches[1], r); });
        m_server.Get("/api/doctor", [send](Q, R r) { send(r, Doctor()); });
    }

    const ServerOptions m_options;
    const std::function<bool()> m_stop;
    std::atomic<bool> m_stopping{ false };
    std::atomic<int> m_streams{ 0 };
    Captures m_captures;
    PictureCache m_pictures;
    Observatory m_observatory;
    Alpaca m_alpaca;
    LimitedServer m_server;
};

}  // namespace

void Serve(const ServerOptions& options, const std::function<bool()>& stop)
{
    Site site(options, stop);
    site.Run();
}

}  // namespace kovserve

#include "kovcam/serve/Captures.h"

#include <fmt/format.h>
#include <httplib.h>

#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "common/Files.h"
#include "common/FitsHeader.h"
#include "common/Pictures.h"
#include "common/Ser.h"
#include "common/Text.h"
#include "kovcam/serve/Http.h"
#include "kovcam/serve/Measure.h"

namespace kovserve {

namespace fs = std::filesystem;
using json = nlohmann::json;

namespace {

constexpr size_t LISTED = 200;  // pictures

void CheckName(const std::string& name)
{
    const bool plain =
        !name.empty() && name.size() <= 100 && name[0] != '.' && std::all_of(name.begin(), name.end(), [](unsigned char c) {
            return std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.' || c == ' ' || c == '+' || c >= 0x80;
        });
    if (!plain)
        throw BadRequest(fmt::format("'{}' is no file name: letters, digits, blank, - _ + . are allowed, no folder", name));
}

void WriteFile(const fs::path& path, const Frame& frame, const std::string& format, const std::string& kind)
{
    const std::string text = kovtools::TextOf(path);
    const kovtools::FrameTimes times{ frame.start, frame.end };
    if (format == "fits") {
        kovtools::FitsNotes notes;
        notes.imageType = kind;
        notes.software = "kovcam serve " KOV_VERSION;
        kovtools::WriteFits(text, frame.View(), kovtools::MakeFitsCards(frame, times, notes));
    } else if (format == "tiff") {
        kovtools::WriteTiff(text, frame.View(), frame, times);
    } else {
        kovtools::WritePng(text, frame.View(), frame, kovtools::Stretch::Auto);
    }
}

std::shared_ptr<const std::string> MakeThumbnail(const Frame& frame, const Statistics& statistics)
{
    View view;
    view.outWidth = 144;
    return std::make_shared<std::string>(Jpeg(Render(frame, &statistics, view), 80));
}

// A dark frame as the library writes it: a bitmap of 8 bits, its first row first.
Frame ReadDark(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    const auto number = [&](std::streamoff at) {
        uint8_t b[4] = {};
        in.seekg(at);
        in.read(reinterpret_cast<char*>(b), sizeof(b));
        return b[0] | b[1] << 8 | b[2] << 16 | b[3] << 24;
    };
    Frame frame;
    frame.type = IMG_RAW8;
    frame.width = number(18);
    frame.height = number(22);
    frame.pixels.resize(static_cast<size_t>(frame.width) * static_cast<size_t>(frame.height));
    in.seekg(number(10));
    in.read(reinterpret_cast<char*>(frame.pixels.data()), static_cast<std::streamsize>(frame.pixels.size()));
    return frame;
}

class SerRecorder final : public Recorder {
public:
    SerRecorder(const fs::path& path, const Frame& first, std::function<void(int)> ended)
        : m_writer(kovtools::TextOf(path), first), m_width(first.width), m_height(first.height), m_type(first.type),
          m_ended(std::move(ended))
    {
    }
    void Write(const Frame& frame) override
    {
        if (frame.width != m_width || frame.height != m_height || frame.type != m_type)
            return;  // a frame of before the region was set
        m_writer.Add(frame.View(), frame.arrival, frame.dropped, frame.exposure);
    }
    void Close() override
    {
        m_writer.Finish();
        m_ended(m_writer.Frames());
    }

private:
    kovtools::SerWriter m_writer;
    int m_width, m_height;
    IMG_TYPE m_type;
    std::function<void(int)> m_ended;
};

}  // namespace

Captures::Captures(fs::path folder) : m_folder(std::move(folder)) {}

void Captures::CheckOptions(const CaptureOptions& options) const
{
    CheckName(options.name);
    for (const std::string& f : options.formats)
        if (f != "fits" && f != "tiff" && f != "png")
            throw BadRequest("\"formats\" is a list of fits, tiff and png");
}

fs::path Captures::NewPath(const std::string& name, const std::string& extension) const
{
    const auto taken = [&](const std::string& stem) {
        std::error_code ec;
        for (const char* e : { ".fits", ".tiff", ".png", ".ser" })
            if (fs::exists(m_folder / kovtools::PathOf(stem + e), ec))
                return true;
        return false;
    };
    std::string stem = name;
    for (int i = 2; taken(stem); ++i)
        stem = fmt::format("{}-{}", name, i);
    return m_folder / kovtools::PathOf(stem + extension);
}

fs::path Captures::PathOf(const std::string& name) const
{
    CheckName(name);
    return m_folder / kovtools::PathOf(name);
}

void Captures::Save(const Frame& frame, const CaptureOptions& options, int shot)
{
    const fs::path base = NewPath(shot > 0 ? fmt::format("{}-{:04}", options.name, shot) : options.name, "");
    Item item;
    item.name = kovtools::TextOf(base.filename());
    item.when = frame.end;
    const StatisticsPtr statistics = Measure(frame);
    for (const std::string& format : options.formats) {
        const fs::path path = kovtools::PathOf(kovtools::TextOf(base) + "." + format);
        WriteFile(path, frame, format, options.kind);
        item.files.push_back(kovtools::TextOf(path.filename()));
    }
    item.thumbnail = MakeThumbnail(frame, *statistics);
    item.text = fmt::format("{}x{}, {:g} s, gain {}", frame.width, frame.height, frame.exposure, frame.gain);
    if (statistics->field.hfr > 0)
        item.text += fmt::format(", HFR {:.2f}", statistics->field.hfr);
    Add(std::move(item));
}

void Captures::Add(Item item)
{
    const std::lock_guard lock(m_mutex);
    m_items.insert(m_items.begin(), std::move(item));
    if (m_items.size() > LISTED)
        m_items.pop_back();
    ++m_version;
}

// The writers know files only; the bytes go through one in the folder.
std::string Captures::Encode(const Frame& frame, const std::string& format) const
{
    static std::atomic<uint64_t> number{ 0 };
    const fs::path path = m_folder / fmt::format(".frame-{}-{}.{}", frame.sequence, ++number, format);
    WriteFile(path, frame, format, "Light Frame");
    std::ostringstream out;
    out << std::ifstream(path, std::ios::binary).rdbuf();
    std::error_code ec;
    fs::remove(path, ec);
    return std::move(out).str();
}

std::unique_ptr<Recorder> Captures::OpenSer(const fs::path& path, const Frame& first)
{
    return std::make_unique<SerRecorder>(path, first,
                                         [this, path, state = static_cast<const kovtools::CameraState&>(first)](int frames) {
                                             Item item;
                                             item.name = kovtools::TextOf(path.stem());
                                             item.when = Clock::now();
                                             item.files = { kovtools::TextOf(path.filename()) };
                                             item.text = fmt::format("{} frames of {}x{}", frames, state.width, state.height);
                                             Add(std::move(item));
                                         });
}

uintmax_t Captures::FreeBytes() const
{
    std::error_code ec;
    const fs::space_info space = fs::space(m_folder, ec);
    return ec ? 0 : space.available;
}

void Captures::AddDark(const fs::path& path, const std::string& text)
{
    Item item;
    item.name = kovtools::TextOf(path.filename());
    item.when = Clock::now();
    item.files = { item.name };
    item.text = text;
    const Frame frame = ReadDark(path);
    item.thumbnail = MakeThumbnail(frame, *Measure(frame));
    Add(std::move(item));
}

json Captures::List() const
{
    const std::lock_guard lock(m_mutex);
    json out = json::array();
    for (const Item& i : m_items)
        out.push_back({ { "name", i.name },
                        { "time", kovtools::UtcText(i.when) },
                        { "files", i.files },
                        { "thumbnail", i.thumbnail != nullptr },
                        { "text", i.text } });
    return out;
}

std::shared_ptr<const std::string> Captures::Thumbnail(const std::string& name) const
{
    const std::lock_guard lock(m_mutex);
    const auto it = std::find_if(m_items.begin(), m_items.end(), [&](const Item& i) { return i.name == name; });
    return it == m_items.end() ? nullptr : it->thumbnail;
}

// Only files of the list: the folder may hold others, which are nobody's business.
void Captures::SendFile(const std::string& name, httplib::Response& response) const
{
    {
        const std::lock_guard lock(m_mutex);
        const bool listed = std::any_of(m_items.begin(), m_items.end(), [&](const Item& i) {
            return std::find(i.files.begin(), i.files.end(), name) != i.files.end();
        });
        if (!listed)
            throw BadRequest(fmt::format("there is no file '{}'", name));
    }
    const fs::path path = m_folder / kovtools::PathOf(name);
    std::error_code ec;
    const auto size = fs::file_size(path, ec);
    auto in = std::make_shared<std::ifstream>(path, std::ios::binary);
    if (ec || !*in)
        throw BadRequest(fmt::format("the file '{}' has been taken away", name));
    response.set_header("Content-Disposition", fmt::format("attachment; filename=\"{}\"", name));
    response.set_content_provider(static_cast<size_t>(size), "application/octet-stream",
                                  [in](size_t offset, size_t length, httplib::DataSink& sink) {
                                      char block[65536];
                                      in->clear();
                                      in->seekg(static_cast<std::streamoff>(offset));
                                      in->read(block, static_cast<std::streamsize>(std::min(length, sizeof(block))));
                                      return in->gcount() > 0 && sink.write(block, static_cast<size_t>(in->gcount()));
                                  });
}

}  // namespace kovserve

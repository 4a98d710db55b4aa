#include "common/Ser.h"

#include <fmt/format.h>

#include <cstdint>
#include <ctime>
#include <filesystem>
#include <vector>

namespace kovtools {

namespace {

using Time = FrameClock::Time;

// 100 ns since the year 1.
int64_t Ticks(Time t)
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(t.time_since_epoch()).count() / 100 + 621355968000000000LL;
}

// The same clock face as a local clock shows.
int64_t LocalTicks(Time t)
{
    const std::time_t now = std::chrono::system_clock::to_time_t(t);
    std::tm local{}, utc{};
#ifdef _WIN32
    localtime_s(&local, &now);
    gmtime_s(&utc, &now);
#else
    localtime_r(&now, &local);
    gmtime_r(&now, &utc);
#endif
    utc.tm_isdst = local.tm_isdst;  // mktime takes both for local times of one kind
    const auto offset = static_cast<int64_t>(std::difftime(std::mktime(&local), std::mktime(&utc)));
    return Ticks(t) + offset * 10000000;
}

}  // namespace

SerWriter::SerWriter(const std::string& path, const CameraState& state)
    : m_state(state), m_path(path), m_whole(std::make_unique<WholeFile>(path)),
      m_file(PathOf(m_whole->Temporary()), std::ios::binary | std::ios::trunc)
{
    Head(0, {});
}

void SerWriter::Head(int frames, Time start)
{
    static constexpr int cell[] = { 8, 11, 9, 10 };  // RGGB, BGGR, GRBG, GBRG
    const int colour = m_state.type == IMG_RGB24 ? 101 : IsMosaic(m_state) ? cell[DeliveredPattern(m_state) & 3] : 0;
    const auto put32 = [&](int v) { m_file.write(reinterpret_cast<const char*>(&v), 4); };
    const auto put64 = [&](int64_t v) { m_file.write(reinterpret_cast<const char*>(&v), 8); };
    const auto text = [&](std::string s) {
        s.resize(40);
        m_file.write(s.data(), 40);
    };
    m_file.seekp(0);
    m_file.write("LUCAM-RECORDER", 14);
    put32(0);
    put32(colour);
    put32(0);  // as other writers of the format: samples little-endian
    put32(m_state.width);
    put32(m_state.height);
    put32(m_state.type == IMG_RAW16 ? 16 : 8);
    put32(frames);
    text("");
    text(m_state.info.Name);
    text("");
    put64(frames == 0 ? 0 : LocalTicks(start));
    put64(frames == 0 ? 0 : Ticks(start));
    m_file.seekp(0, std::ios::end);
    if (!m_file)
        FailToWrite(m_path);
}

void SerWriter::Add(const FrameView& frame, FrameClock::Steady::time_point arrival, int dropped, double exposure)
{
    m_file.write(reinterpret_cast<const char*>(frame.data), static_cast<std::streamsize>(frame.Bytes()));
    if (!m_file)
        FailToWrite(m_path, fmt::format("it failed after {} frames", Frames()));
    m_clock.Add(arrival, dropped, exposure);
}

void SerWriter::Finish()
{
    const std::vector<Time> starts = m_clock.Starts();
    m_file.seekp(0, std::ios::end);
    for (const Time t : starts) {
        const int64_t ticks = Ticks(t);
        m_file.write(reinterpret_cast<const char*>(&ticks), 8);
    }
    Head(Frames(), starts.empty() ? Time{} : starts.front());
    m_file.close();
    if (!m_file)
        FailToWrite(m_path);
    m_whole->Commit();
}

}  // namespace kovtools

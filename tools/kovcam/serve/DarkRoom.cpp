#include "kovcam/serve/DarkRoom.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

#include "common/Files.h"

namespace kovserve {

void DarkRoom::Begin(Device& device, const std::filesystem::path& path, Made made)
{
    device.StopVideo();
    // Dark frames are of 8 bits and the whole sensor; an automatic exposure would make them of no exposure at all.
    device.ApplyRegion({}, IMG_RAW8);
    for (const KOV_CONTROL_TYPE control : { CTRL_EXPOSURE, CTRL_GAIN })
        device.Set(control, device.Get(control));
    device.BeginDark();
    m_path = path;
    m_made = std::move(made);
    m_board.Modify([](State& s) {
        s.darkDone = 0;
        s.darkFrames = 1;
    });
}

bool DarkRoom::Step(Device& device)
{
    int done = 0, frames = 1;
    if (device.IsCollectingDark(&done, &frames)) {
        m_board.Modify([&](State& s) {
            s.darkDone = done;
            s.darkFrames = std::max(1, frames);
        });
        return false;
    }
    std::string error;
    try {
        m_made(m_path, device.SaveDark(m_path));
    } catch (const std::exception& e) {
        error = e.what();
    }
    m_board.Note("camera", fmt::format("dark frame {}", kovtools::TextOf(m_path.filename())), error);
    if (!error.empty())
        m_board.Modify([&](State& s) { s.problem = error; });
    return true;
}

void DarkRoom::End(Device* device)
{
    m_path.clear();
    m_board.Modify([](State& s) { s.darkFrames = s.darkDone = 0; });
    if (device == nullptr)
        return;
    device->StopVideo();
    device->DropDark();
}

}  // namespace kovserve

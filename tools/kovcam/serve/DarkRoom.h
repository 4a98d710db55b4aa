// Collects a dark frame of the whole sensor while the video runs.
#pragma once
#include <filesystem>
#include <functional>
#include <string>

#include "kovcam/serve/Board.h"
#include "kovcam/serve/Device.h"

namespace kovserve {

// The camera's thread alone; the board tells how far it is.
class DarkRoom {
public:
    using Made = std::function<void(const std::filesystem::path&, const std::string& text)>;

    explicit DarkRoom(Board& board) : m_board(board) {}

    bool IsCollecting() const { return !m_path.empty(); }
    // At the exposure that is set, no longer automatic. Takes over region and format; whoever calls End gives them back.
    void Begin(Device& device, const std::filesystem::path& path, Made made);
    // After each frame. True when the dark frame is whole and has been written, or could not be; then End follows.
    bool Step(Device& device);
    void End(Device* device);  // null: it has gone

private:
    Board& m_board;
    std::filesystem::path m_path;  // empty: nothing is collected
    Made m_made;
};

}  // namespace kovserve

// The version of a camera's firmware, for those who have the C interface alone, which has no call for it: the camera is asked
// beside the library, by a request that claims nothing and that it answers at any time. Not on Windows.
#pragma once
#include <optional>
#include <string>
#include <vector>

namespace kovtools {

// Stands around the opening of a camera: the device that this process has open since then is that camera. Meanwhile no other
// one may be opened.
class OpeningOfCamera {
public:
    OpeningOfCamera();
    // After the opening. None where it stays open which device it is, and where the camera does not tell. Virtual cameras that
    // were brought along tell it when all tell the same.
    std::optional<int> FirmwareVersion() const;

private:
    const std::vector<std::string> m_before;  // device nodes that were open, each as often as it was
};

}  // namespace kovtools

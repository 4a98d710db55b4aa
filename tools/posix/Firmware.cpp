#include "common/Firmware.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <memory>
#include <system_error>

#include "common/Host.h"

#ifdef __linux__
#  include <fcntl.h>
#  include <linux/usbdevice_fs.h>
#  include <sys/ioctl.h>
#  include <unistd.h>
#endif

namespace fs = std::filesystem;

namespace kovtools {

namespace {

constexpr uint8_t VENDOR_IN = 0xC0, VERSION = 173;
constexpr uint32_t LIMIT_MS = 500;

struct Answer {
    uint8_t letter = 0, version = 0;
};  // 'V' and the version

std::optional<int> Read(const Answer& answer) { return answer.letter == 'V' ? std::optional<int>(answer.version) : std::nullopt; }

std::vector<std::string> OpenNodes()
{
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd", ec))
        if (const std::string file = fs::read_symlink(entry.path(), ec); file.starts_with("/dev/bus/usb/"))
            out.push_back(file);
    std::sort(out.begin(), out.end());
    return out;
}

std::optional<int> AskNode([[maybe_unused]] const std::string& node)
{
    Answer answer;
#ifdef __linux__
    const int file = open(node.c_str(), O_RDWR | O_CLOEXEC);
    if (file < 0)
        return std::nullopt;
    usbdevfs_ctrltransfer request{ VENDOR_IN, VERSION, 0, 0, sizeof(answer), LIMIT_MS, &answer };
    const bool told = ioctl(file, USBDEVFS_CONTROL, &request) == sizeof(answer);
    close(file);
    if (!told)
        return std::nullopt;
#endif
    return Read(answer);
}

std::optional<int> AskVirtual(usbstack::IStack& stack)
{
    std::optional<int> common;
    for (const usbstack::DeviceInfo& info : stack.Enumerate()) {
        usbstack::Status status{};
        const std::unique_ptr<usbstack::IDevice> device(stack.Open(info.path, &status));
        uint8_t bytes[2] = {};
        uint32_t moved = 0;
        if (device == nullptr ||
            device->Control(VENDOR_IN, VERSION, 0, 0, bytes, sizeof(bytes), LIMIT_MS, &moved) != usbstack::Status::Ok ||
            moved != sizeof(bytes))
            return std::nullopt;
        const std::optional<int> version = Read({ bytes[0], bytes[1] });
        if (!version || (common && common != version))
            return std::nullopt;
        common = version;
    }
    return common;
}

}  // namespace

OpeningOfCamera::OpeningOfCamera() : m_before(OpenNodes()) {}

std::optional<int> OpeningOfCamera::FirmwareVersion() const
{
    if (const usbstack::Plugin* plugin = LoadedPlugin())
        return AskVirtual(*plugin->stack);
    std::vector<std::string> since;
    const std::vector<std::string> now = OpenNodes();
    std::set_difference(now.begin(), now.end(), m_before.begin(), m_before.end(), std::back_inserter(since));
    return since.size() == 1 ? AskNode(since.front()) : std::nullopt;
}

}  // namespace kovtools

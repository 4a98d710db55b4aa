// What keeps cameras from working on this machine, each with the command that mends it.
#include <fmt/format.h>
#include <grp.h>
#include <pwd.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "KOVCamera2.h"
#include "common/Doctor.h"

namespace kovtools {

namespace fs = std::filesystem;

namespace {

constexpr const char* VENDOR = "0e5a";
constexpr const char* RULE_FILE = "70-kovcamera2.rules";
constexpr const char* RULE =
    R"(SUBSYSTEM=="usb", ENV{DEVTYPE}=="usb_device", ATTR{idVendor}=="0e5a", MODE="0660", GROUP="plugdev", TAG+="uaccess")";

constexpr int REQUEST_MIB = 1;  // the largest single request of the library; the cameras on USB 2 get smaller ones

using Severity = Finding::Severity;

class Doctor {
public:
    explicit Doctor(const Examination& e) : m_root(e.root), m_fake(e.root != "/"), m_open(e.openCameras && !m_fake) {}

    std::vector<Finding> Run()
    {
        FindDevices();
        CheckRule();
        if (m_open)
            CheckCameras();
        else
            for (const Device& d : m_devices)
                CheckLinkOf(d);
        for (const Device& d : m_devices)
            CheckNode(d);
        CheckUsbMemory();
        if (!m_fake)
            CheckSettings();
        return m_findings;
    }

private:
    struct Device {
        std::string name, product, node;  // "1-4.2", "c11a", "/dev/bus/usb/001/005"
        int speed = 0, version = 0;       // Mbit/s; BCD of the USB version that the camera speaks
    };

    void Add(Severity severity, const char* check, std::string text, std::string command = {})
    {
        m_findings.push_back({ severity, check, std::move(text), std::move(command) });
    }
    static std::string ReadLine(const fs::path& p)
    {
        std::ifstream in(p);
        std::string line;
        std::getline(in, line);
        return line;
    }
    static int ReadNumber(const fs::path& p) { return std::atoi(ReadLine(p).c_str()); }

    void FindDevices()
    {
        std::error_code ec;
        for (const auto& e : fs::directory_iterator(m_root / "sys/bus/usb/devices", ec)) {
            if (ReadLine(e.path() / "idVendor") != VENDOR)
                continue;
            Device d;
            d.name = e.path().filename();
            d.product = ReadLine(e.path() / "idProduct");
            d.speed = ReadNumber(e.path() / "speed");
            std::string version = ReadLine(e.path() / "version");  // " 3.00"
            std::erase_if(version, [](unsigned char c) { return !std::isdigit(c); });
            d.version = version.empty() ? 0 : std::stoi(version, nullptr, 16);
            d.node = fmt::format("/dev/bus/usb/{:03}/{:03}", ReadNumber(e.path() / "busnum"), ReadNumber(e.path() / "devnum"));
            m_devices.push_back(d);
            const std::string driver = fs::read_symlink(e.path() / (d.name + ":1.0") / "driver", ec).filename();
            if (!driver.empty() && driver != "usbfs")
                Add(Severity::Problem, "driver", fmt::format("the kernel driver {} holds the camera at {}", driver, d.name),
                    fmt::format("echo {}:1.0 | sudo tee /sys/bus/usb/drivers/{}/unbind", d.name, driver));
        }
    }

    void CheckRule()
    {
        std::error_code ec;
        for (const char* dir :
             { "etc/udev/rules.d", "run/udev/rules.d", "usr/local/lib/udev/rules.d", "usr/lib/udev/rules.d", "lib/udev/rules.d" })
            for (const auto& e : fs::directory_iterator(m_root / dir, ec)) {
                std::ifstream in(e.path());
                const std::string text(std::istreambuf_iterator<char>(in), {});
                // A comment that names the vendor gives nobody rights.
                for (size_t at = text.find(VENDOR); at != std::string::npos; at = text.find(VENDOR, at + 1)) {
                    const size_t line = at == 0 ? 0 : text.rfind('\n', at) + 1;
                    if (text[line] != '#') {
                        Add(Severity::Good, "rule",
                            fmt::format("udev rule: {}", (fs::path("/") / dir / e.path().filename()).string()));
                        return;
                    }
                }
            }
        m_rule = false;
        Add(geteuid() == 0 && !m_fake && m_devices.empty() ? Severity::Note : Severity::Problem, "rule",
            fmt::format("no udev rule for vendor {}: only root may open the cameras", VENDOR),
            fmt::format("echo '{}' | sudo tee /etc/udev/rules.d/{} && sudo udevadm control --reload && sudo udevadm trigger "
                        "--subsystem-match=usb",
                        RULE, RULE_FILE));
    }

    // Programs that have the node open, as "name (pid 12)".
    std::vector<std::pair<int, std::string>> Holders(const std::string& node, bool* hidden) const
    {
        std::vector<std::pair<int, std::string>> out;
        std::error_code ec;
        for (const auto& e : fs::directory_iterator(m_root / "proc", ec)) {
            const std::string pid = e.path().filename();
            if (pid.find_first_not_of("0123456789") != std::string::npos || (!m_fake && std::atoi(pid.c_str()) == getpid()))
                continue;
            std::error_code denied;
            for (const auto& f : fs::directory_iterator(e.path() / "fd", denied))
                if (fs::read_symlink(f.path(), ec) == node) {
                    out.emplace_back(std::atoi(pid.c_str()), ReadLine(e.path() / "comm"));
                    break;
                }
            *hidden = *hidden || denied.value() == EACCES;
        }
        return out;
    }

    void CheckNode(const Device& d)
    {
        const fs::path node = m_root / d.node.substr(1);
        if (access(node.c_str(), F_OK) != 0) {
            Add(Severity::Problem, "node",
                fmt::format("camera {}:{} at {}: its device node {} is missing", VENDOR, d.product, d.name, d.node),
                "sudo udevadm trigger --subsystem-match=usb; in a container, pass /dev/bus/usb into it");
            return;
        }
        if (access(node.c_str(), R_OK | W_OK) != 0)
            Add(Severity::Problem, "node",
                fmt::format("camera {}:{} at {}: you may not write {}", VENDOR, d.product, d.name, d.node),
                m_rule ? fmt::format("unplug the camera and plug it in again, so that the rule takes hold. Over ssh: sudo "
                                     "usermod -aG plugdev {},\n"
                                     "then log in anew. For this once: sudo chmod a+rw {}",
                                     std::getenv("USER") ? std::getenv("USER") : "$USER", d.node)
                       : "the udev rule above; for this once: sudo chmod a+rw " + d.node);
        else
            Add(Severity::Good, "node", fmt::format("camera {}:{} at {}: {} may be opened", VENDOR, d.product, d.name, d.node));
        bool hidden = false;
        const auto holders = Holders(d.node, &hidden);
        for (const auto& [pid, name] : holders)
            Add(Severity::Problem, "holder",
                fmt::format("{} is held by {} (process {}): a camera serves one program at a time", d.node, name, pid),
                fmt::format("close that program, or: kill {}", pid));
        if (hidden && holders.empty())
            Add(Severity::Note, "holder", "programs of other users cannot be looked into", "sudo kovcam doctor");
    }

    // From the system alone: a camera that speaks USB 3 on a slower link.
    void CheckLinkOf(const Device& d)
    {
        // On a USB 2 link such a camera tells version 2.10.
        if (d.speed > 0 && d.speed < 5000 && d.version >= 0x210)
            m_findings.push_back(SlowLink(fmt::format("{}:{} at {}", VENDOR, d.product, d.name), d.speed));
        else
            Add(Severity::Good, "link", fmt::format("camera {}:{} at {}: link of {} Mbit/s", VENDOR, d.product, d.name, d.speed));
    }

    // What the library makes of the cameras; opens each for a moment.
    void CheckCameras()
    {
        const int n = KOVGetNumOfConnectedCameras();
        if (n == 0) {
            if (m_devices.empty())
                Add(Severity::Problem, "bus", fmt::format("no camera on the bus: no USB device of vendor {}", VENDOR),
                    "check plug, cable and power of the hub; 'sudo dmesg -w' shows what happens when you plug it in.\n"
                    "              To try without a camera: kovsim run --camera QuartzCol -- kovcam doctor");
            return;
        }
        for (int i = 0; i < n; ++i) {
            KOV_CAMERA_INFO info{};
            if (KOVGetCameraProperty(&info, i) != KOV_SUCCESS) {
                Add(Severity::Problem, "model", fmt::format("camera {}: a model that this library does not know", i),
                    "update the library");
                continue;
            }
            m_onlyUsb2 = (i == 0 || m_onlyUsb2) && !info.IsUSB3Camera;
            m_frame = std::max(m_frame, int64_t{ info.MaxWidth } * info.MaxHeight * 2);
            if (m_largest.empty() || m_frame == int64_t{ info.MaxWidth } * info.MaxHeight * 2)
                m_largest = info.Name;
            const KOV_ERROR_CODE code = KOVOpenCamera(i);
            if (code == KOV_SUCCESS) {
                KOVGetCameraProperty(&info, i);
                Add(Severity::Good, "open", fmt::format("{} opens and answers", info.Name));
                if (info.IsUSB3Camera && !info.IsUSB3Host)
                    m_findings.push_back(SlowLink(info.Name));
            } else {
                Add(Severity::Problem, "open", fmt::format("{} does not open", info.Name),
                    "see the other findings; if there are none, unplug it and plug it in again");
            }
            KOVCloseCamera(i);
        }
    }

    void CheckUsbMemory()
    {
        const fs::path p = m_root / "sys/module/usbcore/parameters/usbfs_memory_mb";
        std::error_code ec;
        if (!fs::exists(p, ec))
            return;
        const int have = ReadNumber(p);
        // Unknown camera: the largest model, so that the advice serves all.
        const int64_t frame = m_frame > 0 ? m_frame : int64_t{ 7380 } * 4928 * 2;
        const int need = static_cast<int>((frame + 0xFFFFF) / 0x100000) + 1;
        const std::string who = m_frame > 0 ? m_largest : std::string("the largest model");
        if (have == 0 || have >= need) {
            Add(Severity::Good, "memory",
                fmt::format("usbfs memory: {}", have == 0 ? std::string("without limit") : fmt::format("{} MiB", have)));
            return;
        }
        const int advice = std::max(64, need * 3);
        const bool never = have <= REQUEST_MIB && !m_onlyUsb2;
        const std::string effect = never ? "A USB 3 camera is read\n              in pieces of 1 MiB, and none fits beside what "
                                           "the system needs for it: NO PICTURES COME"
                                         : "Pictures come,\n              but frames may be lost at full rate";
        Add(never ? Severity::Problem : Severity::Note, "memory",
            fmt::format("usbfs memory: {} MiB for all USB cameras together; a full frame of {} needs {} MiB. {}", have, who, need,
                        effect),
            fmt::format("echo {} | sudo tee /sys/module/usbcore/parameters/usbfs_memory_mb\n"
                        "              for ever: usbcore.usbfs_memory_mb={} on the kernel's command line",
                        advice, advice));
    }

    // The library keeps what was set in a database there.
    void CheckSettings()
    {
        const char* const xdg = std::getenv("XDG_CONFIG_HOME");
        const char* const home = std::getenv("HOME");
        const passwd* const user = getpwuid(geteuid());
        fs::path folder;
        if (xdg != nullptr && xdg[0] == '/')
            folder = xdg;
        else if (home != nullptr && home[0] == '/')
            folder = fs::path(home) / ".config";
        else if (user != nullptr)
            folder = fs::path(user->pw_dir) / ".config";
        folder /= "kovcamera2";
        std::error_code ec;
        fs::path standing = folder;
        while (!fs::exists(standing, ec) && standing.has_relative_path())
            standing = standing.parent_path();
        const fs::path file = folder / "settings.db";
        const bool good =
            access(standing.c_str(), W_OK | X_OK) == 0 && (!fs::exists(file, ec) || access(file.c_str(), R_OK | W_OK) == 0);
        if (!good)
            Add(Severity::Problem, "settings",
                fmt::format("settings cannot be kept in {}: what is set is lost with the program", folder.string()),
                fmt::format("sudo chown -R {} {}, or set XDG_CONFIG_HOME to a folder of your own",
                            user != nullptr ? user->pw_name : "$USER", standing.string()));
        else if (const fs::space_info space = fs::space(standing, ec); !ec && space.available < 1 << 20)
            Add(Severity::Problem, "settings", fmt::format("the disk of {} is full: settings cannot be kept", folder.string()),
                fmt::format("make room: df -h {}", standing.string()));
        else
            Add(Severity::Good, "settings", fmt::format("settings are kept in {}", folder.string()));
        for (const auto& e : fs::directory_iterator(folder, ec))
            if (const std::string name = e.path().filename();
                name.starts_with("settings") && name.find("damaged") != std::string::npos)
                Add(Severity::Note, "settings",
                    fmt::format("{} was damaged and put aside; settings began anew", e.path().string()),
                    fmt::format("rm {}", e.path().string()));
    }

    fs::path m_root;
    bool m_fake, m_open, m_rule = true;
    std::vector<Device> m_devices;
    std::vector<Finding> m_findings;
    int64_t m_frame = 0;      // bytes, of the largest camera at hand; 0: none was seen
    bool m_onlyUsb2 = false;  // all cameras seen are on USB 2 bridges
    std::string m_largest;
};

}  // namespace

std::string DescribeSystem()
{
    const auto line = [](const fs::path& p) {
        std::ifstream in(p);
        std::string s;
        std::getline(in, s);
        return s;
    };
    utsname u{};
    uname(&u);
    std::string out = fmt::format("{} {} {} on {}\n", u.sysname, u.release, u.version, u.machine);
    std::ifstream release("/etc/os-release");
    for (std::string s; std::getline(release, s);)
        if (s.starts_with("PRETTY_NAME="))
            out += s.substr(12) + '\n';
    out += fmt::format("usbfs memory, MiB: {}\nuser {}root, groups:", line("/sys/module/usbcore/parameters/usbfs_memory_mb"),
                       geteuid() == 0 ? "" : "not ");
    gid_t groups[64];
    for (int i = 0, n = getgroups(64, groups); i < n; ++i)
        if (const struct group* g = getgrgid(groups[i]); g != nullptr)
            out += std::string(" ") + g->gr_name;
    out += '\n';
    std::error_code ec;
    for (const auto& e : fs::directory_iterator("/sys/bus/usb/devices", ec)) {
        if (line(e.path() / "idVendor") != VENDOR)
            continue;
        out += fmt::format("device {}:", e.path().filename().string());
        for (const char* name : { "idVendor", "idProduct", "bcdDevice", "version", "speed", "busnum", "devnum", "bMaxPower",
                                  "manufacturer", "product" })
            out += fmt::format(" {}={}", name, line(e.path() / name));
        out += "\n  descriptors";
        std::ifstream in(e.path() / "descriptors", std::ios::binary);
        for (char c; in.get(c);)
            out += fmt::format(" {:02x}", static_cast<unsigned char>(c));
        out += '\n';
    }
    return out;
}

std::vector<Finding> Examine(const Examination& examination) { return Doctor(examination).Run(); }

}  // namespace kovtools

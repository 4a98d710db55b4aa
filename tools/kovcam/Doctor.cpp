// What keeps cameras from working on this machine, each with the command that mends it.
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "kovcam/Camera.h"
#include "kovcam/Commands.h"

namespace kovcam {

namespace fs = std::filesystem;

namespace {

constexpr const char* VENDOR = "0e5a";
constexpr const char* RULE_FILE = "70-kovcamera2.rules";
constexpr const char* RULE = R"(SUBSYSTEM=="usb", ENV{DEVTYPE}=="usb_device", ATTR{idVendor}=="0e5a", MODE="0660", TAG+="uaccess")";

enum class State { Good, Note, Bad };
struct Finding { State state; std::string sText, sCommand; };

class Doctor {
public:
    Doctor(fs::path root, bool bFake) : m_Root(std::move(root)), m_bFake(bFake) {}

    std::vector<Finding> Examine()
    {
        FindDevices();
        CheckRule();
        if (m_bFake)
            for (const Device& d : m_Devices)
                CheckLinkOf(d);
        else
            CheckCameras();
        for (const Device& d : m_Devices)
            CheckNode(d);
        CheckUsbMemory();
        return m_Findings;
    }

private:
    struct Device {
        std::string sName, sProduct, sNode;  // "1-4.2", "c11a", "/dev/bus/usb/001/005"
        int iSpeed = 0, iVersion = 0;        // Mbit/s; BCD of the USB version that the camera speaks
    };

    void Add(State s, std::string text, std::string command = {}) { m_Findings.push_back({ s, std::move(text), std::move(command) }); }
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
        for (const auto& e : fs::directory_iterator(m_Root / "sys/bus/usb/devices", ec)) {
            if (ReadLine(e.path() / "idVendor") != VENDOR)
                continue;
            Device d;
            d.sName = e.path().filename();
            d.sProduct = ReadLine(e.path() / "idProduct");
            d.iSpeed = ReadNumber(e.path() / "speed");
            std::string version = ReadLine(e.path() / "version");  // " 3.00"
            std::erase_if(version, [](unsigned char c) { return !std::isdigit(c); });
            d.iVersion = version.empty() ? 0 : std::stoi(version, nullptr, 16);
            d.sNode = fmt::format("/dev/bus/usb/{:03}/{:03}", ReadNumber(e.path() / "busnum"), ReadNumber(e.path() / "devnum"));
            m_Devices.push_back(d);
            const std::string driver = fs::read_symlink(e.path() / (d.sName + ":1.0") / "driver", ec).filename();
            if (!driver.empty() && driver != "usbfs")
                Add(State::Bad, fmt::format("the kernel driver {} holds the camera at {}", driver, d.sName),
                    fmt::format("echo {}:1.0 | sudo tee /sys/bus/usb/drivers/{}/unbind", d.sName, driver));
        }
    }

    void CheckRule()
    {
        std::error_code ec;
        for (const char* dir : { "etc/udev/rules.d", "run/udev/rules.d", "usr/local/lib/udev/rules.d", "usr/lib/udev/rules.d",
                                 "lib/udev/rules.d" })
            for (const auto& e : fs::directory_iterator(m_Root / dir, ec)) {
                std::ifstream in(e.path());
                const std::string text(std::istreambuf_iterator<char>(in), {});
                // A comment that names the vendor gives nobody rights.
                for (size_t at = text.find(VENDOR); at != std::string::npos; at = text.find(VENDOR, at + 1)) {
                    const size_t line = at == 0 ? 0 : text.rfind('\n', at) + 1;
                    if (text[line] != '#') {
                        Add(State::Good, fmt::format("udev rule: {}", (fs::path("/") / dir / e.path().filename()).string()));
                        return;
                    }
                }
            }
        m_bRule = false;
        Add(geteuid() == 0 && !m_bFake && m_Devices.empty() ? State::Note : State::Bad,
            fmt::format("no udev rule for vendor {}: only root may open the cameras", VENDOR),
            fmt::format("echo '{}' | sudo tee /etc/udev/rules.d/{} && sudo udevadm control --reload && sudo udevadm trigger "
                        "--subsystem-match=usb", RULE, RULE_FILE));
    }

    // Programs that have the node open, as "name (pid 12)".
    std::vector<std::pair<int, std::string>> Holders(const std::string& node, bool* pHidden) const
    {
        std::vector<std::pair<int, std::string>> out;
        std::error_code ec;
        for (const auto& e : fs::directory_iterator(m_Root / "proc", ec)) {
            const std::string pid = e.path().filename();
            if (pid.find_first_not_of("0123456789") != std::string::npos || (!m_bFake && std::atoi(pid.c_str()) == getpid()))
                continue;
            std::error_code denied;
            for (const auto& f : fs::directory_iterator(e.path() / "fd", denied))
                if (fs::read_symlink(f.path(), ec) == node) {
                    out.emplace_back(std::atoi(pid.c_str()), ReadLine(e.path() / "comm"));
                    break;
                }
            *pHidden = *pHidden || denied.value() == EACCES;
        }
        return out;
    }

    void CheckNode(const Device& d)
    {
        const fs::path node = m_Root / d.sNode.substr(1);
        if (access(node.c_str(), F_OK) != 0) {
            Add(State::Bad, fmt::format("camera {}:{} at {}: its device node {} is missing", VENDOR, d.sProduct, d.sName, d.sNode),
                "sudo udevadm trigger --subsystem-match=usb; in a container, pass /dev/bus/usb into it");
            return;
        }
        if (access(node.c_str(), R_OK | W_OK) != 0)
            Add(State::Bad, fmt::format("camera {}:{} at {}: you may not write {}", VENDOR, d.sProduct, d.sName, d.sNode),
                m_bRule ? "unplug the camera and plug it in again, so that the rule takes hold; log in at the machine itself, or\n"
                          "              for this once: sudo chmod a+rw " + d.sNode
                        : "the udev rule above; for this once: sudo chmod a+rw " + d.sNode);
        else
            Add(State::Good, fmt::format("camera {}:{} at {}: {} may be opened", VENDOR, d.sProduct, d.sName, d.sNode));
        bool bHidden = false;
        const auto holders = Holders(d.sNode, &bHidden);
        for (const auto& [pid, name] : holders)
            Add(State::Bad, fmt::format("{} is held by {} (process {}): a camera serves one program at a time", d.sNode, name, pid),
                fmt::format("close that program, or: kill {}", pid));
        if (bHidden && holders.empty())
            Add(State::Note, "programs of other users cannot be looked into", "sudo kovcam doctor");
    }

    // From the system alone: a camera that speaks USB 3 on a slower link.
    void CheckLinkOf(const Device& d)
    {
        // On a USB 2 link such a camera tells version 2.10.
        if (d.iSpeed > 0 && d.iSpeed < 5000 && d.iVersion >= 0x210)
            Slow(fmt::format("{}:{} at {}", VENDOR, d.sProduct, d.sName), d.iSpeed);
        else
            Add(State::Good, fmt::format("camera {}:{} at {}: link of {} Mbit/s", VENDOR, d.sProduct, d.sName, d.iSpeed));
    }

    void Slow(const std::string& camera, int speed)
    {
        Add(State::Bad, fmt::format("{} is a USB 3 camera on a USB 2 link{}: frames come at a tenth of the rate", camera,
                                    speed > 0 ? fmt::format(" of {} Mbit/s", speed) : ""),
            "plug it into a blue or SS port with a USB 3 cable, push the plug in fully, and leave hubs out");
    }

    // What the library makes of the cameras; opens each for a moment.
    void CheckCameras()
    {
        const int n = KOVGetNumOfConnectedCameras();
        if (n == 0) {
            if (m_Devices.empty())
                Add(State::Bad, fmt::format("no camera on the bus: no USB device of vendor {}", VENDOR),
                    "check plug, cable and power of the hub; 'sudo dmesg -w' shows what happens when you plug it in.\n"
                    "              To try without a camera: kovsim run --camera QuartzCol -- kovcam doctor");
            return;
        }
        for (int i = 0; i < n; ++i) {
            KOV_CAMERA_INFO info{};
            if (KOVGetCameraProperty(&info, i) != KOV_SUCCESS) {
                Add(State::Bad, fmt::format("camera {}: a model that this library does not know", i), "update the library");
                continue;
            }
            m_lFrame = std::max(m_lFrame, int64_t{ info.MaxWidth } * info.MaxHeight * 2);
            if (m_sLargest.empty() || m_lFrame == int64_t{ info.MaxWidth } * info.MaxHeight * 2)
                m_sLargest = info.Name;
            const KOV_ERROR_CODE code = KOVOpenCamera(i);
            if (code == KOV_SUCCESS) {
                info = InfoOf(i);
                Add(State::Good, fmt::format("{} opens and answers", info.Name));
                if (info.IsUSB3Camera && !info.IsUSB3Host)
                    Slow(info.Name, 0);
            } else {
                Add(State::Bad, fmt::format("{} does not open", info.Name),
                    "see the other findings; if there are none, unplug it and plug it in again");
            }
            KOVCloseCamera(i);
        }
    }

    void CheckUsbMemory()
    {
        const fs::path p = m_Root / "sys/module/usbcore/parameters/usbfs_memory_mb";
        std::error_code ec;
        if (!fs::exists(p, ec))
            return;
        const int have = ReadNumber(p);
        // Unknown camera: the largest model, so that the advice serves all.
        const int64_t frame = m_lFrame > 0 ? m_lFrame : int64_t{ 7380 } * 4928 * 2;
        const int need = static_cast<int>((frame + 0xFFFFF) / 0x100000) + 1;
        const std::string who = m_lFrame > 0 ? m_sLargest : std::string("the largest model");
        if (have == 0 || have >= need) {
            Add(State::Good, fmt::format("usbfs memory: {}", have == 0 ? std::string("without limit") : fmt::format("{} MiB", have)));
            return;
        }
        const int advice = std::max(64, need * 3);
        Add(State::Note, fmt::format("usbfs memory: {} MiB for all USB cameras together; a full frame of {} needs {} MiB. Pictures come,\n"
                                     "              but frames may be lost at full rate", have, who, need),
            fmt::format("echo {} | sudo tee /sys/module/usbcore/parameters/usbfs_memory_mb\n"
                        "              for ever: usbcore.usbfs_memory_mb={} on the kernel's command line", advice, advice));
    }

    fs::path m_Root;
    bool m_bFake, m_bRule = true;
    std::vector<Device> m_Devices;
    std::vector<Finding> m_Findings;
    int64_t m_lFrame = 0;
    std::string m_sLargest;
};

void Tell(const Globals& g, const std::vector<Finding>& findings)
{
    static constexpr const char* marks[] = { "ok", "note", "PROBLEM" };
    int iBad = 0;
    std::string json;
    for (const Finding& f : findings) {
        iBad += f.state == State::Bad;
        const char* szMark = marks[static_cast<size_t>(f.state)];
        if (g.bJson) {
            json += fmt::format(R"({}{{"state": "{}", "text": {}, "command": {}}})", json.empty() ? "" : ",\n ", szMark,
                                JsonText(f.sText), JsonText(f.sCommand));
            continue;
        }
        fmt::print("{:<8} {}\n", szMark, f.sText);
        if (!f.sCommand.empty())
            fmt::print("         mend: {}\n", f.sCommand);
    }
    if (g.bJson)
        fmt::print("[{}]\n", json);
    else
        fmt::print("{}\n", iBad == 0 ? "all well" : fmt::format("{} problem{}", iBad, iBad == 1 ? "" : "s"));
    if (iBad > 0)
        throw UserError("", 1);
}

}  // namespace

void AddDoctorCommand(CLI::App& app, Globals& g)
{
    auto* p = app.add_subcommand("doctor", "Find out what keeps cameras from working, and how to mend it");
    auto root = std::make_shared<std::string>("/");
    p->add_option("--root", *root, "Examine the system under this folder; nothing is opened then");
    p->callback([&g, root] {
        Doctor doctor(*root, *root != "/");
        Tell(g, doctor.Examine());
    });
}

}  // namespace kovcam

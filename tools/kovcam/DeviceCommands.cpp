#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>

#include "FirmwareData.h"
#include "camera/CCameraBase.h"
#include "common/Files.h"
#include "common/Host.h"
#include "kovcam/Camera.h"
#include "kovcam/Commands.h"
#include "kovcam/Json.h"

namespace kovcam {

namespace {

void Guide(const Globals& g, int direction, const std::string& what)
{
    Camera cam(g.camera);
    const auto pin = static_cast<KOV_GUIDE_DIRECTION>(direction);
    if (what == "on" || what == "off") {
        Check(what == "on" ? KOVPulseGuideOn(cam.Id(), pin) : KOVPulseGuideOff(cam.Id(), pin), "guiding");
        if (!g.json)
            fmt::print("pin {} is {}{}\n", direction, what,
                       what == "on" ? "; it stays so until 'off' or the next power cycle" : "");
        return;
    }
    const double seconds = ParseSeconds(what);
    if (seconds <= 0 || seconds > 600)
        throw UserError(fmt::format("'{}' is no pulse; give a time up to 10m, such as 500ms, or on or off", what), 2);
    // The pin is released also when Ctrl-C ends the pulse early.
    struct Pulse {
        int iId;
        KOV_GUIDE_DIRECTION pin;
        Pulse(int id, KOV_GUIDE_DIRECTION p) : iId(id), pin(p) { Check(KOVPulseGuideOn(id, p), "guiding"); }
        ~Pulse() { KOVPulseGuideOff(iId, pin); }
    };
    {
        const Pulse pulse(cam.Id(), pin);
        Progress progress(fmt::format("pin {}", direction));
        const Stopwatch watch;
        while (watch.Seconds() < seconds && !Interrupted()) {
            progress.Show(watch.Seconds() / seconds, fmt::format("{:.1f} of {:.1f} s", watch.Seconds(), seconds));
            Sleep(std::min(0.1, seconds - watch.Seconds()));
        }
    }
    if (Interrupted())
        throw UserError("interrupted; the pin is released", 130);
    if (!g.json)
        fmt::print("pin {} for {}\n", direction, ExposureText(std::llround(seconds * 1e6)));
}

std::string HexOf(const KOV_ID& id)
{
    std::string s;
    for (const uint8_t b : id.id)
        s += fmt::format("{:02x}", b);
    return s;
}

std::string TextOf(const KOV_ID& id)
{
    const uint8_t* pEnd = std::find(id.id, id.id + 8, uint8_t{ 0 });
    const bool bText = std::all_of(id.id, pEnd, [](uint8_t c) { return c >= 32 && c < 127; }) &&
                       std::all_of(pEnd, id.id + 8, [](uint8_t c) { return c == 0; });
    return bText ? std::string(id.id, pEnd) : "";
}

void TellId(const Globals& g, Camera& cam)
{
    KOV_ID id{};
    const KOV_ERROR_CODE code = KOVGetID(cam.Id(), &id);
    if (code == KOV_ERROR_GENERAL)
        throw UserError("the camera holds no ID. Store one of up to 8 characters: kovcam id set EAST", 4);
    Check(code, "ID");
    if (g.json)
        Print({ { "text", TextOf(id) }, { "hex", HexOf(id) } });
    else
        fmt::print("{}\n", TextOf(id).empty() ? "hex " + HexOf(id) : TextOf(id));
}

KOV_ID ParseId(const std::string& text, bool bHex)
{
    KOV_ID id{};
    if (!bHex) {
        if (text.empty() || text.size() > 8)
            throw UserError(fmt::format("'{}' has {} characters; an ID has 1 to 8", text, text.size()), 2);
        std::copy(text.begin(), text.end(), id.id);
        return id;
    }
    if (text.size() != 16 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        throw UserError("with --hex an ID is 16 hexadecimal digits", 2);
    for (size_t i = 0; i < 8; ++i)
        id.id[i] = static_cast<uint8_t>(std::stoi(text.substr(2 * i, 2), nullptr, 16));
    return id;
}

// Models whose firmware the library itself brings up to date when it opens them, given an image at build time.
struct Updatable {
    const char* szName;
    FirmwareId image;
    int iNeeded;
    const char* szFile;
};
constexpr Updatable g_Updatable[] = {
    { "VYR KOVGarnetMono", FirmwareId::GarnetMono, 3, "garnet-mono.bin" },
    { "VYR KOVGarnetCol", FirmwareId::GarnetCol, 3, "garnet-col.bin" },
    { "VYR KOVIoliteMono", FirmwareId::IoliteMono, 1, "iolite-mono.bin" },
    { "VYR KOVCobaltCol", FirmwareId::CobaltCol, 1, "cobalt-col.bin" },
};

const Updatable* FindUpdatable(const std::string& name)
{
    for (const Updatable& u : g_Updatable)
        if (name == u.szName || (name.starts_with(u.szName) && u.image == FirmwareId::CobaltCol))
            return &u;
    return nullptr;
}

bool Have(FirmwareId id) { return static_cast<bool>(g_FirmwareData[static_cast<size_t>(id)]); }

bool CanUpdate(const Updatable& u) { return Have(u.image) && Have(FirmwareId::LoaderPart1) && Have(FirmwareId::LoaderPart2); }

struct FirmwareOptions {
    bool bWrite = false, bYes = false;
    std::string sFile, sTo = "ram";
};

// Asks on the terminal, unless --yes was given.
void Confirm(const FirmwareOptions& o, const std::string& word)
{
    if (o.bYes)
        return;
    if (!kovtools::IsTerminal(stdin))
        throw UserError("writing firmware has to be confirmed: run it on a terminal, or add --yes", 2);
    fmt::print("Do not unplug the camera until it is done. Type {} to go on: ", word);
    std::fflush(stdout);
    std::string line;
    std::getline(std::cin, line);
    if (line != word)
        throw UserError("nothing was written", 2);
}

void TellVersions(const Globals& g, Camera& cam, const Updatable* u)
{
    uint8_t firmware = 0, fpga = 0, sub[4] = {};
    CCameraBase& object = cam.Object();
    if (!object.GetFirmwareVer(&firmware))
        throw UserError("the camera does not tell its firmware version", 4);
    const bool bFpga = !u && object.m_bUSB3Camera && object.GetFPGAVer(&fpga, sub) && fpga != 0;
    const std::string update = u == nullptr ? "none" : firmware >= u->iNeeded ? "current" : "no image";
    if (g.json) {
        Print({ { "firmware", firmware }, { "fpga", bFpga ? Json(fpga) : Json() }, { "update", update } });
        return;
    }
    fmt::print("{}\n  firmware      {}\n", cam.Info().Name, firmware);
    if (bFpga)
        fmt::print("  FPGA          {} ({}.{}.{}.{})\n", fpga, sub[0], sub[1], sub[2], sub[3]);
    if (u == nullptr)
        fmt::print("  update        the library updates no firmware of this model; a file can be loaded with --file\n");
    else if (firmware >= u->iNeeded)
        fmt::print("  update        not needed: the library asks for version {} or later\n", u->iNeeded);
    else
        fmt::print(
            "  update        the library asks for version {} or later, but was built without an image and leaves the camera\n"
            "                as it is. With data/firmware/{}, loader-part1.bin and loader-part2.bin in the sources, a new\n"
            "                build writes it when the camera is opened.\n",
            u->iNeeded, u->szFile);
}

struct Target {
    const char* szName;
    FX3_FWDWNLOAD_MEDIA_TYPE media;
    const char* szWhat;
};
constexpr Target g_Targets[] = {
    { "ram", FX3_MEDIA_RAM, "runs it from memory; it is gone with the next power cycle" },
    { "eeprom", FX3_MEDIA_I2C, "replaces the start image in the I2C EEPROM" },
    { "flash", FX3_MEDIA_SPI, "replaces the start image in the SPI flash" },
};

const char* ResultText(FX3_FWDWNLOAD_ERROR_CODE code)
{
    switch (code) {
    case FX3_FW_SUCCESS: return "done";
    case FX3_FW_FAILED: return "a transfer failed; try another port and cable";
    case FX3_FW_BAD_MEDIA_TYPE: return "unknown target";
    case FX3_FW_BAD_SIGNATURE: return "the file does not begin with CY";
    case FX3_FW_SECTION_TOO_LONG: return "a section runs past the end of the file";
    case FX3_FW_NO_FILE: return "the file cannot be read";
    case FX3_FW_ERASE_FAILED: return "the flash could not be erased";
    case FX3_FW_BLOCK_TOO_LONG: return "a block runs past the end of the file";
    case FX3_FW_BAD_I2C_SIZE: return "the head of the file names no EEPROM size";
    }
    return "unknown result";
}

void LoadFile(const Globals& g, const FirmwareOptions& o)
{
    const Target* t =
        std::find_if(std::begin(g_Targets), std::end(g_Targets), [&](const Target& k) { return o.sTo == k.szName; });
    std::ifstream in(kovtools::PathOf(o.sFile), std::ios::binary);
    const std::vector<char> bytes(std::istreambuf_iterator<char>(in), {});
    if (!in.is_open() || bytes.size() < 4)
        throw UserError(fmt::format("cannot read {}, or it is empty", o.sFile), 2);
    if (bytes[0] != 'C' || bytes[1] != 'Y')
        throw UserError(fmt::format("{} is no firmware image: it does not begin with CY", o.sFile), 2);
    constexpr size_t TABLE = 0x40000;  // where the hot-pixel table begins in the flash; the ID lies behind it
    if (t->media == FX3_MEDIA_SPI && bytes.size() > TABLE)
        throw UserError(
            fmt::format("{} has {} bytes; beyond {} lie the hot-pixel table and the ID", o.sFile, bytes.size(), TABLE), 2);
    fmt::print("{}: {} bytes to the {}: {}\n", o.sFile, bytes.size(), t->szName, t->szWhat);
    if (t->media == FX3_MEDIA_SPI)
        fmt::print("erases sectors 0 to {}; the hot-pixel table and the ID stay\n", (bytes.size() + 0xFFFF) / 0x10000 - 1);
    if (!o.bWrite) {
        fmt::print("nothing was written; add --write\n");
        return;
    }
    Camera cam(g.camera);
    if (!cam.Object().m_bUSB3Camera)
        throw UserError(fmt::format("{} is a USB 2 camera; images of this kind are for USB 3 cameras", cam.Info().Name), 2);
    Confirm(o, "write");
    const FX3_FWDWNLOAD_ERROR_CODE code = cam.Object().DownloadFw(o.sFile.c_str(), t->media);
    if (code != FX3_FW_SUCCESS)
        throw UserError(fmt::format("{} (code {})", ResultText(code), static_cast<int>(code)), 4);
    fmt::print("done; {}\n", t->media == FX3_MEDIA_RAM ? "the camera connects anew" : "unplug the camera and plug it in again");
}

void Firmware(const Globals& g, const FirmwareOptions& o)
{
    if (!o.sFile.empty())
        return LoadFile(g, o);
    const int iId = FindCamera(g.camera);
    const KOV_CAMERA_INFO info = InfoOf(iId);
    const Updatable* u = FindUpdatable(info.Name);
    const bool bOpeningWrites = u != nullptr && CanUpdate(*u);
    // Listing a Cobalt already opens it: it comes in variants that only the open camera tells apart.
    if (bOpeningWrites && !o.bWrite && u->image != FirmwareId::CobaltCol) {
        // To ask for the version the camera would have to be opened, and that is what updates it.
        if (g.json)
            Print(
                { { "firmware", nullptr }, { "fpga", nullptr }, { "update", fmt::format("when opened, below {}", u->iNeeded) } });
        else
            fmt::print(
                "{}\n  update        this build carries {} ({} bytes). Opening the camera, with any program, writes it if the\n"
                "                camera's version is below {}. Not opened now; to do it: kovcam firmware --write\n",
                info.Name, u->szFile, g_FirmwareData[static_cast<size_t>(u->image)].size, u->iNeeded);
        return;
    }
    if (o.bWrite && !bOpeningWrites)
        throw UserError(u != nullptr ? fmt::format("this build carries no image for {}; see 'kovcam firmware'", info.Name)
                                     : fmt::format("the library updates no firmware of {}; load a file with --file", info.Name),
                        2);
    if (o.bWrite)
        Confirm(o, "update");
    Camera cam(std::to_string(iId));
    TellVersions(g, cam, u);
}

}  // namespace

void AddDeviceCommands(CLI::App& app, Globals& g)
{
    auto* pGuide = app.add_subcommand("guide", "Pulse a pin of the guide port");
    auto direction = std::make_shared<int>(0);
    auto what = std::make_shared<std::string>();
    pGuide->add_option("direction", *direction, "Pin, 0 to 3; which way it moves the mount depends on the wiring")
        ->required()
        ->check(CLI::Range(0, 3));
    pGuide->add_option("pulse", *what, "A time such as 500ms, or on, or off")->required();
    pGuide->callback([&g, direction, what] { Guide(g, *direction, *what); });

    auto* pId = app.add_subcommand("id", "The 8 bytes that the camera keeps to be told from others");
    pId->require_subcommand(1);
    pId->add_subcommand("get", "Show it")->callback([&g] {
        Camera cam(g.camera);
        TellId(g, cam);
    });
    auto* pSet = pId->add_subcommand("set", "Store it in the camera's flash");
    auto text = std::make_shared<std::string>();
    auto hex = std::make_shared<bool>(false);
    pSet->add_option("id", *text, "1 to 8 characters")->required();
    pSet->add_flag("--hex", *hex, "Given as 16 hexadecimal digits");
    pSet->callback([&g, text, hex] {
        const KOV_ID id = ParseId(*text, *hex);
        Camera cam(g.camera);
        const KOV_ERROR_CODE code = KOVSetID(cam.Id(), id);
        if (code == KOV_ERROR_GENERAL)
            throw UserError("the camera's flash did not take the ID; USB 2 models may have no flash", 4);
        Check(code, "storing the ID");
        TellId(g, cam);
    });

    auto* pFirmware = app.add_subcommand("firmware", "Versions, and what an update would do; writes only with --write");
    auto f = std::make_shared<FirmwareOptions>();
    pFirmware->add_flag("--write", f->bWrite, "Do it");
    pFirmware->add_flag("--yes", f->bYes, "Do not ask");
    pFirmware->add_option("--file", f->sFile, "Load this image (begins with CY) into a USB 3 camera");
    pFirmware->add_option("--to", f->sTo, "Where to: ram, eeprom or flash")
        ->check(CLI::IsMember({ "ram", "eeprom", "flash" }))
        ->capture_default_str();
    pFirmware->callback([&g, f] { Firmware(g, *f); });
}

}  // namespace kovcam

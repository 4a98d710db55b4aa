// kovkills [N]: kills a process N times while it saves settings, dark frames, FITS files, SER videos, and hot-pixel tables in the
// flash of a virtual camera, each save of another generation. Afterwards the last save or the one before is there, whole; only a
// flash, which has to be erased before it is written, may hold nothing or the beginning of the last. Every sixth file meets a
// full disk instead.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "KOVCamera2.h"
#include "common/Files.h"
#include "common/Fits.h"
#include "common/Ser.h"
#include "fuzz/FuzzCamera.h"
#include "platform/Platform.h"
#include "platform/SettingsStore.h"
#include "platform/UsbAdapter.h"
#include "virtual/VirtualBus.h"

namespace fs = std::filesystem;

namespace {

constexpr int WIDTH = 320, HEIGHT = 240, FRAMES = 3;
constexpr int SPACING = 251, BEGINNING = 254, TORN = 255;  // beside generations of 1 to 250
constexpr double FLASH_RATE = 4;
constexpr const wchar_t* KEY = L"SOFTWARE\\KOVKills";
constexpr const wchar_t* VALUES[] = { L"Gain", L"Exp", L"Flip" };
std::string g_folder;

std::string PathTo(const char* name) { return g_folder + "/" + name; }

void SaveSettings(uint8_t generation)
{
    {
        const auto key = platform::CreateSettings(KEY);
        const uint32_t v = generation;
        for (const wchar_t* const name : VALUES)
            if (key)
                key->Set(name, platform::SETTING_DWORD, &v, sizeof v);
    }
    platform::FlushSettings();
}

void SaveDark(uint8_t generation)
{
    FuzzCamera camera(WIDTH, HEIGHT);
    std::fill_n(camera.m_pDarkBuf, WIDTH * HEIGHT, generation);
    kovtools::WholeFile whole(PathTo("dark.bmp"));
    camera.SaveBMPToFile(whole.Temporary().c_str());
    if (fs::file_size(whole.Temporary()) != 1078 + WIDTH * HEIGHT)
        kovtools::FailToWrite(PathTo("dark.bmp"));
    whole.Commit();
}

void SaveFits(uint8_t generation)
{
    const std::vector<uint8_t> samples(WIDTH * HEIGHT, generation);
    kovtools::WholeFile whole(PathTo("snap.fits"));
    kovtools::FitsFile fits(whole.Temporary(), WIDTH, HEIGHT, 1, false);
    whole.HoldAgain();
    fits.Plane(samples.data());
    fits.Close();
    whole.Commit();
}

void SaveSer(uint8_t generation)
{
    kovtools::CameraState state;
    state.width = WIDTH, state.height = HEIGHT, state.type = IMG_RAW8;
    const std::vector<uint8_t> samples(WIDTH * HEIGHT, generation);
    kovtools::SerWriter ser(PathTo("video.ser"), state);
    for (int i = 0; i < FRAMES; ++i)
        ser.Add({ samples.data(), WIDTH, HEIGHT, IMG_RAW8 }, std::chrono::steady_clock::now(), 0, 0.01);
    ser.Finish();
}

// A camera whose flash is a file. It has threads, so only a process of its own opens it.
CCameraBase& FlashCamera()
{
    static kovsim::VirtualBus& bus = *new kovsim::VirtualBus(FLASH_RATE);
    platform::SetClockRate(FLASH_RATE);
    kovsim::CameraSettings s;
    s.wProductId = 0xC02B;
    s.sFlashFile = PathTo("flash");
    bus.Plug(s);
    platform::SetUsbStack(&bus);
    if (KOVGetNumOfConnectedCameras() != 1 || KOVOpenCamera(0) != KOV_SUCCESS)
        _exit(TORN);
    return *CCameraBase::FromID(0);
}

// Hot are the pixels i with i % SPACING == generation.
void SaveTable(uint8_t generation)
{
    static CCameraBase& camera = FlashCamera();
    for (int i = 0; i < camera.m_iMaxWidth * camera.m_iMaxHeight; ++i)
        camera.m_pDarkBuf[i] = i % SPACING == generation ? 255 : 0;
    if (!camera.SaveHPCTable())
        _exit(TORN);
}

// The generation that all of it is of, -1 when it is torn, 0 when there is none.
int LoadSettings()
{
    const auto key = platform::OpenSettings(KEY);
    int found = 0;
    for (const wchar_t* const name : VALUES) {
        uint32_t v = 0, n = sizeof v;
        if (key && key->Query(name, &v, &n) != platform::STORE_OK)
            return found == 0 ? 0 : -1;
        if (found != 0 && found != static_cast<int>(v))
            return -1;
        found = static_cast<int>(v);
    }
    return found;
}

int LoadFile(const char* name, size_t size, size_t from, size_t samples)
{
    std::ifstream in(PathTo(name), std::ios::binary);
    if (!in)
        return 0;
    const std::vector<char> b{ std::istreambuf_iterator<char>(in), {} };
    if (b.size() != size)
        return -1;
    for (size_t i = from; i < from + samples; ++i)
        if (b[i] != b[from])
            return -1;
    return static_cast<uint8_t>(b[from]);
}

// Or BEGINNING.
int LoadTable()
{
    const pid_t child = fork();
    if (child == 0) {
        const CCameraBase& camera = FlashCamera();
        const int pixels = camera.m_iMaxWidth * camera.m_iMaxHeight;
        int generation = 0, expected = 0;
        for (int i = 0; i < pixels; ++i) {
            if (camera.m_pHPCBuf1[i] == 0)
                continue;
            if (generation == 0)
                generation = expected = i;
            if (i == expected)
                expected += SPACING;
            else if (i / 8 % 256 != 255)  // as which an erased record reads
                _exit(TORN);
        }
        _exit(generation == 0 ? 0 : generation > 250 ? TORN : expected < pixels ? BEGINNING : generation);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) != TORN ? WEXITSTATUS(status) : -1;
}

// Until the table has been erased and this block of it is there again.
void AwaitBlock(unsigned block)
{
    std::ifstream flash(PathTo("flash"), std::ios::binary);
    for (const bool erased : { true, false })
        for (int i = 0; i < 20000; ++i) {
            flash.seekg(0x40000 + 2048 * block);
            if ((flash.get() == 0xFF) == erased)
                break;
            flash.sync();
            usleep(20);
        }
}

struct Kind {
    const char* name;
    void (*save)(uint8_t);
    int (*load)();
    bool flash = false;
    int kills = 0, torn = 0, full = 0, cut = 0, gone = 0;
};
constexpr size_t PIXELS = WIDTH * HEIGHT, FITS_SIZE = 2880 + (PIXELS + 2879) / 2880 * 2880,
                 SER_SIZE = 178 + FRAMES * (PIXELS + 8);
Kind g_kinds[] = {
    { "settings", SaveSettings, LoadSettings },
    { "dark frame", SaveDark, [] { return LoadFile("dark.bmp", 1078 + PIXELS, 1078, PIXELS); } },
    { "FITS", SaveFits, [] { return LoadFile("snap.fits", FITS_SIZE, 2880, PIXELS); } },
    { "SER", SaveSer, [] { return LoadFile("video.ser", SER_SIZE, 178, FRAMES * PIXELS); } },
    { "hot pixels", SaveTable, LoadTable, true },
};

// Saves on and on; tells each generation that is done. 0 is none.
[[noreturn]] void SaveAlways(const Kind& kind, uint8_t last, int done)
{
    for (uint8_t g = last;;) {
        g = static_cast<uint8_t>(g % 250 + 1);
        kind.save(g);
        if (write(done, &g, 1) != 1)
            _exit(2);
    }
}

// A save for which there is no room fails with an exception and leaves what was there.
bool SaveOnFullDisk(const Kind& kind, uint8_t last, rlim_t room)
{
    const pid_t child = fork();
    if (child == 0) {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{ room, room };
        setrlimit(RLIMIT_FSIZE, &limit);
        try {
            kind.save(static_cast<uint8_t>(last % 250 + 1));
        } catch (const std::runtime_error&) {
            _exit(0);
        }
        _exit(1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

int main(int argc, char** argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 10000;
    g_folder = (fs::temp_directory_path() / "kovkillsXXXXXX").string();
    if (mkdtemp(g_folder.data()) == nullptr)
        return 2;
    setenv("XDG_CONFIG_HOME", g_folder.c_str(), 1);
    std::mt19937 random(1);
    for (int i = 0; i < rounds; ++i) {
        Kind& kind = g_kinds[static_cast<size_t>(i) % std::size(g_kinds)];
        const int before = kind.load();
        if (i % 6 == 5 && kind.save != SaveSettings && !kind.flash && before > 0) {
            ++kind.full;
            kind.torn += !SaveOnFullDisk(kind, static_cast<uint8_t>(before), 1 + random() % PIXELS) || kind.load() != before;
            continue;
        }
        int pipes[2];
        if (pipe(pipes) != 0)
            return 2;
        const pid_t child = fork();
        if (child == 0)
            SaveAlways(kind, static_cast<uint8_t>(std::max(before, 0)), pipes[1]);
        close(pipes[1]);
        uint8_t done = 0, g = 0;
        if (read(pipes[0], &done, 1) != 1)  // the first is there
            return 2;
        if (kind.flash && random() % 2 == 0)  // its writing is short beside the erasing
            AwaitBlock(static_cast<unsigned>(random() % 5));
        else
            usleep(static_cast<useconds_t>(random() % (kind.flash ? 40000 : 3000)));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
        while (read(pipes[0], &g, 1) == 1)
            done = g;
        close(pipes[0]);
        const int after = kind.load();
        ++kind.kills;
        const bool cut = kind.flash && (after == 0 || after == BEGINNING);
        kind.cut += cut && after != 0;
        kind.gone += cut && after == 0;
        kind.torn += !cut && after != done && after != done % 250 + 1;
    }
    int torn = 0, kills = 0;
    for (const Kind& kind : g_kinds) {
        std::printf("%-12s %6d kills, %5d full disks, %d torn or lost", kind.name, kind.kills, kind.full, kind.torn);
        std::printf(kind.flash ? ", %d cut short, %d gone\n" : "\n", kind.cut, kind.gone);
        torn += kind.torn;
        kills += kind.kills;
    }
    // What a killed writer leaves is its own temporary file, which the next one of the name takes over.
    int strays = 0;
    for (const Kind& kind : g_kinds)
        if (!kind.flash)
            kind.save(1);
    for (const auto& entry : fs::directory_iterator(g_folder)) {
        const std::string name = entry.path().filename().string();
        strays += name != "kovcamera2" && name != "dark.bmp" && name != "snap.fits" && name != "video.ser" && name != "flash";
    }
    for (const auto& entry : fs::directory_iterator(g_folder + "/kovcamera2"))
        strays += !entry.path().filename().string().starts_with("settings.db");
    std::printf("%d kills, %d torn or lost, %d files left over after the next save\n", kills, torn, strays);
    fs::remove_all(g_folder);
    return torn == 0 && strays == 0 && kills > 0 ? 0 : 1;
}

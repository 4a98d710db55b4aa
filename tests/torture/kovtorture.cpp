// Faults to the last call: for every family each USB call, and each allocation of the library, of an open, a video, a snap
// and a close fails once, at position 1, 2, 3 ... to the last, and for ever from there. After each: no call over its limit, a
// told code, no block of memory more than before, and after a close and an open a good frame within two.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "KOVCamera2.h"
#include "platform/Platform.h"
#include "platform/UsbAdapter.h"
#include "torture/Faults.h"
#include "virtual/VirtualBus.h"

namespace {

struct FamilyRow {
    const char* szName;
    uint16_t wProductId;
};
constexpr FamilyRow g_Families[] = {
    { "Quartz", 0xC11A },   { "Garnet", 0xC07A }, { "Kyanite", 0xC0B0 }, { "Pyrite", 0xC10A },  { "Marble", 0xC0DA },
    { "Nephrite", 0xC0EA }, { "Onyx", 0xC0FA },   { "Beryl", 0xC02A },   { "Lapis", 0xC0CA },   { "Ebony", 0xC05A },
    { "Flint", 0xC06A },    { "Halite", 0xC08A }, { "Jasper", 0xC0AA },  { "GarnetS", 0xC07E }, { "Iolite", 0xC09A },
    { "Cobalt", 0xC03A },   { "Dunite", 0xC04B }, { "Agate", 0xC01A },
};

constexpr const char* STEPS[] = { "open", "video", "snap", "close" };
enum Step { OPEN, VIDEO, SNAP, CLOSE };

struct Options {
    std::string sFamilies = "all", sKinds = "usb,memory", sSteps = "open,video,snap,close";
    uint64_t uEvery = 1, uAt = 0;
    double dRate = 20;
};

// The case at hand, for whoever ends the program in its midst.
char g_szCase[160] = "start";
std::atomic<time_t> g_tCase{ 0 };

void Die(const char* szWhat)
{
    std::fprintf(stderr, "%s: %s\n", g_szCase, szWhat);
    std::_Exit(3);
}

class Sweep {
public:
    Sweep(const FamilyRow& family, const Options& o) : m_family(family), m_o(o), m_bus(o.dRate)
    {
        platform::SetClockRate(o.dRate);
        kovsim::CameraSettings s;
        s.wProductId = family.wProductId;
        s.dNoise = 0;
        s.iHotPixels = 0;
        s.scene = kovsim::Scene::Pattern();
        m_bus.Plug(s);
        m_stack = MakeFaultyStack(m_bus);
        platform::SetUsbStack(m_stack.get());
    }
    ~Sweep()
    {
        KOVCloseCamera(0);
        platform::SetUsbStack(nullptr);
        platform::SetClockRate(1);
    }

    int Run()
    {
        std::snprintf(g_szCase, sizeof g_szCase, "%s without a fault", m_family.szName);
        g_tCase = time(nullptr);
        if (!TakeReference())
            return Problem("gives no stable frame"), 1;
        for (const char* szKind : { "usb", "memory" }) {
            if (m_o.sKinds.find(szKind) == std::string::npos || (*szKind == 'm' && !CountsAllocations()))
                continue;
            for (int step = OPEN; step <= CLOSE; ++step)
                if (m_o.sSteps.find(STEPS[step]) != std::string::npos)
                    for (const bool bForever : { false, true })
                        Positions(*szKind == 'm' ? g_Allocations : g_UsbCalls, szKind, Step(step), bForever);
        }
        return m_nProblems;
    }

private:
    struct Row {
        int nCases = 0, nTold = 0;  // cases; with another code than success
        std::map<std::string, uint32_t> worst;
    };

    void Positions(Trigger& trigger, const char* szKind, Step step, bool bForever)
    {
        Row row;
        m_pRow = &row;
        const int nBefore = m_nProblems;
        uint64_t uLast = 0;
        for (uint64_t u = m_o.uAt ? m_o.uAt : 1;; u += m_o.uEvery) {
            std::snprintf(g_szCase, sizeof g_szCase, "%s %s %s %s %llu", m_family.szName, STEPS[step], szKind,
                          bForever ? "from" : "at", static_cast<unsigned long long>(u));
            g_tCase = time(nullptr);
            m_bMemory = *szKind == 'm';
            if (step != OPEN && !Open())
                break;
            trigger.Arm(u, bForever);
            Do(step);
            const uint64_t uSeen = trigger.Disarm();
            uLast = std::max(uLast, uSeen);
            Recover();
            if (uSeen < u)
                break;  // it was over before the fault
            ++row.nCases;
            if (m_o.uAt)
                break;
        }
        std::printf("%-9s %-6s %-7s %-8s %6d %6d %5d  ", m_family.szName, STEPS[step], szKind, bForever ? "for ever" : "once",
                    row.nCases, row.nTold, m_nProblems - nBefore);
        for (const auto& [name, ms] : row.worst)
            std::printf(" %s %u", name.c_str(), ms);
        std::printf("\n");
        std::fflush(stdout);
    }

    // A call of the host. Limits are in ms of the library's clock; a machine that stands still for a moment breaks none.
    template <class Body>
    int Call(const char* szName, uint32_t uLimit, std::initializer_list<int> told, Body body)
    {
        const auto real = std::chrono::steady_clock::now();
        const uint32_t t0 = platform::Ticks();
        int r;
        {
            const InLibrary library;
            r = body();
        }
        const uint32_t ms = platform::Ticks() - t0;
        if (m_pRow)
            m_pRow->worst[szName] = std::max(m_pRow->worst[szName], ms);
        if (ms > uLimit && std::chrono::steady_clock::now() - real > std::chrono::seconds(1))
            Problem(std::string(szName) + " took " + std::to_string(ms) + " ms");
        bool bTold = m_bMemory && r == KOV_ERROR_GENERAL;
        for (const int code : told)
            bTold |= r == code;
        if (!bTold)
            Problem(std::string(szName) + " answers " + std::to_string(r));
        if (r != KOV_SUCCESS && m_pRow)
            m_bTold = true;
        return r;
    }

    bool Open()
    {
        const int n = Call("count", 1000, { 0, 1 }, [] { return KOVGetNumOfConnectedCameras() == 1 ? 0 : 1; });
        const int r =
            Call("open", 60000, { KOV_SUCCESS, KOV_ERROR_OPEN_FAILED, KOV_ERROR_BAD_ID }, [] { return KOVOpenCamera(0); });
        if (n != 0 || r != KOV_SUCCESS)
            return false;
        const std::initializer_list<int> any = { KOV_SUCCESS, KOV_ERROR_BAD_SIZE };
        if (Call("region", 60000, any, [&] { return KOVSetROIFormat(0, m_w, m_h, 1, IMG_RAW8); }) != KOV_SUCCESS)
            return false;
        Call("control", 10000, { KOV_SUCCESS, KOV_ERROR_GENERAL }, [] { return KOVSetControlValue(0, CTRL_GAIN, 0, KOV_FALSE); });
        return Call("control", 10000, { KOV_SUCCESS, KOV_ERROR_GENERAL },
                    [] { return KOVSetControlValue(0, CTRL_EXPOSURE, 5000, KOV_FALSE); }) == KOV_SUCCESS;
    }
    void Close()
    {
        Call("close", 10000, { KOV_SUCCESS, KOV_ERROR_BAD_ID }, [] { return KOVCloseCamera(0); });
    }
    int Frame(uint32_t uWait = WAIT)
    {
        m_frame.assign(size_t(m_w) * size_t(m_h), 0);
        return Call("frame", 4 * uWait + 1000, { KOV_SUCCESS, KOV_ERROR_TIMEOUT },
                    [&] { return KOVGetVideoData(0, m_frame.data(), int32_t(m_frame.size()), int32_t(uWait)); });
    }
    int Stop()
    {
        return Call("stop", 6000, { KOV_SUCCESS, KOV_ERROR_NOT_OPEN }, [] { return KOVStopVideoCapture(0); });
    }
    int Start()
    {
        return Call("start", 60000, { KOV_SUCCESS, KOV_ERROR_NOT_OPEN }, [] { return KOVStartVideoCapture(0); });
    }

    void Do(Step step)
    {
        m_bTold = false;
        switch (step) {
        case OPEN: Open(); break;
        case VIDEO:
            if (Start() == KOV_SUCCESS)
                for (int i = 0; i < 2 && Frame() == KOV_SUCCESS; ++i) {
                }
            Stop();
            break;
        case SNAP: {
            Call("expose", 60000, { KOV_SUCCESS }, [] { return KOVStartExposure(0); });
            KOV_EXPOSURE_STATUS status = EXP_WORKING;
            for (const uint32_t t0 = platform::Ticks(); status == EXP_WORKING && platform::Ticks() - t0 < 30000;) {
                platform::SleepMs(20);
                KOVGetExpStatus(0, &status);
            }
            m_frame.assign(size_t(m_w) * size_t(m_h), 0);
            if (status == EXP_SUCCESS)
                Call("fetch", 10000, { KOV_SUCCESS }, [&] { return KOVGetDataAfterExp(0, m_frame.data(), int(m_frame.size())); });
            else
                m_bTold = true;
            Call("unexpose", 6000, { KOV_SUCCESS }, [] { return KOVStopExposure(0); });
            break;
        }
        case CLOSE: Close(); break;
        }
        m_pRow->nTold += m_bTold;
    }

    void Recover()
    {
        Row* const pRow = m_pRow;
        m_pRow = nullptr;
        m_bMemory = false;
        Close();
        bool bGood = false;
        if (!Open() || Start() != KOV_SUCCESS)
            Problem("does not serve again");
        else {
            int r[2] = {};
            for (int i = 0; i < 2 && !bGood; ++i)
                bGood = (r[i] = Frame(PATIENT)) == KOV_SUCCESS && m_frame == m_reference;
            if (!bGood)
                Problem("no good frame among two afterwards: " + std::to_string(r[0]) + ", " + std::to_string(r[1]));
        }
        Stop();
        Close();
        platform::SetUsbStack(m_stack.get());  // forgets the descriptors, which differ where the camera restarted
        if (CountsAllocations() && LibraryBlocks() != m_lBlocks) {
            Problem(std::to_string(LibraryBlocks() - m_lBlocks) + " blocks of memory more than before");
            m_lBlocks = LibraryBlocks();
        }
        m_pRow = pRow;
    }

    // Twice, so that everything that is made once has been.
    bool TakeReference()
    {
        for (int i = 0; i < 2; ++i) {
            if (!Open() && (m_w = 640, m_h = 480, !Open()))
                return false;
            if (Start() != KOV_SUCCESS || Frame(PATIENT) != KOV_SUCCESS)
                return false;
            m_reference = m_frame;
            if (Frame(PATIENT) != KOV_SUCCESS || m_reference != m_frame)
                return false;
            Stop();
            Row row;
            m_pRow = &row;
            Do(SNAP);
            m_pRow = nullptr;
            Close();
        }
        platform::SetUsbStack(m_stack.get());
        m_lBlocks = LibraryBlocks();
        return true;
    }

    void Problem(const std::string& sWhat)
    {
        std::printf("%s: %s\n", g_szCase, sWhat.c_str());
        std::fflush(stdout);
        ++m_nProblems;
    }

    static constexpr uint32_t WAIT = 2000, PATIENT = 60000;  // ms; a busy machine may be late
    const FamilyRow& m_family;
    const Options& m_o;
    kovsim::VirtualBus m_bus;
    std::unique_ptr<usbstack::IStack> m_stack;
    int m_w = 320, m_h = 240;
    std::vector<uint8_t> m_reference, m_frame;
    int64_t m_lBlocks = 0;
    bool m_bMemory = false, m_bTold = false;
    Row* m_pRow = nullptr;
    int m_nProblems = 0;
};

int Usage()
{
    std::puts(
        "kovtorture [--family NAME,...|all] [--kind usb,memory] [--step open,video,snap,close] [--every N] [--at N] [--rate R]\n"
        "--every 10 tries each tenth position, --at one alone. KOV_LOG shows what the library says.");
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    Options o;
    for (int i = 1; i < argc; i += 2) {
        const std::string name = argv[i], value = i + 1 < argc ? argv[i + 1] : "";
        if (value.empty())
            return Usage();
        else if (name == "--family")
            o.sFamilies = value;
        else if (name == "--kind")
            o.sKinds = value;
        else if (name == "--step")
            o.sSteps = value;
        else if (name == "--every")
            o.uEvery = std::strtoull(value.c_str(), nullptr, 10);
        else if (name == "--at")
            o.uAt = std::strtoull(value.c_str(), nullptr, 10);
        else if (name == "--rate")
            o.dRate = std::atof(value.c_str());
        else
            return Usage();
    }
    if (o.uEvery == 0 || o.dRate <= 0)
        return Usage();
    char folder[] = "/tmp/kovtorture-XXXXXX";
    if (mkdtemp(folder) == nullptr)
        return 2;
    setenv("XDG_CONFIG_HOME", folder, 1);
    std::signal(SIGSEGV, [](int) { Die("segmentation fault"); });
    std::signal(SIGABRT, [](int) { Die("aborted"); });
    g_tCase = time(nullptr);
    std::thread([] {
        for (;; std::this_thread::sleep_for(std::chrono::seconds(1)))
            if (time(nullptr) - g_tCase > 180)
                Die("hangs");
    }).detach();

    std::printf("%-9s %-6s %-7s %-8s %6s %6s %5s   slowest calls, ms of the camera's clock\n", "family", "step", "fails", "",
                "cases", "told", "wrong");
    int nProblems = 0;
    bool bAny = false;
    for (const FamilyRow& f : g_Families) {
        std::istringstream names(o.sFamilies);
        bool bWanted = o.sFamilies == "all";
        for (std::string s; std::getline(names, s, ',');)
            bWanted |= s == f.szName;
        if (!bWanted)
            continue;
        bAny = true;
        nProblems += Sweep(f, o).Run();
    }
    [[maybe_unused]] const int r = std::system((std::string("rm -rf ") + folder).c_str());
    if (!bAny)
        return Usage();
    return nProblems == 0 ? 0 : 1;
}

// Streams from several virtual cameras at once, with random faults, restarts, snaps, reconnections and control changes
// from further threads, and balances the accounts: what the cameras sent against what the host got.
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "KOVCamera2.h"
#include "camera/CCameraBase.h"
#include "platform/Platform.h"
#include "platform/UsbAdapter.h"
#include "usb/CUsbLink.h"
#include "virtual/VirtualBus.h"

namespace {

using kovsim::FaultKind;
using kovsim::FrameCounters;
using kovsim::Marks;
using SteadyClock = std::chrono::steady_clock;

constexpr int HANG_SECONDS = 120;      // real time that no call may take
constexpr int REST_SECONDS = 60;       // real time after which a capture has ended
constexpr int QUIET_SECONDS = 1;       // real time in which a busy machine still hands over what has been sent
constexpr uint8_t START_STREAM = 169;  // request
constexpr uint32_t SILENCE = 1000000;  // frames

struct Options {
    double dMinutes = 1, dRate = 2;
    uint64_t uSeed = 1;
    std::vector<std::string> cameras = { "QuartzCol", "LapisCol", "GarnetMono", "DuniteCol" };
};

// --- findings -------------------------------------------------------------------------------------------------------

std::mutex g_ReportMutex;
int g_iFailures = 0;

__attribute__((format(printf, 1, 2))) void Fail(const char* szFormat, ...)
{
    const std::lock_guard l(g_ReportMutex);
    va_list args;
    va_start(args, szFormat);
    std::printf("FAILED: ");
    std::vprintf(szFormat, args);
    std::printf("\n");
    std::fflush(stdout);
    va_end(args);
    ++g_iFailures;
}

// Enumerating, opening and closing must not overlap with other calls; those go side by side.
class Gate {
public:
    void EnterShared()
    {
        std::unique_lock l(m_Mutex);
        m_Wake.wait(l, [&] { return !m_bWanted; });
        ++m_iInside;
    }
    void LeaveShared()
    {
        const std::lock_guard l(m_Mutex);
        --m_iInside;
        m_Wake.notify_all();
    }
    void EnterAlone()
    {
        std::unique_lock l(m_Mutex);
        m_Wake.wait(l, [&] { return !m_bWanted; });
        m_bWanted = true;
        m_Wake.wait(l, [&] { return m_iInside == 0; });
    }
    void LeaveAlone()
    {
        const std::lock_guard l(m_Mutex);
        m_bWanted = false;
        m_Wake.notify_all();
    }

private:
    std::mutex m_Mutex;
    std::condition_variable m_Wake;
    int m_iInside = 0;
    bool m_bWanted = false;
};

Gate g_Gate;
std::mutex g_Absence;  // one camera at a time may be off the bus: the others' IDs hang on it
std::atomic<bool> g_bStop{ false };

// Pixels of equal residue and filter phase have one value in every whole frame of the pattern, whatever exposure and
// gain; a torn, shifted or wrongly joined frame shows two.
bool IsWhole(const std::vector<uint8_t>& data, int w, int h)
{
    std::array<int16_t, 4 * 251> seen;
    seen.fill(-1);
    for (size_t i = size_t(w) + 1; i + size_t(w) < data.size(); i += 37) {
        const int x = int(i % size_t(w)), y = int(i / size_t(w));
        int16_t& v = seen[size_t((y & 1) * 2 + (x & 1)) * 251 + size_t((x * 7 + y * 13) % 251)];
        if (v >= 0 && v != data[i])
            return false;
        v = data[i];
    }
    return h > 2;
}

// --- one camera -----------------------------------------------------------------------------------------------------

class Soaked {
    static int64_t Now()
    {
        return std::chrono::duration_cast<std::chrono::seconds>(SteadyClock::now().time_since_epoch()).count();
    }
    template <class Body>
    auto Shared(int iThread, Body body)
    {
        g_Gate.EnterShared();
        m_CallSince[size_t(iThread)] = Now();
        const auto r = body();
        m_CallSince[size_t(iThread)] = 0;
        g_Gate.LeaveShared();
        return r;
    }
    template <class Body>
    auto Alone(Body body)
    {
        g_Gate.EnterAlone();
        m_CallSince[0] = Now();
        const auto r = body();
        m_CallSince[0] = 0;
        g_Gate.LeaveAlone();
        return r;
    }

public:
    Soaked(int id, kovsim::VirtualCamera& cam, uint64_t uSeed)
        : m_iId(id), m_Cam(cam), m_Rng(uSeed * 977 + uint64_t(id)), m_bSmall(!cam.Facts().bUSB3)
    {
        m_W = std::min(640, cam.Facts().iWidth / 8 * 8);
        m_H = std::min(480, cam.Facts().iHeight / 8 * 8);
    }

    struct Totals {
        std::atomic<uint64_t> nGood{ 0 }, nDelivered{ 0 }, nDropped{ 0 }, nSpoiled{ 0 }, nAborted{ 0 };
        std::atomic<uint64_t> nVideos{ 0 }, nExact{ 0 }, nSnaps{ 0 }, nLosses{ 0 }, nControls{ 0 }, nNoise{ 0 };
    };
    const Totals& Sums() const { return m_Sums; }
    kovsim::VirtualCamera& Cam() { return m_Cam; }
    const char* Name() const { return m_Cam.Facts().sToken.c_str(); }
    bool Hangs() const
    {
        for (const auto& since : m_CallSince) {
            const int64_t at = since;
            if (at != 0 && Now() - at > HANG_SECONDS)
                return true;
        }
        return false;
    }

    bool Open()
    {
        return Alone([&] { return KOVOpenCamera(m_iId) == KOV_SUCCESS; }) && Shared(0, [&] {
                   KOVSetControlValue(m_iId, CTRL_BANDWIDTH, 80, KOV_FALSE);
                   return SetRegion();
               });
    }
    void Close()
    {
        Alone([&] { return KOVCloseCamera(m_iId); });
    }

    void Run()
    {
        while (!g_bStop) {
            const uint32_t n = Pick(0, 19);
            if (n < 6)
                Video(false, false);
            else if (n < 11)
                Video(true, false);
            else if (n < 13)
                Video(Pick(0, 1) != 0, true);
            else if (n < 18)
                Snap();
            else if (n < 19)
                Lose();
            else {
                Close();
                if (!Open())
                    Fail("%s: cannot be opened again", Name());
            }
        }
    }
    // One of each kind, in order: what a process allocates once is then there.
    void WarmUp()
    {
        // The scene of a large sensor takes longer to render than a short video lasts at a fast rate.
        m_Data.resize(size_t(m_W) * size_t(m_H));
        KOVStartVideoCapture(m_iId);
        Get(120000);
        KOVStopVideoCapture(m_iId);
        Video(true, false);
        Snap();
        Lose();
    }

private:
    // Writes all registers of the frame.
    bool SetRegion()
    {
        const bool ok = KOVSetROIFormat(m_iId, m_W, m_H, 1, IMG_RAW8) == KOV_SUCCESS;
        m_uLostReplies = m_Cam.LostReplies();
        return ok;
    }

    // Started frames are all good, spoiled or cut off: the bridge holds none.
    static bool IsSettled(const FrameCounters& c) { return c.uStarted == c.uGood + c.uSpoiled + c.uAborted; }

    // A snap that has told its outcome is still ending: a frame that comes until its thread has stopped the sensor belongs to
    // nobody, and to no account either. The same with a stop that a busy machine keeps from being done in its 5 s.
    void AwaitRest()
    {
        const auto end = SteadyClock::now() + std::chrono::seconds(REST_SECONDS);
        while (m_Cam.CurrentReadout().bStreaming || !IsSettled(m_Cam.Counters())) {
            if (SteadyClock::now() > end)
                return Fail("%s: streams on after its capture", Name());
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    // Noise comes of two causes. A register that is read, changed and written back (the clock of Quartz and Onyx, by SetGain)
    // comes out wrong when the answer is lost, and the sensor sends noise until the region is set anew. And the lock is held for
    // one transfer: where the capture thread starts the stream anew beside a control, a register of several bytes may be
    // mixed for a moment. Nothing else may make registers contradict each other, and no other frame may be torn.
    void Judge(const FrameCounters& before, uint64_t nTorn, const char* szWhat)
    {
        const uint64_t nNoise = m_Cam.Counters().uContradicted - before.uContradicted;
        if (nTorn > nNoise)
            Fail("%s: %llu torn %s", Name(), static_cast<unsigned long long>(nTorn - nNoise), szWhat);
        if (nNoise == 0)
            return;
        m_Sums.nNoise += nNoise;
        const std::vector<kovsim::Request> requests = m_Cam.Requests();
        const auto nStarts =
            std::count_if(requests.begin(), requests.end(), [](const auto& r) { return r.bRequest == START_STREAM; });
        if (m_Cam.LostReplies() == m_uLostReplies && nStarts <= 1)
            Fail("%s: %s of noise, no reply was lost: %s", Name(), szWhat, m_Cam.LastContradiction().c_str());
        AwaitRest();
        if (!Shared(0, [&] { return SetRegion(); }))
            Fail("%s: the region cannot be set again", Name());
    }

    uint32_t Pick(uint32_t lo, uint32_t hi) { return std::uniform_int_distribution<uint32_t>(lo, hi)(m_Rng); }

    KOV_ERROR_CODE Set(int iThread, KOV_CONTROL_TYPE c, int32_t v, KOV_BOOL a = KOV_FALSE)
    {
        ++m_Sums.nControls;
        return Shared(iThread, [&] { return KOVSetControlValue(m_iId, c, v, a); });
    }

    // bShort: exposures at which the small-chunk forms test heads and hand on damaged frames.
    void SetExposure(int iThread, std::mt19937_64& rng, bool bShort)
    {
        const bool bLow = !m_bSmall || bShort;
        Set(iThread, CTRL_EXPOSURE, std::uniform_int_distribution<int32_t>(bLow ? 5000 : 100000, bLow ? 99000 : 160000)(rng));
    }

    // Beside a video: everything that a host may change while it runs.
    void Controls(uint64_t uSeed, bool bShort, const std::atomic<bool>& bEnd)
    {
        std::mt19937_64 rng(uSeed);
        const auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
        while (!bEnd) {
            int32_t v;
            KOV_BOOL a;
            switch (pick(0, 8)) {
            case 0: SetExposure(1, rng, bShort); break;
            case 1: Set(1, CTRL_GAIN, pick(0, 60)); break;
            case 2: Set(1, CTRL_BRIGHTNESS, pick(0, 20)); break;
            case 3: Set(1, CTRL_BANDWIDTH, pick(60, 90)); break;
            case 4: Set(1, CTRL_WB_R, pick(40, 60)); break;
            case 5: Set(1, CTRL_GAMMA, pick(45, 55)); break;
            case 6: Shared(1, [&] { return KOVGetControlValue(m_iId, CTRL_TEMPERATURE, &v, &a); }); break;
            case 7: Shared(1, [&] { return KOVGetControlValue(m_iId, CTRL_EXPOSURE, &v, &a); }); break;
            default:
                Shared(1, [&] { return KOVPulseGuideOn(m_iId, KOV_GUIDE_1); });
                Shared(1, [&] { return KOVPulseGuideOff(m_iId, KOV_GUIDE_1); });
            }
            platform::SleepMs(uint32_t(pick(20, 300)));
        }
    }

    void InjectOne()
    {
        const auto bytes = uint32_t(m_W) * uint32_t(m_H);
        const Marks marks = m_Cam.Facts().marks;
        switch (Pick(0, 6)) {
        // An odd count: without a tail mark a frame cut at a chunk's end cannot be told from a whole one.
        case 0: m_Cam.Inject({ FaultKind::ShortFrame, Pick(4, bytes / 4) * 2 + 1, 0, Pick(1, 3) }); break;
        case 1: m_Cam.Inject({ FaultKind::BadHead, 0, 0, Pick(1, 4) }); break;
        case 2: m_Cam.Inject({ marks == Marks::B ? FaultKind::BadHead : FaultKind::BadTail, 0, 0, 1 }); break;
        case 3: m_Cam.Inject({ marks == Marks::A ? FaultKind::BadTag : FaultKind::BadHead, 0, 0, 1 }); break;
        case 4: m_Cam.Inject({ FaultKind::StallBulk }); break;
        case 5: m_Cam.Inject({ FaultKind::NoFrame, 0, 0, Pick(1, 5) }); break;
        default: m_Cam.Inject({ FaultKind::SlowControl, Pick(20, 700), 0, Pick(1, 3) });
        }
    }

    KOV_ERROR_CODE Get(uint32_t ms)
    {
        return Shared(0, [&] { return KOVGetVideoData(m_iId, m_Data.data(), int32_t(m_Data.size()), int32_t(ms)); });
    }

    void Video(bool bFaults, bool bShort)
    {
        m_Data.resize(size_t(m_W) * size_t(m_H));
        AwaitRest();
        SetExposure(0, m_Rng, bShort);
        // The frame of a stopped snap lies in the ring until the next capture has begun.
        while (Get(0) == KOV_SUCCESS) {
        }
        const FrameCounters before = m_Cam.Counters();
        m_Cam.ClearRequests();
        if (Shared(0, [&] { return KOVStartVideoCapture(m_iId); }) != KOV_SUCCESS)
            return Fail("%s: video does not start", Name());
        uint64_t nGot = 0, nTorn = 0;
        const auto take = [&](uint32_t ms) {
            const KOV_ERROR_CODE r = Get(ms);
            if (r == KOV_SUCCESS) {
                ++nGot;
                nTorn += !IsWhole(m_Data, m_W, m_H);
            }
            return r == KOV_SUCCESS;
        };
        take(10000);  // the stream has started: until then two threads would write the same registers
        std::atomic<bool> bEnd{ false };
        std::thread controls([&, uSeed = m_Rng()] { Controls(uSeed, bShort, bEnd); });
        const uint32_t dwStart = platform::Ticks(), dwLength = Pick(1000, 6000);
        uint32_t dwFault = dwStart + 500;
        while (platform::Ticks() - dwStart < dwLength) {
            take(300);
            if (Pick(0, 30) == 0)
                platform::SleepMs(Pick(100, 800));  // a reader that is too slow
            if (bFaults && int32_t(platform::Ticks() - dwFault) > 0) {
                InjectOne();
                dwFault = platform::Ticks() + Pick(300, 1500);
            }
        }
        bEnd = true;
        controls.join();
        // Silence, until all that was sent has come through.
        m_Cam.ClearFaults();
        const FrameCounters mid = m_Cam.Counters();
        m_Cam.Inject({ FaultKind::NoFrame, 0, 0, SILENCE });
        const auto limit = SteadyClock::now() + std::chrono::seconds(REST_SECONDS);
        for (auto last = SteadyClock::now(); SteadyClock::now() < limit;) {
            if (take(2000) || !IsSettled(m_Cam.Counters()))
                last = SteadyClock::now();
            else if (SteadyClock::now() - last >= std::chrono::seconds(QUIET_SECONDS))
                break;
        }
        const FrameCounters now = m_Cam.Counters();
        int32_t dropped = 0;
        Shared(0, [&] { return KOVGetDroppedFrames(m_iId, &dropped); });
        if (Shared(0, [&] { return KOVStopVideoCapture(m_iId); }) != KOV_SUCCESS)
            Fail("%s: video does not stop", Name());
        m_Cam.ClearFaults();
        Balance(before, mid, now, int64_t(nGot), dropped, bShort);
        Judge(before, nTorn, "frames");
    }

    // Good frames = delivered + dropped + thrown away. Thrown away by rule: the first frame of a small-chunk form, and whole
    // frames that a resynchronisation meets. Dropped besides good ones (ring full): each damaged frame that the host saw.
    // So with nothing damaged or cut off the account is exact, and each such frame leaves it open by one either way.
    void Balance(const FrameCounters& before, const FrameCounters& mid, const FrameCounters& now, int64_t got, int64_t dropped,
                 bool bShort)
    {
        const auto silent = int64_t(now.uWithheld - mid.uWithheld);
        const auto good = int64_t(now.uGood - before.uGood), spoiled = int64_t(now.uSpoiled - before.uSpoiled) - silent;
        const auto aborted = int64_t(now.uAborted - before.uAborted);
        const int64_t started = int64_t(now.uStarted - before.uStarted) - silent;
        const int64_t thrown = good - got - dropped - (m_bSmall && good > 0 ? 1 : 0), open = spoiled + aborted;
        ++m_Sums.nVideos;
        m_Sums.nGood += uint64_t(good);
        m_Sums.nSpoiled += uint64_t(spoiled);
        m_Sums.nAborted += uint64_t(aborted);
        m_Sums.nDelivered += uint64_t(got);
        m_Sums.nDropped += uint64_t(dropped);
        m_Sums.nExact += open == 0 && !bShort;
        // Below 100 ms the head test of the small-chunk forms passes over good frames, and Dunite hands damaged ones on.
        const bool bLoose = bShort && m_bSmall;
        const bool bBalanced = bLoose ? thrown >= -2 * open : thrown >= -open && thrown <= open;
        if (!bBalanced || started != good + spoiled + aborted || got == 0)
            Fail("%s: %lld sent = %lld good + %lld damaged + %lld cut off; %lld delivered, %lld dropped, %lld thrown away",
                 Name(), (long long)started, (long long)good, (long long)spoiled, (long long)aborted, (long long)got,
                 (long long)dropped, (long long)thrown);
    }

    KOV_EXPOSURE_STATUS Status()
    {
        KOV_EXPOSURE_STATUS s = EXP_IDLE;
        Shared(0, [&] { return KOVGetExpStatus(m_iId, &s); });
        return s;
    }

    void Snap()
    {
        m_Data.resize(size_t(m_W) * size_t(m_H));
        AwaitRest();
        Set(0, CTRL_EXPOSURE, int32_t(Pick(5000, 120000)));
        if (Pick(0, 2) == 0)
            m_Cam.Inject({ Pick(0, 1) ? FaultKind::BadHead : FaultKind::ShortFrame, 11, 0, Pick(1, 2) });
        const FrameCounters before = m_Cam.Counters();
        m_Cam.ClearRequests();
        uint64_t nTorn = 0;
        if (Shared(0, [&] { return KOVStartExposure(m_iId); }) != KOV_SUCCESS)
            return Fail("%s: exposure does not start", Name());
        ++m_Sums.nSnaps;
        if (Pick(0, 4) == 0) {
            platform::SleepMs(Pick(0, 100));
        } else {
            const auto end = SteadyClock::now() + std::chrono::seconds(60);
            while (Status() == EXP_WORKING && SteadyClock::now() < end)
                platform::SleepMs(5);
            const KOV_EXPOSURE_STATUS s = Status();
            if (s == EXP_SUCCESS) {
                Shared(0, [&] { return KOVGetDataAfterExp(m_iId, m_Data.data(), int32_t(m_Data.size())); });
                nTorn = !IsWhole(m_Data, m_W, m_H);
            } else {
                Fail("%s: a snap ended in status %d", Name(), int(s));
            }
        }
        Shared(0, [&] { return KOVStopExposure(m_iId); });
        m_Cam.ClearFaults();
        Judge(before, nTorn, "snaps");
    }

    // The cable falls out during a video and is plugged in again: everything ends in time, and the camera is found anew.
    void Lose()
    {
        const std::lock_guard absent(g_Absence);
        m_Data.resize(size_t(m_W) * size_t(m_H));
        ++m_Sums.nLosses;
        const bool bSnap = Pick(0, 3) == 0;
        Shared(0, [&] { return bSnap ? KOVStartExposure(m_iId) : KOVStartVideoCapture(m_iId); });
        if (!bSnap)
            Get(2000);
        m_Cam.Unplug();
        for (uint32_t i = Pick(0, 4); i > 0; --i)
            bSnap ? (void)Status() : (void)Get(300);
        if (Pick(0, 1) != 0)
            Shared(0, [&] { return bSnap ? KOVStopExposure(m_iId) : KOVStopVideoCapture(m_iId); });
        Close();
        m_Cam.Replug();
        Alone([&] { return KOVGetNumOfConnectedCameras(); });
        if (!Open())
            Fail("%s: not found again after it came back", Name());
    }

    const int m_iId;
    kovsim::VirtualCamera& m_Cam;
    std::mt19937_64 m_Rng;
    const bool m_bSmall;
    int m_W, m_H;
    uint64_t m_uLostReplies = 0;  // when the region was set
    std::vector<uint8_t> m_Data;
    Totals m_Sums;
    std::atomic<int64_t> m_CallSince[2] = { 0, 0 };  // worker, control thread
};

// --- what the process holds -----------------------------------------------------------------------------------------

int CountOf(const char* szFolder)
{
    return static_cast<int>(std::distance(std::filesystem::directory_iterator(szFolder), std::filesystem::directory_iterator()));
}

struct Held {
    int iThreads = CountOf("/proc/self/task"), iFiles = CountOf("/proc/self/fd");
    size_t nHeap = 0;
    long lResidentKB = 0;
    Held()
    {
        const struct mallinfo2 m = mallinfo2();  // zeros under AddressSanitizer, whose leak check does this better
        nHeap = m.uordblks + m.hblkhd;
        if (FILE* f = std::fopen("/proc/self/statm", "r")) {
            long lAll = 0;
            if (std::fscanf(f, "%ld %ld", &lAll, &lResidentKB) != 2)
                lResidentKB = 0;
            lResidentKB *= sysconf(_SC_PAGESIZE) / 1024;
            std::fclose(f);
        }
    }
};

// Closes everything, waits until short-lived threads have gone, and looks.
Held Settle(std::vector<std::unique_ptr<Soaked>>& all, int iThreads)
{
    for (auto& p : all) {
        p->Close();
        p->Cam().ClearRequests();
    }
    for (int i = 0; i < 200 && iThreads != 0 && Held().iThreads > iThreads; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return Held();
}

void Line(std::vector<std::unique_ptr<Soaked>>& all, int64_t seconds)
{
    std::string s;
    for (const auto& p : all)
        s += "  " + std::string(p->Name()) + " " + std::to_string(p->Sums().nDelivered.load()) + " of " +
             std::to_string(p->Sums().nGood.load());
    const Held h;
    std::printf("%5llds%s  threads %d  files %d  resident %ld MB\n", (long long)seconds, s.c_str(), h.iThreads - 2, h.iFiles - 3,
                h.lResidentKB / 1024);
    std::fflush(stdout);
}

uint16_t ProductOf(const std::string& sToken)
{
    int n = 0;
    const kovsim::ModelFacts* p = kovsim::AllModels(&n);
    for (int i = 0; i < n; ++i)
        if (p[i].sToken == sToken)
            return p[i].wProductId;
    return 0;
}

int Usage(const char* szWhy)
{
    std::fprintf(stderr,
                 "kovsoak: %s\nkovsoak [--minutes N] [--cameras NAME,NAME...] [--seed S] [--rate R]\n"
                 "  --rate  how many times as fast as real time the cameras and the library live (2)\n",
                 szWhy);
    return 2;
}

}  // namespace

int main(int argc, char** argv)
{
    Options o;
    for (int i = 1; i < argc; i += 2) {
        const std::string sName = argv[i];
        if (i + 1 >= argc)
            return Usage((sName + " needs a value").c_str());
        const char* const sz = argv[i + 1];
        if (sName == "--minutes")
            o.dMinutes = std::atof(sz);
        else if (sName == "--seed")
            o.uSeed = std::strtoull(sz, nullptr, 10);
        else if (sName == "--rate")
            o.dRate = std::max(0.1, std::atof(sz));
        else if (sName == "--cameras") {
            o.cameras.clear();
            for (const char* p = sz; *p != 0;) {
                const size_t n = std::strcspn(p, ",");
                o.cameras.emplace_back(p, n);
                p += n + (p[n] == ',');
            }
        } else
            return Usage(("unknown option " + sName).c_str());
    }
    char folder[] = "/tmp/kovsoak-XXXXXX";  // the cameras' settings
    if (mkdtemp(folder) == nullptr)
        return Usage("no folder for the settings");
    setenv("XDG_CONFIG_HOME", folder, 1);

    platform::SetClockRate(o.dRate);
    kovsim::VirtualBus bus(o.dRate);
    platform::SetUsbStack(&bus);
    std::vector<std::unique_ptr<Soaked>> all;
    // IDs follow the interfaces, not the plugs: the cameras are plugged first and found by their product ID.
    std::vector<kovsim::VirtualCamera*> cams;
    for (const std::string& sToken : o.cameras) {
        kovsim::CameraSettings s;
        s.wProductId = ProductOf(sToken);
        if (s.wProductId == 0)
            return Usage((sToken + " is no camera").c_str());
        s.uSeed = o.uSeed;
        s.dNoise = 0;
        s.iHotPixels = 0;
        s.scene = kovsim::Scene::Pattern();
        cams.push_back(&bus.Plug(s));
    }
    const int n = KOVGetNumOfConnectedCameras();
    if (n != int(cams.size()))
        Fail("%d cameras found instead of %zu", n, cams.size());
    std::vector<bool> taken(cams.size());
    for (int id = 0; id < n; ++id) {
        if (KOVOpenCamera(id) != KOV_SUCCESS)
            Fail("camera %d cannot be opened", id);
        const CCameraBase* const pCam = CCameraBase::FromID(id);
        size_t k = 0;
        while (k < cams.size() && (taken[k] || pCam == nullptr || pCam->m_pUsbLink == nullptr ||
                                   cams[k]->Facts().wProductId != pCam->m_pUsbLink->m_productId))
            ++k;
        if (k == cams.size()) {
            Fail("camera %d is none of those plugged", id);
            continue;
        }
        taken[k] = true;
        all.push_back(std::make_unique<Soaked>(id, *cams[k], o.uSeed));
    }
    if (g_iFailures != 0)
        return 1;
    for (auto& p : all)
        if (!p->Open())
            Fail("%s: no region", p->Name());
    for (auto& p : all)
        p->WarmUp();
    const Held first = Settle(all, 0);
    for (auto& p : all)
        if (!p->Open())
            Fail("%s: cannot be opened", p->Name());

    const auto start = SteadyClock::now();
    std::vector<std::thread> threads;
    for (auto& p : all)
        threads.emplace_back([&p] { p->Run(); });
    int64_t told = 0;
    for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const auto passed = std::chrono::duration<double>(SteadyClock::now() - start).count();
        if (passed >= o.dMinutes * 60)
            break;
        if (int64_t(passed) >= told + 10)
            Line(all, told = int64_t(passed));
        for (auto& p : all)
            if (p->Hangs()) {
                Fail("%s: a call hangs", p->Name());
                std::abort();
            }
    }
    g_bStop = true;
    for (std::thread& t : threads)
        t.join();
    const Held last = Settle(all, first.iThreads);

    std::printf("\n%-14s %7s %7s %9s %9s %8s %8s %8s %6s %6s %6s %9s\n", "camera", "videos", "exact", "good", "delivered",
                "dropped", "damaged", "cut off", "noise", "snaps", "losses", "controls");
    for (const auto& p : all) {
        const Soaked::Totals& t = p->Sums();
        std::printf("%-14s %7llu %7llu %9llu %9llu %8llu %8llu %8llu %6llu %6llu %6llu %9llu\n", p->Name(),
                    (unsigned long long)t.nVideos, (unsigned long long)t.nExact, (unsigned long long)t.nGood,
                    (unsigned long long)t.nDelivered, (unsigned long long)t.nDropped, (unsigned long long)t.nSpoiled,
                    (unsigned long long)t.nAborted, (unsigned long long)t.nNoise, (unsigned long long)t.nSnaps,
                    (unsigned long long)t.nLosses, (unsigned long long)t.nControls);
        if (t.nGood == 0 && o.dMinutes >= 1)
            Fail("%s: no frames at all", p->Name());
    }
    std::printf("threads %d -> %d, files %d -> %d, heap %zu -> %zu KiB, resident %ld -> %ld KiB\n", first.iThreads, last.iThreads,
                first.iFiles, last.iFiles, first.nHeap / 1024, last.nHeap / 1024, first.lResidentKB, last.lResidentKB);
    if (last.iThreads != first.iThreads)
        Fail("threads are left over");
    if (last.iFiles != first.iFiles)
        Fail("files are left open");
    // Of each camera's frame buffers two stay for reuse, as large as its last regions wanted them.
    const size_t waver = all.size() << 20;
    if (last.nHeap > first.nHeap + waver)
        Fail("memory is left over");
    std::printf("%s, seed %llu\n", g_iFailures == 0 ? "all accounts balance" : "there were failures",
                (unsigned long long)o.uSeed);
    platform::SetUsbStack(nullptr);
    [[maybe_unused]] const int r = std::system(("rm -rf '" + std::string(folder) + "'").c_str());
    return g_iFailures == 0 ? 0 : 1;
}

// Whole cameras: what GetImage costs a host, what the capture loop costs while frames pour in, and what opening a camera
// adds to the waits that its bring-up asks for.
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "KOVCamera2.h"
#include "bench/Yardsticks.h"
#include "camera/ModelTraits.h"
#include "capture/Capture.h"
#include "platform/UsbAdapter.h"
#include "tests/support/RecordingStack.h"
#include "usb/CUsbLink.h"
#include "virtual/Imager.h"
#include "virtual/VirtualBus.h"

#ifdef KOV_BENCH_OPENCV
#  include <opencv2/core.hpp>
#  include <opencv2/imgproc.hpp>
#endif

// Every sleep of this thread, told by the linker (--wrap): what the bring-up of a camera asked for.
static thread_local uint64_t g_uToldMs = 0;
extern "C" void __real__ZN8platform7SleepMsEj(uint32_t ms);
extern "C" void __wrap__ZN8platform7SleepMsEj(uint32_t ms)
{
    g_uToldMs += ms;
    __real__ZN8platform7SleepMsEj(ms);
}

namespace bench {

namespace {

double Seconds(clockid_t clock)
{
    timespec t{};
    clock_gettime(clock, &t);
    return static_cast<double>(t.tv_sec) + 1e-9 * static_cast<double>(t.tv_nsec);
}

// A colour camera without its sensor.
class BenchCamera final : public CCameraBase, public IModel {
public:
    explicit BenchCamera(Size s) : CCameraBase(s.w, s.h), m_traits(MakeTraits()), m_session(*this, *this)
    {
        m_bIsColor = true;
        m_ColorBayer = m_traits.bayer;
        m_iGamma = 50;
        m_lExposure = 1000;
        m_iFrameTime = 500;
        m_iCMOSClk = 48;
        m_iHMAX = 1650;
        m_iFPSPerc = 80;
        m_iWidth = s.w;
        m_iHeight = s.h;
        m_iBin = 1;
    }
    ~BenchCamera() override { StopCapture(); }

    bool OpenCamera(int) override { return false; }
    bool InitCamera() override { return true; }
    bool CloseCamera() override { return true; }
    bool SetResolution(int, int, int, IMAGE_TYPE) override { return true; }
    bool SetStartPos(int, int) override { return true; }
    bool SetGain(int, bool) override { return true; }
    void SetRGBBalance(int, int, bool) override {}
    bool SetExp(uint64_t, bool) override { return true; }
    bool GetImage(uint8_t* p, int n, uint32_t ms) override { return DeliverImage(*this, *this, p, n, ms); }
    bool StartCapture(bool snap) override { return m_session.Start(snap); }
    bool StopCapture() override
    {
        m_session.Stop();
        return m_session.Wait(platform::WAIT_FOREVER) == platform::WAIT_SIGNALLED;
    }
    const ModelTraits& Traits() const override { return m_traits; }
    void SetColour(bool on) { m_bIsColor = m_traits.isColor = on; }
    int32_t GetRealImageSize() override { return m_iWidth * m_iHeight * (m_bOutput16Bits ? 2 : 1); }
    bool SetOutput16Bits(bool) override { return true; }

private:
    static ModelTraits MakeTraits()
    {
        ModelTraits t{};
        t.family = Family::Quartz;
        t.isColor = true;
        t.className = "Bench";
        return t;
    }
    ModelTraits m_traits;
    CaptureSession m_session;
};

// --- GetImage -------------------------------------------------------------------------------------------------------

constexpr int HOT_PIXELS = 1000;

// What the samples are: bytes or words of any value, noise over the whole range of a 12-bit sensor's codes, or what such a sensor
// sees of a night sky. Codes stand at the top of a word.
enum class Samples { Any, Codes, Sky };

struct Rig {
    Rig(Size s, Samples samples)
        : size(s), pixels(static_cast<size_t>(s.w) * static_cast<size_t>(s.h)), cam(s), raw(2 * pixels), slot(2 * pixels),
          work(2 * pixels), out(3 * pixels), between(3 * pixels), dark(pixels), lut(256), balance(768)
    {
        std::mt19937 random(1);
        for (uint8_t& v : raw)
            v = static_cast<uint8_t>(random());
        if (samples != Samples::Any) {
            std::normal_distribution<float> sky(1500, 80);  // its background; each thousandth sample lies anywhere
            auto* const words = reinterpret_cast<uint16_t*>(raw.data());
            for (size_t i = 0; i < pixels; ++i) {
                if (samples == Samples::Sky && i % 1000 != 0)
                    words[i] = static_cast<uint16_t>(std::max(sky(random), 0.f));
                words[i] &= 0xFFF0;
            }
        }
        for (size_t i = 0; i < 256; ++i) {
            lut[i] = static_cast<uint8_t>(255 - i);
            for (size_t k = 0; k < 3; ++k)
                balance[3 * i + k] = static_cast<uint8_t>(std::min<size_t>(i * (k == 0 ? 90 : k == 2 ? 70 : 50) / 50, 255));
        }
        for (size_t i = 0; i < pixels; ++i)
            cam.m_pDarkSum[i] = dark[i] = static_cast<uint8_t>(random() & 15);
        cam.m_iDarkAve = 7;
        for (int k = 0; k < HOT_PIXELS; ++k)
            cam.m_pDarkPixels[k] = static_cast<int32_t>(static_cast<size_t>(k) * (pixels / HOT_PIXELS));
        cam.m_lDeadPixelNum = HOT_PIXELS;
        slot = raw;
        // The camera's buffers come untouched from the system: the first frames would pay for their pages.
        cam.m_ImgType = IMAGE_16BIT;
        cam.m_bOutput16Bits = true;
        block = cam.m_pFrameExchange->MakeBlock();
        for (int i = 0; i < 8; ++i) {  // all blocks of the ring have the frame then
            std::memcpy(block, raw.data(), raw.size());
            HandOver(raw.size());
            cam.GetImage(out.data(), static_cast<int>(out.size()), 1000);
        }
    }
    // As the capture loop does it.
    void HandOver(size_t bytes)
    {
        block = cam.m_pFrameExchange->HandOver(block, static_cast<int32_t>(bytes));
        if (!block)
            std::abort();
    }
    Size size;
    size_t pixels;
    BenchCamera cam;
    uint8_t* block = nullptr;
    // Frames come out of the ring from two blocks in turn, so no source is found in a cache that is smaller than they are
    // together; nor is that of a yardstick.
    const uint8_t* NextRaw() { return (bOdd = !bOdd) ? raw.data() : slot.data(); }
    bool bOdd = false;
    std::vector<uint8_t> raw, slot, work, out, between, dark, lut, balance;
};

enum : unsigned { BALANCE = 1, GAMMA = 2, FLIPS = 4, DARK = 8, MONO = 16 };

struct Delivery {
    const char* name;
    IMAGE_TYPE type;
    bool bRaw;
    size_t bytesIn, bytesOut;  // a raw pixel, an output pixel
    unsigned work;
    int bin = 1;
    Samples samples = Samples::Any;
};
constexpr Delivery g_Deliveries[] = {
    { "RAW8", IMAGE_8BIT, true, 1, 1, 0 },
    { "RAW16", IMAGE_16BIT, true, 2, 2, 0 },
    { "RGB24", IMAGE_RGB24, false, 1, 3, 0 },
    { "RGB24, balance", IMAGE_RGB24, false, 1, 3, BALANCE },
    { "RGB24, gamma, both flips", IMAGE_RGB24, false, 1, 3, BALANCE | GAMMA | FLIPS },
    { "RGB24, dark, hot, gamma, flips", IMAGE_RGB24, false, 1, 3, BALANCE | GAMMA | FLIPS | DARK },
    { "Y8, balance", IMAGE_8BIT, false, 1, 1, BALANCE },
    { "RAW8, gamma, both flips", IMAGE_8BIT, true, 1, 1, GAMMA | FLIPS },
    { "RAW16, gamma, both flips", IMAGE_16BIT, true, 2, 2, GAMMA | FLIPS, 1, Samples::Codes },
    { "RAW16 of a sky, gamma, both flips", IMAGE_16BIT, true, 2, 2, GAMMA | FLIPS, 1, Samples::Sky },
    { "RAW16 of any words, gamma, both flips", IMAGE_16BIT, true, 2, 2, GAMMA | FLIPS },
    { "mono 8-bit, bin 2", IMAGE_8BIT, true, 1, 1, MONO, 2 },
    { "mono 16-bit, bin 2", IMAGE_16BIT, true, 2, 2, MONO, 2 },
    { "colour 8-bit, bin 2", IMAGE_8BIT, true, 1, 1, 0, 2 },
    { "colour 16-bit, bin 2", IMAGE_16BIT, true, 2, 2, 0, 2 },
};

#ifdef KOV_BENCH_OPENCV
// The same work with OpenCV, after the two copies that a frame takes where it is handed over and read.
void OpenCvChain(Rig& r, const Delivery& d)
{
    const Size s = r.size;
    cv::Mat src(s.h, s.w, CV_8UC1, r.work.data());
    const auto buffer = [&](size_t n) { return cv::Mat(s.h, s.w, CV_8UC1, r.between.data() + n * r.pixels); };
    if (d.work & DARK) {
        cv::Mat less = buffer(2);
        cv::subtract(src, cv::Mat(s.h, s.w, CV_8UC1, r.dark.data()), less);
        src = less;
    }
    if (d.work & GAMMA) {
        cv::Mat mapped = buffer(0);
        cv::LUT(src, cv::Mat(1, 256, CV_8UC1, r.lut.data()), mapped);
        src = mapped;
    }
    if (d.work & DARK)
        for (size_t i = 2; i < r.pixels - 2; i += r.pixels / HOT_PIXELS)
            src.data[i] = static_cast<uint8_t>((src.data[i - 2] + src.data[i + 2]) >> 1);
    if (d.work & FLIPS) {
        cv::Mat turned = d.bRaw ? cv::Mat(s.h, s.w, CV_8UC1, r.out.data()) : buffer(1);
        cv::flip(src, turned, -1);
        src = turned;
    }
    if (d.bRaw)
        return;
    // A balance is wanted before the colours are made one grey, too.
    const bool bColour = d.type == IMAGE_RGB24;
    cv::Mat colour(s.h, s.w, CV_8UC3, bColour ? r.out.data() : r.between.data()), grey(s.h, s.w, CV_8UC1, r.out.data());
    cv::demosaicing(src, colour, cv::COLOR_BayerBG2BGR);
    if (d.work & BALANCE)
        cv::LUT(colour, cv::Mat(1, 256, CV_8UC3, r.balance.data()), colour);
    if (!bColour)
        cv::cvtColor(colour, grey, cv::COLOR_BGR2GRAY);
}
#endif

void RegisterGetImage(const Lazy<Rig>& r, Size s, const Delivery& d)
{
    const std::string op = std::string("GetImage ") + d.name;
    const size_t pixels = static_cast<size_t>(s.w) * static_cast<size_t>(s.h), in = d.bytesIn * pixels,
                 area = static_cast<size_t>(d.bin) * static_cast<size_t>(d.bin);
    const size_t out = d.bytesOut * static_cast<size_t>(s.w / d.bin) * static_cast<size_t>(s.h / d.bin);

    Register(op, "kov", s, [=] {
        BenchCamera& cam = r->cam;
        cam.SetColour(!(d.work & MONO));
        cam.m_iWidth = s.w / d.bin;
        cam.m_iHeight = s.h / d.bin;
        cam.m_iBin = d.bin;
        cam.m_ImgType = d.type;
        cam.m_bRawOutput = d.bRaw;
        cam.m_bOutput16Bits = d.bytesIn == 2;
        cam.m_bUsingDark = (d.work & DARK) != 0;
        cam.m_bFlipRow = cam.m_bFlipColumn = (d.work & FLIPS) != 0;
        if (const int gamma = d.work & GAMMA ? 30 : 50; cam.m_iGamma != gamma)
            cam.SetGamma(gamma);
        cam.m_Algorithm.SetRGBWB(d.work & BALANCE ? 70 : 50, d.work & BALANCE ? 90 : 50);
        r->HandOver(in);
        if (!cam.GetImage(r->out.data(), static_cast<int>(out), 1000))
            std::abort();
    });
    // What has to be read and written, at the speed of a copy.
    Register(op, FLOOR, s, [=] { std::memcpy(r->out.data(), r->NextRaw(), (in + d.bytesOut * pixels / area) / 2); });
    Register(op, "one copy of the raw frame", s, [=] { std::memcpy(r->work.data(), r->NextRaw(), in); });
    // A table of 65536 entries fits into no register and takes a load of its own a sample: how long these alone take.
    if (d.bytesIn == 2 && d.work & GAMMA)
        Register(op, "one lookup a sample", s, [=] {
            const auto* const table = reinterpret_cast<const uint16_t*>(r->between.data());
            const auto* const from = reinterpret_cast<const uint16_t*>(r->NextRaw());
            auto* const to = reinterpret_cast<uint16_t*>(r->out.data());
            for (size_t i = 0; i < pixels; ++i)
                to[i] = table[from[i]];
        });
#ifdef KOV_BENCH_OPENCV
    if (d.bytesIn == 2 || d.bin != 1 || (d.bRaw && d.work == 0))  // OpenCV has no table of 65536 entries
        return;
    Register(op, "copies and OpenCV", s, [=] {
        std::memcpy(r->slot.data(), r->raw.data(), in);
        std::memcpy(r->work.data(), r->slot.data(), in);
        OpenCvChain(*r, d);
    });
#endif
}

// --- capture loop ---------------------------------------------------------------------------------------------------

// One frame, again and again, into whatever request comes; as fast as memory goes, or at a camera's pace.
struct Torrent {
    explicit Torrent(Size s) : frame(static_cast<size_t>(s.w) * static_cast<size_t>(s.h), 100), dev(stack.Add(0xFFFF))
    {
        const auto put16 = [this](size_t at, unsigned w) {
            frame[at] = static_cast<uint8_t>(w);
            frame[at + 1] = static_cast<uint8_t>(w >> 8);
        };
        put16(0, 0x5A7E);
        put16(frame.size() - 2, 0x3CF0);
        put16(2, 7);
        put16(frame.size() - 4, 7);
        dev.OnBulk = [this](uint8_t* p, uint32_t n) {
            if (at == 0 && !bOn)
                return int64_t{ -1 };
            if (at == 0 && dBytesPerSecond > 0) {
                std::this_thread::sleep_until(due);
                due = std::chrono::steady_clock::now() +
                      std::chrono::microseconds(static_cast<int64_t>(1e6 * static_cast<double>(frame.size()) / dBytesPerSecond));
            }
            const size_t got = std::min<size_t>(n, frame.size() - at);
            std::memcpy(p, frame.data() + at, got);
            at = at + got == frame.size() ? 0 : at + got;
            frames += at == 0;
            return static_cast<int64_t>(got);
        };
        platform::SetUsbStack(&stack);
    }
    ~Torrent() { platform::SetUsbStack(nullptr); }
    std::vector<uint8_t> frame;
    std::atomic<bool> bOn{ true };
    double dBytesPerSecond = 0;  // 0: no limit
    std::chrono::steady_clock::time_point due;
    size_t at = 0;
    std::atomic<uint64_t> frames{ 0 };
    RecordingStack stack;
    FakeUsbDevice& dev;
};

// CPU seconds a byte that a copy takes here and now. From one buffer to the next, as a frame goes: none is found in a
// cache that is smaller than the library's buffers are together.
class CopyCost {
public:
    explicit CopyCost(size_t bytes) : m_buffers(6, std::vector<uint8_t>(bytes, 1)) {}
    double Measure()
    {
        const size_t n = m_buffers.size(), bytes = m_buffers[0].size();
        size_t done = 0;
        const double start = Seconds(CLOCK_THREAD_CPUTIME_ID);
        for (; done < (size_t{ 512 } << 20); done += bytes) {
            std::memcpy(m_buffers[(m_at + 1) % n].data(), m_buffers[m_at].data(), bytes);
            benchmark::ClobberMemory();
            m_at = (m_at + 1) % n;
        }
        return (Seconds(CLOCK_THREAD_CPUTIME_ID) - start) / static_cast<double>(done);
    }

private:
    std::vector<std::vector<uint8_t>> m_buffers;
    size_t m_at = 0;
};

// The time of one iteration is the CPU time of one frame that the source has sent, of all threads.
void RegisterCaptureLoop(Size s)
{
    const std::string size = "/" + std::to_string(s.w) + "x" + std::to_string(s.h);
    benchmark::RegisterBenchmark(
        ("capture loop/kov" + size).c_str(),
        [=](benchmark::State& state) {
            Torrent source(s);
            BenchCamera cam(s);
            cam.ReplaceLink(new CUsbLink(nullptr, cam.m_guid, true));
            cam.m_bOpen = true;
            cam.m_bRawOutput = true;
            cam.m_ImgType = IMAGE_8BIT;
            std::vector<uint8_t> out(source.frame.size());
            const double size_ = static_cast<double>(out.size());
            for (auto _ : state) {
                CopyCost copy(out.size());
                const double costBefore = copy.Measure();
                cam.StartCapture(false);
                uint64_t read = 0;
                const double limit = Seconds(CLOCK_MONOTONIC) + 10;
                while (read < 8 && Seconds(CLOCK_MONOTONIC) < limit)  // all pages have been touched then
                    read += cam.GetImage(out.data(), static_cast<int>(out.size()), 100) ? 1 : 0;
                const double cpu = Seconds(CLOCK_PROCESS_CPUTIME_ID), wall = Seconds(CLOCK_MONOTONIC);
                const uint64_t first = source.frames;
                const double droppedBefore = cam.m_iDroppedFrames;
                read = 0;
                while (Seconds(CLOCK_MONOTONIC) - wall < 2.0)
                    read += cam.GetImage(out.data(), static_cast<int>(out.size()), 100) ? 1 : 0;
                const double sent = static_cast<double>(source.frames - first);
                const double dropped = cam.m_iDroppedFrames - droppedBefore, seconds = Seconds(CLOCK_MONOTONIC) - wall;
                source.bOn = false;
                cam.StopCapture();
                source.bOn = true;
                const double used = Seconds(CLOCK_PROCESS_CPUTIME_ID) - cpu;
                const double cost = (costBefore + copy.Measure()) / 2;
                // Into the request, which is the camera's work, and one to the host for each frame that it reads.
                const double copied = (sent + static_cast<double>(read)) * size_;
                state.SetIterationTime(used / sent);
                state.counters[BESIDE + "its copies"] = copied * cost / sent * 1e3;
                const double megabytes = sent * size_ / 1e6;
                state.counters["MB/s"] = megabytes / seconds;
                state.counters["CPU_ms/MB"] = used / megabytes * 1e3;
                state.counters["memcpy_ms/MB"] = cost * 1e9;
                state.counters["copies/frame"] = copied / size_ / sent;
                // What is left of a core's share when those are taken off, for a camera of 390 MB a second; 0.15 at most.
                state.counters["cores_at_390MB/s_beyond_one_copy"] = (used - copied * cost) / megabytes * 390;
                state.counters["unread"] = dropped;
            }
            cam.ReplaceLink(nullptr);
        })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(1);
}

// --- memory ---------------------------------------------------------------------------------------------------------

size_t ResidentBytes()
{
    std::ifstream statm("/proc/self/statm");
    size_t total = 0, resident = 0;
    statm >> total >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

// What a colour camera that streams RGB24 at 390 MB a second, without dark frame and hot pixels, has of the machine's memory,
// beside the host's own image.
void RegisterMemory(Size s)
{
    benchmark::RegisterBenchmark(("memory of a stream/kov/" + std::to_string(s.w) + "x" + std::to_string(s.h)).c_str(),
                                 [=](benchmark::State& state) {
                                     Torrent source(s);
                                     source.dBytesPerSecond = 390e6;
                                     std::vector<uint8_t> out(3 * source.frame.size());
                                     for (auto _ : state) {
                                         const size_t before = ResidentBytes();
                                         BenchCamera cam(s);
                                         cam.ReplaceLink(new CUsbLink(nullptr, cam.m_guid, true));
                                         cam.m_bOpen = true;
                                         cam.m_ImgType = IMAGE_RGB24;
                                         cam.StartCapture(false);
                                         for (int i = 0; i < 30; ++i)
                                             cam.GetImage(out.data(), static_cast<int>(out.size()), 100);
                                         const double frames = static_cast<double>(ResidentBytes() - before) /
                                                               static_cast<double>(source.frame.size());
                                         source.bOn = false;
                                         cam.StopCapture();
                                         source.bOn = true;
                                         cam.ReplaceLink(nullptr);
                                         state.counters["raw_frames_of_at_most_5"] = frames;
                                     }
                                 })
        ->Unit(benchmark::kMillisecond)
        ->Iterations(1)
        ->Repetitions(1);
}

// --- KOVOpenCamera --------------------------------------------------------------------------------------------------

// Passes everything on to the bus and adds up how long the control requests take there.
class TimedStack final : public usbstack::IStack {
public:
    explicit TimedStack(usbstack::IStack& bus) : m_Bus(bus) {}
    std::vector<usbstack::DeviceInfo> Enumerate() override { return m_Bus.Enumerate(); }
    usbstack::IDevice* Open(const std::string& sPath, usbstack::Status* pStatus) override
    {
        usbstack::IDevice* const p = m_Bus.Open(sPath, pStatus);
        return p ? new Device(*this, p) : nullptr;
    }
    double dWall = 0, dCpu = 0;  // seconds in transfers
    unsigned uTransfers = 0;
    template <class Call>
    auto Timed(Call call)
    {
        const double wall = Seconds(CLOCK_MONOTONIC), cpu = Seconds(CLOCK_THREAD_CPUTIME_ID);
        const auto status = call();
        dWall += Seconds(CLOCK_MONOTONIC) - wall;
        dCpu += Seconds(CLOCK_THREAD_CPUTIME_ID) - cpu;
        ++uTransfers;
        return status;
    }
    // CPU seconds that reading the clocks takes a transfer beside what they show; it is nobody's.
    static double ClockCost()
    {
        kovsim::VirtualBus none;
        TimedStack stack(none);
        constexpr int TIMES = 2000;
        const double start = Seconds(CLOCK_THREAD_CPUTIME_ID);
        for (int i = 0; i < TIMES; ++i)
            stack.Timed([] { return 0; });
        return (Seconds(CLOCK_THREAD_CPUTIME_ID) - start - stack.dCpu) / TIMES;
    }

private:
    class Device final : public usbstack::IDevice {
    public:
        Device(TimedStack& stack, usbstack::IDevice* p) : m_Stack(stack), m_p(p) {}
        usbstack::Status Control(uint8_t type, uint8_t request, uint16_t value, uint16_t index, uint8_t* p, uint16_t n,
                                 uint32_t ms, uint32_t* moved) override
        {
            return m_Stack.Timed([&] { return m_p->Control(type, request, value, index, p, n, ms, moved); });
        }
        usbstack::Status SubmitBulk(usbstack::BulkRequest* r) override { return m_p->SubmitBulk(r); }
        void Abort(uint8_t ep) override { m_p->Abort(ep); }
        usbstack::Status ResetPipe(uint8_t ep) override { return m_p->ResetPipe(ep); }
        void SetTransferSize(uint8_t ep, uint32_t n) override { m_p->SetTransferSize(ep, n); }
        usbstack::Status ResetPort() override { return m_p->ResetPort(); }
        usbstack::Status CyclePort() override { return m_p->CyclePort(); }
        usbstack::Speed GetSpeed() override { return m_p->GetSpeed(); }
        uint8_t GetAddress() override { return m_p->GetAddress(); }
        int GetAltSetting() override { return m_p->GetAltSetting(); }
        bool KeepsTimeLimits() const override { return m_p->KeepsTimeLimits(); }

    private:
        TimedStack& m_Stack;
        const std::unique_ptr<usbstack::IDevice> m_p;
    };
    usbstack::IStack& m_Bus;
};

// Beside the time stands what of it is the library's own: CPU time of the calling thread outside of transfers, which
// tells the same on a busy machine.
void RegisterOpen(uint16_t wProductId, const std::string& token)
{
    benchmark::RegisterBenchmark(("open camera/kov/" + token).c_str(),
                                 [=](benchmark::State& state) {
                                     // The settings of a user stay out of it.
                                     char folder[] = "/tmp/kovbench-XXXXXX";
                                     if (mkdtemp(folder) == nullptr)
                                         std::abort();
                                     setenv("XDG_CONFIG_HOME", folder, 1);
                                     kovsim::VirtualBus bus;
                                     TimedStack stack(bus);
                                     platform::SetUsbStack(&stack);
                                     kovsim::CameraSettings settings;
                                     settings.wProductId = wProductId;
                                     settings.scene = kovsim::Scene::Dark();
                                     bus.Plug(settings);
                                     const double clocks = TimedStack::ClockCost();
                                     for (auto _ : state) {
                                         if (KOVGetNumOfConnectedCameras() != 1)
                                             std::abort();
                                         const uint64_t uBefore = g_uToldMs;
                                         stack.dWall = stack.dCpu = 0;
                                         stack.uTransfers = 0;
                                         const double start = Seconds(CLOCK_MONOTONIC), cpu = Seconds(CLOCK_THREAD_CPUTIME_ID);
                                         if (KOVOpenCamera(0) != KOV_SUCCESS)
                                             std::abort();
                                         const double took = Seconds(CLOCK_MONOTONIC) - start;
                                         const double own =
                                             Seconds(CLOCK_THREAD_CPUTIME_ID) - cpu - stack.dCpu - stack.uTransfers * clocks;
                                         const double sleeps = static_cast<double>(g_uToldMs - uBefore) / 1e3;
                                         const double told = sleeps + stack.dWall;
                                         state.counters[BESIDE + "its sleeps and transfers"] = told * 1e3;
                                         state.SetIterationTime(took);
                                         state.counters["sleeps_ms"] = sleeps * 1e3;
                                         state.counters["transfers_ms"] = stack.dWall * 1e3;
                                         state.counters["transfers"] = stack.uTransfers;
                                         state.counters["own_CPU_ms"] = own * 1e3;
                                         state.counters["own_%"] = own / told * 100;
                                     }
                                     KOVCloseCamera(0);
                                     platform::SetUsbStack(nullptr);
                                     [[maybe_unused]] const int r = std::system((std::string("rm -rf ") + folder).c_str());
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(1)
        ->Repetitions(3);
}

// --- virtual cameras ------------------------------------------------------------------------------------------------

// One core must compute a frame of the sky in half the time that the sensor takes for it: the rest is the host's.
void RegisterVirtualFrame(uint16_t wProductId, const std::string& token)
{
    benchmark::RegisterBenchmark(
        ("virtual frame/kov/" + token).c_str(),
        [=](benchmark::State& state) {
            kovsim::VirtualBus bus;
            platform::SetUsbStack(&bus);
            kovsim::CameraSettings settings;
            settings.wProductId = wProductId;
            kovsim::VirtualCamera& camera = bus.Plug(settings);
            const kovsim::ModelFacts& facts = camera.Facts();
            if (KOVGetNumOfConnectedCameras() != 1 || KOVOpenCamera(0) != KOV_SUCCESS ||
                KOVSetROIFormat(0, facts.iWidth, facts.iHeight, 1, IMG_RAW8) != KOV_SUCCESS ||
                KOVSetControlValue(0, CTRL_BANDWIDTH, 100, KOV_FALSE) != KOV_SUCCESS ||
                KOVSetControlValue(0, CTRL_EXPOSURE, 10000, KOV_FALSE) != KOV_SUCCESS || KOVStartVideoCapture(0) != KOV_SUCCESS)
                std::abort();
            std::vector<uint8_t> out(static_cast<size_t>(facts.iWidth) * static_cast<size_t>(facts.iHeight));
            if (KOVGetVideoData(0, out.data(), static_cast<int32_t>(out.size()), 10000) != KOV_SUCCESS)
                std::abort();
            const kovsim::Readout readout = camera.CurrentReadout();
            if (!readout.bStreaming || !readout.bValid)
                std::abort();
            KOVCloseCamera(0);
            platform::SetUsbStack(nullptr);
            state.counters[BESIDE + "half its frame time"] = readout.dFrameUs / 2e3;
            kovsim::Imager imager(facts, 1, 1, -1);
            const auto scene = kovsim::Scene::Sky();
            imager.Prepare(scene, 0, 0);
            kovsim::Imager::Shot shot{ .dExposureUs = 10000 };
            for (auto _ : state) {
                const double start = Seconds(CLOCK_THREAD_CPUTIME_ID);
                ++shot.uFrame;
                imager.Expose(readout, shot, scene, out);
                state.SetIterationTime(Seconds(CLOCK_THREAD_CPUTIME_ID) - start);
            }
        })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(5);
}

}  // namespace

void RegisterCameraBenchmarks()
{
    for (const Size s : g_Sizes) {
        const auto rig = [=](Samples samples) { return Lazy<Rig>([=] { return std::make_unique<Rig>(s, samples); }); };
        const std::map<Samples, Lazy<Rig>> rigs = { { Samples::Any, rig(Samples::Any) },
                                                    { Samples::Codes, rig(Samples::Codes) },
                                                    { Samples::Sky, rig(Samples::Sky) } };
        for (const Delivery& d : g_Deliveries)
            RegisterGetImage(rigs.at(d.samples), s, d);
    }
    for (const Size s : g_Sizes)
        RegisterCaptureLoop(s);
    RegisterMemory(g_Sizes[1]);
    int nModels = 0;
    const kovsim::ModelFacts* const pModels = kovsim::AllModels(&nModels);
    for (int i = 0; i < nModels; ++i)
        RegisterOpen(pModels[i].wProductId, pModels[i].sToken);
    RegisterVirtualFrame(0xC06A, "FlintCol");
    RegisterVirtualFrame(0xC0B0, "KyaniteCol");
    RegisterVirtualFrame(0xC11A, "QuartzCol");
}

}  // namespace bench

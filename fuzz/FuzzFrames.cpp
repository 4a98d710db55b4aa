// Frames as they come from the wire: the chunk queue, the capture loop's verdicts on them and what it does then, and the
// delivery into a host's buffer of exactly the image's size. The first byte chooses the model's form, the second whether its
// loop runs or the queue is worked by hand with small chunks; then each chunk is a byte (late, failed, short or whole), its
// marks and its pixels. All on one thread, so a form whose video has a thread beside it takes a snap.
#include <dlfcn.h>
#include <pthread.h>
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "camera/HotPixels.h"
#include "capture/Capture.h"
#include "capture/CaptureLoop.h"
#include "exchange/FrameExchange.h"
#include "fuzz/FuzzCamera.h"
#include "fuzz/FuzzLink.h"
#include "fuzz/FuzzMarks.h"
#include "platform/Platform.h"

namespace {

constexpr int WIDTH = 32, HEIGHT = 24;
constexpr int LATE = 3;  // chunks of a run that do not come by themselves: each costs the loop up to 50 passes
constexpr int FAMILIES = static_cast<int>(Family::Halite) + 1;

class Model final : public FuzzCamera, public IModel {
public:
    Model(Family family, bool bColor) : FuzzCamera(WIDTH, HEIGHT)
    {
        m_traits.family = family;
        m_traits.isColor = m_bIsColor = bColor;
        m_traits.className = "Fuzz";
        m_bUSB3Camera = true;
        m_bHasGamma = true;
        SetGamma(40);
        std::fill_n(m_pDarkSum, WIDTH * HEIGHT, uint16_t{ 3 });
        SetHotPixels(*this, { 0, 1, 33, 200, 201, 234, 500, WIDTH * HEIGHT - 1 });
    }
    const ModelTraits& Traits() const override { return m_traits; }
    int32_t GetRealImageSize() override
    {
        const int bin = m_bHardwareBin ? 1 : m_iBin.Get();
        return m_iWidth * m_iHeight * bin * bin * (m_bOutput16Bits ? 2 : 1);
    }
    bool SetOutput16Bits(bool on) override { return SendCMD(on ? REQ_MODE_16BIT : REQ_MODE_8BIT); }
    bool SetBLOffset(bool, char, char, char, char) override { return m_bAutoBLBusy = false; }

private:
    ModelTraits m_traits{};
};

struct Bench {
    Bench()
    {
        platform::SetClockRate(1e9);  // no wait is one
        link.device.OnBulk = [this](uint8_t* p, uint32_t n) { return Chunk(p, n); };
        link.OnVendor = [this](const SetupPacket& s, uint8_t* p, uint32_t n) {
            // Registers come from the input. The version comes always: a lost device is opened anew, which takes longer than all
            // the rest.
            if (s.bmRequestType & 0x80 && s.bRequest != REQ_FIRMWARE_VERSION)
                in.Take(p, n);
            return static_cast<int32_t>(n);
        };
    }
    Model& Take(int family, bool bColor)
    {
        auto& model = models[{ family, bColor }];
        if (!model)
            model = std::make_unique<Model>(static_cast<Family>(family), bColor);
        if (!model->m_bOpen || !model->m_pUsbLink || !model->m_pUsbLink->IsOpen())
            link.Connect(*model);
        return *model;
    }
    int64_t Chunk(uint8_t* p, uint32_t n);
    void Host(Model& model);

    FuzzInput in;
    FuzzLink link{ 0xC11B };
    std::map<std::pair<int, bool>, std::unique_ptr<Model>> models;
    CaptureRun* run = nullptr;  // whose loop runs
    int late = 0;
};

int64_t Bench::Chunk(uint8_t* p, uint32_t n)
{
    if (in.Over()) {
        if (run)
            run->control.Stop();
        return 0;
    }
    const uint8_t kind = in.Next();
    if (kind == 0xFF && late++ < LATE)
        return -1;
    if (kind >= 0xFE) {
        link.device.Complete(usbstack::Status::Stall, 0);
        return -1;
    }
    const uint32_t size = kind < 0xC0 ? n : n * (kind & 63u) / 64;
    const uint8_t marks = in.Next();
    std::memset(p, in.Next(), size);
    if (marks & 16)
        in.Take(p, std::min(size, 32u));
    if (size >= 8)
        PutMarks(p, size, marks);
    if (run && !run->snap && marks & 32)
        Host(static_cast<Model&>(run->cam));
    return size;
}

// What a host chooses, at any time.
void Choose(Model& model, FuzzInput& in)
{
    static constexpr IMAGE_TYPE types[] = { IMAGE_8BIT, IMAGE_RGB24, IMAGE_16BIT, IMAGE_YUV, IMAGE_16BIT_ALT };
    const uint8_t look = in.Next(), shape = in.Next(), state = in.Next();
    model.m_ImgType = types[look % 5];
    model.m_bOutput16Bits = look & 64 ? look & 128 : model.m_ImgType == IMAGE_16BIT || model.m_ImgType == IMAGE_16BIT_ALT;
    model.m_iBin = 1 + (shape & 3);
    model.m_bHardwareBin = shape & 4;
    model.m_bFlipRow = shape & 8;
    model.m_bFlipColumn = shape & 16;
    model.m_bTimeMark = shape & 32;
    model.m_bRawOutput = shape & 64;
    model.m_iGamma = shape & 128 ? 40 : 50;
    model.m_bUsingDark = state & 1;
    model.m_bGettingDark = state & 2;
    model.m_bHPCEnable = state & 4;
    model.m_bAutoExp = state & 8;
    model.m_bAutoWB = state & 16;
    model.m_iWidth = 1 + in.Next() % (WIDTH / model.m_iBin);
    model.m_iHeight = 1 + in.Next() % (HEIGHT / model.m_iBin);
    FitHotPixels(model);
    FitDarkFrame(model);
}

void Bench::Host(Model& model)
{
    const uint8_t act = in.Next();
    if (act & 1)
        Choose(model, in);
    const int bytes[] = { 1, 3, 2, 4, 2 };  // a pixel, by IMAGE_TYPE
    int size = model.m_iWidth * model.m_iHeight * bytes[model.m_ImgType.Get()];
    if (act & 2)
        size = size * in.Next() / 256;
    const std::unique_ptr<uint8_t[]> image(new uint8_t[static_cast<size_t>(size)]);
    DeliverImage(model, model, image.get(), size, 0);
}

void Loop(Bench& b, Model& model, bool bVideo)
{
    const bool bSnap = !bVideo || FormOf(model.Traits().family).automation != Automation::OneShot;
    model.m_bSnapMode = bSnap;
    model.m_bCapturing = true;
    {
        CaptureRun run(model, model, bSnap);
        b.run = &run;
        MakeCaptureLoop(run)->Run();
        b.run = nullptr;
        run.aux.Wait(platform::WAIT_FOREVER);
    }
    b.Host(model);
}

void Queue(Bench& b, Model& model)
{
    FuzzInput& in = b.in;
    RunControl control(model, false);
    ChunkQueue queue(model, control);
    const int32_t frame = model.GetRealImageSize();
    const uint32_t chunk = 64u * (1 + in.Next() % 64);
    queue.Open(chunk, frame, in.Next() & 1);
    while (!in.Over())
        switch (in.Next() % 8) {
        case 0: queue.Resync(); break;
        case 1: queue.Flush(); break;
        case 2: queue.KeepAlive(); break;
        case 3: queue.Reopen(); break;
        case 4: queue.HandOver(); break;
        case 5: b.Host(model); break;
        default: {
            const uint8_t w = in.Next();
            const auto result = queue.ReadFrame({ 1, w & 1u, (w & 2) != 0, w >> 2 & 1u, w >> 3 & 1u, (w & 16) != 0 });
            if (result.received > static_cast<uint32_t>(std::max(frame, 0)))
                std::abort();
            if (result.finished && w & 32)
                queue.HandOver();
        }
        }
}

thread_local bool t_bInRun = false;

}  // namespace

// Nobody but this thread ends a wait, and those for time are of no length. The kernel would give the core away all the same,
// which takes longer than a frame. The test that replays the seeds has other fuzzers beside this one and really waits.
#ifndef LLVMFuzzerTestOneInput
extern "C" int clock_nanosleep(clockid_t, int, const timespec*, timespec*) { return 0; }
extern "C" int pthread_cond_timedwait(pthread_cond_t* c, pthread_mutex_t* m, const timespec* t)
{
    static const auto wait = reinterpret_cast<decltype(&pthread_cond_timedwait)>(dlsym(RTLD_NEXT, "pthread_cond_timedwait"));
    return t_bInRun ? ETIMEDOUT : wait(c, m, t);
}
#endif

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 8 || size > 128)
        return 0;
    static Bench& bench = *new Bench;
    bench.in = FuzzInput(data + 2, size - 2);
    bench.late = 0;
    Model& model = bench.Take(data[0] % FAMILIES, data[0] >= 128);
    static constexpr uint64_t exposures[] = { 1000, 150000, 600000, 10000000 };
    model.m_lExposure = exposures[data[1] >> 2 & 3];
    model.m_bLongExp = (data[1] & 0x90) == 0x90;
    model.m_iHMAX = 1650;
    model.m_iCMOSClk = 48;
    model.m_iFrameTime = 500;
    model.m_iFPSPerc = 80;
    model.m_bAutoFPS = data[1] & 32;
    model.m_bAutoBLBusy = data[1] & 64;
    model.m_iDarkNum = 2;
    model.m_iDarkCount = 0;
    model.m_pFrameExchange->Reset();
    Choose(model, bench.in);
    t_bInRun = true;
    if (data[1] & 1)
        Loop(bench, model, data[1] & 2);
    else
        Queue(bench, model);
    t_bInRun = false;
    bench.in = {};
    bench.link.device.Clear();
    bench.link.device.ClearEvents();
    return 0;
}

// The automation threads beside the capture loop.
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <memory>

#include "base/Attempt.h"
#include "base/Log.h"
#include "base/Trace.h"
#include "capture/CaptureLoop.h"
#include "capture/RunControl.h"
#include "platform/Platform.h"

namespace {

struct Free {
    void operator()(uint8_t* p) const { std::free(p); }
};

// The one place that reads a frame buffer while USB may be writing it: the automation only takes statistics, and half a
// new frame does no harm. Reads through volatile words, so that no call of memcpy, which ThreadSanitizer would see, takes
// the place of the loop.
#if defined(__GNUC__)
__attribute__((no_sanitize("thread"), noinline))
#endif
void CopyUnsynchronised(uint8_t* dest, const uint8_t* src, size_t n)
{
    const volatile uint64_t* const from = reinterpret_cast<const volatile uint64_t*>(src);
    uint64_t* const to = reinterpret_cast<uint64_t*>(dest);
    for (size_t i = 0; i < n / 8; ++i)
        to[i] = from[i];
    for (size_t i = n / 8 * 8; i < n; ++i)
        dest[i] = static_cast<const volatile uint8_t*>(src)[i];
}

// A private copy of what lies in m_pAuxBuf1, as large as any frame: the geometry may change while a step measures.
class Sample {
public:
    explicit Sample(CaptureRun& run) : m_run(run) {}
    uint8_t* Take()
    {
        const CCameraBase& cam = m_run.cam;
        const size_t room = 2 * size_t(cam.m_iMaxWidth) * size_t(cam.m_iMaxHeight);
        if (!m_p)
            m_p.reset(static_cast<uint8_t*>(std::calloc(room + 64, 1)));
        if (m_p)
            CopyUnsynchronised(m_p.get(), cam.m_pAuxBuf1, std::min(size_t(std::max(m_run.model.GetRealImageSize(), 0)), room));
        return m_p.get();
    }

private:
    CaptureRun& m_run;
    std::unique_ptr<uint8_t, Free> m_p;
};

bool WantsExpGain(const CCameraBase& cam) { return cam.m_bAutoExp || cam.m_bAutoGain; }
bool CanBalance(const CCameraBase& cam) { return cam.m_bIsColor && !cam.m_bOutput16Bits; }

}  // namespace

void RunAutomation(CaptureRun& run)
{
    constexpr int64_t SHORT_EXPOSURE = 100000;  // us; above, the capture loop does these steps itself
    logging::SetThreadName("automation");
    CCameraBase& cam = run.cam;
    const Automation kind = run.form.automation;
    const int64_t frameTime = FrameTime(cam, run.form);
    const int slices = kind == Automation::Common ? 10 : 20;
    Sample sample(run);
    uint32_t balancePass = 0;

    const auto step = [&] {
        const int64_t exp = int64_t(cam.m_lExposure.Get());
        uint8_t* p = nullptr;
        const auto frame = [&] { return p ? p : p = sample.Take(); };
        if (kind == Automation::Cobalt) {
            if (!cam.m_bLongExp) {
                if (WantsExpGain(cam) && exp < 600000 && frame())
                    cam.AutoExpGain(p);
                if (cam.m_bAutoWB && CanBalance(cam) && frame())
                    cam.AutoWB_RAW(p);
                run.model.ApplyExp();
                run.model.ApplyGain();
            }
        } else if (exp < SHORT_EXPOSURE && frameTime < SHORT_EXPOSURE && !(kind == Automation::Iolite && cam.m_bLongExp)) {
            if (WantsExpGain(cam) && frame())
                cam.AutoExpGain(p);
            if (kind == Automation::Common && cam.m_bAutoWB && ++balancePass % 4 == 0 && CanBalance(cam) && frame())
                cam.AutoWB_RAW(p);
        }
    };
    run.control.Sleep(200);
    while (run.control.IsRunning()) {
        Attempt("automation", step);
        for (int i = 0; i < slices && run.control.IsRunning(); ++i)
            run.control.Sleep(10);
    }
    TraceLine("Thread SetGainExpFunc Exit!\n");
}

void StartAutomationStep(CaptureRun& run)
{
    if (run.auxBusy.exchange(true))
        return;
    const auto step = [](void* pv) {
        CaptureRun& r = *static_cast<CaptureRun*>(pv);
        Attempt("automation", [&r] {
            const bool balance = r.cam.m_bAutoWB && CanBalance(r.cam);
            Sample sample(r);
            uint8_t* const p = WantsExpGain(r.cam) || balance ? sample.Take() : nullptr;
            if (p && WantsExpGain(r.cam))
                r.cam.AutoExpGain(p);
            if (p && balance)
                r.model.ModelWhiteBalance(p);
        });
        r.auxBusy = false;
    };
    if (!run.aux.Start(step, &run))
        run.auxBusy = false;
}

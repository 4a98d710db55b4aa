// The automation threads beside the capture loop.
#include <cstdlib>
#include <cstring>
#include <memory>

#include "base/Attempt.h"
#include "base/Log.h"
#include "capture/CaptureLoop.h"

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
void CopyUnsynchronised(uint8_t* pDest, const uint8_t* pSrc, size_t n)
{
    const volatile uint64_t* const pFrom = reinterpret_cast<const volatile uint64_t*>(pSrc);
    uint64_t* const pTo = reinterpret_cast<uint64_t*>(pDest);
    for (size_t i = 0; i < n / 8; ++i)
        pTo[i] = pFrom[i];
    for (size_t i = n / 8 * 8; i < n; ++i)
        pDest[i] = static_cast<const volatile uint8_t*>(pSrc)[i];
}

// A private copy of what lies in m_pAuxBuf1, as large as any frame: the geometry may change while a step measures.
class Sample {
public:
    explicit Sample(CaptureRun& run) : m_run(run) {}
    uint8_t* Take()
    {
        const CCameraBase& cam = m_run.cam;
        const size_t dwRoom = 2 * size_t(cam.m_iMaxWidth) * size_t(cam.m_iMaxHeight);
        if (!m_p)
            m_p.reset(static_cast<uint8_t*>(std::calloc(dwRoom + 64, 1)));
        if (m_p)
            CopyUnsynchronised(m_p.get(), cam.m_pAuxBuf1, std::min(size_t(std::max(m_run.model.GetRealImageSize(), 0)), dwRoom));
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
    const int64_t lFrameTime = FrameTime(cam, run.form);
    const int nSlices = kind == Automation::Common ? 10 : 20;
    Sample sample(run);
    uint32_t nBalancePass = 0;

    const auto step = [&] {
        const int64_t lExp = int64_t(cam.m_lExposure.Get());
        uint8_t* p = nullptr;
        const auto frame = [&] { return p ? p : p = sample.Take(); };
        if (kind == Automation::Cobalt) {
            if (!cam.m_bLongExp) {
                if (WantsExpGain(cam) && lExp < 600000 && frame())
                    cam.AutoExpGain(p);
                if (cam.m_bAutoWB && CanBalance(cam) && frame())
                    cam.AutoWB_RAW(p);
                run.model.ApplyExp();
                run.model.ApplyGain();
            }
        } else if (lExp < SHORT_EXPOSURE && lFrameTime < SHORT_EXPOSURE && !(kind == Automation::Iolite && cam.m_bLongExp)) {
            if (WantsExpGain(cam) && frame())
                cam.AutoExpGain(p);
            if (kind == Automation::Common && cam.m_bAutoWB && ++nBalancePass % 4 == 0 && CanBalance(cam) && frame())
                cam.AutoWB_RAW(p);
        }
    };
    run.control.Sleep(200);
    while (run.control.IsRunning()) {
        Attempt("automation", step);
        for (int i = 0; i < nSlices && run.control.IsRunning(); ++i)
            run.control.Sleep(10);
    }
    TraceLine("Thread SetGainExpFunc Exit!\n");
}

void StartAutomationStep(CaptureRun& run)
{
    if (run.bAuxBusy.exchange(true))
        return;
    const auto step = [](void* pv) {
        CaptureRun& r = *static_cast<CaptureRun*>(pv);
        Attempt("automation", [&r] {
            const bool bBalance = r.cam.m_bAutoWB && CanBalance(r.cam);
            Sample sample(r);
            uint8_t* const p = WantsExpGain(r.cam) || bBalance ? sample.Take() : nullptr;
            if (p && WantsExpGain(r.cam))
                r.cam.AutoExpGain(p);
            if (p && bBalance)
                r.model.ModelWhiteBalance(p);
        });
        r.bAuxBusy = false;
    };
    if (!run.aux.Start(step, &run))
        run.bAuxBusy = false;
}

// The capture thread's loop. It stands once; ModernLoop and SmallChunkLoop add the steps in which the USB 3 and the USB 2
// families differ, and the form's row says the rest.
#pragma once
#include <atomic>
#include <cstdint>
#include <memory>

#include "capture/Capture.h"
#include "capture/ChunkQueue.h"
#include "capture/Forms.h"
#include "capture/RunControl.h"
#include "platform/Platform.h"

// Sensor registers that the loop and the long exposures both write.
constexpr uint16_t IOLITE_MODE = 30, DUNITE_RESTART = 12;

// What the threads of one capture share.
struct CaptureRun {
    CaptureRun(CCameraBase& c, IModel& m, bool snap);

    CCameraBase& cam;
    IModel& model;
    const CaptureForm& form;
    const bool snap;  // m_bSnapMode at the start: the next capture may set the field before this one has ended
    RunControl control;
    platform::Thread main, aux;
    std::atomic<bool> auxBusy{ false };
};

// us a frame takes at the current settings.
int64_t FrameTime(const CCameraBase& cam, const CaptureForm& form);
// Lines of the exposure at a clock of MHz, as the shutter register of the USB 2 families counts them.
int64_t ExposureLines(const CCameraBase& cam, Family family, int64_t clock);
// Division in which a clock or a line length that was never set counts as 1.
inline int64_t Per(int64_t a, int64_t b) { return a / (b != 0 ? b : 1); }

// Automation beside the loop; returns when the capture ends.
void RunAutomation(CaptureRun& run);
// A single step on a thread of its own, unless the last one is still at work.
void StartAutomationStep(CaptureRun& run);

class CaptureLoop {
public:
    explicit CaptureLoop(CaptureRun& run);
    virtual ~CaptureLoop() = default;
    void Run();

protected:
    enum class Verdict { Good, Short, BadHead, BadTail };
    enum class Next { Pass, BadFrame, Leave };

    // --- steps in which the two loops differ ---
    virtual void Start() = 0;
    virtual void End() = 0;
    virtual ChunkQueue::Waits FrameWaits() const = 0;
    virtual Next OnGood() = 0;
    virtual Next OnShort() = 0;
    virtual Next OnBadMarks(Verdict v) = 0;
    virtual void OnBadFrame() = 0;  // counts, bandwidth, resynchronisation
    virtual void OnSnapFailed() {}
    virtual void BeginPass() {}

    // --- shared steps ---
    void Frames();
    void PrepareFrame();  // frame size, counters, exchange
    void OpenQueue() { m_queue.Open(m_form.chunk, m_frameBytes, !m_form.smallChunk); }
    void StartAutomation();
    void Finish();  // last steps of an ordinary end
    Verdict Check() const;
    void LogDamage(Verdict v) const;
    void CountUnread();
    bool Deliver();  // the last step on a frame that is not for the automation
    // The automation's steps on the frame at hand; white balance always, exposure and gain where told.
    void Automate(bool expGain);
    // Lowers the bandwidth when frames go bad soon after it was put on auto. True when it did.
    bool ReduceBandwidth(bool risingClearsCount, bool mayReduce);
    // Gives the sensor more clocks a line until the bandwidth is set anew, which relieves the link.
    void StretchLine(int32_t clocks, const char* reason);
    bool IsShort() const { return m_cam.m_lExposure < SHORT_EXPOSURE && m_frameTime < SHORT_EXPOSURE; }
    void Fpga(uint16_t reg, uint16_t v) { m_cam.WriteFPGAREG(reg, v); }
    void Sleep(int64_t ms) { m_run.control.Sleep(ms); }

    // --- long exposures (LongExposure.cpp) ---
    ChunkQueue::Result LongFrame();
    bool IsExposing() const { return m_run.control.IsRunning() && m_cam.m_lExposure == m_kept; }
    void SleepSteps(int64_t step, int64_t count);
    void SleepModern();
    void ExposeKyanite();
    void ExposeGate();
    void ExposeLapis();
    void ExposeEbony();
    void ExposeJasper();
    ChunkQueue::Result LongGarnet();
    ChunkQueue::Result LongCobalt();
    ChunkQueue::Result LongIolite();
    ChunkQueue::Result LongDunite();
    int64_t ReadoutAllowance() const;
    void SleepReadoutAware(int64_t wait);
    void SleepWhole();

    static constexpr int64_t SHORT_EXPOSURE = 100000;  // us; below it the automation runs beside the loop
    static constexpr uint64_t SNAP_LIMIT = 1000000;    // us of exposure lost in bad frames

    CaptureRun& m_run;
    CCameraBase& m_cam;
    IModel& m_model;
    const CaptureForm& m_form;
    ChunkQueue m_queue;
    int32_t m_frameBytes = 0;
    int64_t m_frameTime = 0;  // us
    ChunkQueue::Result m_result{};
    uint32_t m_bad = 0;
    bool m_swap = false;
    bool m_handedOver = false;              // m_queue.Frame() is no frame any more
    bool m_lost = false;                    // device gone for good: no end sequence
    uint32_t m_autoStart, m_lastReduction;  // ticks
    std::atomic<bool>& m_lastAuto;          // bandwidth was on auto at the last look; one for all cameras of a class
    uint64_t m_kept = 0;                    // us, exposure that the long branch times
};

std::unique_ptr<CaptureLoop> MakeCaptureLoop(CaptureRun& run);

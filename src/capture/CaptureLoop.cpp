#include "capture/CaptureLoop.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <map>
#include <string>
#include <utility>

#include "base/Attempt.h"
#include "base/Log.h"
#include "base/Mutex.h"
#include "base/Trace.h"
#include "exchange/FrameExchange.h"

namespace {

constexpr uint16_t HEAD_A = 0x5A7E, TAIL_A = 0x3CF0;
constexpr uint8_t IMAGE_ENDPOINT = 0x82;
constexpr uint16_t GARNET_LINE_LENGTH = 0x300C;

template <class T>
T Get(const uint8_t* p, int64_t at)
{
    T v;
    std::memcpy(&v, p + at, sizeof v);
    return v;
}

// What outlives a capture: hosts meet it as one state for all cameras of a model class.
struct ClassState {
    std::atomic<bool> lastAuto{ false };
    std::atomic<uint32_t> passes{ 0 };  // Agate, Dunite: frames since the last automation step
};

ClassState& StateOf(const CCameraBase& cam, const ModelTraits& t)
{
    static Mutex s_mutex;
    static auto* const s_states = new std::map<std::string, ClassState>;  // threads may outlive static destruction
    const MutexLock l(s_mutex);
    const auto [it, isNew] = s_states->try_emplace(t.className);
    if (isNew)
        it->second.lastAuto = cam.m_bAutoFPS.Get();
    return it->second;
}

}  // namespace

CaptureRun::CaptureRun(CCameraBase& c, IModel& m, bool snap)
    : cam(c), model(m), form(FormOf(m.Traits().family)), snap(snap), control(c, snap)
{
}

int64_t FrameTime(const CCameraBase& cam, const CaptureForm& form)
{
    const int64_t h = int64_t{ cam.m_iHeight } * cam.m_iBin, w = int64_t{ cam.m_iWidth } * cam.m_iBin;
    switch (form.family) {
    case Family::Garnet:
    case Family::GarnetS:
    case Family::Cobalt: return Per((h + 26) * cam.m_iHMAX - 358, cam.m_iCMOSClk);
    case Family::Iolite: return Per(h * (w + 244), cam.m_iCMOSClk);
    case Family::Agate: return Per(h * (w + std::max<int64_t>(660 - w, 94)), cam.m_iCMOSClk);
    case Family::Dunite: return Per(h * (w + std::max<int64_t>(660 - w, 61)), cam.m_iCMOSClk);
    default: return cam.m_iFrameTime;
    }
}

int64_t ExposureLines(const CCameraBase& cam, Family family, int64_t clock)
{
    const int64_t exp = int64_t(cam.m_lExposure.Get()), w = int64_t{ cam.m_iWidth } * cam.m_iBin;
    switch (family) {
    case Family::Cobalt: return std::max<int64_t>(Per(clock * exp - 29, cam.m_iHMAX), 1);
    case Family::Iolite: return std::max<int64_t>(Per(clock * exp + 180, w + 244), 1);
    case Family::Agate: return std::max<int64_t>(Per(clock * exp - 4, w + std::max<int64_t>(660 - w, 94)), 1);
    case Family::Dunite: return std::max<int64_t>(Per(clock * exp - 4, w + std::max<int64_t>(660 - w, 61)), 1);
    default: return Per(exp * clock - 26, cam.m_iHMAX);
    }
}

// --- what both loops share ------------------------------------------------------------------------------------------

CaptureLoop::CaptureLoop(CaptureRun& run)
    : m_run(run), m_cam(run.cam), m_model(run.model), m_form(run.form), m_queue(run.cam, run.control),
      m_autoStart(platform::Ticks()), m_lastReduction(m_autoStart), m_lastAuto(StateOf(run.cam, run.model.Traits()).lastAuto)
{
}

void CaptureLoop::Run()
{
    if (!Attempt("capture", [this] {
            Start();
            Frames();
        }))
        m_run.control.End(EXP_FAILED);
    if (!m_lost)
        Attempt("end of capture", [this] { End(); });
}

void CaptureLoop::Frames()
{
    for (;;) {
        if (m_run.snap && m_cam.m_lExposure * m_bad > SNAP_LIMIT) {
            OnSnapFailed();
            m_run.control.End(EXP_FAILED);
            return;
        }
        if (!m_run.control.IsRunning())
            return;
        BeginPass();
        m_frameTime = FrameTime(m_cam, m_form);
        m_swap = !m_swap;
        m_handedOver = false;
        m_result = m_cam.m_bLongExp ? LongFrame() : m_queue.ReadFrame(FrameWaits());
        if (!m_cam.m_bAutoFPS)
            m_lastAuto = false;
        const Verdict v = Check();
        if (v != Verdict::Good)
            LogDamage(v);
        const Next next = v == Verdict::Good ? OnGood() : v == Verdict::Short ? OnShort() : OnBadMarks(v);
        if (next == Next::Leave)
            return;
        if (next == Next::BadFrame)
            OnBadFrame();
    }
}

void CaptureLoop::PrepareFrame()
{
    // Fixed for the whole capture; what the buffers hold is the full sensor with two bytes a pixel.
    const int64_t room = 2 * int64_t{ m_cam.m_iMaxWidth } * m_cam.m_iMaxHeight;
    m_frameBytes = int32_t(std::clamp<int64_t>(m_model.GetRealImageSize(), 0, room));
    m_cam.m_iDroppedFrames = 0;
    m_cam.m_pFrameExchange->Reset();
}

void CaptureLoop::StartAutomation()
{
    if (!m_run.snap && m_form.automation != Automation::OneShot)
        m_run.aux.Start([](void* p) { RunAutomation(*static_cast<CaptureRun*>(p)); }, &m_run);
}

void CaptureLoop::Finish()
{
    if (!m_run.snap)
        m_cam.m_pFrameExchange->Reset();
    m_queue.Close();
    if (!m_run.snap)
        m_run.aux.Wait(500);
}

void CaptureLoop::LogDamage(Verdict v) const
{
    if (v != Verdict::Short)
        KOV_LOG(Info, "frame dropped, %s is wrong; resynchronising", v == Verdict::BadHead ? "its head mark" : "its tail mark");
    else if (m_result.received != 0)
        KOV_LOG(Info, "frame dropped, %u of %d bytes came; resynchronising", m_result.received, m_frameBytes);
    else
        KOV_LOG(Info, "no data came for a frame, %u in a row were bad", m_bad + 1);
}

CaptureLoop::Verdict CaptureLoop::Check() const
{
    if (!m_result.finished || m_result.received != uint32_t(m_frameBytes) || m_frameBytes < 8)
        return Verdict::Short;
    const uint8_t* const p = m_queue.Frame();
    const int64_t S = m_frameBytes;
    if (m_form.marks == Marks::A) {
        if (Get<uint16_t>(p, 0) != HEAD_A)
            return Verdict::BadHead;
        return Get<uint16_t>(p, S - 2) == TAIL_A && Get<uint16_t>(p, S - 4) == Get<uint16_t>(p, 2) ? Verdict::Good
                                                                                                   : Verdict::BadTail;
    }
    if (Get<uint32_t>(p, 0) != HEAD_B)
        return Verdict::BadHead;
    return m_form.marks == Marks::BAndTail && Get<uint32_t>(p, S - 4) != TAIL_B ? Verdict::BadTail : Verdict::Good;
}

// The automation measures in the buffers that USB has filled, and a reader may work on a frame in its place: a frame that
// may be measured is copied, any other goes itself.
bool CaptureLoop::Deliver()
{
    const bool measured = m_cam.m_bAutoExp || m_cam.m_bAutoGain || m_cam.m_bAutoWB;
    return m_run.control.Deliver([&] {
        if (measured)
            return m_cam.m_pFrameExchange->Insert(m_queue.Frame(), m_frameBytes);
        return m_handedOver = m_queue.HandOver();
    });
}

// The ring was full.
void CaptureLoop::CountUnread()
{
    ++m_cam.m_iDroppedFrames;
    KOV_LOG(Info, "frame dropped, the host has not fetched the two before it; %u dropped so far", m_cam.m_iDroppedFrames.Get());
}

void CaptureLoop::Automate(bool expGain)
{
    if (m_handedOver)  // the automation was switched on meanwhile
        return;
    if (expGain && (m_cam.m_bAutoExp || m_cam.m_bAutoGain))
        m_cam.AutoExpGain(m_queue.Frame());
    if (m_cam.m_bAutoWB && m_cam.m_bIsColor && !m_cam.m_bOutput16Bits)
        m_cam.AutoWB_RAW(m_queue.Frame());
}

bool CaptureLoop::ReduceBandwidth(bool risingClearsCount, bool mayReduce)
{
    const bool isAuto = m_cam.m_bAutoFPS;
    if (isAuto && !m_lastAuto) {
        m_autoStart = platform::Ticks();
        if (risingClearsCount)
            m_bad = 0;
    }
    m_lastAuto = isAuto;
    const uint32_t now = platform::Ticks();
    if (now - m_autoStart >= 20000 || !isAuto || m_bad < 3 || !mayReduce)
        return false;
    m_bad = 0;
    const uint32_t since = now - m_lastReduction;
    m_lastReduction = now;
    if (since >= 5000)
        return false;
    m_cam.ChangeFPSPerc(m_cam.m_iFPSPerc - 4, m_cam.m_bAutoFPS, "three damaged frames within 5 s");
    if (m_form.smallChunk)
        TraceLine("time from start:%d   time_delta:%d pkg:%x\n", int(now - m_autoStart), int(since), unsigned(m_cam.m_iHMAX));
    return true;
}

void CaptureLoop::StretchLine(int32_t clocks, const char* reason)
{
    const int32_t line = m_cam.m_iHMAX;
    KOV_LOG(Info, "line length from %d to %d: %s", line, line + clocks, reason);
    m_cam.WriteCameraRegister(GARNET_LINE_LENGTH, uint16_t(line + clocks));
}

// --- USB 3 families and the Garnet _S pair --------------------------------------------------------------------------

namespace {

class ModernLoop final : public CaptureLoop {
public:
    using CaptureLoop::CaptureLoop;

private:
    void Start() override
    {
        m_cam.SendCMD(REQ_STOP_STREAM);
        m_model.StopSensorStreaming();
        PrepareFrame();
        StartAutomation();
        m_cam.SendCMD(REQ_START_STREAM);
        m_model.StartSensorStreaming();
        m_cam.ResetEndPoint(IMAGE_ENDPOINT);
        OpenQueue();
        m_run.control.Tell(EXP_WORKING);
    }

    void End() override
    {
        m_cam.m_iDroppedFrames = 0;
        m_model.StopSensorStreaming();
        m_cam.SendCMD(REQ_STOP_STREAM);
        m_cam.ResetEndPoint(IMAGE_ENDPOINT);
        Finish();
    }

    ChunkQueue::Waits FrameWaits() const override
    {
        const int64_t exp = int64_t(m_cam.m_lExposure.Get());
        const int64_t first = exp >= m_frameTime ? exp / 1000 + (exp < 1000000 ? 1000 : 2000) : m_frameTime * 2 / 1000 + 50;
        const int64_t share = Per(m_frameTime / 1000, m_queue.Count()) + 100;
        return { uint32_t(first), m_form.capChunkWait ? 100u : uint32_t(share), m_form.capChunkWait, 0, 0 };
    }

    Next OnGood() override
    {
        m_empty = 0;
        if (m_form.marks == Marks::A) {
            std::memset(m_queue.Frame(), 0, 4);
            std::memset(m_queue.Frame() + m_frameBytes - 4, 0, 4);
        }
        const bool taken = Deliver();
        if (m_run.snap) {
            m_run.control.End(EXP_SUCCESS);
            return Next::Leave;
        }
        if (!taken)
            CountUnread();
        if (m_swap && !IsShort())
            Automate(true);
        return Next::Pass;
    }

    Next OnShort() override
    {
        ++m_bad;
        if (m_result.received != 0)
            return Next::BadFrame;
        if (m_form.longWay == LongWay::Lapis && m_cam.m_bLongExp && !AnswersVersion())
            return Reconnect() ? Next::Pass : Next::Leave;
        if (++m_empty != 4)
            return Next::Pass;
        KOV_LOG(Info, "device reset and stream restarted: four frames in a row without data");
        m_cam.ResetDevice();
        Sleep(100);
        RestartStream();
        m_empty = m_bad = 0;
        return Next::Pass;
    }

    Next OnBadMarks(Verdict) override
    {
        ++m_bad;
        return Next::BadFrame;
    }

    void OnBadFrame() override
    {
        ++m_cam.m_iDroppedFrames;
        m_empty = 0;
        ReduceBandwidth(false, true);
        if (m_form.family == Family::GarnetS && m_bad == 5)
            StretchLine(100, "five frames damaged");
        m_queue.Resync();
    }

    void RestartStream()
    {
        m_model.StopSensorStreaming();
        m_cam.SendCMD(REQ_STOP_STREAM);
        Sleep(10);
        m_cam.SendCMD(REQ_START_STREAM);
        m_model.StartSensorStreaming();
    }

    bool AnswersVersion()
    {
        uint8_t ab[2] = {};
        int32_t length = sizeof ab;
        return m_cam.SendCMD(REQ_FIRMWARE_VERSION, 0, 0, true, ab, &length);
    }

    // The device fell out during a long exposure. QUIRK: when it does not come back, the thread ends where it stands and
    // m_bCapturing stays set, with the camera no longer open.
    bool Reconnect()
    {
        KOV_LOG(Info, "reconnecting: the camera does not answer after a long exposure");
        m_queue.Close();
        if (!m_cam.ReConnectCamera()) {
            KOV_LOG(Error, "the camera did not come back; check cable, port and power, then close it and open it again");
            m_lost = true;
            return false;
        }
        m_cam.ResetDevice();
        Sleep(100);
        RestartStream();
        m_queue.Reopen();
        return true;
    }

    uint32_t m_empty = 0;  // frames in a row without any data
};

// --- USB 2 families -------------------------------------------------------------------------------------------------

class SmallChunkLoop final : public CaptureLoop {
public:
    explicit SmallChunkLoop(CaptureRun& run) : CaptureLoop(run), m_passes(StateOf(run.cam, run.model.Traits()).passes) {}

private:
    bool Is(Family f) const { return m_form.family == f; }
    bool IsOneShot() const { return m_form.automation == Automation::OneShot; }
    uint16_t IoliteMode() const { return m_cam.m_bLongExp ? 33024 : 0x8000; }

    void Start() override
    {
        TraceLine("working thread begin!\n");
        m_cam.StopUSBStreaming();
        if (m_form.queueFirst)
            m_cam.SendCMD(REQ_START_SENSOR_CLOCK);
        else
            m_model.StopSensorStreaming();
        PrepareFrame();
        if (m_form.queueFirst) {
            m_cam.ResetEndPoint(IMAGE_ENDPOINT);
            OpenQueue();
            StartAutomation();
            m_cam.SendCMD(REQ_START_STREAM);
            Sleep(100);
        } else {
            StartAutomation();
            m_cam.StartSensorCLK();
            if (Is(Family::Iolite))
                m_cam.WriteCameraRegister(IOLITE_MODE, IoliteMode());
            m_cam.StartUSBStreaming();
            if (m_cam.m_bOutput16Bits)
                To16Bits();
            m_model.StartSensorStreaming();
            m_cam.ResetEndPoint(IMAGE_ENDPOINT);
            OpenQueue();
        }
        m_run.control.Tell(EXP_WORKING);
        m_passStart = platform::Ticks();
    }

    void To16Bits()
    {
        if (!IsOneShot()) {
            m_model.SetOutput16Bits(true);
            return;
        }
        // What SetOutput16Bits of Agate and Dunite sends at rest; while a capture runs, it would wait for this thread.
        Sleep(200);
        m_cam.SendCMD(REQ_MODE_16BIT);
    }

    void End() override
    {
        m_cam.m_iDroppedFrames = 0;
        m_model.StopSensorStreaming();
        m_cam.StopUSBStreaming();
        m_cam.ResetEndPoint(IMAGE_ENDPOINT);
        Finish();
        TraceLine("working thread exit!\n");
    }

    // Iolite: the sensor calibrates its black level after a gain change. Once it has had its time, the result is read
    // back and fixed; automatic stays the declared state.
    void BeginPass() override
    {
        const uint32_t now = platform::Ticks(), pass = now - m_passStart;
        m_passStart = now;
        if (!Is(Family::Iolite) || !m_cam.m_bAutoBLBusy)
            return;
        m_cam.m_iAutoBLCount += int32_t(pass);
        if (m_cam.m_iAutoBLCount <= 800)
            return;
        signed char a[4];
        constexpr uint16_t regs[4] = { 96, 97, 99, 100 };
        for (int i = 0; i < 4; ++i) {
            uint16_t w = 0;
            m_cam.ReadCameraRegister(regs[i], &w);
            a[i] = static_cast<signed char>(w & 0xFF);
        }
        const char p = static_cast<char>(std::max(a[0], a[1])), q = static_cast<char>(std::max(a[2], a[3]));
        m_model.SetBLOffset(false, p, p, q, q);
        m_cam.m_bAutoBL = true;
    }

    ChunkQueue::Waits FrameWaits() const override
    {
        const int64_t exp = int64_t(m_cam.m_lExposure.Get());
        int64_t first;
        if (IsOneShot())
            first = std::max(exp / 1000, m_frameTime / 1000);
        else if (exp >= m_frameTime)
            first = exp / 1000 + (exp < 1000000 ? 1000 : 2000);
        else
            first = m_frameTime / 1000 + (m_queue.Count() == 1 ? 2 : 10);
        m_firstWait = uint32_t(std::max<int64_t>(first, 0));
        return { m_firstWait, 200, true, 0, IsOneShot() ? 20u : 0u };
    }

    void OnSnapFailed() override { TraceLine("snap Exp: EXP_FAILED:%d\n", int(m_bad)); }

    Next OnShort() override
    {
        if (m_bad++ > 50) {
            TraceLine("DropCount more than 50, reset!\n");
            KOV_LOG(Info, "device reset and stream restarted: over 50 frames incomplete");
            m_cam.ResetDevice();
            m_cam.SendCMD(REQ_START_SENSOR_CLOCK);
            m_cam.SendCMD(REQ_START_STREAM);
            Sleep(200);
            m_bad = 0;
        }
        if (m_bad == 4 && HasLineLength()) {
            TraceLine("try lowing pkg!!\n");
            StretchLine(30, "four frames incomplete");
            m_cam.ResetEndPoint(IMAGE_ENDPOINT);
        }
        if (m_result.received == 0)
            return Next::Pass;
        TraceLine("get len:0x%x drop:%d reset! frametime:%d waittime:%d\n", m_result.received, int(m_bad), int(m_frameTime),
                  int(m_result.wait));
        ++m_cam.m_iDroppedFrames;
        return Next::BadFrame;
    }

    Next OnBadMarks(Verdict) override
    {
        uint32_t head;
        std::memcpy(&head, m_queue.Frame(), sizeof head);
        TraceLine("bad frame head:0x%x\n", head);
        // QUIRK: at short exposures the frame goes to the reader all the same, who looks at its head, and counts as
        // dropped as well.
        if (m_cam.m_lExposure < uint64_t(SHORT_EXPOSURE) && !m_run.snap)
            Deliver();
        ++m_cam.m_iDroppedFrames;
        ++m_bad;
        return Next::BadFrame;
    }

    Next OnGood() override
    {
        if (m_run.snap) {
            Deliver();
            TraceLine("snap: EXP_SUCCESS\n");
            m_run.control.End(EXP_SUCCESS);
            return Next::Leave;
        }
        m_run.control.Tell(EXP_SUCCESS);
        // QUIRK: the first good frame of a video is never delivered, and the reset takes away the request of the second.
        // Where the host times the exposures, a pass thus ends without its frame: in video each frame comes one exposure
        // late from then on, and the first after three. Agate, Dunite and Iolite may lose another one to a short frame
        // that the sensor has ready when the stream starts.
        if (m_good++ == 0)
            m_cam.ResetEndPoint(IMAGE_ENDPOINT);
        else if (!Deliver())
            CountUnread();
        m_bad = 0;
        if (IsOneShot()) {
            AutomateOneShot();
        } else if (!IsShort()) {
            // QUIRK: a host sees auto exposure and gain of GarnetCol stand still from 100 ms on: here they are the
            // monochrome models' alone.
            Automate(!m_cam.m_bIsColor);
        }
        return Next::Pass;
    }

    void AutomateOneShot()
    {
        if (m_cam.m_lExposure > 500000) {
            if (m_handedOver)
                return;
            if (m_cam.m_bAutoExp || m_cam.m_bAutoGain)
                m_cam.AutoExpGain(m_queue.Frame());
            if (m_cam.m_bAutoWB && m_cam.m_bIsColor && !m_cam.m_bOutput16Bits)
                m_model.ModelWhiteBalance(m_queue.Frame());
        } else if (uint64_t{ ++m_passes } * m_firstWait > 200) {
            m_passes = 0;
            StartAutomationStep(m_run);
        }
    }

    void OnBadFrame() override
    {
        TraceLine("drop frames:%d\n", int(m_cam.m_iDroppedFrames));
        if (HasLineLength() && ReduceBandwidth(true, m_result.wait < 500))
            m_frameTime = FrameTime(m_cam, m_form);
        m_queue.Resync();
        if (m_bad <= (Is(Family::Iolite) ? 30u : 20u))
            return;
        TraceLine("bad frame than 20, reset!\n");
        KOV_LOG(Info, "stream restarted: %u bad frames", m_bad);
        if (Is(Family::Iolite)) {
            m_cam.SendCMD(REQ_START_SENSOR_CLOCK);
            m_cam.WriteCameraRegister(IOLITE_MODE, IoliteMode());
        } else {
            if (HasLineLength())
                StretchLine(30, "the stream restarts");
            else
                m_cam.WriteCameraRegister(DUNITE_RESTART, 1);
            m_cam.ResetDevice();
            m_cam.SendCMD(REQ_START_STREAM);
        }
        m_bad = 0;
    }

    // Sensors whose line length can be stretched to relieve the link.
    bool HasLineLength() const { return Is(Family::Garnet) || Is(Family::Cobalt); }

    std::atomic<uint32_t>& m_passes;
    mutable uint32_t m_firstWait = 0;  // ms
    uint32_t m_good = 0;
    uint32_t m_passStart = 0;
};

}  // namespace

std::unique_ptr<CaptureLoop> MakeCaptureLoop(CaptureRun& run)
{
    if (run.form.smallChunk)
        return std::make_unique<SmallChunkLoop>(run);
    return std::make_unique<ModernLoop>(run);
}

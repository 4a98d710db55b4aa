#include "capture/Capture.h"

#include <exception>
#include <utility>

#include "base/Attempt.h"
#include "base/Log.h"
#include "base/Mutex.h"
#include "capture/CaptureLoop.h"
#include "capture/RunControl.h"
#include "exchange/FrameExchange.h"
#include "platform/Platform.h"

namespace {

struct Session {
    CaptureRun run;
    std::shared_ptr<Session> older;  // still ending
    Session(CCameraBase& cam, IModel& model, bool snap) : run(cam, model, snap) {}
};

void WorkingThread(void* p)
{
    Session& s = *static_cast<Session*>(p);
    logging::SetThreadName("capture");
    // Two threads on one endpoint would take each other's chunks. A predecessor that is in its end sequence goes first.
    if (s.older) {
        s.older->run.main.Wait(platform::WAIT_FOREVER);
        s.older->run.aux.Wait(platform::WAIT_FOREVER);
        s.older.reset();
    }
    if (!Attempt("capture", [&s] { MakeCaptureLoop(s.run)->Run(); }))
        s.run.control.End(EXP_FAILED);
}

}  // namespace

struct CaptureSession::Impl {
    CCameraBase& cam;
    IModel& model;
    Mutex m;
    std::shared_ptr<Session> current KOV_TSA(guarded_by(m));
};

CaptureSession::CaptureSession(CCameraBase& cam, IModel& model) : m_p(new Impl{ cam, model, {}, {} }) {}

CaptureSession::~CaptureSession() { Wait(platform::WAIT_FOREVER); }

bool CaptureSession::Start(bool snap)
{
    const MutexLock l(m_p->m);
    CCameraBase& cam = m_p->cam;
    auto session = std::make_shared<Session>(cam, m_p->model, snap);
    session->older = m_p->current;
    // m_bCapturing is set again: only this tells the older thread that its time is over.
    if (m_p->current)
        m_p->current->run.control.Abandon();
    // A reader may come before the new thread does: what lies here is of an earlier capture.
    cam.m_pFrameExchange->Reset();
    cam.m_bSnapMode = snap;
    cam.m_ExpStatus = EXP_WORKING;
    cam.m_bCapturing = true;
    if (!session->run.main.Start(&WorkingThread, session.get())) {
        session->run.control.End(EXP_FAILED);
        return false;
    }
    m_p->current = std::move(session);
    return true;
}

bool CaptureSession::IsCapturing() const
{
    const MutexLock l(m_p->m);
    return m_p->current ? m_p->current->run.control.IsCapturing() : m_p->cam.m_bCapturing.Get();
}

void CaptureSession::Stop()
{
    const MutexLock l(m_p->m);
    if (m_p->current)
        m_p->current->run.control.Stop();
    m_p->cam.m_bCapturing = false;
}

uint32_t CaptureSession::Wait(uint32_t ms)
{
    std::shared_ptr<Session> current;
    {
        const MutexLock l(m_p->m);
        current = m_p->current;
    }
    if (!current)
        return platform::WAIT_SIGNALLED;
    if (ms != platform::WAIT_FOREVER)
        return current->run.main.Wait(ms);
    current->run.control.Abandon();
    current->run.main.Wait(platform::WAIT_FOREVER);
    return current->run.aux.Wait(platform::WAIT_FOREVER);
}

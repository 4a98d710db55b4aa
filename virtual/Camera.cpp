// Life of a virtual camera: power, plug, handles, requests of the image pipe, faults.
#include "virtual/Camera.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <utility>

namespace kovsim {

using usbstack::Status;

namespace {

constexpr double ENUMERATION_US = 300000;  // from a port cycle until the device is back
std::atomic<uint64_t> g_uPlugs = 0;        // of all buses: no two plugs have the same name
constexpr size_t MAX_LOGGED = 1 << 18;     // the oldest vendor requests go first
constexpr double GUIDE_ARCSEC_PER_US = 7.5e-6;

std::string SerialOf(const CameraSettings& s)
{
    if (!s.sSerial.empty())
        return s.sSerial;
    static constexpr char HEX[] = "0123456789ABCDEF";
    std::string out;
    for (uint64_t x = Mix(s.uSeed ^ s.wProductId); out.size() < 8; x >>= 4)
        out += HEX[x & 15];
    return out;
}

}  // namespace

void FrameInFlight::Copy(uint8_t* to, uint32_t from, uint32_t length) const
{
    std::memcpy(to, pixels->data() + from, length);
    const auto overlay = [&](const uint8_t* mark, uint32_t at, uint32_t size) {
        const uint32_t lo = std::max(at, from), hi = std::min(at + size, from + length);
        if (lo < hi)
            std::memcpy(to + (lo - from), mark + (lo - at), hi - lo);
    };
    overlay(head, 0, uHead);
    overlay(tail, uFull - uTail, uTail);
}

std::shared_ptr<std::vector<uint8_t>> FramePool::Take()
{
    std::unique_ptr<std::vector<uint8_t>> v;
    {
        std::lock_guard lock(m_Mutex);
        if (!m_Free.empty()) {
            v = std::move(m_Free.back());
            m_Free.pop_back();
        }
    }
    if (!v)
        v = std::make_unique<std::vector<uint8_t>>();
    return { v.release(), [pool = shared_from_this()](std::vector<uint8_t>* p) {
                std::unique_ptr<std::vector<uint8_t>> back(p);
                std::lock_guard lock(pool->m_Mutex);
                if (pool->m_Free.size() < KEPT)
                    pool->m_Free.push_back(std::move(back));
            } };
}

std::unique_ptr<Profile> Camera::NewProfile(uint8_t bFirmware) const
{
    auto p = m_Settings.profile ? m_Settings.profile(bFirmware, m_Settings.bUSB3Host)
                                : MakeProfile(m_Settings.wProductId, bFirmware, m_Settings.bUSB3Host);
    if (!p)
        throw std::invalid_argument("no virtual camera has this product ID");
    return p;
}

Camera::Camera(const CameraSettings& settings, uint16_t wVendorId, const Clock& clock, BusHooks& bus, uint8_t bBus,
               std::string sPort)
    : m_Settings(settings), m_wVendorId(wVendorId), m_Clock(clock), m_Bus(bus), m_bBus(bBus), m_sPort(std::move(sPort)),
      m_Facts(NewProfile(uint8_t(settings.iFirmware < 0 ? 20 : settings.iFirmware))->Facts()),
      m_Imager(m_Facts, settings.uSeed, settings.dNoise, settings.iHotPixels),
      m_Scene(settings.scene ? settings.scene : Scene::Sky()), m_Thermal(settings.dAmbient, m_Facts.bCooled),
      m_Flash(m_Facts.bUSB3 ? settings.sFlashFile : ""), m_Eeprom(0x10000, 0xFF)
{
    Boot();
    PlugIn();
    m_Thread = std::thread([this] { SensorThread(); });
}

Camera::~Camera()
{
    {
        Lock lock(m_Mutex);
        m_bQuit = true;
        m_Wake.notify_all();
    }
    m_Thread.join();
    Cancel(nullptr);
}

// Power on: the bridge looks for a firmware, everything else takes its reset values.
void Camera::Boot()
{
    m_Memory = {};  // what was loaded into the processor is lost
    m_bFirmware = m_Settings.iFirmware < 0 ? m_Facts.bFirmware : uint8_t(m_Settings.iFirmware);
    if (m_Facts.bUSB3) {
        if (m_Settings.bBootLoader && !m_bLoaded)
            m_Memory.SetState(Cpu::BootLoader);
    } else if (m_bEepromWritten) {
        if (IsC2Image(m_Eeprom)) {
            m_bFirmware = VersionIn(m_Eeprom).value_or(m_Facts.bFirmware);
        } else {
            m_bFirmware = 0;
            m_Memory.SetState(Cpu::BootLoader);
        }
    }
    m_Profile = NewProfile(m_bFirmware);
    m_Profile->PowerOn();
    m_uTransferCount = 0;
    m_Thermal.SetDA(DA_OFF, m_Clock.Now() / 1e6);
    MoveGuide();
    std::fill(std::begin(m_Pins), std::end(m_Pins), false);
}

void Camera::PlugIn()
{
    m_uPlug = ++g_uPlugs;
    m_bAddress = m_Bus.NextAddress();
    m_bPresent = true;
    m_bHalted = false;
    m_bConfiguration = 1;
    m_dReturnAt = -1;
    Changed();
}

// Off the bus; at returnAt (device time, -1 never) the sensor's thread plugs it in again.
void Camera::Drop(double returnAt)
{
    m_bPresent = false;
    m_dReturnAt = returnAt;
    Flush();
    Changed();
    m_Wake.notify_all();
    m_Bus.Pump();
}

// After anything that may have changed what the sensor does.
void Camera::Changed()
{
    const bool held = m_Now.bHeld, on = m_Now.bStreaming;
    m_Now = Running() ? m_Profile->Current() : Readout{};
    if (m_Now.bHeld != held)
        (m_Now.bHeld ? m_dHeldAt : m_dReleasedAt) = m_Clock.Now();
    if (on && !m_Now.bStreaming)
        ++m_uStops;
    if (on != m_Now.bStreaming)
        m_dStreamAt = m_Now.bStreaming ? m_Clock.Now() : -1;
    if (m_Now.bHeld != held || m_Now.bStreaming != on)
        m_Wake.notify_all();
}

void Camera::Used()
{
    if (m_bUsed)
        return;
    m_bUsed = true;
    m_Wake.notify_all();
}

void Camera::Unplug()
{
    Lock lock(m_Mutex);
    if (m_bPresent)
        Drop(-1);
    m_dReturnAt = -1;
    m_bLoaded = false;  // without power the bridge forgets what the boot loader was given
}

void Camera::Replug()
{
    Lock lock(m_Mutex);
    if (m_bPresent)
        return;
    Boot();
    PlugIn();
}

void Camera::PowerCycle()
{
    Unplug();
    Replug();
}

void Camera::PowerCycle(uint64_t uPlug)
{
    Lock lock(m_Mutex);
    if (!m_bPresent || uPlug != m_uPlug)
        return;
    Drop(-1);
    m_bLoaded = false;
    Boot();
    PlugIn();
}

bool Camera::Info(usbstack::DeviceInfo* pInfo, uint64_t* puPlug, Status* pOpen) const
{
    Lock lock(m_Mutex);
    if (!m_bPresent)
        return false;
    pInfo->wVendorId = m_wVendorId;
    pInfo->wProductId = m_Facts.wProductId;
    pInfo->bBus = m_bBus;
    pInfo->bAddress = m_bAddress;
    pInfo->sPortPath = m_sPort;
    pInfo->sPath = "virtual:" + std::to_string(m_bBus) + "-" + m_sPort + "@" + std::to_string(m_uPlug);
    pInfo->speed = GetSpeed();
    *puPlug = m_uPlug;
    *pOpen = m_OpenStatus == Status::Busy ? Status::Ok : m_OpenStatus;
    return true;
}

usbstack::Speed Camera::GetSpeed() const
{
    return m_Facts.bUSB3 && m_Settings.bUSB3Host ? usbstack::Speed::Super : usbstack::Speed::High;
}

bool Camera::IsCurrent(uint64_t uPlug) const
{
    Lock lock(m_Mutex);
    return m_bPresent && uPlug == m_uPlug;
}

uint8_t Camera::GetAddress() const
{
    Lock lock(m_Mutex);
    return m_bAddress;
}

// One that another program holds can be looked at, no more.
Status Camera::Claim(uint64_t uPlug) const
{
    Lock lock(m_Mutex);
    if (!m_bPresent || uPlug != m_uPlug)
        return Status::Gone;
    return m_OpenStatus == Status::Busy ? Status::Busy : Status::Ok;
}

int Camera::GetAltSetting(uint64_t uPlug) const { return IsCurrent(uPlug) ? 0 : -1; }

DescriptorFacts Camera::Descriptors() const
{
    return { m_wVendorId,          m_Facts.wProductId,   m_bFirmware,         m_Facts.bUSB3,
             m_Settings.bUSB3Host, "S" + m_Facts.sToken, SerialOf(m_Settings) };
}

// --- image pipe ---

Status Camera::Submit(uint64_t uPlug, const void* pOwner, usbstack::BulkRequest* request, uint32_t uPacket)
{
    if (request->bEndpoint != BULK_IN || !request->OnComplete || (request->dwLength && !request->pData))
        return Status::Failed;
    {
        Lock lock(m_Mutex);
        if (!m_bPresent || uPlug != m_uPlug)
            return Status::Gone;
        if (m_OpenStatus == Status::Busy)
            return Status::Busy;
        m_Pending.push_back({ request, pOwner, uPlug, uPacket });
        if (m_Frames.empty() && !m_bHalted)
            return Status::Ok;
    }
    m_Bus.Pump();
    return Status::Ok;
}

void Camera::Cancel(const void* pOwner, const usbstack::BulkRequest* pOnly)
{
    std::lock_guard completing(m_Completing);
    std::deque<Pending> out;
    {
        Lock lock(m_Mutex);
        std::deque<Pending> keep;
        for (const Pending& p : m_Pending)
            ((!pOwner || p.pOwner == pOwner) && (!pOnly || p.request == pOnly) ? out : keep).push_back(p);
        m_Pending.swap(keep);
    }
    for (const Pending& p : out)
        p.request->OnComplete(p.request, Status::Cancelled, 0);
}

Status Camera::ResetPipe(uint64_t uPlug, const void* pOwner)
{
    Cancel(pOwner);
    Lock lock(m_Mutex);
    if (!m_bPresent || uPlug != m_uPlug)
        return Status::Gone;
    m_bHalted = false;
    Flush();
    return Status::Ok;
}

Status Camera::ResetPort(uint64_t uPlug)
{
    if (!IsCurrent(uPlug))
        return Status::Gone;
    Cancel(nullptr);
    // A bus reset leaves sensor and firmware running; only what the bridge held for the host is gone.
    Lock lock(m_Mutex);
    m_bHalted = false;
    Flush();
    return Status::Ok;
}

Status Camera::CyclePort(uint64_t uPlug)
{
    Lock lock(m_Mutex);
    if (!m_bPresent || uPlug != m_uPlug)
        return Status::Gone;
    Drop(m_Clock.Now() + ENUMERATION_US);
    return Status::Ok;
}

// What the bridge holds for the host is lost.
void Camera::Flush()
{
    for (const FrameInFlight& f : m_Frames)
        if (f.bGood && !f.bStall)
            ++m_Counters.uAborted;
    m_Frames.clear();
}

void Camera::Complete()
{
    for (;;) {
        std::lock_guard completing(m_Completing);
        Pending p;
        FrameInFlight frame;
        Status status = Status::Ok;
        uint32_t from = 0, n = 0;
        {
            Lock lock(m_Mutex);
            if (m_Pending.empty())
                return;
            p = m_Pending.front();
            if (!m_bPresent || p.uPlug != m_uPlug) {
                status = Status::Gone;
            } else {
                if (!m_bHalted && !m_Frames.empty() && m_Frames.front().bStall) {
                    m_bHalted = true;
                    m_Frames.pop_front();
                }
                if (m_bHalted) {
                    status = Status::Stall;
                } else if (m_Frames.empty()) {
                    return;
                } else {
                    FrameInFlight& f = m_Frames.front();
                    from = f.uSent;
                    const uint32_t left = f.uSize - f.uSent;
                    n = std::min(p.request->dwLength, left);
                    f.uSent += n;
                    if (p.uPacket && n < left && n % p.uPacket) {
                        // A whole packet came where there was room for a part of one: all of it is lost.
                        status = Status::Failed;
                        const uint32_t part = n % p.uPacket;
                        n -= part;
                        f.uSent += std::min(p.uPacket - part, left - n - part);
                        if (f.bGood)
                            ++m_Counters.uSpoiled;
                        f.bGood = false;
                    }
                    frame = f;
                    if (f.uSent == f.uSize) {
                        m_Frames.pop_front();
                        EndFrame(frame);
                    }
                }
            }
            m_Pending.pop_front();
        }
        if (n)
            frame.Copy(p.request->pData, from, n);
        p.request->OnComplete(p.request, status, n);
    }
}

void Camera::EndFrame(const FrameInFlight& frame)
{
    if (!frame.bGood)
        return;
    ++m_Counters.uGood;
    for (Fault& f : m_Faults)
        if (f.kind >= FaultKind::SlowControl && f.uAfterFrames)
            --f.uAfterFrames;
    CheckVanish();
}

// --- faults ---

bool Camera::TakeFault(FaultKind kind, const std::function<bool(uint32_t)>& fits, uint32_t* puArg)
{
    for (auto it = m_Faults.begin(); it != m_Faults.end(); ++it) {
        if (it->kind != kind || it->uAfterFrames || (fits && !fits(it->uArg)))
            continue;
        if (puArg)
            *puArg = it->uArg;
        if (--it->uTimes == 0)
            m_Faults.erase(it);
        return true;
    }
    return false;
}

void Camera::CheckVanish()
{
    uint32_t ms = 0;
    if (m_bPresent && TakeFault(FaultKind::Vanish, nullptr, &ms))
        Drop(ms ? m_Clock.Now() + ms * 1000.0 : -1);
}

void Camera::Inject(const Fault& fault)
{
    Lock lock(m_Mutex);
    if (fault.uTimes)
        m_Faults.push_back(fault);
    CheckVanish();
}

void Camera::ClearFaults()
{
    Lock lock(m_Mutex);
    m_Faults.clear();
}

// --- views ---

std::vector<Request> Camera::Requests() const
{
    Lock lock(m_Mutex);
    return { m_Requests.begin(), m_Requests.end() };
}

void Camera::ClearRequests()
{
    Lock lock(m_Mutex);
    m_Requests.clear();
}

void Camera::Log(const Setup& s, const std::vector<uint8_t>& data)
{
    if (m_Requests.size() == MAX_LOGGED)
        m_Requests.pop_front();
    m_Requests.push_back({ s.bIn, s.bRequest, s.wValue, s.wIndex, s.wLength, data, uint64_t(m_Clock.Now()) });
}

uint16_t Camera::SensorReg(uint16_t reg) const
{
    Lock lock(m_Mutex);
    return m_Profile->ReadReg16(reg);
}

uint8_t Camera::FpgaReg(uint16_t reg) const
{
    Lock lock(m_Mutex);
    return m_Profile->ReadFpga(reg);
}

Readout Camera::CurrentReadout() const
{
    Lock lock(m_Mutex);
    return m_Profile->Current();
}

std::string Camera::LastContradiction() const
{
    Lock lock(m_Mutex);
    return m_sContradiction;
}

uint64_t Camera::LostReplies() const
{
    Lock lock(m_Mutex);
    return m_uLostReplies;
}

FrameCounters Camera::Counters() const
{
    Lock lock(m_Mutex);
    return m_Counters;
}

void Camera::SetOpenStatus(Status status)
{
    Lock lock(m_Mutex);
    m_OpenStatus = status;
}

void Camera::SetScene(std::shared_ptr<const Scene> scene)
{
    Lock lock(m_Mutex);
    m_Scene = scene ? std::move(scene) : Scene::Sky();
    m_Wake.notify_all();
}

double Camera::Celsius() const { return m_Thermal.At(m_Clock.Now() / 1e6); }

double Camera::Temperature() const
{
    Lock lock(m_Mutex);
    return Celsius();
}

double Camera::CoolerPower() const
{
    Lock lock(m_Mutex);
    return m_Thermal.Power();
}

uint8_t Camera::CoolerDA() const
{
    Lock lock(m_Mutex);
    return m_Thermal.DA();
}

bool Camera::GuidePin(int direction) const
{
    Lock lock(m_Mutex);
    return direction >= 0 && direction < 4 && m_Pins[direction];
}

// Brings the scene to where the pins have moved it by now.
void Camera::MoveGuide()
{
    const double now = m_Clock.Now(), way = (now - m_dGuideAt) * GUIDE_ARCSEC_PER_US;
    m_dGuideY += way * (int(m_Pins[1]) - int(m_Pins[0]));
    m_dGuideX += way * (int(m_Pins[2]) - int(m_Pins[3]));
    m_dGuideAt = now;
}

double Camera::GuideX() const
{
    Lock lock(m_Mutex);
    const_cast<Camera*>(this)->MoveGuide();
    return m_dGuideX;
}

double Camera::GuideY() const
{
    Lock lock(m_Mutex);
    const_cast<Camera*>(this)->MoveGuide();
    return m_dGuideY;
}

std::vector<uint8_t> Camera::Flash(uint32_t address, uint32_t length) const
{
    Lock lock(m_Mutex);
    return m_Flash.Peek(address, length);
}

void Camera::SetFlash(uint32_t address, const std::vector<uint8_t>& bytes)
{
    Lock lock(m_Mutex);
    m_Flash.Poke(address, bytes);
}

std::vector<uint8_t> Camera::Eeprom() const
{
    Lock lock(m_Mutex);
    return m_Eeprom;
}

uint8_t Camera::Firmware() const
{
    Lock lock(m_Mutex);
    return m_bFirmware;
}

}  // namespace kovsim

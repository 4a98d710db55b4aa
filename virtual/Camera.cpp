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
std::atomic<uint64_t> g_Plugs = 0;         // of all buses: no two plugs have the same name
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
        std::lock_guard lock(m_mutex);
        if (!m_free.empty()) {
            v = std::move(m_free.back());
            m_free.pop_back();
        }
    }
    if (!v)
        v = std::make_unique<std::vector<uint8_t>>();
    return { v.release(), [pool = shared_from_this()](std::vector<uint8_t>* p) {
                std::unique_ptr<std::vector<uint8_t>> back(p);
                std::lock_guard lock(pool->m_mutex);
                if (pool->m_free.size() < KEPT)
                    pool->m_free.push_back(std::move(back));
            } };
}

std::unique_ptr<Profile> Camera::NewProfile(uint8_t bFirmware) const
{
    auto p = m_settings.profile ? m_settings.profile(bFirmware, m_settings.bUSB3Host)
                                : MakeProfile(m_settings.wProductId, bFirmware, m_settings.bUSB3Host);
    if (!p)
        throw std::invalid_argument("no virtual camera has this product ID");
    return p;
}

Camera::Camera(const CameraSettings& settings, uint16_t wVendorId, const Clock& clock, BusHooks& bus, uint8_t bBus,
               std::string sPort)
    : m_settings(settings), m_wVendorId(wVendorId), m_clock(clock), m_bus(bus), m_bBus(bBus), m_sPort(std::move(sPort)),
      m_facts(NewProfile(uint8_t(settings.iFirmware < 0 ? 20 : settings.iFirmware))->Facts()),
      m_imager(m_facts, settings.uSeed, settings.dNoise, settings.iHotPixels),
      m_scene(settings.scene ? settings.scene : Scene::Sky()), m_thermal(settings.dAmbient, m_facts.bCooled),
      m_flash(m_facts.bUSB3 ? settings.sFlashFile : ""), m_eeprom(0x10000, 0xFF)
{
    Boot();
    PlugIn();
    m_thread = std::thread([this] { SensorThread(); });
}

Camera::~Camera()
{
    {
        Lock lock(m_mutex);
        m_bQuit = true;
        m_wake.notify_all();
    }
    m_thread.join();
    Cancel(nullptr);
}

// Power on: the bridge looks for a firmware, everything else takes its reset values.
void Camera::Boot()
{
    m_memory = {};  // what was loaded into the processor is lost
    m_bFirmware = m_settings.iFirmware < 0 ? m_facts.bFirmware : uint8_t(m_settings.iFirmware);
    if (m_facts.bUSB3) {
        if (m_settings.bBootLoader && !m_bLoaded)
            m_memory.SetState(Cpu::BootLoader);
    } else if (m_bEepromWritten) {
        if (IsC2Image(m_eeprom)) {
            m_bFirmware = VersionIn(m_eeprom).value_or(m_facts.bFirmware);
        } else {
            m_bFirmware = 0;
            m_memory.SetState(Cpu::BootLoader);
        }
    }
    m_profile = NewProfile(m_bFirmware);
    m_profile->PowerOn();
    m_uTransferCount = 0;
    m_thermal.SetDA(DA_OFF, m_clock.Now() / 1e6);
    MoveGuide();
    std::fill(std::begin(m_pins), std::end(m_pins), false);
}

void Camera::PlugIn()
{
    m_uPlug = ++g_Plugs;
    m_bAddress = m_bus.NextAddress();
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
    m_wake.notify_all();
    m_bus.Pump();
}

// After anything that may have changed what the sensor does.
void Camera::Changed()
{
    const bool held = m_now.bHeld, on = m_now.bStreaming;
    m_now = Running() ? m_profile->Current() : Readout{};
    if (m_now.bHeld != held)
        (m_now.bHeld ? m_dHeldAt : m_dReleasedAt) = m_clock.Now();
    if (on && !m_now.bStreaming)
        ++m_uStops;
    if (on != m_now.bStreaming)
        m_dStreamAt = m_now.bStreaming ? m_clock.Now() : -1;
    if (m_now.bHeld != held || m_now.bStreaming != on)
        m_wake.notify_all();
}

void Camera::Used()
{
    if (m_bUsed)
        return;
    m_bUsed = true;
    m_wake.notify_all();
}

void Camera::Unplug()
{
    Lock lock(m_mutex);
    if (m_bPresent)
        Drop(-1);
    m_dReturnAt = -1;
    m_bLoaded = false;  // without power the bridge forgets what the boot loader was given
}

void Camera::Replug()
{
    Lock lock(m_mutex);
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
    Lock lock(m_mutex);
    if (!m_bPresent || uPlug != m_uPlug)
        return;
    Drop(-1);
    m_bLoaded = false;
    Boot();
    PlugIn();
}

bool Camera::Info(usbstack::DeviceInfo* pInfo, uint64_t* puPlug, Status* pOpen) const
{
    Lock lock(m_mutex);
    if (!m_bPresent)
        return false;
    pInfo->vendorId = m_wVendorId;
    pInfo->productId = m_facts.wProductId;
    pInfo->bus = m_bBus;
    pInfo->address = m_bAddress;
    pInfo->portPath = m_sPort;
    pInfo->path = "virtual:" + std::to_string(m_bBus) + "-" + m_sPort + "@" + std::to_string(m_uPlug);
    pInfo->speed = GetSpeed();
    *puPlug = m_uPlug;
    *pOpen = m_openStatus == Status::Busy ? Status::Ok : m_openStatus;
    return true;
}

usbstack::Speed Camera::GetSpeed() const
{
    return m_facts.bUSB3 && m_settings.bUSB3Host ? usbstack::Speed::Super : usbstack::Speed::High;
}

bool Camera::IsCurrent(uint64_t uPlug) const
{
    Lock lock(m_mutex);
    return m_bPresent && uPlug == m_uPlug;
}

uint8_t Camera::GetAddress() const
{
    Lock lock(m_mutex);
    return m_bAddress;
}

// One that another program holds can be looked at, no more.
Status Camera::Claim(uint64_t uPlug) const
{
    Lock lock(m_mutex);
    if (!m_bPresent || uPlug != m_uPlug)
        return Status::Gone;
    return m_openStatus == Status::Busy ? Status::Busy : Status::Ok;
}

int Camera::GetAltSetting(uint64_t uPlug) const { return IsCurrent(uPlug) ? 0 : -1; }

DescriptorFacts Camera::Descriptors() const
{
    return { m_wVendorId,          m_facts.wProductId,   m_bFirmware,         m_facts.bUSB3,
             m_settings.bUSB3Host, "S" + m_facts.sToken, SerialOf(m_settings) };
}

// --- image pipe ---

Status Camera::Submit(uint64_t uPlug, const void* pOwner, usbstack::BulkRequest* request, uint32_t uPacket)
{
    if (request->endpoint != BULK_IN || !request->OnComplete || (request->length && !request->data))
        return Status::Failed;
    {
        Lock lock(m_mutex);
        if (!m_bPresent || uPlug != m_uPlug)
            return Status::Gone;
        if (m_openStatus == Status::Busy)
            return Status::Busy;
        m_pending.push_back({ request, pOwner, uPlug, uPacket });
        if (m_frames.empty() && !m_bHalted)
            return Status::Ok;
    }
    m_bus.Pump();
    return Status::Ok;
}

void Camera::Cancel(const void* pOwner, const usbstack::BulkRequest* pOnly)
{
    std::lock_guard completing(m_completing);
    std::deque<Pending> out;
    {
        Lock lock(m_mutex);
        std::deque<Pending> keep;
        for (const Pending& p : m_pending)
            ((!pOwner || p.pOwner == pOwner) && (!pOnly || p.request == pOnly) ? out : keep).push_back(p);
        m_pending.swap(keep);
    }
    for (const Pending& p : out)
        p.request->OnComplete(p.request, Status::Cancelled, 0);
}

Status Camera::ResetPipe(uint64_t uPlug, const void* pOwner)
{
    Cancel(pOwner);
    Lock lock(m_mutex);
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
    Lock lock(m_mutex);
    m_bHalted = false;
    Flush();
    return Status::Ok;
}

Status Camera::CyclePort(uint64_t uPlug)
{
    Lock lock(m_mutex);
    if (!m_bPresent || uPlug != m_uPlug)
        return Status::Gone;
    Drop(m_clock.Now() + ENUMERATION_US);
    return Status::Ok;
}

// What the bridge holds for the host is lost.
void Camera::Flush()
{
    for (const FrameInFlight& f : m_frames)
        if (f.bGood && !f.bStall)
            ++m_counters.uAborted;
    m_frames.clear();
}

void Camera::Complete()
{
    for (;;) {
        std::lock_guard completing(m_completing);
        Pending p;
        FrameInFlight frame;
        Status status = Status::Ok;
        uint32_t from = 0, n = 0;
        {
            Lock lock(m_mutex);
            if (m_pending.empty())
                return;
            p = m_pending.front();
            if (!m_bPresent || p.uPlug != m_uPlug) {
                status = Status::Gone;
            } else {
                if (!m_bHalted && !m_frames.empty() && m_frames.front().bStall) {
                    m_bHalted = true;
                    m_frames.pop_front();
                }
                if (m_bHalted) {
                    status = Status::Stall;
                } else if (m_frames.empty()) {
                    return;
                } else {
                    FrameInFlight& f = m_frames.front();
                    from = f.uSent;
                    const uint32_t left = f.uSize - f.uSent;
                    n = std::min(p.request->length, left);
                    f.uSent += n;
                    if (p.uPacket && n < left && n % p.uPacket) {
                        // A whole packet came where there was room for a part of one: all of it is lost.
                        status = Status::Failed;
                        const uint32_t part = n % p.uPacket;
                        n -= part;
                        f.uSent += std::min(p.uPacket - part, left - n - part);
                        if (f.bGood)
                            ++m_counters.uSpoiled;
                        f.bGood = false;
                    }
                    frame = f;
                    if (f.uSent == f.uSize) {
                        m_frames.pop_front();
                        EndFrame(frame);
                    }
                }
            }
            m_pending.pop_front();
        }
        if (n)
            frame.Copy(p.request->data, from, n);
        p.request->OnComplete(p.request, status, n);
    }
}

void Camera::EndFrame(const FrameInFlight& frame)
{
    if (!frame.bGood)
        return;
    ++m_counters.uGood;
    for (Fault& f : m_faults)
        if (f.kind >= FaultKind::SlowControl && f.uAfterFrames)
            --f.uAfterFrames;
    CheckVanish();
}

// --- faults ---

bool Camera::TakeFault(FaultKind kind, const std::function<bool(uint32_t)>& fits, uint32_t* puArg)
{
    for (auto it = m_faults.begin(); it != m_faults.end(); ++it) {
        if (it->kind != kind || it->uAfterFrames || (fits && !fits(it->uArg)))
            continue;
        if (puArg)
            *puArg = it->uArg;
        if (--it->uTimes == 0)
            m_faults.erase(it);
        return true;
    }
    return false;
}

void Camera::CheckVanish()
{
    uint32_t ms = 0;
    if (m_bPresent && TakeFault(FaultKind::Vanish, nullptr, &ms))
        Drop(ms ? m_clock.Now() + ms * 1000.0 : -1);
}

void Camera::Inject(const Fault& fault)
{
    Lock lock(m_mutex);
    if (fault.uTimes)
        m_faults.push_back(fault);
    CheckVanish();
}

void Camera::ClearFaults()
{
    Lock lock(m_mutex);
    m_faults.clear();
}

// --- views ---

std::vector<Request> Camera::Requests() const
{
    Lock lock(m_mutex);
    return { m_requests.begin(), m_requests.end() };
}

void Camera::ClearRequests()
{
    Lock lock(m_mutex);
    m_requests.clear();
}

void Camera::Log(const Setup& s, const std::vector<uint8_t>& data)
{
    if (m_requests.size() == MAX_LOGGED)
        m_requests.pop_front();
    m_requests.push_back({ s.bIn, s.bRequest, s.wValue, s.wIndex, s.wLength, data, uint64_t(m_clock.Now()) });
}

uint16_t Camera::SensorReg(uint16_t reg) const
{
    Lock lock(m_mutex);
    return m_profile->ReadReg16(reg);
}

uint8_t Camera::FpgaReg(uint16_t reg) const
{
    Lock lock(m_mutex);
    return m_profile->ReadFpga(reg);
}

Readout Camera::CurrentReadout() const
{
    Lock lock(m_mutex);
    return m_profile->Current();
}

std::string Camera::LastContradiction() const
{
    Lock lock(m_mutex);
    return m_sContradiction;
}

uint64_t Camera::LostReplies() const
{
    Lock lock(m_mutex);
    return m_uLostReplies;
}

FrameCounters Camera::Counters() const
{
    Lock lock(m_mutex);
    return m_counters;
}

void Camera::SetOpenStatus(Status status)
{
    Lock lock(m_mutex);
    m_openStatus = status;
}

void Camera::SetScene(std::shared_ptr<const Scene> scene)
{
    Lock lock(m_mutex);
    m_scene = scene ? std::move(scene) : Scene::Sky();
    m_wake.notify_all();
}

double Camera::Celsius() const { return m_thermal.At(m_clock.Now() / 1e6); }

double Camera::Temperature() const
{
    Lock lock(m_mutex);
    return Celsius();
}

double Camera::CoolerPower() const
{
    Lock lock(m_mutex);
    return m_thermal.Power();
}

uint8_t Camera::CoolerDA() const
{
    Lock lock(m_mutex);
    return m_thermal.DA();
}

bool Camera::GuidePin(int direction) const
{
    Lock lock(m_mutex);
    return direction >= 0 && direction < 4 && m_pins[direction];
}

// Brings the scene to where the pins have moved it by now.
void Camera::MoveGuide()
{
    const double now = m_clock.Now(), way = (now - m_dGuideAt) * GUIDE_ARCSEC_PER_US;
    m_dGuideY += way * (int(m_pins[1]) - int(m_pins[0]));
    m_dGuideX += way * (int(m_pins[2]) - int(m_pins[3]));
    m_dGuideAt = now;
}

double Camera::GuideX() const
{
    Lock lock(m_mutex);
    const_cast<Camera*>(this)->MoveGuide();
    return m_dGuideX;
}

double Camera::GuideY() const
{
    Lock lock(m_mutex);
    const_cast<Camera*>(this)->MoveGuide();
    return m_dGuideY;
}

std::vector<uint8_t> Camera::Flash(uint32_t address, uint32_t length) const
{
    Lock lock(m_mutex);
    return m_flash.Peek(address, length);
}

void Camera::SetFlash(uint32_t address, const std::vector<uint8_t>& bytes)
{
    Lock lock(m_mutex);
    m_flash.Poke(address, bytes);
}

std::vector<uint8_t> Camera::Eeprom() const
{
    Lock lock(m_mutex);
    return m_eeprom;
}

uint8_t Camera::Firmware() const
{
    Lock lock(m_mutex);
    return m_bFirmware;
}

}  // namespace kovsim

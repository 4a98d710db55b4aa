// One object, CHost, holds what a process shares: the libusb context and what it last saw of the bus, the event thread, the
// open devices with their queues. Two locks: m_opening around opening, closing and listing (it may be held for long); m_cs
// around the queues (held for moments; taken inside m_opening, never the other way round). No callback of a caller runs
// under either.
#include "platform/posix/LibusbStack.h"

#include <dirent.h>
#include <libusb.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "base/Attempt.h"
#include "base/Log.h"
#include "base/Mutex.h"

namespace usbstack {
namespace {

constexpr uint16_t VENDOR_ID = 0x0E5A;
constexpr int INTERFACE = 0;
constexpr unsigned MAX_CONTROL = 4096;           // bytes, limit of Linux and of libusb
constexpr unsigned PIPES = 32;                   // 16 endpoint numbers, two directions
constexpr std::chrono::milliseconds RETRY{ 5 };  // for memory that another process holds
constexpr std::chrono::seconds GIVE_UP{ 5 };     // and no longer

// What usbfs books beyond the data: hosts without scatter-gather are served in pieces of 16 KiB, each with a record of
// less than 512 bytes.
constexpr uint64_t PIECE = 16384, PIECE_COST = 512;

Status FromError(int r)
{
    switch (r) {
    case LIBUSB_SUCCESS: return Status::Ok;
    case LIBUSB_ERROR_NO_DEVICE: return Status::Gone;
    case LIBUSB_ERROR_BUSY: return Status::Busy;
    case LIBUSB_ERROR_ACCESS: return Status::Access;
    case LIBUSB_ERROR_NO_MEM: return Status::NoMemory;
    case LIBUSB_ERROR_PIPE: return Status::Stall;
    case LIBUSB_ERROR_TIMEOUT: return Status::TimedOut;
    default: return Status::Failed;
    }
}

Status FromTransfer(libusb_transfer_status s)
{
    switch (s) {
    case LIBUSB_TRANSFER_COMPLETED: return Status::Ok;
    case LIBUSB_TRANSFER_CANCELLED: return Status::Cancelled;
    case LIBUSB_TRANSFER_STALL: return Status::Stall;
    case LIBUSB_TRANSFER_TIMED_OUT: return Status::TimedOut;
    case LIBUSB_TRANSFER_NO_DEVICE: return Status::Gone;
    default: return Status::Failed;
    }
}

Speed FromSpeed(int speed)
{
    switch (speed) {
    case LIBUSB_SPEED_LOW:
    case LIBUSB_SPEED_FULL: return Speed::Full;
    case LIBUSB_SPEED_HIGH: return Speed::High;
    default: return speed >= LIBUSB_SPEED_SUPER ? Speed::Super : Speed::Unknown;
    }
}

struct SharedDevice;

struct Xfer {
    enum class State { Parked, Flying, Ended };  // waiting for memory or for a hold; with the kernel; to be delivered
    State state = State::Parked;
    SharedDevice* device = nullptr;
    const IDevice* owner = nullptr;
    BulkRequest* request = nullptr;
    libusb_transfer* transfer = nullptr;
    uint64_t sequence = 0;
    bool cancel = false;  // to be cancelled by whoever sees it
    Status status = Status::Ok;
    uint32_t bytes = 0;
    std::chrono::steady_clock::time_point refused{};  // first for lack of memory while nothing of ours was in flight

    ~Xfer() { libusb_free_transfer(transfer); }
    uint64_t Cost() const { return request->length + PIECE_COST * (1 + request->length / PIECE); }
};

// Requests of one endpoint, oldest first. They start in this order, and those of one handle are delivered in it, in
// whatever order cancelled ones come back.
struct Pipe {
    std::list<std::unique_ptr<Xfer>> queue;
    uint64_t flying = 0;  // cost of those with the kernel
    int hold = 0;         // > 0: new requests wait, somebody resets the pipe
    bool full = false;    // Pump's own: passed over for the rest of the round

    Xfer* FirstParked() const
    {
        for (const auto& p : queue)
            if (p->state == Xfer::State::Parked)
                return p.get();
        return nullptr;
    }
    // A handle that closes must not wait for the requests of another one.
    Xfer* FirstDeliverable() const
    {
        for (auto it = queue.begin(); it != queue.end(); ++it)
            if ((*it)->state == Xfer::State::Ended &&
                std::none_of(queue.begin(), it, [&](const auto& p) { return p->owner == (*it)->owner; }))
                return it->get();
        return nullptr;
    }
    // As a node, so that the event thread moves it without allocating.
    std::list<std::unique_ptr<Xfer>> Take(const Xfer* xfer)
    {
        std::list<std::unique_ptr<Xfer>> taken;
        taken.splice(taken.end(), queue,
                     std::find_if(queue.begin(), queue.end(), [&](const auto& p) { return p.get() == xfer; }));
        return taken;
    }
};

// A control request in Control().
struct ControlWait {
    class CHost* host;
    const IDevice* owner;
    libusb_transfer* transfer;
    bool done = false, abort = false;
    int named = 0;  // cancellers that still use `transfer`
};

// One open device of the process, shared by its handles.
struct SharedDevice {
    libusb_device* device = nullptr;  // with a reference
    libusb_device_handle* handle = nullptr;
    int handles = 0;  // guarded by m_opening
    std::atomic<bool> gone = false;
    std::atomic<int> resetting = 0;  // "no such device" is no news then
    std::atomic<int> altSetting = 0;
    std::atomic<bool> claimed = false;  // set under m_opening
    std::array<Pipe, PIPES> pipes;      // from here on guarded by m_cs
    int cancelling = 0;
    std::list<ControlWait*> controls;
    std::list<std::unique_ptr<Xfer>> graveyard;  // delivered, but a canceller may still name them

    Pipe& At(uint8_t endpoint) { return pipes[(endpoint & 15u) | (endpoint & 0x80u) >> 3]; }
};

// The devices of the system by name ("2-1.4"), as it shows them without any of them being asked. A device that is plugged
// anew has another number in the file system; its address may be that of the one before.
struct Plug {
    int address = 0;
    uint64_t file = 0;
    bool operator==(const Plug&) const = default;
};
using Plugs = std::map<std::string, Plug>;

// A device of the vendor.
struct Found {
    std::unique_ptr<libusb_device, decltype(&libusb_unref_device)> device{ nullptr, libusb_unref_device };
    libusb_device_descriptor descriptor{};
    std::vector<uint8_t> ports;
    uint64_t file = 0;  // of its Plug
    DeviceInfo info;
};

class CHost {
public:
    static CHost* Current();

    std::vector<DeviceInfo> Enumerate();
    SharedDevice* Open(const std::string& path, Status* status);
    void Close(SharedDevice* device, const IDevice* owner);
    Status Claim(SharedDevice& d);
    Status Control(SharedDevice& d, const IDevice* owner, const uint8_t* setup, uint8_t* data, uint16_t length,
                   uint32_t timeoutMs, uint32_t* moved);
    Status Submit(SharedDevice& d, const IDevice* owner, BulkRequest* request);
    void Abort(SharedDevice& d, uint8_t endpoint);
    void AbortControl(SharedDevice& d, const IDevice* owner);
    // Runs `work` on the device while the pipes (all with `endpoint` 0) are empty and new requests wait.
    template <class Work>
    int Quietly(SharedDevice& d, uint8_t endpoint, Work work);
    Status Restart(SharedDevice& d, bool stale);
    Status Note(SharedDevice& d, Status status);
    bool EnsureThread();
    void Forget();
    // Around a fork. What no device uses does not go along into the child, whose libusb would take it for its own.
    void BeforeFork() KOV_TSA(acquire_capability(m_opening));
    void AfterFork() KOV_TSA(release_capability(m_opening)) { m_opening.unlock(); }

private:
    void Look() KOV_TSA(requires_capability(m_opening));
    void List(Plugs plugs) KOV_TSA(requires_capability(m_opening));
    const Found* Find(const std::string& path) const KOV_TSA(requires_capability(m_opening));
    void DropContext() KOV_TSA(requires_capability(m_opening));
    bool StartThread() KOV_TSA(requires_capability(m_opening));
    void StopThread() KOV_TSA(requires_capability(m_opening));
    void Run();
    void Pump() KOV_TSA(requires_capability(m_cs));
    Status Start(Xfer& x) KOV_TSA(requires_capability(m_cs));
    void End(Xfer& x, Status status) KOV_TSA(requires_capability(m_cs));
    bool CannotFit(Xfer& x) const KOV_TSA(requires_capability(m_cs));
    void Deliver() KOV_TSA(requires_capability(m_cs));
    void Cancel(SharedDevice& d, const Pipe* pipe, const IDevice* owner) KOV_TSA(requires_capability(m_cs));
    void MarkGone(SharedDevice& d) KOV_TSA(requires_capability(m_cs));
    void Wake() { libusb_interrupt_event_handler(m_context); }
    static void LIBUSB_CALL OnBulk(libusb_transfer* transfer);
    static void LIBUSB_CALL OnControl(libusb_transfer* transfer);

    Mutex m_opening;
    libusb_context* m_context = nullptr;                        // changed under it, and read by its thread
    Plugs m_plugs KOV_TSA(guarded_by(m_opening));               // at the last look; empty: look again
    std::vector<Found> m_found KOV_TSA(guarded_by(m_opening));  // then, in order
    uint64_t m_plugCount KOV_TSA(guarded_by(m_opening)) = 0;    // seen so far
    std::thread m_thread KOV_TSA(guarded_by(m_opening));
    std::atomic<bool> m_threadRuns = false;  // set under m_opening

    Mutex m_cs;
    std::condition_variable m_cvDone;    // a request was delivered, a control request ended, or stop
    std::list<SharedDevice*> m_devices;  // changed under both locks
    bool m_stop KOV_TSA(guarded_by(m_cs)) = false;
    uint64_t m_sequence KOV_TSA(guarded_by(m_cs)) = 0;
    uint64_t m_flying KOV_TSA(guarded_by(m_cs)) = 0;  // cost of all bulk requests with the kernel
    uint64_t m_limit KOV_TSA(guarded_by(m_cs)) = 0;   // 0: none known
    int m_parked KOV_TSA(guarded_by(m_cs)) = 0, m_ended KOV_TSA(guarded_by(m_cs)) = 0;
};

std::atomic<CHost*> g_Host = nullptr;

// Never destroyed: an event thread may outlive the destruction of static objects. After a fork the parent's thread is
// missing and its locks may be held, so the child takes a new one.
CHost* CHost::Current()
{
    static const bool made = [] {
        g_Host = new CHost;
        pthread_atfork([]() KOV_TSA(no_thread_safety_analysis) { g_Host.load()->BeforeFork(); },
                       []() KOV_TSA(no_thread_safety_analysis) { g_Host.load()->AfterFork(); }, [] { g_Host = new CHost; });
        return true;
    }();
    (void)made;
    return g_Host;
}

// --- listing, opening, closing --------------------------------------------------------------------------------------

// Signals of the host are the business of the host's threads.
class NoSignals {
public:
    NoSignals()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_old);
    }
    ~NoSignals() { pthread_sigmask(SIG_SETMASK, &m_old, nullptr); }
    NoSignals(const NoSignals&) = delete;
    NoSignals& operator=(const NoSignals&) = delete;

private:
    sigset_t m_old;
};

// Empty where the system has no such place.
Plugs PluggedDevices()
{
    Plugs plugs;
    const std::string devices = "/sys/bus/usb/devices/";
    const std::unique_ptr<DIR, void (*)(DIR*)> folder(opendir(devices.c_str()), [](DIR* p) { closedir(p); });
    while (const dirent* const p = folder ? readdir(folder.get()) : nullptr) {
        const std::string name = p->d_name;
        if (name[0] == '.' || name.find(':') != std::string::npos)  // the others are interfaces
            continue;
        Plug plug{ 0, uint64_t(p->d_ino) };
        if (FILE* f = std::fopen((devices + name + "/devnum").c_str(), "re")) {
            if (std::fscanf(f, "%d", &plug.address) != 1)
                plug.address = 0;
            std::fclose(f);
        }
        plugs.emplace(name, plug);
    }
    return plugs;
}

std::vector<uint8_t> PortsOf(libusb_device* p)
{
    std::vector<uint8_t> ports(8);
    ports.resize(size_t(std::max(0, libusb_get_port_numbers(p, ports.data(), int(ports.size())))));
    return ports;
}

std::string PortPath(const std::vector<uint8_t>& ports)
{
    std::string s;
    for (const uint8_t port : ports)
        s += (s.empty() ? "" : ".") + std::to_string(port);
    return s;
}

// The same plug of the same device, though perhaps seen through another context.
bool IsSame(const Found& a, const Found& b)
{
    return a.info.bus == b.info.bus && a.ports == b.ports && a.info.address == b.info.address && a.file == b.file &&
           (a.file != 0 || a.device == b.device) && std::memcmp(&a.descriptor, &b.descriptor, sizeof a.descriptor) == 0;
}

// Brings m_found up to date, without libusb where nothing was plugged or pulled since the last time. A context hears of
// changes from udevd, later than the system shows them, and never where that does not run (containers). One that no device
// uses makes room for a new one then, which looks for itself.
void CHost::Look()
{
    Plugs plugs = PluggedDevices();
    if (m_context && !plugs.empty() && plugs == m_plugs)
        return;
    m_plugs.clear();
    if (!plugs.empty() && m_devices.empty())
        DropContext();
    const NoSignals noSignals;  // libusb starts a thread
    if (!m_context && libusb_init(&m_context) != LIBUSB_SUCCESS) {
        m_context = nullptr;
        m_found.clear();
        return;
    }
    List(std::move(plugs));
}

void CHost::List(Plugs plugs)
{
    std::vector<Found> found;
    Plugs listed;
    libusb_device** present = nullptr;
    const ssize_t n = libusb_get_device_list(m_context, &present);
    const std::unique_ptr<libusb_device*, void (*)(libusb_device**)> list(
        present, [](libusb_device** p) { libusb_free_device_list(p, 1); });
    for (ssize_t i = 0; i < n; ++i) {
        libusb_device* const device = present[i];
        Found f;
        f.ports = PortsOf(device);
        f.info.portPath = PortPath(f.ports);
        f.info.bus = libusb_get_bus_number(device);
        f.info.address = libusb_get_device_address(device);
        const std::string bus = std::to_string(f.info.bus);
        const std::string name = f.ports.empty() ? "usb" + bus : bus + "-" + f.info.portPath;
        const auto plug = plugs.find(name);
        f.file = plug == plugs.end() ? 0 : plug->second.file;
        listed[name] = { f.info.address, f.file };
        if (libusb_get_device_descriptor(device, &f.descriptor) != LIBUSB_SUCCESS || f.descriptor.idVendor != VENDOR_ID)
            continue;
        f.device.reset(libusb_ref_device(device));
        f.info.vendorId = f.descriptor.idVendor;
        f.info.productId = f.descriptor.idProduct;
        f.info.speed = FromSpeed(libusb_get_device_speed(device));
        const auto old = std::find_if(m_found.begin(), m_found.end(), [&](const Found& o) { return IsSame(o, f); });
        f.info.path = old != m_found.end() ? old->info.path
                                           : name + "@" + std::to_string(f.info.address) + "#" + std::to_string(++m_plugCount);
        found.push_back(std::move(f));
    }
    // Compared as numbers: socket 10 comes after socket 9. The address only decides where a host tells no ports.
    std::sort(found.begin(), found.end(), [](const Found& a, const Found& b) {
        return std::tie(a.info.bus, a.ports, a.info.address) < std::tie(b.info.bus, b.ports, b.info.address);
    });
    m_found = std::move(found);
    // Kept only if libusb saw all that is there: it passes over a device whose descriptors cannot be read at the moment.
    if (listed == plugs)
        m_plugs = std::move(plugs);
}

const Found* CHost::Find(const std::string& path) const
{
    const auto it = std::find_if(m_found.begin(), m_found.end(), [&](const Found& f) { return f.device && f.info.path == path; });
    return it == m_found.end() ? nullptr : &*it;
}

// What was found stays known by its name, to be recognised.
void CHost::DropContext()
{
    for (Found& f : m_found)
        f.device.reset();
    m_plugs.clear();
    if (m_context)
        libusb_exit(m_context);
    m_context = nullptr;
}

void CHost::Forget()
{
    // Somebody who has a device or the lock keeps it all; the process ends then, or the library goes under open cameras.
    if (!m_opening.try_lock())
        return;
    if (m_devices.empty())
        DropContext();
    m_opening.unlock();
}

void CHost::BeforeFork()
{
    m_opening.lock();
    if (m_devices.empty())
        DropContext();
}

std::vector<DeviceInfo> CHost::Enumerate()
{
    const MutexLock lock(m_opening);
    Look();
    std::vector<DeviceInfo> v;
    for (const Found& f : m_found)
        v.push_back(f.info);
    return v;
}

SharedDevice* CHost::Open(const std::string& path, Status* status)
{
    const MutexLock lock(m_opening);
    const Found* found = Find(path);
    if (!found) {
        Look();
        found = Find(path);
    }
    if (!found) {
        *status = m_context ? Status::Gone : Status::Failed;
        return nullptr;
    }
    libusb_device* const device = found->device.get();
    for (SharedDevice* p : m_devices)
        if (p->device == device && !p->gone) {
            ++p->handles;
            *status = Status::Ok;
            return p;
        }

    // All memory first: nothing may fail once it is open.
    auto p = std::make_unique<SharedDevice>();
    std::list<SharedDevice*> entry(1, p.get());
    *status = FromError(libusb_open(device, &p->handle));
    if (*status != Status::Ok)
        return nullptr;
    p->device = libusb_ref_device(device);
    p->handles = 1;
    const MutexLock lockQueues(m_cs);
    m_devices.splice(m_devices.end(), entry);
    return p.release();
}

// The interface is not claimed at once: a program that only looks which cameras there are would keep another one from
// opening its camera in that moment, and would not see a camera that is in use.
Status CHost::Claim(SharedDevice& d)
{
    if (d.claimed)
        return Status::Ok;
    const MutexLock lock(m_opening);
    if (!m_threadRuns && !StartThread())
        return Status::Failed;
    if (!d.claimed) {
        libusb_set_auto_detach_kernel_driver(d.handle, 1);  // not every system has such a thing
        const Status status = FromError(libusb_claim_interface(d.handle, INTERFACE));
        if (status != Status::Ok)
            return Note(d, status);
        d.claimed = true;
    }
    return Status::Ok;
}

void CHost::Close(SharedDevice* p, const IDevice* owner)
{
    {
        MutexLock lock(m_cs);
        Cancel(*p, nullptr, owner);
    }
    const MutexLock lock(m_opening);
    if (--p->handles != 0)
        return;
    {
        const MutexLock lockQueues(m_cs);
        m_devices.remove(p);
    }
    if (p->claimed)
        libusb_release_interface(p->handle, INTERFACE);
    libusb_close(p->handle);
    libusb_unref_device(p->device);
    delete p;
    if (m_devices.empty() && m_threadRuns)
        StopThread();
}

// --- the event thread -----------------------------------------------------------------------------------------------

// A host without scatter-gather gets a request in pieces, and a lack of memory in their midst costs the whole request.
// Keeping below the system's limit avoids that as far as this process alone can.
uint64_t MemoryLimit()
{
    unsigned long miB = 0;
#ifdef __linux__
    if (FILE* f = std::fopen("/sys/module/usbcore/parameters/usbfs_memory_mb", "re")) {
        if (std::fscanf(f, "%lu", &miB) != 1)
            miB = 0;
        std::fclose(f);
    }
#endif
    return uint64_t{ miB } << 20;
}

// Started by the first request, not by opening: whoever only looks at what is known of a device needs none.
bool CHost::EnsureThread()
{
    if (m_threadRuns)
        return true;
    const MutexLock lock(m_opening);
    return m_threadRuns || StartThread();
}

bool CHost::StartThread()
{
    {
        const MutexLock lock(m_cs);
        m_stop = false;
        m_limit = MemoryLimit();
    }
    const NoSignals noSignals;
    try {
        m_thread = std::thread([this] { Attempt("USB events", [this] { Run(); }); });
        m_threadRuns = true;
    } catch (const std::system_error&) {
    }
    return m_threadRuns;
}

void CHost::StopThread()
{
    {
        const MutexLock lock(m_cs);
        m_stop = true;
        m_cvDone.notify_all();
    }
    Wake();
    m_thread.join();
    m_threadRuns = false;
}

// The only place that handles events: libusb's synchronous transfers, which would do it too, are not used, so that
// completions come from this thread alone.
void CHost::Run()
{
    MutexLock lock(m_cs);
    while (!m_stop) {
        timeval tv{};
        if (m_parked != 0)
            tv.tv_usec = std::chrono::microseconds(RETRY).count();
        else
            tv.tv_sec = 60;
        lock.unlock();
        const int r = libusb_handle_events_timeout_completed(m_context, &tv, nullptr);
        lock.lock();
        Pump();
        Deliver();
        if (r != LIBUSB_SUCCESS && r != LIBUSB_ERROR_INTERRUPTED && !m_stop)
            WaitFor(m_cs, m_cvDone, RETRY);  // do not spin on an error that stays
    }
}

// --- bulk requests (m_cs held) --------------------------------------------------------------------------------------

Status CHost::Start(Xfer& x)
{
    if (x.device->gone)
        return Status::Gone;
    const uint64_t cost = x.Cost();
    if (m_limit != 0 && m_flying != 0 && m_flying + cost > m_limit)
        return Status::NoMemory;
    const Status status = FromError(libusb_submit_transfer(x.transfer));
    if (status == Status::Ok) {
        x.state = Xfer::State::Flying;
        x.device->At(x.request->endpoint).flying += cost;
        m_flying += cost;
    } else if (status == Status::Gone) {
        x.device->gone = true;
    }
    return status;
}

// Ends a parked request; the event thread delivers it.
void CHost::End(Xfer& x, Status status)
{
    x.state = Xfer::State::Ended;
    x.status = status;
    --m_parked;
    if (m_ended++ == 0)
        Wake();
}

// A request that was refused while nothing of this process is in flight: no completion will ever make room for it. Another
// process may, for a while.
bool CHost::CannotFit(Xfer& x) const
{
    const auto now = std::chrono::steady_clock::now();
    const bool never = m_limit != 0 && x.request->length >= m_limit;
    if (x.refused.time_since_epoch().count() == 0)
        x.refused = now;
    if (!never && now - x.refused < GIVE_UP)
        return false;
    KOV_LOG(Error,
            "a request of %u bytes finds no USB memory: the system's limit is %llu MiB. Raise it: "
            "echo 256 | sudo tee /sys/module/usbcore/parameters/usbfs_memory_mb",
            x.request->length, static_cast<unsigned long long>(m_limit >> 20));
    return true;
}

// Starts parked requests. The pipe with the least in flight comes first, and the others wait for it: a camera with
// large requests would starve beside one with small ones.
void CHost::Pump()
{
    for (SharedDevice* d : m_devices)
        for (Pipe& p : d->pipes)
            p.full = false;
    while (m_parked != 0) {
        Pipe* next = nullptr;
        for (SharedDevice* d : m_devices)
            for (Pipe& p : d->pipes)
                if (p.hold == 0 && !p.full && p.FirstParked() && (!next || p.flying < next->flying))
                    next = &p;
        if (!next)
            return;
        Xfer& x = *next->FirstParked();
        const Status status = Start(x);
        if (status == Status::Ok) {
            --m_parked;
        } else if (status != Status::NoMemory) {
            End(x, status);
        } else {
            if (m_flying != 0)
                return;  // the next completion comes here again
            if (CannotFit(x))
                End(x, Status::NoMemory);
            else
                next->full = true;
        }
    }
}

void CHost::Deliver()
{
    if (m_ended == 0)
        return;
    // A device cannot leave the list while a request of it is queued, so the walk survives the unlocking.
    for (SharedDevice* d : m_devices) {
        for (Pipe& p : d->pipes) {
            bool any = false;
            while (Xfer* x = p.FirstDeliverable()) {
                m_cs.unlock();
                // What it throws must not pass through libusb.
                Attempt("completing a request", [x] { x->request->OnComplete(x->request, x->status, x->bytes); });
                m_cs.lock();
                --m_ended;
                auto done = p.Take(x);
                if (d->cancelling != 0)
                    d->graveyard.splice(d->graveyard.end(), done);
                any = true;
            }
            if (any)
                m_cvDone.notify_all();
        }
    }
}

void LIBUSB_CALL CHost::OnBulk(libusb_transfer* transfer)
{
    CHost& host = *Current();
    MutexLock lock(host.m_cs);
    Xfer& x = *static_cast<Xfer*>(transfer->user_data);
    SharedDevice& d = *x.device;
    const uint64_t cost = x.Cost();
    d.At(x.request->endpoint).flying -= cost;
    host.m_flying -= cost;
    x.state = Xfer::State::Ended;
    x.status = FromTransfer(transfer->status);
    x.bytes = uint32_t(transfer->actual_length);
    ++host.m_ended;
    if (x.status == Status::Gone && d.resetting == 0)
        host.MarkGone(d);
    host.Pump();  // before the delivery: keep the device busy
    host.Deliver();
}

void CHost::MarkGone(SharedDevice& d)
{
    d.gone = true;
    for (Pipe& p : d.pipes)
        for (const auto& x : p.queue)
            if (x->state == Xfer::State::Parked)
                End(*x, Status::Gone);
}

// Ends the requests queued so far on a pipe (null: on all) and of one owner (null: of all). Returns when each has been
// delivered.
void CHost::Cancel(SharedDevice& d, const Pipe* pipe, const IDevice* owner)
{
    const uint64_t end = m_sequence;
    const auto chosen = [&](const Xfer& x) { return x.sequence < end && (!owner || x.owner == owner); };
    for (Pipe& p : d.pipes) {
        if (pipe && pipe != &p)
            continue;
        for (const auto& x : p.queue) {
            if (!chosen(*x))
                continue;
            if (x->state == Xfer::State::Flying)
                x->cancel = true;
            else if (x->state == Xfer::State::Parked)
                End(*x, Status::Cancelled);
        }
    }
    // The last first: data that still come in then fill the oldest requests, in order. The lock is let go, since every
    // cancellation may wait for the host controller, and other cameras need the event thread. No list of them is made: an
    // abort must come through without memory.
    const auto next = [&]() -> Xfer* {
        for (Pipe& p : d.pipes)
            for (auto it = p.queue.rbegin(); it != p.queue.rend(); ++it)
                if (std::exchange((*it)->cancel, false))
                    return it->get();
        return nullptr;
    };
    ++d.cancelling;
    while (Xfer* const x = next()) {
        m_cs.unlock();
        libusb_cancel_transfer(x->transfer);
        m_cs.lock();
    }
    WaitUntil(m_cs, m_cvDone, [&] {
        for (const Pipe& p : d.pipes)
            if ((!pipe || pipe == &p) && std::any_of(p.queue.begin(), p.queue.end(), [&](const auto& x) { return chosen(*x); }))
                return false;
        return true;
    });
    if (--d.cancelling == 0)
        d.graveyard.clear();
}

Status CHost::Submit(SharedDevice& d, const IDevice* owner, BulkRequest* request)
{
    if (d.gone)
        return Status::Gone;
    if (request->length > uint32_t{ INT32_MAX })
        return Status::Failed;
    std::list<std::unique_ptr<Xfer>> entry;  // all memory before it starts
    entry.push_back(std::make_unique<Xfer>());
    Xfer* const x = entry.front().get();
    x->device = &d;
    x->owner = owner;
    x->request = request;
    x->transfer = libusb_alloc_transfer(0);
    if (!x->transfer)
        return Status::NoMemory;
    libusb_fill_bulk_transfer(x->transfer, d.handle, request->endpoint, request->data, int(request->length), OnBulk, x, 0);

    const MutexLock lock(m_cs);
    Pipe& p = d.At(request->endpoint);
    request->stack = x;
    x->sequence = m_sequence++;
    bool park = p.hold != 0 || m_parked != 0;
    if (!park) {
        const Status status = Start(*x);
        if (status != Status::Ok && status != Status::NoMemory)
            return status;
        park = status == Status::NoMemory;
    }
    p.queue.splice(p.queue.end(), entry);
    if (park) {
        if (m_parked++ == 0)
            Wake();  // from here on the thread tries again by itself, too
        Pump();
    }
    return Status::Ok;
}

void CHost::Abort(SharedDevice& d, uint8_t endpoint)
{
    MutexLock lock(m_cs);
    Cancel(d, &d.At(endpoint), nullptr);
}

// --- the rest of a device -------------------------------------------------------------------------------------------

Status CHost::Note(SharedDevice& d, Status status)
{
    if (status == Status::Gone && d.resetting == 0) {
        const MutexLock lock(m_cs);
        MarkGone(d);
    }
    return status;
}

template <class Work>
int CHost::Quietly(SharedDevice& d, uint8_t endpoint, Work work)
{
    Pipe* const pipe = endpoint != 0 ? &d.At(endpoint) : nullptr;
    const auto hold = [&](int step) {
        for (Pipe& p : d.pipes)
            if (!pipe || pipe == &p)
                p.hold += step;
    };
    MutexLock lock(m_cs);
    hold(1);
    Cancel(d, pipe, nullptr);
    lock.unlock();
    const int r = work();
    lock.lock();
    hold(-1);
    Pump();
    return r;
}

Status CHost::Restart(SharedDevice& d, bool stale)
{
    ++d.resetting;
    int r = Quietly(d, 0, [&] { return libusb_reset_device(d.handle); });
    --d.resetting;
    const bool changed = r == LIBUSB_ERROR_NOT_FOUND;  // came back, but as another device
    if (stale && (changed || r == LIBUSB_SUCCESS)) {
        // The next Open takes a fresh handle; it must find the interface free.
        libusb_release_interface(d.handle, INTERFACE);
        d.claimed = false;
        Note(d, Status::Gone);
        return Status::Ok;
    }
    return Note(d, changed ? Status::Gone : FromError(r));
}

void LIBUSB_CALL CHost::OnControl(libusb_transfer* transfer)
{
    ControlWait& w = *static_cast<ControlWait*>(transfer->user_data);
    CHost& host = *w.host;
    const MutexLock lock(host.m_cs);
    w.done = true;
    host.m_cvDone.notify_all();
}

Status CHost::Control(SharedDevice& d, const IDevice* owner, const uint8_t* setup, uint8_t* data, uint16_t length,
                      uint32_t timeoutMs, uint32_t* moved)
{
    if (d.gone)
        return Status::Gone;
    if (length > MAX_CONTROL || !EnsureThread())
        return Status::Failed;
    const bool input = (setup[0] & LIBUSB_ENDPOINT_IN) != 0;
    std::array<uint8_t, LIBUSB_CONTROL_SETUP_SIZE + MAX_CONTROL> buffer;
    std::memcpy(buffer.data(), setup, LIBUSB_CONTROL_SETUP_SIZE);
    if (!input && length != 0)
        std::memcpy(buffer.data() + LIBUSB_CONTROL_SETUP_SIZE, data, length);

    const std::unique_ptr<libusb_transfer, decltype(&libusb_free_transfer)> transfer(libusb_alloc_transfer(0),
                                                                                     libusb_free_transfer);
    if (!transfer)
        return Status::NoMemory;
    ControlWait w{ this, owner, transfer.get() };
    libusb_fill_control_transfer(transfer.get(), d.handle, buffer.data(), OnControl, &w, timeoutMs);

    // Bulk requests can leave no memory for a control request either. Real time: this is the driver's own limit.
    const auto start = std::chrono::steady_clock::now();
    MutexLock lock(m_cs);
    const auto it = d.controls.insert(d.controls.end(), &w);
    Status status;
    for (;;) {
        lock.unlock();
        status = FromError(libusb_submit_transfer(transfer.get()));
        lock.lock();
        if (status != Status::NoMemory)
            break;
        if (w.abort)
            status = Status::Cancelled;
        else if (timeoutMs != 0 && std::chrono::steady_clock::now() - start >= std::chrono::milliseconds(timeoutMs))
            status = Status::TimedOut;
        if (status != Status::NoMemory)
            break;
        WaitFor(m_cs, m_cvDone, RETRY);
    }
    if (status == Status::Ok && w.abort) {  // it came before there was something to cancel
        lock.unlock();
        libusb_cancel_transfer(transfer.get());
        lock.lock();
    }
    WaitUntil(m_cs, m_cvDone, [&] { return (w.done || status != Status::Ok) && w.named == 0; });
    d.controls.erase(it);
    lock.unlock();
    if (status != Status::Ok)
        return Note(d, status);

    *moved = uint32_t(transfer->actual_length);
    if (input && *moved != 0)
        std::memcpy(data, buffer.data() + LIBUSB_CONTROL_SETUP_SIZE, *moved);
    return Note(d, FromTransfer(transfer->status));
}

void CHost::AbortControl(SharedDevice& d, const IDevice* owner)
{
    MutexLock lock(m_cs);
    const auto next = [&]() -> ControlWait* {
        for (ControlWait* w : d.controls)
            if (w->owner == owner && !std::exchange(w->abort, true))
                return w;
        return nullptr;
    };
    while (ControlWait* const w = next()) {
        ++w->named;
        lock.unlock();
        libusb_cancel_transfer(w->transfer);
        lock.lock();
        --w->named;
    }
    m_cvDone.notify_all();
}

// --- descriptors without the wire -----------------------------------------------------------------------------------

void Put16(std::vector<uint8_t>& v, uint16_t w)
{
    v.push_back(uint8_t(w & 0xFF));
    v.push_back(uint8_t(w >> 8));
}

void PutExtra(std::vector<uint8_t>& v, const unsigned char* p, int length)
{
    if (p)
        v.insert(v.end(), p, p + length);
}

std::vector<uint8_t> DeviceDescriptor(libusb_device* p)
{
    libusb_device_descriptor d;
    std::vector<uint8_t> v;
    if (libusb_get_device_descriptor(p, &d) != LIBUSB_SUCCESS)
        return v;
    v = { LIBUSB_DT_DEVICE_SIZE, LIBUSB_DT_DEVICE };
    Put16(v, d.bcdUSB);
    v.insert(v.end(), { d.bDeviceClass, d.bDeviceSubClass, d.bDeviceProtocol, d.bMaxPacketSize0 });
    Put16(v, d.idVendor);
    Put16(v, d.idProduct);
    Put16(v, d.bcdDevice);
    v.insert(v.end(), { d.iManufacturer, d.iProduct, d.iSerialNumber, d.bNumConfigurations });
    return v;
}

std::vector<uint8_t> ConfigDescriptor(libusb_device* p, uint8_t index)
{
    libusb_config_descriptor* c = nullptr;
    std::vector<uint8_t> v;
    if (libusb_get_config_descriptor(p, index, &c) != LIBUSB_SUCCESS)
        return v;
    v = { LIBUSB_DT_CONFIG_SIZE, LIBUSB_DT_CONFIG, 0,          0, c->bNumInterfaces, c->bConfigurationValue,
          c->iConfiguration,     c->bmAttributes,  c->MaxPower };
    PutExtra(v, c->extra, c->extra_length);
    for (unsigned i = 0; i < c->bNumInterfaces; ++i) {
        for (int a = 0; a < c->interface[i].num_altsetting; ++a) {
            const libusb_interface_descriptor& f = c->interface[i].altsetting[a];
            v.insert(v.end(), { LIBUSB_DT_INTERFACE_SIZE, LIBUSB_DT_INTERFACE, f.bInterfaceNumber, f.bAlternateSetting,
                                f.bNumEndpoints, f.bInterfaceClass, f.bInterfaceSubClass, f.bInterfaceProtocol, f.iInterface });
            PutExtra(v, f.extra, f.extra_length);
            for (unsigned e = 0; e < f.bNumEndpoints; ++e) {
                const libusb_endpoint_descriptor& ep = f.endpoint[e];
                const bool audio = ep.bLength == LIBUSB_DT_ENDPOINT_AUDIO_SIZE;
                v.insert(v.end(), { uint8_t(audio ? LIBUSB_DT_ENDPOINT_AUDIO_SIZE : LIBUSB_DT_ENDPOINT_SIZE), LIBUSB_DT_ENDPOINT,
                                    ep.bEndpointAddress, ep.bmAttributes });
                Put16(v, ep.wMaxPacketSize);
                v.push_back(ep.bInterval);
                if (audio)
                    v.insert(v.end(), { ep.bRefresh, ep.bSynchAddress });
                PutExtra(v, ep.extra, ep.extra_length);
            }
        }
    }
    libusb_free_config_descriptor(c);
    v[2] = uint8_t(v.size() & 0xFF);
    v[3] = uint8_t(v.size() >> 8);
    return v;
}

// --- the contract's objects -----------------------------------------------------------------------------------------

class CDevice : public IDevice {
public:
    // On failure *status tells why, and there is nothing to call but the destructor.
    CDevice(CHost* host, const std::string& path, Status* status) : m_host(host), m_p(host->Open(path, status)) {}
    CDevice(const CDevice&) = delete;
    CDevice& operator=(const CDevice&) = delete;

    // In a forked child nothing is released: the device belongs to the parent, and closing would take it away.
    ~CDevice() override
    {
        if (m_p && !Foreign())
            m_host->Close(m_p, this);
    }

    Status Control(uint8_t requestType, uint8_t request, uint16_t value, uint16_t index, uint8_t* data, uint16_t length,
                   uint32_t timeoutMs, uint32_t* moved) override
    {
        *moved = 0;
        if (Foreign() || m_p->gone)
            return Status::Gone;
        const auto answer = [&](const std::vector<uint8_t>& v) {
            *moved = uint32_t(std::min<size_t>(v.size(), length));
            if (*moved != 0)
                std::memcpy(data, v.data(), *moved);
            return Status::Ok;
        };
        const auto is = [&](uint8_t type, uint8_t standard) { return requestType == type && request == standard; };
        const bool descriptor = is(LIBUSB_ENDPOINT_IN, LIBUSB_REQUEST_GET_DESCRIPTOR);
        if (descriptor && value >> 8 == LIBUSB_DT_DEVICE) {
            const std::vector<uint8_t> v = DeviceDescriptor(m_p->device);
            if (!v.empty())
                return answer(v);
        }
        // What changes the state of pipes has to pass through the system, or it would not know.
        if (is(LIBUSB_RECIPIENT_INTERFACE, LIBUSB_REQUEST_SET_INTERFACE)) {
            if (const Status status = Claim(); status != Status::Ok)
                return status;
            const int r = m_host->Quietly(*m_p, 0, [&] { return libusb_set_interface_alt_setting(m_p->handle, index, value); });
            if (r == LIBUSB_SUCCESS && index == INTERFACE)
                m_p->altSetting = value;
            return m_host->Note(*m_p, r == LIBUSB_ERROR_NOT_FOUND ? Status::Stall : FromError(r));
        }
        if (is(LIBUSB_RECIPIENT_ENDPOINT, LIBUSB_REQUEST_CLEAR_FEATURE) && value == 0 && (index & 15) != 0)
            return ResetPipe(uint8_t(index));

        uint8_t setup[LIBUSB_CONTROL_SETUP_SIZE] = { requestType, request };
        for (unsigned i = 0; i < 3; ++i) {
            const uint16_t w = i == 0 ? value : i == 1 ? index : length;
            setup[2 + 2 * i] = uint8_t(w & 0xFF);
            setup[3 + 2 * i] = uint8_t(w >> 8);
        }
        const Status status = m_host->Control(*m_p, this, setup, data, length, timeoutMs, moved);
        if (descriptor && value >> 8 == LIBUSB_DT_CONFIG && status != Status::Ok && status != Status::Gone) {
            const std::vector<uint8_t> v = ConfigDescriptor(m_p->device, uint8_t(value & 0xFF));
            if (!v.empty())
                return answer(v);
        }
        return status;
    }

    Status SubmitBulk(BulkRequest* request) override
    {
        const Status status = Claim();
        return status == Status::Ok ? m_host->Submit(*m_p, this, request) : status;
    }
    void Abort(uint8_t endpoint) override
    {
        if (!Foreign())
            m_host->Abort(*m_p, endpoint);
    }
    bool KeepsTimeLimits() const override { return true; }
    void AbortControl() override
    {
        if (!Foreign())
            m_host->AbortControl(*m_p, this);
    }
    Status ResetPipe(uint8_t endpoint) override
    {
        if (const Status status = Claim(); status != Status::Ok)
            return status;
        const int r = m_host->Quietly(*m_p, endpoint, [&] { return libusb_clear_halt(m_p->handle, endpoint); });
        return m_host->Note(*m_p, FromError(r));
    }
    void SetTransferSize(uint8_t, uint32_t) override {}  // libusb needs no hint
    Status ResetPort() override { return Restart(false); }
    Status CyclePort() override { return Restart(true); }
    Speed GetSpeed() override { return FromSpeed(libusb_get_device_speed(m_p->device)); }
    uint8_t GetAddress() override { return libusb_get_device_address(m_p->device); }
    // A claimed interface starts at 0, and only this process can change it.
    int GetAltSetting() override { return m_p->altSetting; }
    Status Claim() override { return Foreign() || m_p->gone ? Status::Gone : m_host->Claim(*m_p); }

private:
    bool Foreign() const { return m_host != CHost::Current(); }
    Status Restart(bool stale)
    {
        // Claimed first: nobody may restart a device that another process uses.
        const Status status = Claim();
        return status == Status::Ok ? m_host->Restart(*m_p, stale) : status;
    }

    CHost* const m_host;
    SharedDevice* const m_p;
};

class CLibusbStack : public IStack {
public:
    std::vector<DeviceInfo> Enumerate() override { return CHost::Current()->Enumerate(); }
    IDevice* Open(const std::string& path, Status* status) override
    {
        auto p = std::make_unique<CDevice>(CHost::Current(), path, status);
        return *status == Status::Ok ? p.release() : nullptr;
    }
};

}  // namespace

IStack& LibusbStack()
{
    static CLibusbStack& stack = *new CLibusbStack;  // never destroyed: see CHost::Current
    return stack;
}

void ForgetLibusb()
{
    if (CHost* const p = g_Host)
        p->Forget();
}

namespace {
// When the library is unloaded libusb goes with it, and its thread must have ended.
const struct AtUnload {
    ~AtUnload() { ForgetLibusb(); }
} g_AtUnload;
}  // namespace

}  // namespace usbstack

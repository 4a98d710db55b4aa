#include "umock/MockUsb.h"

#include <fcntl.h>
#include <linux/usbdevice_fs.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <umockdev.h>
#include <unistd.h>
#ifdef __SANITIZE_THREAD__
#  include <dlfcn.h>
#  include <sanitizer/tsan_interface.h>
#endif

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "platform/posix/LibusbStack.h"

using usbstack::Speed;
using usbstack::Status;

namespace {

constexpr uint64_t URB_OVERHEAD = 256;  // what the kernel books beside the data of a request, about

std::string Number(unsigned u)
{
    char sz[8];
    std::snprintf(sz, sizeof sz, "%03u", u);
    return sz;
}

void AddDevice(UMockdevTestbed* pBed, const std::string& sName, uint8_t bBus, uint8_t bAddress, Speed speed,
               const std::vector<uint8_t>& descriptors, std::string* psPath)
{
    const std::string sBus = std::to_string(bBus), sAddress = std::to_string(bAddress);
    const std::string sNode = "/dev/bus/usb/" + Number(bBus) + "/" + Number(bAddress);
    const std::string sSpeed = speed == Speed::Super ? "5000" : speed == Speed::High ? "480" : "12";
    const char* attributes[] = { "busnum",       sBus.c_str(),          "devnum", sAddress.c_str(), "speed",
                                 sSpeed.c_str(), "bConfigurationValue", "1",      nullptr };
    const std::string sBusNumber = Number(bBus), sDevNumber = Number(bAddress);
    const char* properties[] = { "DEVTYPE",          "usb_device", "DEVNAME",          sNode.c_str(), "BUSNUM",
                                 sBusNumber.c_str(), "DEVNUM",     sDevNumber.c_str(), nullptr };
    gchar* sz = umockdev_testbed_add_devicev(pBed, "usb", sName.c_str(), nullptr, const_cast<gchar**>(attributes),
                                             const_cast<gchar**>(properties));
    if (!sz)
        throw std::runtime_error("umockdev refused the device " + sName);
    umockdev_testbed_set_attribute_binary(pBed, sz, "descriptors", const_cast<guint8*>(descriptors.data()),
                                          int(descriptors.size()));
    if (psPath)
        *psPath = sz;
    g_free(sz);
}

int ToErrno(Status s)
{
    switch (s) {
    case Status::Ok: return 0;
    case Status::Stall: return -EPIPE;
    case Status::Gone: return -ESHUTDOWN;
    case Status::Cancelled: return -ENOENT;
    default: return -EPROTO;
    }
}

}  // namespace

// ThreadSanitizer does not see that an ioctl and its handler follow one another, nor into umockdev's own locks.
#ifdef __SANITIZE_THREAD__
static char g_cOrder;
static void EnterIoctl() { __tsan_acquire(&g_cOrder); }
static void LeaveIoctl() { __tsan_release(&g_cOrder); }

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long lRequest, ...) noexcept
{
    using Function = int (*)(int, unsigned long, void*);
    static const Function next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "ioctl"));
    va_list args;
    va_start(args, lRequest);
    void* const pArg = va_arg(args, void*);
    va_end(args);
    LeaveIoctl();
    const int r = next(fd, lRequest, pArg);
    EnterIoctl();
    return r;
}

extern "C" __attribute__((visibility("default"))) const char* __tsan_default_suppressions()
{
    return "race:libumockdev\nrace:libudev\nrace:libglib-2.0\nrace:libgobject-2.0\nrace:libgio-2.0\n";
}
#else
static void EnterIoctl() {}
static void LeaveIoctl() {}
#endif

// --- the machine ----------------------------------------------------------------------------------------------------

MockBus::MockBus()
{
    prctl(PR_SET_TIMERSLACK, 1);  // umockdev sleeps 0 us after every request
    signal(SIGHUP, SIG_IGN);      // a device node is a terminal here, and hanging up is its way of being unplugged
    m_pBed = umockdev_testbed_new();
}

MockBus::~MockBus()
{
    usbstack::ForgetLibusb();
    g_object_unref(m_pBed);
}

void MockBus::SetMemoryLimit(uint64_t lBytes, bool bTold)
{
    const std::lock_guard lock(m_mutex);
    m_limit = lBytes;
    if (!bTold)
        return;
    gchar* szSys = umockdev_testbed_get_sys_dir(m_pBed);
    std::string s = szSys;
    g_free(szSys);
    for (const char* sz : { "/module", "/usbcore", "/parameters" })
        mkdir((s += sz).c_str(), 0755);
    if (FILE* f = std::fopen((s + "/usbfs_memory_mb").c_str(), "w")) {
        std::fprintf(f, "%llu\n", static_cast<unsigned long long>(lBytes >> 20));
        std::fclose(f);
    }
}

uint64_t MockBus::MemoryPeak() const
{
    const std::lock_guard lock(m_mutex);
    return m_lPeak;
}
int MockBus::MemoryRefusals() const
{
    const std::lock_guard lock(m_mutex);
    return m_iRefusals;
}
void MockBus::Reserve(int64_t lBytes)
{
    const std::lock_guard lock(m_mutex);
    m_lUsed += uint64_t(lBytes);
}

bool MockBus::Take(uint64_t lBytes)
{
    const std::lock_guard lock(m_mutex);
    if (m_limit != 0 && m_lUsed + lBytes > m_limit) {
        ++m_iRefusals;
        return false;
    }
    m_lUsed += lBytes;
    m_lPeak = std::max(m_lPeak, m_lUsed);
    return true;
}

void MockBus::Give(uint64_t lBytes)
{
    const std::lock_guard lock(m_mutex);
    m_lUsed -= lBytes;
}

// libusb knows a port path only where all hubs on the way are known.
void MockBus::AddHub(uint8_t bBus, const std::string& sName, Speed speed)
{
    if (!m_hubs.insert(sName).second)
        return;
    const std::vector<uint8_t> descriptors = { 18, 1, 0,  3, 9, 0, 3, 9,    0x6B, 0x1D, 3, 0, 0, 1, 0, 0, 0, 1,
                                               9,  2, 18, 0, 1, 1, 0, 0xE0, 0,    9,    4, 0, 0, 0, 9, 0, 0, 0 };
    std::string sPath;
    AddDevice(m_pBed, sName, bBus, NextAddress(), speed, descriptors, &sPath);
    umockdev_testbed_uevent(m_pBed, sPath.c_str(), "add");
}

// --- the bridge to umockdev -----------------------------------------------------------------------------------------

// A request of the client. Its memory belongs to the client until it is reaped.
struct MockUsb::Urb {
    MockUsb* pUsb = nullptr;
    std::shared_ptr<Node> pNode;
    usbdevfs_urb* pUrb = nullptr;
    enum class State { Queued, Returned, Done } state = State::Queued;  // Returned: came back without being discarded
    bool bDiscarded = false;
    uint32_t dwMoved = 0;
    uint64_t lCost = 0;
    int iStatus = 0;
    std::vector<uint8_t> setup;
    usbstack::BulkRequest request;
};

// One life of the device node.
struct MockUsb::Node {
    std::string sNode, sPath, sFile;  // as libusb names it, in sysfs, where it really is
    UMockdevIoctlBase* pHandler = nullptr;
    int fdMaster = -1, fdSlave = -1;
    bool bGone = false;
    std::list<std::shared_ptr<Urb>> urbs;  // submitted and not yet reaped, in order
    std::list<std::shared_ptr<Urb>> done;  // to be reaped, in order
};

struct MockIoctl {
    UMockdevIoctlBase base;
    MockUsb* pUsb;
    void* pNode;
};
struct MockIoctlClass {
    UMockdevIoctlBaseClass base;
};

struct MockUsb::Ioctl {
    static gboolean Handle(UMockdevIoctlBase* pSelf, UMockdevIoctlClient* pClient)
    {
        MockIoctl* p = reinterpret_cast<MockIoctl*>(pSelf);
        void* pArg = nullptr;
        std::memcpy(&pArg, umockdev_ioctl_client_get_arg(pClient)->data, sizeof pArg);
        int iErrno = 0;
        EnterIoctl();
        const long r = p->pUsb->Handle(*static_cast<Node*>(p->pNode), umockdev_ioctl_client_get_request(pClient), pArg, &iErrno);
        LeaveIoctl();
        umockdev_ioctl_client_complete(pClient, r, iErrno);
        return TRUE;
    }
    static void ClassInit(void* pClass, void*) { static_cast<UMockdevIoctlBaseClass*>(pClass)->handle_ioctl = Handle; }
    static GType Type()
    {
        static const GType type = [] {
            GTypeInfo info{};
            info.class_size = sizeof(MockIoctlClass);
            info.class_init = ClassInit;
            info.instance_size = sizeof(MockIoctl);
            return g_type_register_static(UMOCKDEV_TYPE_IOCTL_BASE, "MockUsbIoctl", &info, GTypeFlags(0));
        }();
        return type;
    }
};

// --- a device -------------------------------------------------------------------------------------------------------

MockUsb::MockUsb(MockBus& bus, uint8_t bBus, std::string sPorts, usbstack::IDevice& device)
    : m_bus(bus), m_device(device), m_bBus(bBus), m_sPorts(std::move(sPorts))
{
    Plug();
    m_thread = std::thread([this] { ControlLoop(); });
}

MockUsb::~MockUsb()
{
    Vanish();
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
        m_cv.notify_all();
    }
    m_thread.join();
    for (const auto& p : m_nodes) {
        umockdev_testbed_detach_ioctl(m_bus.m_pBed, p->sNode.c_str(), nullptr);
        g_object_unref(p->pHandler);
        close(p->fdSlave);
        p->urbs.clear();  // they name the node
        p->done.clear();
    }
}

void MockUsb::Plug()
{
    if (!m_nodes.empty() && !m_nodes.back()->bGone)
        return;
    std::vector<uint8_t> descriptors(18 + 512);
    uint32_t dwMoved = 0;
    m_device.Control(0x80, 6, 0x0100, 0, descriptors.data(), 18, 1000, &dwMoved);
    m_device.Control(0x80, 6, 0x0200, 0, descriptors.data() + 18, 512, 1000, &dwMoved);
    descriptors.resize(18 + dwMoved);

    const std::string sBus = std::to_string(m_bBus) + "-";
    m_bus.AddHub(m_bBus, "usb" + std::to_string(m_bBus), m_device.GetSpeed());
    for (size_t n = m_sPorts.find('.'); n != std::string::npos; n = m_sPorts.find('.', n + 1))
        m_bus.AddHub(m_bBus, sBus + m_sPorts.substr(0, n), m_device.GetSpeed());

    auto p = std::make_shared<Node>();
    m_bAddress = m_bus.NextAddress();
    p->sNode = "/dev/bus/usb/" + Number(m_bBus) + "/" + Number(m_bAddress);
    // The node is a terminal: stopped output stands for "nothing to reap", a closed master for "unplugged". A plain file
    // would keep libusb's event thread busy all the time.
    p->fdMaster = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    char szSlave[64];
    if (p->fdMaster < 0 || grantpt(p->fdMaster) != 0 || unlockpt(p->fdMaster) != 0 ||
        ptsname_r(p->fdMaster, szSlave, sizeof szSlave) != 0)
        throw std::runtime_error("no pseudo terminal");
    // Not by its path, which umockdev would look for in its own /dev.
    p->fdSlave = ioctl(p->fdMaster, TIOCGPTPEER, O_RDWR | O_NOCTTY | O_CLOEXEC);
    tcflow(p->fdSlave, TCOOFF);

    p->pHandler = UMOCKDEV_IOCTL_BASE(g_object_new(Ioctl::Type(), nullptr));
    reinterpret_cast<MockIoctl*>(p->pHandler)->pUsb = this;
    reinterpret_cast<MockIoctl*>(p->pHandler)->pNode = p.get();
    GError* pError = nullptr;
    if (!umockdev_testbed_attach_ioctl(m_bus.m_pBed, p->sNode.c_str(), p->pHandler, &pError))
        throw std::runtime_error(pError->message);

    AddDevice(m_bus.m_pBed, sBus + m_sPorts, m_bBus, m_bAddress, m_device.GetSpeed(), descriptors, &p->sPath);
    gchar* szRoot = umockdev_testbed_get_root_dir(m_bus.m_pBed);
    const std::string& sFile = p->sFile = szRoot + p->sNode;
    g_free(szRoot);
    g_mkdir_with_parents(sFile.substr(0, sFile.rfind('/')).c_str(), 0755);
    if (p->fdSlave < 0 || symlink(szSlave, sFile.c_str()) != 0)
        throw std::runtime_error("no device node " + sFile + " for " + szSlave + ": " + std::strerror(errno));
    {
        const std::lock_guard lock(m_mutex);
        m_nodes.push_back(p);
    }
    // The first notice came before the descriptors.
    umockdev_testbed_uevent(m_bus.m_pBed, p->sPath.c_str(), "add");
}

void MockUsb::Vanish()
{
    if (m_nodes.empty())
        return;
    Node& node = *m_nodes.back();
    {
        const std::lock_guard lock(m_mutex);
        if (node.bGone)
            return;
        node.bGone = true;
    }
    EndAll(node, -ESHUTDOWN);
    close(node.fdMaster);
    umockdev_testbed_uevent(m_bus.m_pBed, node.sPath.c_str(), "remove");
    unlink(node.sFile.c_str());
    umockdev_testbed_remove_device(m_bus.m_pBed, node.sPath.c_str());
}

void MockUsb::ReplaceUnderSameAddress()
{
    gchar* szSys = umockdev_testbed_get_sys_dir(m_bus.m_pBed);
    const std::string sFolder = std::string(szSys) + "/bus/usb/devices/",
                      sName = sFolder + std::to_string(m_bBus) + "-" + m_sPorts;
    g_free(szSys);
    char szTarget[256] = {};
    if (readlink(sName.c_str(), szTarget, sizeof szTarget - 1) < 0 || symlink(szTarget, (sFolder + ".new").c_str()) != 0 ||
        rename((sFolder + ".new").c_str(), sName.c_str()) != 0)
        throw std::runtime_error("no entry " + sName);
}

MockUsb::Counts MockUsb::Seen() const
{
    const std::lock_guard lock(m_mutex);
    Counts c = m_counts;
    for (const auto& p : m_nodes)
        c.iOutstanding += int(p->urbs.size());
    return c;
}

// --- usbfs ----------------------------------------------------------------------------------------------------------

long MockUsb::Handle(Node& node, unsigned long lRequest, void* pArg, int* piErrno)
{
    const auto fail = [&](int iErrno) {
        *piErrno = iErrno;
        return iErrno == 0 ? 0L : -1L;
    };
    {
        const std::lock_guard lock(m_mutex);
        if (node.bGone && lRequest != USBDEVFS_REAPURBNDELAY && lRequest != USBDEVFS_DISCARDURB &&
            lRequest != USBDEVFS_GET_CAPABILITIES)
            return fail(ENODEV);
    }
    switch (lRequest) {
    case USBDEVFS_GET_CAPABILITIES:
        *static_cast<uint32_t*>(pArg) = m_dwCapabilities | USBDEVFS_CAP_REAP_AFTER_DISCONNECT;
        return 0;
    case USBDEVFS_CLAIMINTERFACE:
    case USBDEVFS_DISCONNECT_CLAIM: {
        const std::lock_guard lock(m_mutex);
        if (m_iClaimError == 0)
            ++m_counts.iClaims;
        return fail(m_iClaimError);
    }
    case USBDEVFS_RELEASEINTERFACE: {
        const std::lock_guard lock(m_mutex);
        ++m_counts.iReleases;
        return 0;
    }
    case USBDEVFS_GETDRIVER: return fail(ENODATA);
    case USBDEVFS_SUBMITURB: return fail(SubmitUrb(node, pArg));
    case USBDEVFS_DISCARDURB: return fail(Discard(node, pArg));
    case USBDEVFS_REAPURBNDELAY: return fail(Reap(node, static_cast<void**>(pArg)));
    case USBDEVFS_SETINTERFACE: {
        const auto* p = static_cast<const usbdevfs_setinterface*>(pArg);
        uint32_t dwMoved = 0;
        const Status s = m_device.Control(1, 11, uint16_t(p->altsetting), uint16_t(p->interface), nullptr, 0, 1000, &dwMoved);
        return fail(s == Status::Ok ? 0 : EINVAL);
    }
    case USBDEVFS_CLEAR_HALT: {
        const uint8_t bEndpoint = uint8_t(*static_cast<const unsigned*>(pArg));
        {
            const std::lock_guard lock(m_mutex);
            // Host controllers do not clear a halt under queued requests.
            if (std::any_of(node.urbs.begin(), node.urbs.end(),
                            [&](const auto& u) { return u->pUrb->endpoint == bEndpoint && u->state != Urb::State::Done; })) {
                ++m_counts.iRefusedHalts;
                return fail(EBUSY);
            }
            ++m_counts.iClearHalts;
        }
        return fail(-ToErrno(m_device.ResetPipe(bEndpoint)));
    }
    case USBDEVFS_RESET: {
        {
            const std::lock_guard lock(m_mutex);
            ++m_counts.iResets;
            m_counts.iAtReset = int(node.urbs.size());
        }
        EndAll(node, -ESHUTDOWN);
        if (m_iResetError != 0)
            return fail(m_iResetError);
        return fail(-ToErrno(m_device.ResetPort()));
    }
    default: return fail(ENOTTY);
    }
}

int MockUsb::SubmitUrb(Node& node, void* pArg)
{
    auto p = std::make_shared<Urb>();
    usbdevfs_urb* const pUrb = p->pUrb = static_cast<usbdevfs_urb*>(pArg);
    const uint32_t dwLength = uint32_t(pUrb->buffer_length);
    p->pUsb = this;
    p->lCost = dwLength + URB_OVERHEAD;
    if (!m_bus.Take(p->lCost))
        return ENOMEM;
    {
        const std::lock_guard lock(m_mutex);
        for (const auto& pNode : m_nodes)
            if (pNode.get() == &node)
                p->pNode = pNode;
        node.urbs.push_back(p);
        if (pUrb->type == USBDEVFS_URB_TYPE_CONTROL) {
            ++m_counts.iControl;
            const uint8_t* pb = static_cast<const uint8_t*>(pUrb->buffer);
            p->setup.assign(pb, pb + dwLength);
            m_control.push_back(p);
            m_cv.notify_all();
            return 0;
        }
        ++m_counts.iBulk;
        p->request.endpoint = pUrb->endpoint;
        p->request.OnComplete = OnComplete;
        p->request.context = p.get();
    }
    Submit(*p);
    return 0;
}

// No lock held: the device may answer at once.
void MockUsb::Submit(Urb& urb)
{
    urb.request.data = static_cast<uint8_t*>(urb.pUrb->buffer) + urb.dwMoved;
    urb.request.length = uint32_t(urb.pUrb->buffer_length) - urb.dwMoved;
    const Status s = m_device.SubmitBulk(&urb.request);
    if (s != Status::Ok) {
        const std::lock_guard lock(m_mutex);
        Finish(urb, ToErrno(s));
    }
}

void MockUsb::OnComplete(usbstack::BulkRequest* pRequest, Status status, uint32_t dwBytes)
{
    Urb& urb = *static_cast<Urb*>(pRequest->context);
    const std::lock_guard lock(urb.pUsb->m_mutex);
    urb.dwMoved += dwBytes;
    if (status == Status::Cancelled && !urb.bDiscarded && !urb.pNode->bGone)
        urb.state = Urb::State::Returned;
    else
        urb.pUsb->Finish(urb, ToErrno(status));
}

// m_mutex held.
void MockUsb::Finish(Urb& urb, int iStatus)
{
    Node& node = *urb.pNode;
    urb.state = Urb::State::Done;
    urb.iStatus = iStatus;
    const auto it = std::find_if(node.urbs.begin(), node.urbs.end(), [&](const auto& p) { return p.get() == &urb; });
    node.done.push_back(*it);
    if (node.done.size() == 1 && !node.bGone)
        tcflow(node.fdSlave, TCOON);
}

int MockUsb::Reap(Node& node, void** ppUrb)
{
    const std::lock_guard lock(m_mutex);
    if (node.done.empty())
        return node.bGone ? ENODEV : EAGAIN;
    const std::shared_ptr<Urb> p = node.done.front();
    node.done.pop_front();
    node.urbs.remove(p);
    if (node.done.empty() && !node.bGone)
        tcflow(node.fdSlave, TCOOFF);
    m_bus.Give(p->lCost);
    p->pUrb->status = p->iStatus;
    p->pUrb->actual_length = int(p->dwMoved);
    *ppUrb = p->pUrb;
    return 0;
}

// A stack can only abort a whole pipe: what was not meant comes back and is queued again, in order.
int MockUsb::Discard(Node& node, void* pArg)
{
    std::shared_ptr<Urb> pUrb;
    {
        const std::lock_guard lock(m_mutex);
        for (const auto& p : node.urbs)
            if (p->pUrb == pArg && p->state != Urb::State::Done)
                pUrb = p;
        if (!pUrb)
            return EINVAL;
        ++m_counts.iDiscards;
        pUrb->bDiscarded = true;
        if (pUrb->pUrb->type == USBDEVFS_URB_TYPE_CONTROL) {
            Finish(*pUrb, -ENOENT);
            return 0;
        }
    }
    m_device.Abort(pUrb->request.endpoint);
    std::vector<std::shared_ptr<Urb>> again;
    {
        const std::lock_guard lock(m_mutex);
        for (const auto& p : node.urbs)
            if (p->state == Urb::State::Returned) {
                p->state = Urb::State::Queued;
                again.push_back(p);
            }
    }
    for (const auto& p : again)
        Submit(*p);
    return 0;
}

// After a node is gone, or by a reset: nothing stays with the device.
void MockUsb::EndAll(Node& node, int iStatus)
{
    std::set<uint8_t> endpoints;
    {
        const std::lock_guard lock(m_mutex);
        for (const auto& p : node.urbs) {
            if (p->state == Urb::State::Done)
                continue;
            p->bDiscarded = true;
            if (p->pUrb->type == USBDEVFS_URB_TYPE_CONTROL)
                Finish(*p, iStatus);
            else
                endpoints.insert(p->pUrb->endpoint);
        }
    }
    for (const uint8_t b : endpoints)
        m_device.Abort(b);
    const std::lock_guard lock(m_mutex);
    for (const auto& p : node.urbs)
        if (p->iStatus == -ENOENT)
            p->iStatus = iStatus;
}

void MockUsb::ControlLoop()
{
    std::unique_lock lock(m_mutex);
    for (;;) {
        m_cv.wait(lock, [&] { return m_stop || !m_control.empty(); });
        if (m_stop)
            return;
        const std::shared_ptr<Urb> p = m_control.front();
        m_control.pop_front();
        const auto word = [&](size_t n) { return uint16_t(p->setup[n] | p->setup[n + 1] << 8); };
        lock.unlock();
        // Into memory of our own: the client may discard the request in the meantime.
        uint32_t dwMoved = 0;
        const Status s = m_device.Control(p->setup[0], p->setup[1], word(2), word(4), p->setup.data() + 8, word(6), 0, &dwMoved);
        lock.lock();
        if (p->state == Urb::State::Done)
            continue;
        if ((p->setup[0] & 0x80) != 0 && dwMoved != 0)
            std::memcpy(static_cast<uint8_t*>(p->pUrb->buffer) + 8, p->setup.data() + 8, dwMoved);
        p->dwMoved = dwMoved;
        Finish(*p, ToErrno(s));
    }
}

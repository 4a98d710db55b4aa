// The libusb stack over an unmodified libusb and fake devices.
#include "platform/posix/LibusbStack.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <set>
#include <thread>

#include "base/Log.h"
#include "umock/MockUsb.h"
#include "umock/StreamDevice.h"

using namespace std::chrono_literals;
using usbstack::BulkRequest;
using usbstack::DeviceInfo;
using usbstack::IDevice;
using usbstack::Speed;
using usbstack::Status;

// What the event thread asks for between completions: it must come through without memory.
static thread_local bool t_bEvents = false;
static std::atomic<int> g_iOnEventThread = 0;
#ifndef __SANITIZE_THREAD__  // which brings its own
[[gnu::noinline]] void* operator new(size_t n)
{
    g_iOnEventThread += t_bEvents;
    if (void* const p = std::malloc(n))
        return p;
    throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(size_t n, const std::nothrow_t&) noexcept { return std::malloc(n); }
[[gnu::noinline]] void operator delete(void* p) noexcept { std::free(p); }
[[gnu::noinline]] void operator delete(void* p, size_t) noexcept { std::free(p); }
#endif

namespace {

constexpr uint32_t MIB = 1u << 20;
constexpr uint8_t EP = 0x81;

std::unique_ptr<IDevice> Open(const std::string& sPath, Status* pStatus = nullptr)
{
    Status status = Status::Ok;
    std::unique_ptr<IDevice> p(usbstack::LibusbStack().Open(sPath, &status));
    EXPECT_EQ(p != nullptr, status == Status::Ok);
    if (pStatus)
        *pStatus = status;
    return p;
}

std::unique_ptr<IDevice> OpenFirst()
{
    const auto v = usbstack::LibusbStack().Enumerate();
    EXPECT_FALSE(v.empty());
    return v.empty() ? nullptr : Open(v[0].path);
}

// Requests with their buffers and results, in the order in which they ended. What is still out when they go is aborted:
// then the handle has to outlive them.
class Requests {
public:
    struct Request {
        BulkRequest bulk;
        std::vector<uint8_t> data;
        int iDone = 0;
        Status status = Status::Ok;
        uint32_t dwBytes = 0;
    };

    Requests(int n, uint32_t dwLength, uint8_t bEndpoint = EP) : m_requests(size_t(n))
    {
        for (Request& r : m_requests) {
            r.data.assign(dwLength, 0xEE);
            r.bulk.endpoint = bEndpoint;
            r.bulk.data = r.data.data();
            r.bulk.length = dwLength;
            r.bulk.context = this;
            r.bulk.OnComplete = [](BulkRequest* p, Status status, uint32_t dwBytes) {
                Requests& r = *static_cast<Requests*>(p->context);
                const bool bThrow = r.bThrows;  // once told, all may be gone
                t_bEvents = false;
                r.Done(p, status, dwBytes);
                t_bEvents = true;
                if (bThrow)
                    throw "thrown by a completion";
            };
        }
    }
    ~Requests()
    {
        if (Order().size() != m_nSubmitted)
            m_pDevice->Abort(m_requests[0].bulk.endpoint);
        EXPECT_EQ(Order().size(), m_nSubmitted);
    }
    Requests(const Requests&) = delete;
    Requests& operator=(const Requests&) = delete;
    void Submit(IDevice& dev)
    {
        for (size_t i = 0; i < m_requests.size(); ++i)
            Submit(dev, i);
    }
    void Submit(IDevice& dev, size_t i)
    {
        m_requests[i].iDone = 0;
        m_pDevice = &dev;
        ++m_nSubmitted;
        EXPECT_EQ(dev.SubmitBulk(&m_requests[i].bulk), Status::Ok);
    }
    bool Wait(size_t n, std::chrono::milliseconds limit = 20s)
    {
        std::unique_lock l(m_mutex);
        return m_cv.wait_for(l, limit, [&] { return m_order.size() >= n; });
    }
    std::vector<size_t> Order() const
    {
        const std::lock_guard l(m_mutex);
        return m_order;
    }
    size_t Count(Status s) const
    {
        const std::lock_guard l(m_mutex);
        size_t n = 0;
        for (const Request& r : m_requests)
            n += r.iDone == 1 && r.status == s;
        return n;
    }
    Request& operator[](size_t i) { return m_requests[i]; }
    bool bThrows = false;
    std::set<std::thread::id> Threads() const
    {
        const std::lock_guard l(m_mutex);
        return m_threads;
    }

private:
    void Done(BulkRequest* p, Status status, uint32_t dwBytes)
    {
        const std::lock_guard l(m_mutex);
        for (size_t i = 0; i < m_requests.size(); ++i)
            if (&m_requests[i].bulk == p) {
                ++m_requests[i].iDone;
                m_requests[i].status = status;
                m_requests[i].dwBytes = dwBytes;
                m_order.push_back(i);
            }
        m_threads.insert(std::this_thread::get_id());
        m_cv.notify_all();
    }

    std::vector<Request> m_requests;
    IDevice* m_pDevice = nullptr;
    size_t m_nSubmitted = 0;
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<size_t> m_order;
    std::set<std::thread::id> m_threads;
};

std::vector<size_t> Ascending(size_t n)
{
    std::vector<size_t> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = i;
    return v;
}

// The first word that is not the next of the stream; -1 when all are.
int64_t Misplaced(const std::vector<uint8_t>& data, uint32_t& lWord)
{
    for (size_t i = 0; i + 4 <= data.size(); i += 4, ++lWord) {
        uint32_t l;
        std::memcpy(&l, data.data() + i, 4);
        if (l != lWord)
            return int64_t(i);
    }
    return -1;
}

bool Until(const std::function<bool()>& f, std::chrono::milliseconds limit = 10s)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!f()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(2ms);
    }
    return true;
}

int CountOf(const char* szFolder)
{
    return static_cast<int>(std::distance(std::filesystem::directory_iterator(szFolder), std::filesystem::directory_iterator()));
}

class Libusb : public testing::Test {
protected:
    void SetUp() override
    {
        const char* sz = getenv("LD_PRELOAD");
        if (!sz || !std::strstr(sz, "umockdev"))
            GTEST_SKIP() << "run it through umockdev-wrapper";
        m_pBus = std::make_unique<MockBus>();
        logging::Configure(nullptr, nullptr);  // which allocates
    }
    void TearDown() override { EXPECT_EQ(g_iOnEventThread, 0); }
    std::unique_ptr<MockBus> m_pBus;
};

// With one device, which the test has open.
class Opened : public Libusb {
protected:
    void SetUp() override
    {
        Libusb::SetUp();
        if (IsSkipped())
            return;
        usb.emplace(*m_pBus, uint8_t{ 2 }, "1", device);
        p = OpenFirst();
        ASSERT_TRUE(p);
    }
    void TearDown() override
    {
        p.reset();
        usb.reset();
        Libusb::TearDown();
    }
    StreamDevice device{ 0xA001 };
    std::optional<MockUsb> usb;
    std::unique_ptr<IDevice> p;
};

}  // namespace

TEST_F(Libusb, ListsOwnVendorByBusThenPortAsNumbers)
{
    StreamDevice a(0xA001), b(0xA002), c(0xA003, Speed::High), d(0xA004), other(0xA005, Speed::Super, 0x04B4);
    MockUsb ua(*m_pBus, 2, "1.10", a), uo(*m_pBus, 2, "3", other), ub(*m_pBus, 2, "1.9", b), uc(*m_pBus, 1, "7", c),
        ud(*m_pBus, 2, "4", d);
    const auto v = usbstack::LibusbStack().Enumerate();
    ASSERT_EQ(v.size(), 4u);
    EXPECT_EQ(v[0].productId, 0xA003);
    EXPECT_EQ(v[0].speed, Speed::High);
    EXPECT_EQ(v[0].bus, 1);
    EXPECT_EQ(v[0].portPath, "7");
    EXPECT_EQ(v[1].productId, 0xA002);
    EXPECT_EQ(v[1].portPath, "1.9");
    EXPECT_EQ(v[1].vendorId, 0x0E5A);
    EXPECT_EQ(v[1].address, ub.Address());
    EXPECT_EQ(v[1].speed, Speed::Super);
    EXPECT_EQ(v[2].portPath, "1.10");
    EXPECT_EQ(v[3].productId, 0xA004);
    for (size_t i = 1; i < 4; ++i) {
        const auto p = Open(v[i].path);
        ASSERT_TRUE(p);
        EXPECT_EQ(p->GetAddress(), v[i].address);
        EXPECT_EQ(p->GetSpeed(), Speed::Super);
        EXPECT_EQ(p->GetAltSetting(), 0);
    }
}

TEST_F(Opened, ControlBothWays)
{
    const size_t nBefore = device.Seen().size();
    uint8_t data[4096];
    uint32_t dwMoved = 99;
    for (int i = 0; i < 4096; ++i)
        data[i] = uint8_t(i * 7);
    EXPECT_EQ(p->Control(0x40, 0xB6, 0x1234, 0xABCD, data, 4096, 1000, &dwMoved), Status::Ok);
    EXPECT_EQ(dwMoved, 4096u);
    EXPECT_EQ(p->Control(0x40, 0xA9, 0, 0, nullptr, 0, 0, &dwMoved), Status::Ok);
    EXPECT_EQ(dwMoved, 0u);
    const std::vector<uint8_t> sent(data, data + 4096);
    EXPECT_EQ(p->Control(0xC0, 0xB5, 0x20, 1, data, 64, 1000, &dwMoved), Status::Ok);
    EXPECT_EQ(dwMoved, 64u);
    EXPECT_EQ(data[63], 0x20 + 63);
    EXPECT_EQ(data[64], sent[64]);
    EXPECT_EQ(p->Control(0xC0, 0xB1, 0x50, 1, data, 8, 1000, &dwMoved), Status::Ok);
    EXPECT_EQ(dwMoved, 3u);
    EXPECT_EQ(p->Control(0xC0, 0xEE, 0, 0, data, 8, 1000, &dwMoved), Status::Stall);
    EXPECT_EQ(dwMoved, 0u);
    EXPECT_EQ(p->Control(0x40, 0xEE, 0, 0, data, 1, 1000, &dwMoved), Status::Stall);

    auto seen = device.Seen();
    seen.erase(seen.begin(), seen.begin() + long(nBefore));
    ASSERT_EQ(seen.size(), 6u);
    EXPECT_EQ(seen[0].wValue, 0x1234);
    EXPECT_EQ(seen[0].wIndex, 0xABCD);
    EXPECT_EQ(seen[0].data, sent);
    EXPECT_EQ(seen[2].bType, 0xC0);

    // A request without an answer ends by its limit and does not disturb the next.
    device.bMute = true;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(p->Control(0xC0, 0xB5, 0, 0, data, 8, 300, &dwMoved), Status::TimedOut);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 290ms);
    EXPECT_LT(took, 3s);

    // One that is given up before that makes room for the next.
    std::thread t([&] {
        std::this_thread::sleep_for(100ms);
        p->AbortControl();
    });
    EXPECT_EQ(p->Control(0xC0, 0xB5, 0, 0, data, 8, 0, &dwMoved), Status::Cancelled);
    t.join();
    device.Unmute();
    EXPECT_EQ(p->Control(0xC0, 0xB5, 0x11, 0, data, 8, 1000, &dwMoved), Status::Ok);
    EXPECT_EQ(data[0], 0x11);
}

TEST_F(Opened, DescriptorsComeWithoutTheDeviceWhereItRefuses)
{
    const size_t nBefore = device.Seen().size();
    uint8_t data[256];
    uint32_t dwMoved = 0;
    EXPECT_EQ(p->Control(0x80, 6, 0x0100, 0, data, 255, 1000, &dwMoved), Status::Ok);
    EXPECT_EQ(std::vector<uint8_t>(data, data + dwMoved), device.device);
    EXPECT_EQ(device.Seen().size(), nBefore);  // not asked

    EXPECT_EQ(p->Control(0x80, 6, 0x0200, 0, data, 255, 1000, &dwMoved), Status::Ok);
    EXPECT_EQ(std::vector<uint8_t>(data, data + dwMoved), device.config);
    EXPECT_EQ(device.Seen().size(), nBefore + 1);
    device.bRefuseConfig = true;
    EXPECT_EQ(p->Control(0x80, 6, 0x0200, 0, data, 255, 1000, &dwMoved), Status::Ok);
    EXPECT_EQ(std::vector<uint8_t>(data, data + dwMoved), device.config);
    EXPECT_EQ(p->Control(0x80, 6, 0x0200, 0, data, 9, 1000, &dwMoved), Status::Ok);
    EXPECT_EQ(dwMoved, 9u);
    EXPECT_EQ(p->Control(0x80, 6, 0x0201, 0, data, 255, 1000, &dwMoved), Status::Stall);  // there is no second one
    EXPECT_EQ(p->Control(0x80, 6, 0x0F00, 0, data, 255, 1000, &dwMoved), Status::Stall);
}

TEST_F(Opened, StreamKeepsAFullFrameInFlight)
{
    constexpr size_t N = 33, FRAMES = 3;
    Requests r(N, MIB);
    r.bThrows = true;  // which must not pass through libusb, and disturbs nothing
    r.Submit(*p);
    EXPECT_EQ(device.Queued(), N);
    uint32_t lWord = 0;
    for (size_t i = 0; i < N * FRAMES; ++i) {
        device.Allow(1);
        ASSERT_TRUE(r.Wait(i + 1));
        auto& one = r[i % N];
        ASSERT_EQ(one.status, Status::Ok);
        ASSERT_EQ(one.dwBytes, MIB);
        ASSERT_EQ(Misplaced(one.data, lWord), -1) << "request " << i;
        r.Submit(*p, i % N);
    }
    EXPECT_EQ(r.Threads().size(), 1u);
    EXPECT_EQ(r.Threads().count(std::this_thread::get_id()), 0u);
    EXPECT_EQ(usb->Seen().iBulk, int(N * (FRAMES + 1)));  // one request each: nothing is split or copied together
}

TEST_F(Opened, ShortAndEmptyRequests)
{
    Requests r(4, 4096);
    r.Submit(*p);
    device.Allow(1, 0);
    device.Allow(1, 100);
    device.Allow(1);
    ASSERT_TRUE(r.Wait(3));
    EXPECT_EQ(r[0].dwBytes, 0u);
    EXPECT_EQ(r[1].dwBytes, 100u);
    EXPECT_EQ(r[1].data[99], 0);  // byte 3 of word 24
    EXPECT_EQ(r[1].data[100], 0xEE);
    EXPECT_EQ(r[2].dwBytes, 4096u);
    EXPECT_EQ(r.Count(Status::Ok), 3u);
}

TEST_F(Opened, AbortReturnsWhenAllAreDoneAndNothingIsWrittenLater)
{
    constexpr size_t N = 33;
    Requests r(N, MIB), other(2, 512, 0x82);
    r.Submit(*p);
    other.Submit(*p);
    device.Allow(3);
    ASSERT_TRUE(r.Wait(3));
    p->Abort(EP);
    EXPECT_EQ(r.Order(), Ascending(N));
    EXPECT_EQ(r.Count(Status::Ok), 3u);
    EXPECT_EQ(r.Count(Status::Cancelled), N - 3);
    EXPECT_EQ(device.Queued(), 2u);  // the other endpoint goes on
    p->Abort(EP);                    // nothing to do
    for (size_t i = 3; i < N; ++i)
        std::fill(r[i].data.begin(), r[i].data.end(), uint8_t(0x5A));

    Requests next(2, MIB);
    next.Submit(*p);
    device.Allow(4);
    ASSERT_TRUE(next.Wait(2));
    ASSERT_TRUE(other.Wait(2));
    uint32_t lWord = 3 * MIB / 4;
    EXPECT_EQ(Misplaced(next[0].data, lWord), -1);
    EXPECT_EQ(Misplaced(next[1].data, lWord), -1);
    for (size_t i = 3; i < N; ++i)
        ASSERT_EQ(std::count(r[i].data.begin(), r[i].data.end(), 0x5A), long(MIB));
}

TEST_F(Opened, StallEndsEachRequestAndResetClearsIt)
{
    Requests r(5, 4096);
    r.Submit(*p);
    device.Halt();
    ASSERT_TRUE(r.Wait(5));
    EXPECT_EQ(r.Count(Status::Stall), 5u);
    EXPECT_EQ(p->ResetPipe(EP), Status::Ok);
    device.Allow(1);
    Requests again(2, 4096);
    again.Submit(*p);
    ASSERT_TRUE(again.Wait(1));
    EXPECT_EQ(again[0].status, Status::Ok);
    // With a request out: it is cancelled before the halt is cleared, which hosts would refuse.
    EXPECT_EQ(p->ResetPipe(EP), Status::Ok);
    EXPECT_EQ(again.Count(Status::Cancelled), 1u);
    uint32_t dwMoved = 0;
    EXPECT_EQ(p->Control(0x02, 1, 0, EP, nullptr, 0, 1000, &dwMoved), Status::Ok);  // the same by its standard request
    EXPECT_EQ(usb->Seen().iClearHalts, 3);
    EXPECT_EQ(usb->Seen().iRefusedHalts, 0);
}

TEST_F(Opened, VanishEndsAllAndReplugOpensAgain)
{
    const std::string sOld = usbstack::LibusbStack().Enumerate().at(0).path;
    Requests r(33, MIB);
    r.Submit(*p);
    usb->Vanish();
    ASSERT_TRUE(r.Wait(33, 2s));
    EXPECT_EQ(r.Count(Status::Gone), 33u);
    uint8_t data[18];
    uint32_t dwMoved = 5;
    Requests late(1, 512);
    EXPECT_EQ(p->SubmitBulk(&late[0].bulk), Status::Gone);
    EXPECT_EQ(p->Control(0xC0, 1, 0, 0, data, 8, 0, &dwMoved), Status::Gone);
    EXPECT_EQ(p->Control(0x80, 6, 0x0100, 0, data, 18, 0, &dwMoved), Status::Gone);
    EXPECT_EQ(dwMoved, 0u);
    EXPECT_EQ(p->ResetPipe(EP), Status::Gone);
    EXPECT_EQ(p->ResetPort(), Status::Gone);
    p->Abort(EP);
    EXPECT_TRUE(Until([] { return usbstack::LibusbStack().Enumerate().empty(); }));

    // Back again while the old handle is still open.
    usb->Plug();
    std::vector<DeviceInfo> v;
    ASSERT_TRUE(Until([&] { return (v = usbstack::LibusbStack().Enumerate()).size() == 1; }));
    EXPECT_EQ(v[0].portPath, "1");
    EXPECT_NE(v[0].path, sOld);
    Status status = Status::Ok;
    EXPECT_FALSE(Open(sOld, &status));
    EXPECT_EQ(status, Status::Gone);
    const auto q = Open(v[0].path);
    ASSERT_TRUE(q);
    p.reset();
    Requests again(1, 4096);
    again.Submit(*q);
    device.Allow(1);
    ASSERT_TRUE(again.Wait(1));
    EXPECT_EQ(again.Count(Status::Ok), 1u);
    EXPECT_EQ(usb->Seen().iOutstanding, 0);
}

TEST_F(Opened, VanishInTheMidstOfAControlRequest)
{
    device.bMute = true;
    const size_t nBefore = device.Seen().size();
    std::atomic<int> iStatus = -1;
    std::thread t([&] {
        uint8_t data[8];
        uint32_t dwMoved = 0;
        iStatus = int(p->Control(0xC0, 0xB5, 0, 0, data, 8, 0, &dwMoved));
    });
    EXPECT_TRUE(Until([&] { return device.Seen().size() > nBefore; }));
    EXPECT_EQ(iStatus, -1);
    usb->Vanish();
    t.join();
    EXPECT_EQ(iStatus, int(Status::Gone));
    device.Unmute();
}

// The 16th request of 1 MiB finds no memory. The caller sees nothing of it.
class LibusbMemory : public Libusb, public testing::WithParamInterface<bool> {};

TEST_P(LibusbMemory, LimitIsNoErrorAndKeepsTheOrder)
{
    constexpr size_t N = 35;
    const bool bPieces = GetParam();  // a host without scatter-gather, on which the system tells its limit
    StreamDevice device(0xA001);
    MockUsb usb(*m_pBus, 2, "1", device);
    if (bPieces)
        usb.SetCapabilities(MockUsb::CONTINUATION);
    m_pBus->SetMemoryLimit(16ull * MIB, bPieces);
    const auto p = OpenFirst();
    ASSERT_TRUE(p);
    Requests r(N, MIB);
    r.Submit(*p);
    EXPECT_EQ(device.Queued(), bPieces ? 15u * 64 : 15u);
    // A control request does not have to wait for the stream.
    uint8_t data[8];
    uint32_t dwMoved = 0;
    EXPECT_EQ(p->Control(0xC0, 0xB5, 0, 0, data, 8, 1000, &dwMoved), Status::Ok);
    device.Allow(bPieces ? 3 * int(N) * 64 : 3 * int(N));
    uint32_t lWord = 0;
    for (size_t i = 0; i < 3 * N; ++i) {
        ASSERT_TRUE(r.Wait(i + 1)) << i;
        ASSERT_EQ(r[i % N].status, Status::Ok) << i;
        ASSERT_EQ(r[i % N].dwBytes, MIB) << i;
        ASSERT_EQ(Misplaced(r[i % N].data, lWord), -1) << "request " << i;
        if (i < 2 * N)
            r.Submit(*p, i % N);
    }
    EXPECT_LE(m_pBus->MemoryPeak(), 16ull * MIB);
    if (bPieces)
        EXPECT_EQ(m_pBus->MemoryRefusals(), 0);  // a refusal in the midst of a request could not be made good
    else
        EXPECT_GT(m_pBus->MemoryRefusals(), 0);

    // Aborting takes the waiting ones along, behind those that are out.
    Requests last(N, MIB);
    last.Submit(*p);
    p->Abort(EP);
    EXPECT_EQ(last.Order(), Ascending(N));
    EXPECT_EQ(last.Count(Status::Cancelled), N);
    EXPECT_EQ(device.Queued(), 0u);
}
INSTANTIATE_TEST_SUITE_P(Host, LibusbMemory, testing::Bool());

TEST_F(Libusb, MemoryHeldByAnotherProcessIsWaitedFor)
{
    StreamDevice device(0xA001);
    MockUsb usb(*m_pBus, 2, "1", device);
    m_pBus->SetMemoryLimit(4ull * MIB);
    m_pBus->Reserve(4ll * MIB - 4096);
    const auto p = OpenFirst();
    ASSERT_TRUE(p);
    Requests r(3, MIB);
    r.Submit(*p);
    device.Allow(3);
    EXPECT_FALSE(r.Wait(1, 100ms));
    m_pBus->Reserve(-2ll * MIB);
    ASSERT_TRUE(r.Wait(3));
    EXPECT_EQ(r.Order(), Ascending(3));
    EXPECT_EQ(r.Count(Status::Ok), 3u);
    // A device that goes takes along what waits for memory.
    m_pBus->Reserve(2ll * MIB);
    Requests waiting(3, MIB);
    waiting.Submit(*p);
    usb.Vanish();
    ASSERT_TRUE(waiting.Wait(3, 2s));
    EXPECT_EQ(waiting.Count(Status::Gone), 3u);
}

// Nothing that is out could ever make room: an error, not silence.
TEST_F(Libusb, RequestAsLargeAsAllMemoryFails)
{
    StreamDevice device(0xA001);
    MockUsb usb(*m_pBus, 2, "1", device);
    m_pBus->SetMemoryLimit(MIB, true);
    const auto p = OpenFirst();
    ASSERT_TRUE(p);
    Requests r(2, MIB);
    r.Submit(*p);
    ASSERT_TRUE(r.Wait(2, 2s));
    EXPECT_EQ(r.Count(Status::NoMemory), 2u);

    // Nor what other programs keep for good: after a wait in which they might have given it back.
    m_pBus->Reserve(int64_t{ MIB } - 4096);
    Requests small(1, MIB / 2), again(1, 512);
    const auto start = std::chrono::steady_clock::now();
    small.Submit(*p);
    ASSERT_TRUE(small.Wait(1, 20s));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 4900ms);
    EXPECT_EQ(small.Count(Status::NoMemory), 1u);
    again.Submit(*p);  // the pipe goes on
    device.Allow(1);
    ASSERT_TRUE(again.Wait(1));
    EXPECT_EQ(again.Count(Status::Ok), 1u);
}

TEST_F(Libusb, LargeRequestsDoNotStarveBesideSmallOnes)
{
    StreamDevice large(0xA001), small(0xA002);
    MockUsb ul(*m_pBus, 2, "1", large), us(*m_pBus, 2, "2", small);
    m_pBus->SetMemoryLimit(4ull * MIB);
    const auto v = usbstack::LibusbStack().Enumerate();
    ASSERT_EQ(v.size(), 2u);
    const auto pl = Open(v[0].path), ps = Open(v[1].path);
    ASSERT_TRUE(pl && ps);
    Requests rs(40, 307200), rl(6, MIB);
    rs.Submit(*ps);  // fills the memory
    rl.Submit(*pl);
    large.Allow(6);
    size_t nSmall = 0;
    for (; nSmall < 400 && rl.Order().size() < 6; ++nSmall) {
        small.Allow(1);
        ASSERT_TRUE(rs.Wait(nSmall + 1));
        rs.Submit(*ps, nSmall % 40);
    }
    EXPECT_TRUE(rl.Wait(6, 1s)) << rl.Order().size();
    EXPECT_EQ(rl.Order(), Ascending(6));
    EXPECT_LT(nSmall, 100u);
}

TEST_F(Libusb, HandlesOfOneProcessShareTheDevice)
{
    StreamDevice device(0xA001);
    MockUsb usb(*m_pBus, 2, "1", device);
    const auto v = usbstack::LibusbStack().Enumerate();
    ASSERT_EQ(v.size(), 1u);
    auto p = Open(v[0].path);
    ASSERT_TRUE(p);
    Requests r(4, 4096);
    r.Submit(*p);
    {
        Requests own(1, 512);
        const auto q = Open(v[0].path);
        ASSERT_TRUE(q);
        uint8_t data[8];
        uint32_t dwMoved = 0;
        EXPECT_EQ(q->Control(0xC0, 0xB5, 0x42, 0, data, 8, 1000, &dwMoved), Status::Ok);
        EXPECT_EQ(data[0], 0x42);
        own.Submit(*q);
    }  // ends its own request, not those of the other handle
    EXPECT_EQ(device.Queued(), 4u);
    EXPECT_TRUE(r.Order().empty());
    EXPECT_EQ(usb.Seen().iClaims, 1);
    EXPECT_EQ(usb.Seen().iReleases, 0);

    auto q = Open(v[0].path);
    p.reset();  // the first one goes, the device stays open
    EXPECT_EQ(r.Count(Status::Cancelled), 4u);
    EXPECT_EQ(usb.Seen().iReleases, 0);
    Requests again(1, 512);
    again.Submit(*q);
    device.Allow(1);
    EXPECT_TRUE(again.Wait(1));
    q.reset();
    EXPECT_EQ(usb.Seen().iReleases, 1);
}

TEST_F(Libusb, OpenCloseAndListFromManyThreads)
{
    StreamDevice device(0xA001), other(0xA002);
    MockUsb usb(*m_pBus, 2, "1", device), usbOther(*m_pBus, 2, "2", other);
    const auto v = usbstack::LibusbStack().Enumerate();
    ASSERT_EQ(v.size(), 2u);
    std::atomic<int> iBad = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 15; ++i) {
                if (t == 3 && usbstack::LibusbStack().Enumerate().size() != 2)
                    ++iBad;
                Status status;
                Requests r(2, 512);
                const std::unique_ptr<IDevice> p(usbstack::LibusbStack().Open(v[size_t(i + t) % 2].path, &status));
                uint8_t data[2];
                uint32_t dwMoved = 0;
                if (!p || p->Control(0xC0, 0xB5, 7, 0, data, 2, 5000, &dwMoved) != Status::Ok || data[1] != 8)
                    ++iBad;
                else
                    r.Submit(*p);
            }
        });
    for (std::thread& t : threads)
        t.join();
    EXPECT_EQ(iBad, 0);
    const auto n = usb.Seen();
    EXPECT_EQ(n.iClaims, n.iReleases);
    EXPECT_EQ(n.iOutstanding, 0);
}

TEST_F(Opened, SubmitAndAbortFromTwoThreads)
{
    std::atomic<bool> bStop = false;
    std::thread t([&] {
        while (!bStop)
            p->Abort(EP);
    });
    size_t nDone = 0;
    for (int i = 0; i < 20; ++i) {
        Requests r(8, 4096);
        r.Submit(*p);
        if (i % 4 == 0)
            p->ResetPipe(EP);
        p->Abort(EP);
        const auto order = r.Order();  // after the abort nothing is out
        EXPECT_EQ(order, Ascending(8));
        nDone += order.size();
    }
    bStop = true;
    t.join();
    EXPECT_EQ(nDone, 160u);
}

TEST_F(Opened, RestartsOfThePort)
{
    Requests r(8, 4096);
    r.Submit(*p);
    EXPECT_EQ(p->ResetPort(), Status::Ok);
    EXPECT_EQ(r.Count(Status::Cancelled), 8u);
    EXPECT_EQ(usb->Seen().iResets, 1);
    EXPECT_EQ(usb->Seen().iAtReset, 0);
    Requests again(1, 4096);
    again.Submit(*p);
    device.Allow(1);
    ASSERT_TRUE(again.Wait(1));
    EXPECT_EQ(again.Count(Status::Ok), 1u);

    uint32_t dwMoved = 0;
    EXPECT_EQ(p->Control(0x01, 11, 2, 0, nullptr, 0, 1000, &dwMoved), Status::Ok);
    EXPECT_EQ(p->GetAltSetting(), 2);
    EXPECT_EQ(device.Seen().back().bRequest, 11);
    EXPECT_EQ(device.Seen().back().wValue, 2);

    EXPECT_EQ(p->CyclePort(), Status::Ok);
    EXPECT_EQ(p->Control(0xC0, 0xB5, 0, 0, nullptr, 0, 1000, &dwMoved), Status::Gone);
    auto q = OpenFirst();  // the stale handle is still there
    ASSERT_TRUE(q);
    EXPECT_EQ(q->Control(0x40, 0xB5, 0, 0, nullptr, 0, 1000, &dwMoved), Status::Ok);
    usb->SetResetError(ENODEV);  // comes back as another device
    EXPECT_EQ(q->ResetPort(), Status::Gone);
    EXPECT_EQ(q->Control(0x40, 0xB5, 0, 0, nullptr, 0, 1000, &dwMoved), Status::Gone);
}

TEST_F(Libusb, RefusedOpenTellsWhyAndKeepsNothing)
{
    StreamDevice device(0xA001);
    MockUsb usb(*m_pBus, 2, "1", device);
    const auto v = usbstack::LibusbStack().Enumerate();
    ASSERT_EQ(v.size(), 1u);
    Status status = Status::Ok;
    EXPECT_FALSE(Open("no such device", &status));
    EXPECT_EQ(status, Status::Gone);

    // Another program has it: it may be looked at, but neither read from nor restarted.
    usb.SetClaimError(EBUSY);
    const auto p = Open(v[0].path);
    ASSERT_TRUE(p);
    uint32_t dwMoved = 0;
    uint8_t ab[18];
    EXPECT_EQ(p->Control(0x80, 6, 0x0100, 0, ab, sizeof ab, 1000, &dwMoved), Status::Ok);
    Requests r(1, 4096);
    EXPECT_EQ(p->Claim(), Status::Busy);
    EXPECT_EQ(p->SubmitBulk(&r[0].bulk), Status::Busy);
    EXPECT_EQ(p->ResetPort(), Status::Busy);
    EXPECT_EQ(p->ResetPipe(0x81), Status::Busy);
    usb.SetClaimError(0);  // the other program ends
    EXPECT_EQ(p->Claim(), Status::Ok);
}

TEST_F(Libusb, NothingStaysBehind)
{
    StreamDevice device(0xA001);
    MockUsb usb(*m_pBus, 2, "1", device);
    OpenFirst().reset();
    const int nThreads = CountOf("/proc/self/task");
    // The fake closes its end of a connection in its own time.
    const auto files = [] {
        int nNow = CountOf("/proc/self/fd");
        for (int nLast = -1; nNow != nLast; nNow = CountOf("/proc/self/fd")) {
            nLast = nNow;
            std::this_thread::sleep_for(200ms);
        }
        return nNow;
    };
    const auto filesLeft = [&](bool bOpen, bool bReplug) {
        const int nFiles = files();
        {
            Requests r(3, 4096);
            const auto p = bOpen ? OpenFirst() : nullptr;
            if (p)
                r.Submit(*p);
            EXPECT_EQ(CountOf("/proc/self/task") > nThreads, bOpen);
            if (bReplug) {
                usb.Vanish();
                usb.Plug();
            }
        }
        EXPECT_EQ(CountOf("/proc/self/task"), nThreads);
        return files() - nFiles;
    };
    EXPECT_EQ(filesLeft(true, false), 0);
    EXPECT_EQ(filesLeft(true, true), filesLeft(false, true));  // the fake itself keeps some of each plug
    EXPECT_EQ(filesLeft(true, false), 0);
}

// A child made while the parent streams has its own stack, can drop what it inherited, and ends cleanly.
TEST_F(Opened, ForkAndExitWithAnOpenDevice)
{
    Requests r(4, 4096);
    r.Submit(*p);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(20);
        uint32_t dwMoved = 0;
        Requests own(1, 512);
        const bool bGood =
            p->Control(0xC0, 0xB5, 0, 0, nullptr, 0, 0, &dwMoved) == Status::Gone && p->SubmitBulk(&own[0].bulk) == Status::Gone;
        p->Abort(EP);
        p.reset();
        _exit(bGood ? 0 : 1);
    }
    int iStatus = 0;
    ASSERT_EQ(waitpid(pid, &iStatus, 0), pid);
    EXPECT_TRUE(WIFEXITED(iStatus) && WEXITSTATUS(iStatus) == 0) << iStatus;
    device.Allow(4);
    ASSERT_TRUE(r.Wait(4));
    EXPECT_EQ(r.Count(Status::Ok), 4u);
}

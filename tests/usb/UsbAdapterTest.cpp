#include "platform/UsbAdapter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>

#include "platform/InterfaceGuids.h"
#include "tests/usb/FakeDriver.h"
#include "usb/CUsbLink.h"

namespace {

using platform::Overlapped;

// One chunk of a frame, as a capture thread keeps it.
struct Chunk : Overlapped {
    explicit Chunk(uint32_t n = 1024) : Overlapped{}, buf(n) { hEvent = platform::MakeEvent(); }
    ~Chunk() { platform::FreeEvent(hEvent); }
    void Begin(CCyUSBEndPoint& ep) { ctx = ep.BeginDataXfer(buf.data(), int32_t(buf.size()), this); }
    bool Finish(CCyUSBEndPoint& ep)
    {
        n = int32_t(buf.size());
        return ep.FinishDataXfer(buf.data(), &n, this, std::exchange(ctx, nullptr));
    }
    std::vector<uint8_t> buf;
    uint8_t* ctx = nullptr;
    int32_t n = 0;
};

struct Adapter : testing::Test, StackScope {
    FakeUsbDevice& dev = stack.Add(0xC11A);
    std::unique_ptr<CUsbLink> link = std::make_unique<CUsbLink>(nullptr, platform::g_InterfaceGuids[9], true);
    CCyUSBEndPoint& ep = *link->m_pBulkIn;
    ~Adapter() override { link.reset(); }
    // Bulk reads fill with a running number.
    void Feed(uint8_t first)
    {
        dev.OnBulk = [v = first](uint8_t* p, uint32_t n) mutable -> int64_t {
            std::memset(p, v++, n);
            return n;
        };
    }
};

TEST_F(Adapter, ManyOutstandingCompleteInOrder)
{
    std::vector<std::unique_ptr<Chunk>> chunks;
    for (int i = 0; i < 40; ++i) {
        chunks.push_back(std::make_unique<Chunk>());
        chunks.back()->Begin(ep);
        EXPECT_EQ(ep.m_uLastError, platform::ERROR_PENDING);
    }
    EXPECT_EQ(dev.Outstanding(), 40u);
    EXPECT_FALSE(ep.WaitForXfer(chunks[0].get(), 0));
    Feed(10);
    EXPECT_EQ(dev.Pump(), 40);
    for (int i = 0; i < 40; ++i) {
        EXPECT_TRUE(ep.WaitForXfer(chunks[size_t(i)].get(), 0));
        EXPECT_TRUE(chunks[size_t(i)]->Finish(ep));
        EXPECT_EQ(chunks[size_t(i)]->n, 1024);
        EXPECT_EQ(chunks[size_t(i)]->buf[1023], uint8_t(10 + i));  // straight into the caller's buffer
    }
    uint32_t dwBytes = 0;
    EXPECT_FALSE(platform::UsbDriver().GetResult(link->m_hDevice, chunks[0].get(), &dwBytes, false));
    EXPECT_EQ(platform::LastError(), platform::ERROR_BAD_PARAMETER);  // fetched already
}

TEST_F(Adapter, ResultsOfTheStackBecomeErrorsAndStatuses)
{
    const struct {
        usbstack::Status status;
        uint32_t dwBytes, dwError;
        bool bOk;
    } rows[] = {
        { usbstack::Status::Ok, 700, 0, true },
        { usbstack::Status::Ok, 0, 0, true },
        { usbstack::Status::Cancelled, 3, platform::ERROR_CANCELLED_IO, false },
        { usbstack::Status::Stall, 0, platform::ERROR_GENERAL_FAILURE, false },
        { usbstack::Status::TimedOut, 0, platform::ERROR_TIMED_OUT, false },
        { usbstack::Status::Gone, 0, platform::ERROR_GONE, false },
        { usbstack::Status::Failed, 0, platform::ERROR_GENERAL_FAILURE, false },
    };
    for (const auto& r : rows) {
        Chunk c;
        c.Begin(ep);
        dev.Complete(r.status, r.dwBytes);
        EXPECT_TRUE(ep.WaitForXfer(&c, 0));
        EXPECT_EQ(c.Finish(ep), r.bOk);
        EXPECT_EQ(platform::LastError(), r.dwError);
        EXPECT_EQ(c.n, int32_t(r.dwBytes));
        EXPECT_EQ(ep.m_uNtStatus == 0 && ep.m_uUsbdStatus == 0, r.bOk);
    }
}

TEST_F(Adapter, AbortEndsEveryRequest)
{
    Chunk a, b;
    a.Begin(ep);
    b.Begin(ep);
    EXPECT_TRUE(ep.Abort());
    EXPECT_EQ(dev.Outstanding(), 0u);
    for (Chunk* c : { &a, &b }) {
        EXPECT_TRUE(ep.WaitForXfer(c, 0));
        EXPECT_FALSE(c->Finish(ep));
    }
    EXPECT_TRUE(ep.Reset());
    EXPECT_TRUE(ep.Abort());  // idle
    Feed(1);
    a.Begin(ep);
    EXPECT_TRUE(a.Finish(ep));
}

// A pass that timed out finishes requests that are still out and begins them again on the same slots.
TEST_F(Adapter, SlotBegunAgainWhileItsOlderRequestIsOut)
{
    Chunk c;
    std::vector<uint8_t> other(1024);
    c.Begin(ep);
    EXPECT_FALSE(c.Finish(ep));
    EXPECT_EQ(platform::LastError(), platform::ERROR_INCOMPLETE);
    EXPECT_EQ(c.n, 0);
    c.buf.swap(other);  // the next buffer; the older request still writes to the one before
    c.Begin(ep);
    EXPECT_EQ(dev.Outstanding(), 2u);

    Feed(7);
    dev.OnBulk = [n = 0, f = dev.OnBulk](uint8_t* p, uint32_t dw) mutable -> int64_t { return n++ == 0 ? f(p, dw) : -1; };
    EXPECT_EQ(dev.Pump(), 1);
    EXPECT_EQ(other[0], 7);
    EXPECT_EQ(c.buf[0], 0);
    EXPECT_FALSE(ep.WaitForXfer(&c, 0));  // the older one's end is not taken for the newer one's
    Feed(8);
    EXPECT_EQ(dev.Pump(), 1);
    EXPECT_TRUE(ep.WaitForXfer(&c, 0));
    EXPECT_TRUE(c.Finish(ep));
    EXPECT_EQ(c.buf[0], 8);
}

// Slot and event are freed while the request is out; the sanitizers see a late touch.
TEST_F(Adapter, GivenUpRequestTouchesNothingOfItsCallers)
{
    std::vector<uint8_t> data(4096);
    auto c = std::make_unique<Chunk>();
    c->ctx = ep.BeginDataXfer(data.data(), 4096, c.get());
    EXPECT_FALSE(c->Finish(ep));
    c.reset();
    EXPECT_EQ(dev.Outstanding(), 1u);
    dev.Complete(usbstack::Status::Ok, 4096);

    c = std::make_unique<Chunk>();
    c->ctx = ep.BeginDataXfer(data.data(), 4096, c.get());
    EXPECT_FALSE(c->Finish(ep));
    c.reset();
    ep.Abort();
    std::vector<uint8_t>().swap(data);
    EXPECT_EQ(dev.Outstanding(), 0u);
}

TEST_F(Adapter, CloseEndsWhatIsOut)
{
    Chunk a;
    a.Begin(ep);
    const platform::DeviceHandle h = link->m_hDevice;
    CCyBulkEndPoint stale(h, nullptr, nullptr);
    link->Close();
    EXPECT_EQ(dev.Outstanding(), 0u);
    EXPECT_EQ(dev.OpenHandles(), 0);
    EXPECT_FALSE(a.Finish(stale));
    EXPECT_EQ(platform::LastError(), platform::ERROR_BAD_HANDLE);
    a.Begin(stale);
    EXPECT_EQ(stale.m_uLastError, platform::ERROR_BAD_HANDLE);
    EXPECT_FALSE(a.Finish(stale));
    EXPECT_FALSE(platform::UsbDriver().Close(h));
}

TEST_F(Adapter, VanishAndReturn)
{
    Chunk a;
    a.Begin(ep);
    dev.Vanish();
    EXPECT_TRUE(ep.WaitForXfer(&a, 0));
    EXPECT_FALSE(a.Finish(ep));
    a.Begin(ep);
    EXPECT_NE(a.ctx, nullptr);  // a context all the same, with an error that is not "pending"
    EXPECT_EQ(ep.m_uLastError, platform::ERROR_GONE);
    EXPECT_FALSE(ep.WaitForXfer(&a, 1000));
    EXPECT_FALSE(a.Finish(ep));
    EXPECT_EQ(link->DeviceCount(), 0);
    uint8_t b = 0;
    int32_t n = 1;
    link->m_pControl->m_iDirection = 1;
    EXPECT_FALSE(link->m_pControl->XferData(&b, &n));
    dev.Return();
    EXPECT_FALSE(link->m_pControl->XferData(&b, &n));  // the handle stays stale
    EXPECT_TRUE(link->Open(0));
    n = 1;
    link->m_pControl->m_iDirection = 1;
    EXPECT_TRUE(link->m_pControl->XferData(&b, &n));
}

TEST_F(Adapter, BufferedReadAndTransferSize)
{
    ep.m_bDirect = 0;
    Chunk a(100);
    dev.OnBulk = [](uint8_t* p, uint32_t n) -> int64_t {
        std::memset(p, 3, n);
        return 60;
    };
    a.Begin(ep);
    EXPECT_TRUE(ep.WaitForXfer(&a, 0));
    EXPECT_TRUE(a.Finish(ep));
    EXPECT_EQ(a.n, 60);
    EXPECT_EQ(a.buf[59], 3);
    EXPECT_EQ(a.buf[60], 0);
    ep.SetXferSize(0x100000);
    EXPECT_EQ(dev.Events(), std::vector<std::string>{ "size 82 100000" });
}

TEST_F(Adapter, MalformedRequestsAreRefused)
{
    platform::IUsbDriver& d = platform::UsbDriver();
    uint8_t ab[64] = {};
    uint32_t dwBytes = 0;
    const auto Refused = [&](uint32_t dwCode, uint32_t dwIn, uint32_t dwOut) {
        const bool bOk = d.IoControl(link->m_hDevice, dwCode, ab, dwIn, ab, dwOut, &dwBytes, nullptr);
        return !bOk && platform::LastError() == platform::ERROR_BAD_PARAMETER && dwBytes == 0;
    };
    XferRecord* const r = reinterpret_cast<XferRecord*>(ab);
    EXPECT_TRUE(Refused(platform::IO_CONTROL, 37, 37));
    r->bufferOffset = 38;
    r->bufferLength = 0xFFFFFFF0;
    EXPECT_TRUE(Refused(platform::IO_CONTROL, 64, 64));
    r->bufferLength = 8;
    r->setup.wLength = 9;  // more than the data area
    EXPECT_TRUE(Refused(platform::IO_CONTROL, 64, 64));
    r->bufferOffset = 12;
    EXPECT_TRUE(Refused(platform::IO_CONTROL, 64, 64));
    EXPECT_TRUE(Refused(platform::IO_RESET_PIPE, 0, 0));
    EXPECT_TRUE(Refused(platform::IO_SET_TRANSFER_SIZE, 4, 4));
    EXPECT_TRUE(Refused(platform::IO_DRIVER_NAME, 255, 255));
    EXPECT_TRUE(Refused(0x220050, 0, 0));
    EXPECT_TRUE(Refused(platform::IO_DIRECT, 38, 64));  // endpoint 0
}

// The clock ten thousand times as fast: a control request must not run into its time limit for want of a processor.
TEST_F(Adapter, FastClockKeepsControlRequestsSound)
{
    platform::SetClockRate(10000);
    int iGood = 0;
    for (int i = 0; i < 200; ++i) {
        int32_t n = 0;
        link->m_pControl->m_iTimeOut = 500;
        iGood += link->m_pControl->XferData(nullptr, &n) ? 1 : 0;
    }
    platform::SetClockRate(1);
    EXPECT_EQ(iGood, 200);
}

TEST_F(Adapter, StackThatThrowsFailsTheRequestAlone)
{
    int nLeft = 1;
    dev.OnFail = [&](const RecordedRequest&) { return nLeft-- > 0 ? throw std::bad_alloc() : false; };
    for (const bool bOk : { false, true }) {
        int32_t n = 0;
        EXPECT_EQ(link->m_pControl->XferData(nullptr, &n), bOk);
    }
}

// A producer completes while the consumer takes, aborts and begins again; then the device is closed under traffic.
TEST_F(Adapter, ThreadsMeet)
{
    std::atomic<bool> bStop = false;
    std::thread producer([&] {
        uint32_t k = 0;
        while (!bStop) {
            dev.Complete(usbstack::Status::Ok, ++k % 1000);
            if (k % 64 == 0)
                std::this_thread::yield();
        }
    });
    std::vector<std::unique_ptr<Chunk>> chunks;
    for (int i = 0; i < 8; ++i) {
        chunks.push_back(std::make_unique<Chunk>());
        chunks.back()->Begin(ep);
    }
    int iGood = 0;
    for (int pass = 0; pass < 300; ++pass) {
        for (auto& c : chunks) {
            ep.WaitForXfer(c.get(), pass % 3 == 0 ? 0 : 1);
            iGood += c->Finish(ep) ? 1 : 0;
            c->Begin(ep);
        }
        if (pass % 20 == 0) {
            ep.Abort();
            ep.Reset();
        }
    }
    std::thread control([&] {
        const platform::DeviceHandle h = link->m_hDevice;
        CCyControlEndPoint own(h, nullptr);
        while (!bStop) {
            int32_t n = 0;
            own.XferData(nullptr, &n);
        }
    });
    platform::UsbDriver().Close(link->m_hDevice);
    EXPECT_EQ(dev.Outstanding(), 0u);
    for (auto& c : chunks)
        c->Finish(ep);
    bStop = true;
    producer.join();
    control.join();
    link->m_hDevice = platform::INVALID_DEVICE;
    EXPECT_GT(iGood, 0);
}

}  // namespace

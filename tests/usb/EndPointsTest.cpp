#include "usb/EndPoints.h"

#include <gtest/gtest.h>

#include <memory>

#include "tests/usb/FakeDriver.h"

namespace {

using platform::Overlapped;

constexpr EndPointDescriptor Desc(uint8_t bAddress, uint8_t bAttributes, uint16_t wMax)
{
    return { 7, 5, bAddress, bAttributes, wMax, 1 };
}
const EndPointDescriptor g_BulkIn = Desc(0x82, 2, 1024);

uint32_t U32At(const std::vector<uint8_t>& v, size_t i)
{
    return v[i] | uint32_t(v[i + 1]) << 8 | uint32_t(v[i + 2]) << 16 | uint32_t(v[i + 3]) << 24;
}

struct EventSlot : Overlapped {
    EventSlot() : Overlapped{} { hEvent = platform::MakeEvent(); }
    ~EventSlot() { platform::FreeEvent(hEvent); }
};

TEST(EndPoints, MaximumPacketSize)
{
    const struct {
        EndPointDescriptor d;
        CompanionDescriptor c;
        bool bComp;
        uint16_t wMax, wMult;
    } rows[] = {
        { Desc(0x82, 2, 512), {}, false, 512, 1 },
        { Desc(0x82, 1, 0x1400), {}, false, 3072, 3 },  // 1024, three a microframe
        { Desc(0x82, 2, 1024), { 6, 0x30, 15, 0, 0 }, true, 16384, 1 },
        { Desc(0x82, 1, 1024), { 6, 0x30, 3, 2, 0 }, true, 12288, 1 },  // times burst, times packets
        { Desc(0x82, 2, 1024), { 6, 0x30, 3, 2, 0 }, true, 4096, 1 },   // the latter for isochronous only
        { Desc(0x82, 2, 1024), { 6, 0x30, 63, 0, 0 }, true, 0, 1 },     // 16 bits
    };
    for (const auto& r : rows) {
        CCyBulkEndPoint ep(5, &r.d, r.bComp ? &r.c : nullptr);
        EXPECT_EQ(ep.m_iMaxPktSize, r.wMax);
        EXPECT_EQ(ep.m_iMult, r.wMult);
        EXPECT_TRUE(ep.m_bIn);
        EXPECT_EQ(ep.m_iTimeOut, 10000u);
    }
}

// The bytes of records as they go out: ReplayTest.
TEST(EndPoints, DirectResult)
{
    FakeDriver driver;
    CCyBulkEndPoint ep(5, &g_BulkIn, nullptr);
    EventSlot ov;
    uint8_t buf[64];
    uint8_t* const ctx = ep.BeginDataXfer(buf, sizeof buf, &ov);
    ASSERT_NE(ctx, nullptr);
    driver.dwBytes = 40;  // the whole count: a direct transfer has no header in its result
    int32_t n = 64;
    EXPECT_TRUE(ep.FinishDataXfer(buf, &n, &ov, ctx));
    EXPECT_EQ(n, 40);
    EXPECT_EQ(ep.m_uBytesXferred, 40u);
}

TEST(EndPoints, BufferedResults)
{
    FakeDriver driver;
    CCyBulkEndPoint ep(5, &g_BulkIn, nullptr);
    ep.m_bDirect = 0;
    EventSlot ov;
    uint8_t buf[4] = { 1, 2, 3, 4 };
    uint8_t* ctx = ep.BeginDataXfer(buf, 4, &ov);
    // Two of four bytes come; the rest of the caller's buffer stays.
    ctx[38] = 9;
    ctx[39] = 8;
    driver.dwBytes = 40;
    int32_t n = 4;
    EXPECT_TRUE(ep.FinishDataXfer(buf, &n, &ov, ctx));
    EXPECT_EQ(n, 2);
    EXPECT_EQ(std::vector<uint8_t>(buf, buf + 4), (std::vector<uint8_t>{ 9, 8, 3, 4 }));

    // No bytes means length 0, not minus the header; a status of the driver makes a failure.
    for (const bool bNt : { false, true }) {
        ctx = ep.BeginDataXfer(buf, 4, &ov);
        reinterpret_cast<XferRecord*>(ctx)->ntStatus = bNt ? 7 : 0;
        driver.dwBytes = 0;
        n = 4;
        EXPECT_EQ(ep.FinishDataXfer(buf, &n, &ov, ctx), !bNt);
        EXPECT_EQ(n, 0);
        EXPECT_EQ(ep.m_uNtStatus, bNt ? 7u : 0u);
    }
}

TEST(EndPoints, ControlRecord)
{
    FakeDriver driver;
    CCyControlEndPoint ep(5, nullptr);
    EventSlot ov;
    uint8_t buf[3] = { 7, 8, 9 };
    ep.m_iDirection = 1;
    ep.m_iTarget = 1;
    ep.m_iReqCode = 0xB7;
    ep.m_iValue = 0x3012;
    ep.m_iIndex = 0x0405;
    const struct {
        uint32_t ms, s;
    } limits[] = { { 500, 1 }, { 1000, 1 }, { 2500, 2 }, { 0, 0 }, { 1, 1 }, { 999, 1 } };
    for (const auto& l : limits) {
        ep.m_iTimeOut = l.ms;
        uint8_t* const ctx = ep.BeginDataXfer(buf, 3, &ov);
        std::vector<uint8_t> expected(41);
        const uint8_t head[] = { 0xC1, 0xB7, 0x12, 0x30, 0x05, 0x04, 3, 0, uint8_t(l.s) };
        std::copy(std::begin(head), std::end(head), expected.begin());
        expected[30] = 38;
        expected[34] = 3;
        std::copy(buf, buf + 3, expected.begin() + 38);  // for IN too
        EXPECT_EQ(driver.calls.back().dwCode, 0x220020u);
        EXPECT_EQ(driver.calls.back().in, expected);
        driver.dwBytes = 38;
        int32_t n = 3;
        EXPECT_TRUE(ep.FinishDataXfer(buf, &n, &ov, ctx));
        EXPECT_EQ(n, 0);
    }
    ep.m_iDirection = 0;
    int32_t n = 0;
    ep.FinishDataXfer(nullptr, &n, &ov, ep.BeginDataXfer(nullptr, 0, &ov));
    EXPECT_EQ(driver.calls.back().in.at(0), 0x41);
    EXPECT_FALSE(ep.m_bIn);
}

TEST(EndPoints, IsochronousRecords)
{
    FakeDriver driver;
    const EndPointDescriptor d = Desc(0x83, 1, 100);
    CCyIsocEndPoint ep(5, &d, nullptr);
    EventSlot ov;
    std::vector<uint8_t> buf(250, 1);
    for (const int iDirect : { 1, 0 }) {
        ep.m_bDirect = iDirect;
        uint8_t* const ctx = ep.BeginDataXfer(buf.data(), 250, &ov);
        const DriverCall c = driver.calls.back();
        EXPECT_EQ(c.dwCode, iDirect ? 0x22004Bu : 0x220024u);
        EXPECT_EQ(c.in.size(), iDirect ? 38u + 24 : 38u + 24 + 250);
        EXPECT_EQ(U32At(c.in, 22), 38u);
        EXPECT_EQ(U32At(c.in, 26), 24u);  // three packets
        EXPECT_EQ(U32At(c.in, 30), iDirect ? 0u : 62u);
        EXPECT_EQ(U32At(c.in, 34), iDirect ? 0u : 250u);
        ctx[38] = 100;
        driver.dwBytes = iDirect ? 100 : 162;
        IsoPacketInfo infos[3];
        std::memset(infos, 0xEE, sizeof infos);
        int32_t n = 250;
        EXPECT_TRUE(ep.FinishDataXfer(buf.data(), &n, &ov, ctx, infos));
        EXPECT_EQ(n, 100);
        EXPECT_EQ(infos[0].length, 100u);
        EXPECT_EQ(infos[2].status, 0u);
    }
    EXPECT_EQ(ep.BeginDirectXfer(buf.data(), 0, &ov), nullptr);
    ep.m_iMaxPktSize = 0;
    EXPECT_EQ(ep.BeginBufXfer(buf.data(), 10, &ov), nullptr);
}

TEST(EndPoints, ClosedHandleBeginsNothing)
{
    FakeDriver driver;
    for (const platform::DeviceHandle h : { platform::DeviceHandle{ -1 }, platform::DeviceHandle{ -2 } }) {
        CCyBulkEndPoint bulk(h, &g_BulkIn, nullptr);
        CCyControlEndPoint control(h, nullptr);
        EventSlot ov;
        uint8_t b = 0;
        EXPECT_EQ(bulk.BeginDataXfer(&b, 1, &ov), nullptr);
        EXPECT_EQ(control.BeginDataXfer(&b, 1, &ov), nullptr);
        int32_t n = 1;
        EXPECT_FALSE(control.XferData(&b, &n));
        EXPECT_EQ(n, 0);
    }
    EXPECT_TRUE(driver.calls.empty());
}

// The wait goes by the error of the endpoint's most recent begin and not by the slot.
TEST(EndPoints, WaitForXfer)
{
    FakeDriver driver;
    CCyBulkEndPoint ep(5, &g_BulkIn, nullptr);
    EventSlot ov;
    ep.m_uLastError = 0;
    EXPECT_TRUE(ep.WaitForXfer(nullptr, 0));  // does not look at the slot
    ep.m_uLastError = platform::ERROR_GONE;
    platform::SignalEvent(ov.hEvent);
    EXPECT_FALSE(ep.WaitForXfer(&ov, 0));
    ep.m_uLastError = 997;
    EXPECT_TRUE(ep.WaitForXfer(&ov, 0));
    EXPECT_FALSE(ep.WaitForXfer(&ov, 1));  // the event was taken by the wait before
    EXPECT_TRUE(driver.calls.empty());     // a timeout leaves the request outstanding
}

TEST(EndPoints, WaitOrAbortAbortsTwiceAtMost)
{
    FakeDriver driver;
    CCyBulkEndPoint ep(5, &g_BulkIn, nullptr);
    ep.m_iTimeOut = 1;
    for (const int iAnswered : { 1, 2 }) {  // by the first or by the second abort
        driver.calls.clear();
        EventSlot ov;
        int iAborts = 0;
        driver.onIo = [&](const DriverCall& c, uint8_t*, Overlapped*) -> uint32_t {
            if (c.dwCode != 0x220044)
                return platform::ERROR_PENDING;
            EXPECT_EQ(c.in, std::vector<uint8_t>{ 0x82 });
            EXPECT_TRUE(c.bOverlapped);
            if (++iAborts == iAnswered)
                platform::SignalEvent(ov.hEvent);
            return 0;
        };
        platform::SetLastError(997);
        EXPECT_TRUE(ep.WaitOrAbortXfer(&ov));
        EXPECT_EQ(iAborts, iAnswered);
    }
    EventSlot ov;
    platform::SetLastError(31);
    EXPECT_FALSE(ep.WaitOrAbortXfer(&ov));
    EXPECT_EQ(ep.m_uLastError, 31u);
    platform::SetLastError(0);
    EXPECT_TRUE(ep.WaitOrAbortXfer(&ov));
}

TEST(EndPoints, AbortWaitsForAPendingAbortAndIsAlwaysTrue)
{
    FakeDriver driver;
    CCyBulkEndPoint ep(5, &g_BulkIn, nullptr);
    driver.onIo = [](const DriverCall&, uint8_t*, Overlapped* o) -> uint32_t {
        platform::SignalEvent(o->hEvent);
        return 997;
    };
    EXPECT_TRUE(ep.Abort());
    driver.onIo = [](const DriverCall&, uint8_t*, Overlapped*) -> uint32_t { return platform::ERROR_GONE; };
    EXPECT_TRUE(ep.Abort());
    EXPECT_FALSE(ep.Reset());
    EXPECT_EQ(ep.m_uLastError, platform::ERROR_GONE);
    EXPECT_EQ(driver.calls.back().dwCode, 0x22002Cu);
    EXPECT_FALSE(driver.calls.back().bOverlapped);
}

TEST(EndPoints, TransferSizeIsWholePackets)
{
    FakeDriver driver;
    CCyBulkEndPoint ep(5, &g_BulkIn, nullptr);
    const struct {
        uint32_t asked, sent;
    } rows[] = { { 0x100000, 0x100000 }, { 1000, 1024 }, { 1025, 2048 }, { 0, 0 } };
    for (const auto& r : rows) {
        ep.SetXferSize(r.asked);
        const DriverCall& c = driver.calls.back();
        EXPECT_EQ(c.dwCode, 0x220038u);
        ASSERT_EQ(c.in.size(), 5u);
        EXPECT_EQ(c.in[0], 0x82);
        EXPECT_EQ(U32At(c.in, 1), r.sent);
        EXPECT_EQ(c.dwOut, 5u);
        EXPECT_TRUE(c.bSameBuffer);
    }
    driver.calls.clear();
    ep.m_iMaxPktSize = 0;
    ep.SetXferSize(100);
    CCyBulkEndPoint closed(-1, &g_BulkIn, nullptr);
    closed.SetXferSize(100);
    EXPECT_TRUE(driver.calls.empty());
}

}  // namespace

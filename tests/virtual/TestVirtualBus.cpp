// The virtual bus as a host sees it: enumeration, descriptors, the image pipe. Faults of frames: tests/faults.
#include <gtest/gtest.h>

#include "FakeProfile.h"

using namespace kovsim;
using fake::Host;
using fake::Read;
using usbstack::Status;

namespace {

constexpr uint32_t SMALL = 64 * 48;  // bytes of the fake's frame in 8 bits

uint16_t Word(const std::vector<uint8_t>& d, size_t at) { return uint16_t(d[at] | d[at + 1] << 8); }
uint32_t Long(const std::vector<uint8_t>& d, size_t at) { return Word(d, at) | uint32_t(Word(d, at + 2)) << 16; }

template <class Condition>
bool Eventually(Condition condition, int ms = 5000)
{
    for (int i = 0; i < ms; ++i) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

}  // namespace

TEST(VirtualBusEnumeration, ListsOurVendorOnlyWithStableSocketsAndFreshAddresses)
{
    VirtualBus bus;
    auto usb2 = fake::Settings(fake::Facts());
    usb2.bUSB3Host = false;
    VirtualCamera& a = bus.Plug(fake::Settings(fake::Facts()));
    bus.Plug(usb2);
    bus.PlugForeign(0x1234, 1);
    bus.PlugForeign(0x0E5A, 0xDEAD);
    EXPECT_EQ(bus.Cameras().size(), 2u);

    const auto list = bus.Enumerate();
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(list[0].bus, 1);  // USB 2
    EXPECT_EQ(list[0].speed, usbstack::Speed::High);
    EXPECT_EQ(list[1].productId, 0xDEAD);
    EXPECT_EQ(list[2].speed, usbstack::Speed::Super);

    a.PowerCycle();
    const auto after = bus.Enumerate();
    ASSERT_EQ(after.size(), 3u);
    EXPECT_EQ(after[2].portPath, list[2].portPath);
    EXPECT_NE(after[2].address, list[2].address);
    EXPECT_NE(after[2].path, list[2].path);
    Status status = Status::Ok;
    EXPECT_EQ(bus.Open(list[2].path, &status), nullptr);
    EXPECT_EQ(status, Status::Gone);

    a.SetOpenStatus(Status::Access);
    EXPECT_EQ(bus.Open(after[2].path, &status), nullptr);
    EXPECT_EQ(status, Status::Access);
    a.Unplug();
    EXPECT_EQ(bus.Enumerate().size(), 2u);
}

TEST(VirtualBusEnumeration, DescriptorsFollowTheLink)
{
    const auto get = [](Host& h, uint8_t type, uint8_t index, uint16_t length) {
        return h.In(6, uint16_t(type << 8 | index), 0, length, 0x80);
    };
    struct Case {
        bool device3, host3;
        uint16_t usb;
        size_t config;
        bool bos;
        uint16_t packet;
    };
    for (const Case& c : { Case{ true, true, 0x0300, 31, true, 1024 }, Case{ true, false, 0x0210, 25, true, 512 },
                           Case{ false, true, 0x0200, 25, false, 512 } }) {
        auto facts = fake::Facts();
        facts.bUSB3 = c.device3;
        auto settings = fake::Settings(facts);
        settings.bUSB3Host = c.host3;
        settings.iFirmware = 17;
        settings.sSerial = "77";
        Host h(settings);
        const auto device = get(h, 1, 0, 18);
        ASSERT_EQ(device.size(), 18u);
        EXPECT_EQ(Word(device, 2), c.usb);
        EXPECT_EQ(Word(device, 8), 0x0E5A);
        EXPECT_EQ(Word(device, 10), facts.wProductId);
        const auto config = get(h, 2, 0, 255);
        ASSERT_EQ(config.size(), c.config);
        EXPECT_EQ(Word(config, 2), c.config);
        EXPECT_EQ(config[20], 0x82);
        EXPECT_EQ(config[21], 2);
        EXPECT_EQ(Word(config, 22), c.packet);
        EXPECT_EQ(get(h, 2, 0, 9).size(), 9u);  // head alone
        const auto bos = get(h, 15, 0, 255);
        EXPECT_EQ(!bos.empty(), c.bos);
        if (c.bos) {
            EXPECT_EQ(Word(bos, 2), bos.size());
        }
        EXPECT_EQ(get(h, 3, 2, 255), (std::vector<uint8_t>{ 12, 3, 'S', 0, 'F', 0, 'a', 0, 'k', 0, 'e', 0 }));
        EXPECT_EQ(get(h, 3, 3, 255), (std::vector<uint8_t>{ 6, 3, '7', 0, '7', 0 }));
        EXPECT_TRUE(get(h, 3, 9, 255).empty());
        EXPECT_EQ(h.In(173, 0, 0, 2), (std::vector<uint8_t>{ 'V', 17 }));
        EXPECT_EQ(h.In(180, 0, 0, 1), (std::vector<uint8_t>{ uint8_t(c.device3 && c.host3) }));
    }
}

TEST(VirtualBusPipe, RequestsFillInOrderAndEndWithTheFrame)
{
    Host h(fake::Settings(fake::Facts()));
    // 1000, 1000, 1000 and the frame's last 72 bytes; the fifth request belongs to the next frame.
    std::vector<std::unique_ptr<Read>> reads;
    for (int i = 0; i < 5; ++i) {
        reads.push_back(std::make_unique<Read>(1000));
        ASSERT_EQ(h.device->SubmitBulk(reads.back()->Request()), Status::Ok);
    }
    EXPECT_FALSE(reads[0]->Done());
    h.Start();
    for (auto& r : reads)
        ASSERT_TRUE(r->Wait());
    for (size_t i = 0; i < reads.size(); ++i) {
        EXPECT_EQ(reads[i]->status, Status::Ok);
        EXPECT_EQ(reads[i]->moved, i == 3 ? 72u : 1000u);
        EXPECT_EQ(reads[i]->calls, 1);
        if (i) {
            EXPECT_EQ(reads[i]->order, reads[i - 1]->order + 1);
        }
    }
    // Head and tail carry the same tag; the next frame has the next one.
    EXPECT_EQ(Word(reads[0]->data, 0), 0x5A7E);
    EXPECT_EQ(Word(reads[3]->data, 68), Word(reads[0]->data, 2));
    EXPECT_EQ(Word(reads[3]->data, 70), 0x3CF0);
    EXPECT_EQ(reads[3]->data[72], 0xEE);
    EXPECT_EQ(Word(reads[4]->data, 0), 0x5A7E);
    EXPECT_EQ(Word(reads[4]->data, 2), uint16_t(Word(reads[0]->data, 2) + 1));
}

TEST(VirtualBusPipe, MarksBAndTheTransferCount)
{
    auto facts = fake::Facts(256, 200);  // 51200 bytes: two units of 49152
    facts.marks = Marks::BTail;
    Host h(fake::Settings(facts));
    h.Out(181, 0, 2);
    h.Start();
    auto good = h.Frame(51200);
    ASSERT_EQ(good->moved, 51200u);
    EXPECT_EQ(Long(good->data, 0), 0xBB00AA11u);
    EXPECT_EQ(Long(good->data, 51196), 0x11AA00BBu);
    for (uint16_t count : { uint16_t(1), uint16_t(3) }) {
        h.Out(181, 0, count);
        h.device->ResetPipe(0x82);
        EXPECT_EQ(h.Frame(51200)->moved, 49152u) << count;
    }
    EXPECT_GE(h.camera.Counters().uSpoiled, 2u);
}

TEST(VirtualBusPipe, FifoHoldsSomeMegabytesAndThenCuts)
{
    Host h(fake::Settings(fake::Facts(2048, 1024)));  // 2 MiB a frame
    h.Set(fake::FRAME_100US, 200);
    h.Start();
    ASSERT_TRUE(Eventually([&] { return h.camera.Counters().uSpoiled >= 3; }));
    h.Set(fake::STREAM, 0);
    // Whatever is left has entered before the stop; nothing is counted twice.
    const auto c = h.camera.Counters();
    EXPECT_EQ(c.uGood, 0u);
    uint64_t frames = 0, bytes = 0;
    for (;; ++frames) {
        Read r(4u << 20);
        ASSERT_EQ(h.device->SubmitBulk(r.Request()), Status::Ok);
        if (!r.Wait(300)) {
            h.device->Abort(0x82);
            EXPECT_EQ(r.status, Status::Cancelled);
            break;
        }
        bytes += r.moved;
    }
    EXPECT_EQ(bytes, 6u << 20);  // two frames in the FIFO and the one being read out
    EXPECT_EQ(frames, 3u);
    const auto d = h.camera.Counters();
    EXPECT_EQ(d.uGood, 3u);
    EXPECT_EQ(d.uStarted, d.uGood + d.uSpoiled + d.uAborted);
}

TEST(VirtualBusPipe, AbortResetAndCloseReturnWithEverythingCompleted)
{
    Host h(fake::Settings(fake::Facts()));
    auto second = h.Open();
    Read mine(100), others(100);
    ASSERT_EQ(h.device->SubmitBulk(mine.Request()), Status::Ok);
    ASSERT_EQ(second->SubmitBulk(others.Request()), Status::Ok);
    h.device->Abort(0x82);
    EXPECT_TRUE(mine.Done());
    EXPECT_EQ(mine.status, Status::Cancelled);
    EXPECT_FALSE(others.Done());
    second.reset();
    EXPECT_EQ(others.status, Status::Cancelled);

    // A reset in the middle of a frame throws its rest away.
    h.Start();
    Read part(100);
    ASSERT_EQ(h.device->SubmitBulk(part.Request()), Status::Ok);
    ASSERT_TRUE(part.Wait());
    h.device->ResetPipe(0x82);
    EXPECT_GE(h.camera.Counters().uAborted, 1u);
    auto whole = h.Frame(SMALL);
    EXPECT_EQ(whole->moved, SMALL);
    EXPECT_EQ(Word(whole->data, 0), 0x5A7E);

    h.Stop();
    Read never(100);
    ASSERT_EQ(h.device->SubmitBulk(never.Request()), Status::Ok);
    EXPECT_FALSE(never.Wait(100));
    EXPECT_EQ(h.device->ResetPort(), Status::Ok);
    EXPECT_EQ(never.status, Status::Cancelled);
    Read wrongPipe(100);
    wrongPipe.Request()->endpoint = 0x86;
    EXPECT_EQ(h.device->SubmitBulk(wrongPipe.Request()), Status::Failed);
}

TEST(VirtualBusPipe, FramePeriodFollowsRegistersClockRateAndLink)
{
    const auto framesIn200ms = [](double rate, double link) {
        auto s = fake::Settings(fake::Facts(256, 160));  // 40 KiB
        s.dLinkMBs = link;
        Host h(s, rate);
        h.Set(fake::FRAME_100US, 200);
        h.Start();
        h.Frame(40960);
        const uint64_t from = h.camera.Counters().uStarted;
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
        while (std::chrono::steady_clock::now() < until)
            h.Frame(40960);
        return int(h.camera.Counters().uStarted - from);
    };
    // The upper bounds are sharp; a loaded machine may fall behind.
    const auto between = [](int n, int low, int high) { return n >= low && n <= high; };
    EXPECT_PRED3(between, framesIn200ms(1, 0), 5, 12);
    EXPECT_PRED3(between, framesIn200ms(5, 0), 20, 55);
    EXPECT_PRED3(between, framesIn200ms(1, 1.0), 3, 6);  // 41 ms a frame at 1 MB/s
}

TEST(VirtualBusFaults, ControlRequestsFailOrTakeTheirTime)
{
    Host h(fake::Settings(fake::Facts()));
    h.camera.Inject({ FaultKind::FailControl, 173, 0, 2 });
    h.camera.Inject({ FaultKind::FailRegister, fake::X, 0, 1 });
    h.camera.Inject({ FaultKind::FailRegister, 0x10000 + 5, 0, 1 });
    EXPECT_EQ(h.In(180, 0, 0, 1).size(), 1u);
    EXPECT_TRUE(h.In(173, 0, 0, 2).empty());
    EXPECT_TRUE(h.In(173, 0, 0, 2).empty());
    EXPECT_EQ(h.In(173, 0, 0, 2).size(), 2u);
    EXPECT_EQ(h.Out(166, fake::Y, 4), Status::Ok);
    EXPECT_EQ(h.Out(166, fake::X, 4), Status::Stall);
    EXPECT_EQ(h.camera.SensorReg(fake::X), 0);
    EXPECT_EQ(h.Out(166, fake::X, 4), Status::Ok);
    EXPECT_EQ(h.Out(189, 5, 9), Status::Stall);
    EXPECT_EQ(h.Out(189, 5, 9), Status::Ok);
    EXPECT_EQ(h.camera.FpgaReg(5), 9);

    const auto timed = [&](uint32_t ms, uint32_t limit) {
        h.camera.Inject({ FaultKind::SlowControl, ms, 0, 1 });
        const auto t0 = std::chrono::steady_clock::now();
        uint32_t moved;
        const Status s = h.device->Control(0x40, 166, fake::X, uint16_t(ms), nullptr, 0, limit, &moved);
        return std::pair(s, std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
    };
    const auto slow = timed(60, 500), late = timed(400, 60);
    EXPECT_EQ(slow.first, Status::Ok);
    EXPECT_GE(slow.second, 59);
    EXPECT_EQ(late.first, Status::TimedOut);
    EXPECT_LT(late.second, 350);
    EXPECT_EQ(h.camera.SensorReg(fake::X), 400);  // carried out all the same
}

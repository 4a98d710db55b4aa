// Virtual cameras as USB/IP devices, at the bytes of the connection. A real kernel as the client: ./dev kernel.
#include <gtest/gtest.h>

#include "FakeProfile.h"
#include "virtual/Usbip.h"

using namespace kovsim;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr uint32_t FAKE_BYTES = 64 * 48;

Bytes Words(std::initializer_list<uint32_t> words)
{
    Bytes b;
    for (uint32_t w : words)
        b.insert(b.end(), { uint8_t(w >> 24), uint8_t(w >> 16), uint8_t(w >> 8), uint8_t(w) });
    return b;
}

const Bytes LIST = Words({ 0x01118005, 0 });

Bytes ImportOf(const std::string& id)
{
    Bytes b = Words({ 0x01118003, 0 });
    b.insert(b.end(), id.begin(), id.end());
    b.resize(40);
    return b;
}

struct Reply {
    int32_t status;
    uint32_t moved;
    Bytes data;
};

// A client of one connection, which hands everything over byte by byte.
struct Client {
    explicit Client(UsbipExports& exports) : session(exports, [] {}) {}
    bool Send(const Bytes& bytes, size_t piece = 1)
    {
        for (size_t at = 0; at < bytes.size(); at += piece)
            if (!session.Receive(std::span(bytes).subspan(at, std::min(piece, bytes.size() - at))))
                return false;
        return true;
    }
    // Up to 5 s for that many bytes.
    Bytes Get(size_t size)
    {
        for (int ms = 0; in.size() < size && ms < 5000; ++ms) {
            session.Step();
            for (auto out = session.Output(); !out.empty(); out = session.Output()) {
                const size_t part = std::min<size_t>(out.size(), 1000);
                in.insert(in.end(), out.begin(), out.begin() + std::ptrdiff_t(part));
                session.Sent(part);
            }
            if (in.size() < size)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        if (in.size() < size)
            throw std::runtime_error("no answer: " + session.Ended());
        const Bytes got(in.begin(), in.begin() + std::ptrdiff_t(size));
        in.erase(in.begin(), in.begin() + std::ptrdiff_t(size));
        return got;
    }
    static uint32_t Field(const Bytes& b, size_t at)
    {
        return uint32_t(b[at] << 24 | b[at + 1] << 16 | b[at + 2] << 8 | b[at + 3]);
    }
    uint32_t Import(const std::string& id)
    {
        Send(ImportOf(id));
        const uint32_t status = Field(Get(8), 4);
        if (status == 0) {
            record = Get(312);
            device = Field(record, 288) << 16 | Field(record, 292);
        }
        return status;
    }
    void Submit(uint32_t sequence, uint32_t endpoint, bool in_, uint32_t length, Bytes setup = Bytes(8), const Bytes& data = {},
                uint32_t flags = 0)
    {
        Bytes b = Words({ 1, sequence, device, in_, endpoint, flags, length, 0, 0, 0 });
        b.insert(b.end(), setup.begin(), setup.end());
        b.insert(b.end(), data.begin(), data.end());
        Send(b);
    }
    void Read(uint32_t sequence, uint32_t length, uint32_t flags = 0) { Submit(sequence, 2, true, length, Bytes(8), {}, flags); }
    void Unlink(uint32_t sequence, uint32_t victim)
    {
        Bytes b = Words({ 2, sequence, device, 0, 0, victim });
        b.resize(48);
        Send(b);
    }
    // The next reply, which is that to the request.
    Reply Await(uint32_t sequence, bool data = true, uint32_t kind = 3)
    {
        const Bytes b = Get(48);
        EXPECT_EQ(Field(b, 0), kind);
        EXPECT_EQ(Field(b, 4), sequence);
        Reply r{ int32_t(Field(b, 20)), kind == 3 ? Field(b, 24) : 0, {} };
        if (data)
            r.data = Get(r.moved);
        return r;
    }
    Reply In(uint8_t type, uint8_t request, uint16_t value, uint16_t index, uint16_t length, uint32_t flags = 0)
    {
        Submit(77, 0, true, length,
               { type, request, uint8_t(value), uint8_t(value >> 8), uint8_t(index), uint8_t(index >> 8), uint8_t(length),
                 uint8_t(length >> 8) },
               {}, flags);
        return Await(77);
    }
    int32_t Out(uint8_t type, uint8_t request, uint16_t value, uint16_t index = 0, const Bytes& data = {})
    {
        Submit(78, 0, false, uint32_t(data.size()),
               { type, request, uint8_t(value), uint8_t(value >> 8), uint8_t(index), uint8_t(index >> 8), uint8_t(data.size()),
                 uint8_t(data.size() >> 8) },
               data);
        return Await(78, false).status;
    }
    void Stream()
    {
        EXPECT_EQ(Out(0x40, 169, 0), 0);
        EXPECT_EQ(Out(0x40, 166, fake::STREAM, 1), 0);
    }

    UsbipSession session;
    Bytes in, record;
    uint32_t device = 0;
};

// The pattern but for the marks of the frame.
void ExpectPattern(const Bytes& frame)
{
    ASSERT_EQ(frame.size(), FAKE_BYTES);
    for (uint32_t i = 4; i < FAKE_BYTES - 4; ++i)
        ASSERT_EQ(frame[i], (7 * (i % 64) + 13 * (i / 64)) % 251) << i;
}

struct Served {
    explicit Served(bool bUsb2 = false) : camera(bus.Plug(Settings(bUsb2))), exports(bus), client(exports)
    {
        client.Import(bUsb2 ? "1-1" : "2-1");
    }
    static CameraSettings Settings(bool bUsb2)
    {
        CameraSettings s = fake::Settings(fake::Facts());
        s.bUSB3Host = !bUsb2;
        return s;
    }
    VirtualBus bus;
    VirtualCamera& camera;
    UsbipExports exports;
    Client client;
};

}  // namespace

TEST(VirtualUsbip, ListsAndLendsEachCameraToOneConnection)
{
    VirtualBus bus;
    VirtualCamera& camera = bus.Plug(fake::Settings(fake::Facts()));
    bus.Plug(Served::Settings(true));
    UsbipExports exports(bus);
    auto a = std::make_unique<Client>(exports);
    Client b(exports);
    a->Send(LIST);
    EXPECT_EQ(a->Get(12), Words({ 0x01110005, 0, 2 }));
    const Bytes high = a->Get(316), super = a->Get(316);
    EXPECT_STREQ(reinterpret_cast<const char*>(&high[256]), "1-2");
    EXPECT_STREQ(reinterpret_cast<const char*>(&super[256]), "2-1");
    EXPECT_EQ(Client::Field(high, 296), 3u);
    EXPECT_EQ(Client::Field(super, 296), 5u);
    EXPECT_EQ(Client::Field(super, 300), 0x0E5AC1FEu);
    EXPECT_EQ(Bytes(super.begin() + 304, super.end()), Bytes({ 0, camera.Firmware(), 0, 0, 0, 1, 1, 1, 0xFF, 0, 0, 0 }));

    EXPECT_EQ(a->Import("2-7"), 4u);
    EXPECT_EQ(a->Import("2-1"), 0u);
    EXPECT_EQ(a->record, Bytes(super.begin(), super.begin() + 312));
    EXPECT_EQ(b.Import("2-1"), 2u);
    b.Send(LIST);
    EXPECT_EQ(b.Get(12), Words({ 0x01110005, 0, 1 }));
    b.Get(316);
    EXPECT_EQ(a->Out(0x40, 166, fake::W, 8), 0);

    a.reset();  // pulls the cable
    EXPECT_EQ(camera.SensorReg(fake::W), 64);
    EXPECT_EQ(b.Import("2-1"), 0u);
    EXPECT_NE(b.record[295], super[295]);  // a new address
}

TEST(VirtualUsbip, ControlRequestsAreAnsweredAsTheFirmwareDoes)
{
    Served s;
    Client& c = s.client;
    EXPECT_EQ(c.In(0x80, 6, 0x0100, 0, 8).data, Bytes({ 18, 1, 0, 3, 0, 0, 0, 9 }));
    EXPECT_EQ(c.In(0x80, 6, 0x0200, 0, 255).moved, 31u);
    EXPECT_EQ(c.In(0x80, 6, 0x0302, 0x409, 255).data, Bytes({ 12, 3, 'S', 0, 'F', 0, 'a', 0, 'k', 0, 'e', 0 }));
    EXPECT_EQ(c.In(0x80, 6, 0x0F00, 0, 5).data, Bytes({ 5, 15, 22, 0, 2 }));
    EXPECT_EQ(c.In(0x80, 6, 0x0700, 0, 9).status, -32);
    EXPECT_EQ(c.Out(0, 9, 1), 0);
    EXPECT_EQ(c.Out(1, 11, 0), 0);
    EXPECT_EQ(c.Out(1, 11, 1), -32);
    EXPECT_EQ(c.Out(0, 48, 0, 0, Bytes(6)), 0);  // SuperSpeed: exit latencies
    EXPECT_EQ(c.Out(0x40, 166, fake::X, 0x1234), 0);
    EXPECT_EQ(c.In(0xC0, 167, fake::X, 0, 2).data, Bytes({ 0x12, 0x34 }));
    EXPECT_EQ(c.In(0xC0, 167, fake::X, 0, 8, 1).status, -121);  // a short answer is none to this host
    EXPECT_EQ(c.Out(0x40, 186, 0, 0, { 1, 2, 3 }), 0);
    EXPECT_EQ(c.In(0xC0, 187, 0, 0, 3).data, Bytes({ 1, 2, 3 }));

    // A slow answer can be given up, and none overtakes it.
    s.camera.Inject({ FaultKind::SlowControl, 60000 });
    c.Submit(1, 0, true, 2, { 0xC0, 167, 0, 0, 0, 0, 2, 0 });
    c.Submit(2, 0, true, 2, { 0xC0, 167, 0, 0, 0, 0, 2, 0 });
    c.Unlink(3, 1);
    EXPECT_EQ(c.Await(3, false, 4).status, -104);
    EXPECT_EQ(s.camera.LostReplies(), 1u);
    c.Unlink(4, 2);
    EXPECT_EQ(c.Await(4, false, 4).status, -104);
}

TEST(VirtualUsbip, BulkReadsEndAsOnTheWire)
{
    for (const bool usb2 : { false, true }) {
        Served s(usb2);
        Client& c = s.client;
        const uint32_t packet = 512;
        c.Read(1, 4096);
        c.Unlink(2, 1);  // nothing has come: it never will be answered
        EXPECT_EQ(c.Await(2, false, 4).status, -104);

        for (uint32_t i = 10; i < 14; ++i)
            c.Read(i, i & 1 ? 4096 : FAKE_BYTES);
        c.Stream();
        for (uint32_t i = 10; i < 14; ++i) {
            const Reply r = c.Await(i);
            EXPECT_EQ(r.status, 0);
            ExpectPattern(r.data);
        }
        c.Unlink(3, 13);  // too late
        EXPECT_EQ(c.Await(3, false, 4).status, 0);

        c.Read(20, 4096, 1);
        EXPECT_EQ(c.Await(20).status, -121);
        c.Read(21, 1000);  // a frame is six packets of 512, three of 1024
        const Reply babble = c.Await(21);
        EXPECT_EQ(babble.status, -75);
        EXPECT_EQ(babble.moved, usb2 ? packet : 0);
        c.Read(22, 4096);
        EXPECT_EQ(c.Await(22).moved, FAKE_BYTES - 2 * packet);

        s.camera.Inject({ FaultKind::StallBulk });
        c.Read(30, 4096);
        const Reply first = c.Await(30);
        if (first.status == 0) {  // it was already on its way
            c.Read(30, 4096);
            EXPECT_EQ(c.Await(30).status, -32);
        }
        c.Read(31, 4096);
        EXPECT_EQ(c.Await(31).status, -32);
        EXPECT_EQ(c.Out(2, 1, 0, 0x82), 0);
        c.Read(32, 4096);
        EXPECT_EQ(c.Await(32).status, 0);

        s.camera.Unplug();
        EXPECT_FALSE(c.session.Step());
        EXPECT_EQ(c.session.Ended(), "the camera was pulled out");
    }
}

// Bad requests end their connection, and the camera is free for the next.
TEST(VirtualUsbip, EndsConnectionsThatBreakTheProtocol)
{
    const auto submit = [](std::vector<uint32_t> words, Bytes setup = Bytes(8)) {
        Bytes b;
        for (uint32_t w : words) {
            const Bytes x = Words({ w });
            b.insert(b.end(), x.begin(), x.end());
        }
        b.insert(b.end(), setup.begin(), setup.end());
        return b;
    };
    const uint32_t ours = 0;  // stands for the device's number
    const struct {
        const char* why;
        Bytes bytes;
        bool imported;
    } cases[] = {
        { "does not speak USB/IP 1.1.1", Words({ 0x01068005, 0 }), false },
        { "asks for the unknown operation 32770", Words({ 0x01118002, 0 }), false },
        { "is for another device", submit({ 1, 5, 0x70007, 1, 0, 0, 0, 0, 0, 0 }), true },
        { "is neither submit nor unlink", submit({ 3, 5, ours, 1, 0, 0, 0, 0, 0, 0 }), true },
        { "has no direction", submit({ 1, 5, ours, 2, 0, 0, 0, 0, 0, 0 }), true },
        { "is isochronous", submit({ 1, 5, ours, 1, 2, 0, 64, 0, 3, 0 }), true },
        { "contradicts its own setup packet", submit({ 1, 5, ours, 1, 0, 0, 0x10000, 0, 0, 0 }, { 0x80, 6, 0, 1, 0, 0, 18, 0 }),
          true },
        { "contradicts its own setup packet", submit({ 1, 5, ours, 0, 0, 0, 18, 0, 0, 0 }, { 0x80, 6, 0, 1, 0, 0, 18, 0 }),
          true },
        { "is for an endpoint that there is not", submit({ 1, 5, ours, 0, 2, 0, 64, 0, 0, 0 }), true },
        { "is for an endpoint that there is not", submit({ 1, 5, ours, 1, 3, 0, 64, 0, 0, 0 }), true },
        { "asks for more than 64 MiB", submit({ 1, 5, ours, 1, 2, 0, 0x7FFFFFFF, 0, 0, 0 }), true },
        { "asks for more than 64 MiB", submit({ 1, 5, ours, 1, 2, 0, 0xFFFFFFFF, 0, 0xFFFFFFFF, 0 }), true },
    };
    VirtualBus bus;
    bus.Plug(fake::Settings(fake::Facts()));
    UsbipExports exports(bus);
    for (const auto& t : cases) {
        SCOPED_TRACE(t.why);
        Client c(exports);
        Bytes bytes = t.bytes;
        if (t.imported) {
            ASSERT_EQ(c.Import("2-1"), 0u);
            if (Client::Field(bytes, 8) == ours)
                std::copy_n(Words({ c.device }).begin(), 4, bytes.begin() + 8);
        }
        EXPECT_FALSE(c.Send(bytes, 13));
        EXPECT_TRUE(c.session.Ended().ends_with(t.why)) << c.session.Ended();
        EXPECT_FALSE(c.Send(LIST));
    }
}

// A client that asks and never reads is not listened to any more.
TEST(VirtualUsbip, KeepsItsMemoryWithinBounds)
{
    Served s;
    int requests = 0;
    for (; s.client.session.WantsInput() && requests < 2000; ++requests)
        s.client.Submit(1, 0, true, 0xFFFF, { 0xC0, 187, 0, 0, 0, 0, 0xFF, 0xFF });
    EXPECT_LT(requests, 600);
    EXPECT_GT(requests, 500);
}

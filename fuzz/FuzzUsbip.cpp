// What a USB/IP client sends, in pieces: of each the first byte is its length, and 255 plugs the camera out and in.
#include <algorithm>
#include <cstdlib>
#include <vector>

#include "virtual/Usbip.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 4096)
        return 0;
    static kovsim::VirtualBus& bus = *new kovsim::VirtualBus(1000);
    static kovsim::VirtualCamera& camera = [&]() -> kovsim::VirtualCamera& {
        kovsim::CameraSettings s;
        s.wProductId = 0xC02A;  // the smallest of USB 3
        s.scene = kovsim::Scene::Dark();
        return bus.Plug(s);
    }();
    kovsim::UsbipExports exports(bus);
    kovsim::UsbipSession session(exports, [] {});
    for (size_t at = 0; at < size;) {
        const uint8_t length = data[at++];
        if (length == 255)
            camera.PowerCycle();
        const size_t n = std::min<size_t>(length, size - at);
        const std::vector<uint8_t> piece(data + at, data + at + n);  // of exactly its size
        at += n;
        const bool more = session.WantsInput() && session.Receive(piece) && session.Step();
        while (!session.Output().empty())
            session.Sent(std::min<size_t>(session.Output().size(), 1 << 16));
        if (!more)
            break;
    }
    return 0;
}

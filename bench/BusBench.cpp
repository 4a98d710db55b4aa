// What a host waits for KOVGetNumOfConnectedCameras with eight cameras plugged: on the virtual bus, and behind libusb in a
// fake system.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "KOVCamera2.h"
#include "bench/Yardsticks.h"
#include "platform/UsbAdapter.h"
#include "virtual/VirtualBus.h"

#ifdef KOV_BENCH_UMOCKDEV
#  include "platform/posix/LibusbStack.h"
#  include "umock/MockUsb.h"
#endif

namespace bench {

namespace {

constexpr double LIMIT_MS = 3;
constexpr int CAMERAS = 8;
constexpr uint16_t g_Models[CAMERAS] = { 0xC07A, 0xC07B, 0xC09A, 0xC04B, 0xC01A, 0xC03A, 0xC11A, 0xC0CA };

void PlugAll(kovsim::VirtualBus& bus)
{
    for (const uint16_t id : g_Models) {
        kovsim::CameraSettings settings;
        settings.wProductId = id;
        settings.scene = kovsim::Scene::Dark();
        bus.Plug(settings);
    }
}

double CountMs()
{
    const auto start = std::chrono::steady_clock::now();
    if (KOVGetNumOfConnectedCameras() != CAMERAS)
        std::abort();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int CountBehindLibusb()
{
#ifdef KOV_BENCH_UMOCKDEV
    kovsim::VirtualBus bus;
    PlugAll(bus);
    MockBus system;
    std::vector<std::unique_ptr<usbstack::IDevice>> devices;
    std::vector<std::unique_ptr<MockUsb>> usb;
    for (const usbstack::DeviceInfo& d : bus.Enumerate()) {
        devices.emplace_back(bus.Open(d.path, nullptr));
        usb.push_back(std::make_unique<MockUsb>(system, uint8_t{ 2 }, "1." + std::to_string(usb.size() + 1), *devices.back()));
    }
    platform::SetUsbStack(&usbstack::LibusbStack());
    const double first = CountMs();
    std::vector<double> ms(21);
    std::generate(ms.begin(), ms.end(), CountMs);
    std::nth_element(ms.begin(), ms.begin() + 10, ms.end());
    std::printf("%g %g\n", first, ms[10]);
    usb.clear();
    return 0;
#else
    return 1;
#endif
}

void RegisterBusBenchmarks()
{
    benchmark::RegisterBenchmark("count cameras/kov/8 virtual",
                                 [](benchmark::State& state) {
                                     kovsim::VirtualBus bus;
                                     PlugAll(bus);
                                     platform::SetUsbStack(&bus);
                                     state.counters["first_ms"] = CountMs();
                                     state.counters[BESIDE + "limit"] = LIMIT_MS;
                                     for (auto _ : state)
                                         state.SetIterationTime(CountMs() / 1e3);
                                     platform::SetUsbStack(nullptr);
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(20);
#ifdef KOV_BENCH_UMOCKDEV
    if (std::system("command -v umockdev-wrapper >/dev/null") != 0)
        return;
    char path[4096] = {};
    if (readlink("/proc/self/exe", path, sizeof path - 1) < 0)
        return;
    const std::string command = "TMPDIR=/tmp umockdev-wrapper '" + std::string(path) + "' " + COUNT_BEHIND_LIBUSB;
    benchmark::RegisterBenchmark("count cameras/kov/8 libusb",
                                 [command](benchmark::State& state) {
                                     for (auto _ : state) {
                                         double first = 0, ms = 0;
                                         FILE* const p = popen(command.c_str(), "r");
                                         if (p == nullptr || std::fscanf(p, "%lf %lf", &first, &ms) != 2)
                                             state.SkipWithError("no fake system");
                                         if (p != nullptr)
                                             pclose(p);
                                         state.counters["first_ms"] = first;
                                         state.counters[BESIDE + "limit"] = LIMIT_MS;
                                         state.SetIterationTime(ms / 1e3);
                                     }
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseManualTime()
        ->Iterations(1);
#endif
}

}  // namespace bench

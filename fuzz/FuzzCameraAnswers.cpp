// What a camera answers and sends, from the opening to a frame: registers, versions, temperature, ID and table from the flash,
// and chunks of frames. Nothing may hang, crash or write behind the host's buffer. The clock runs fast, so waits are short.
#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <mutex>
#include <vector>

#include "KOVCamera2.h"
#include "fuzz/FuzzMarks.h"
#include "platform/Platform.h"
#include "platform/UsbAdapter.h"
#include "tests/support/RecordingStack.h"

namespace {

constexpr uint16_t PRODUCTS[] = { 0xC11B, 0xC07A, 0xC0CD, 0xC02B };  // with marks of all forms; the third is cooled

// The input again and again.
class Bytes {
public:
    Bytes(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    uint8_t Next() { return m_size == 0 ? 0 : m_data[m_at++ % m_size]; }
    bool Over() const { return m_at >= m_size; }

private:
    const uint8_t* m_data;
    size_t m_size, m_at = 0;
};

// Of each chunk of a frame: kind of the length, of the marks, and one byte of the pixels.
int64_t Chunk(Bytes& in, uint8_t* p, uint32_t n)
{
    if (in.Over())
        return -1;
    const uint8_t length = in.Next(), marks = in.Next();
    const uint32_t size = length < 200 ? n : n * uint32_t{ length } / 255;
    std::fill_n(p, size, in.Next());
    if (size >= 16)
        PutMarks(p, size, marks);
    return size;
}

// Cameras of all the models on one bus. Those that are open ask for their temperature at any time.
struct Bench {
    Bench()
    {
        setenv("XDG_CONFIG_HOME", "/nonexistent", 1);  // no settings from run to run
        platform::SetClockRate(20000);
        std::atexit([] {  // no thread of theirs is left behind
            for (int32_t id = 0; id < static_cast<int32_t>(std::size(PRODUCTS)); ++id)
                KOVCloseCamera(id);
        });
        for (const uint16_t product : PRODUCTS) {
            FakeUsbDevice& device = stack.Add(product);
            device.keepsTimeLimits = true;
            device.OnIn = [this](const RecordedRequest&, uint8_t* p, uint16_t n) {
                const std::lock_guard lock(mutex);
                std::generate_n(p, n, [&] { return answers.Next(); });
            };
            device.OnBulk = [this](uint8_t* p, uint32_t n) {
                const std::lock_guard lock(mutex);
                return Chunk(frames, p, n);
            };
            devices.push_back(&device);
        }
    }
    void Take(const uint8_t* data, size_t size)
    {
        const std::lock_guard lock(mutex);
        answers = frames = Bytes(data, size);
    }
    RecordingStack stack;
    std::vector<FakeUsbDevice*> devices;
    std::mutex mutex;
    Bytes answers{ nullptr, 0 }, frames{ nullptr, 0 };
    bool open[std::size(PRODUCTS)] = {};
    unsigned runs = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2 || size > 4096)
        return 0;
    static Bench& bench = *new Bench;
    const int id = data[0] % std::size(PRODUCTS);
    bench.Take(data + 1, size - 1);
    platform::SetUsbStack(&bench.stack);
    // An opening takes longer than all the rest, so most inputs meet an open camera.
    bool& open = bench.open[id];
    if (bench.runs++ % 16 == 0 && open) {
        KOVCloseCamera(id);
        open = false;
    }
    if (!open) {
        open = KOVGetNumOfConnectedCameras() == std::size(PRODUCTS) && KOVOpenCamera(id) == KOV_SUCCESS;
        if (!open)
            KOVCloseCamera(id);
    }
    if (open) {
        int32_t value = 0;
        KOV_BOOL automatic = KOV_FALSE;
        KOV_ID user{};
        KOVGetID(id, &user);
        KOVGetControlValue(id, CTRL_TEMPERATURE, &value, &automatic);
        KOVSetControlValue(id, CTRL_EXPOSURE, 1000, KOV_FALSE);
        const bool wide = data[0] & 4;
        if (KOVSetROIFormat(id, 64, 64, 1, wide ? IMG_RAW16 : IMG_RAW8) == KOV_SUCCESS &&
            KOVStartVideoCapture(id) == KOV_SUCCESS) {
            const size_t bytes = 64 * 64 * (wide ? 2 : 1);
            const std::unique_ptr<uint8_t[]> image(new uint8_t[bytes]);
            for (int i = 0; i < 6; ++i) {
                for (FakeUsbDevice* const device : bench.devices)
                    device->Pump();
                KOVGetVideoData(id, image.get(), static_cast<int32_t>(bytes), 5);
            }
            KOVStopVideoCapture(id);
        }
    }
    bench.Take(nullptr, 0);
    for (FakeUsbDevice* const device : bench.devices) {
        device->Clear();
        device->ClearEvents();
    }
    return 0;
}

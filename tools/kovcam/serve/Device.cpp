#include "kovcam/serve/Device.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>
#include <utility>

#include "common/Files.h"
#include "kovcam/serve/CameraClass.h"
#include "kovcam/serve/Measure.h"

namespace kovserve {

namespace {

void Check(KOV_ERROR_CODE code)
{
    if (code != KOV_SUCCESS)
        throw CommandError(kovtools::ErrorText(code));
}

size_t BytesOf(IMG_TYPE type) { return type == IMG_RGB24 ? 3 : type == IMG_RAW16 ? 2 : 1; }

ControlState StateOf(int id, const KOV_CONTROL_CAPS& caps)
{
    ControlState c;
    c.type = caps.ControlType;
    c.name = caps.Name;
    c.description = caps.Description;
    c.min = caps.MinValue;
    c.max = caps.MaxValue;
    c.standard = caps.DefaultValue;
    c.canBeAutomatic = caps.IsAutoSupported != KOV_FALSE;
    c.writable = caps.IsWritable != KOV_FALSE;
    KOV_BOOL automatic = KOV_FALSE;
    KOVGetControlValue(id, c.type, &c.value, &automatic);
    c.automatic = automatic != KOV_FALSE;
    return c;
}

}  // namespace

// Buffers of frames that nobody looks at any more are used again; a large allocation a frame costs page faults.
class FramePool : public std::enable_shared_from_this<FramePool> {
public:
    std::shared_ptr<Frame> Take()
    {
        std::unique_ptr<Frame> frame;
        {
            const std::lock_guard lock(m_mutex);
            if (!m_free.empty()) {
                frame = std::move(m_free.back());
                m_free.pop_back();
            }
        }
        if (!frame)
            frame = std::make_unique<Frame>();
        return { frame.release(), [pool = shared_from_this()](Frame* f) { pool->Give(std::unique_ptr<Frame>(f)); } };
    }

private:
    void Give(std::unique_ptr<Frame> frame)
    {
        const std::lock_guard lock(m_mutex);
        if (m_free.size() < 4)
            m_free.push_back(std::move(frame));
    }
    std::mutex m_mutex;
    std::vector<std::unique_ptr<Frame>> m_free;
};

Device::Device(Gate& gate, int id) : m_gate(gate), m_id(id), m_pool(std::make_shared<FramePool>())
{
    const Gate::Alone alone(m_gate);
    if (const KOV_ERROR_CODE code = KOVOpenCamera(id); code != KOV_SUCCESS) {
        KOVCloseCamera(id);
        Check(code);
    }
    KOVGetCameraProperty(&m_info, id);
    m_object = ObjectOf(id);
}

Device::~Device()
{
    const Gate::Alone alone(m_gate);
    if (m_video)
        KOVStopVideoCapture(m_id);
    if (KOVCloseCamera(m_id) == KOV_SUCCESS)
        return;
    LetGo(*m_object);
    alone.Stuck().push_back(m_id);
}

bool Device::Answers() const
{
    const Gate::Shared inside(m_gate);
    return kovserve::Answers(*m_object);
}

Setup Device::ReadSetup()
{
    const Gate::Shared inside(m_gate);
    Setup out;
    for (const KOV_CONTROL_CAPS& caps : kovtools::ControlsOf(m_id))
        out.controls.push_back(StateOf(m_id, caps));
    out.region = ActualRegionInside(&out.type);
    KOV_BOOL dark = KOV_FALSE;
    KOVEnableDarkSubtract(m_id, "", &dark);
    out.darkInUse = dark != KOV_FALSE;
    out.darkName = out.darkInUse ? m_darkName : "";
    DarkState(m_id, &out.hotPixels, &out.hotPixelsOn);
    m_settings = kovtools::ReadCameraState(m_id);
    return out;
}

int32_t Device::Get(KOV_CONTROL_TYPE type, bool* automatic) const
{
    const Gate::Shared inside(m_gate);
    int32_t value = 0;
    KOV_BOOL isAutomatic = KOV_FALSE;
    Check(KOVGetControlValue(m_id, type, &value, &isAutomatic));
    if (automatic != nullptr)
        *automatic = isAutomatic != KOV_FALSE;
    return value;
}

std::optional<int32_t> Device::Find(KOV_CONTROL_TYPE type) const
{
    const Gate::Shared inside(m_gate);
    return kovtools::ReadControl(m_id, type);
}

void Device::Set(KOV_CONTROL_TYPE type, int32_t value, bool automatic)
{
    const Gate::Shared inside(m_gate);
    Check(KOVSetControlValue(m_id, type, value, automatic ? KOV_TRUE : KOV_FALSE));
}

// ---- regions

Region Device::ActualRegionInside(IMG_TYPE* type) const
{
    Region r;
    Check(KOVGetROIFormat(m_id, &r.width, &r.height, &r.bin, type));
    Check(KOVGetStartPos(m_id, &r.x, &r.y));
    return r;
}

Region Device::ActualRegion(IMG_TYPE* type) const
{
    const Gate::Shared inside(m_gate);
    return ActualRegionInside(type);
}

void Device::ApplyRegion(const Region& region, IMG_TYPE type)
{
    const Gate::Shared inside(m_gate);
    const int bin = std::max(1, region.bin);
    const int fullWidth = m_info.MaxWidth / bin, fullHeight = m_info.MaxHeight / bin;
    Region r = region.width > 0 && region.height > 0 ? region : Region{ 0, 0, fullWidth, fullHeight, bin };
    r.width = std::clamp(r.width, 8, fullWidth);
    r.height = std::clamp(r.height, 8, fullHeight);
    const bool whole = r.width == fullWidth && r.height == fullHeight;
    if (!whole || bin > 1) {  // widths go by 8, heights by 2
        r.width -= r.width % 8;
        r.height -= r.height % 2;
    }
    KOV_ERROR_CODE code = KOVSetROIFormat(m_id, r.width, r.height, bin, type);
    // Some models take only sizes whose pixels fill whole kilobytes.
    if (code == KOV_ERROR_BAD_SIZE) {
        r.width -= r.width % 32;
        r.height -= r.height % 32;
        code = KOVSetROIFormat(m_id, std::max(32, r.width), std::max(32, r.height), bin, type);
    }
    Check(code);
    if (!whole)
        Check(KOVSetStartPos(m_id, std::max(0, r.x), std::max(0, r.y)));
}

Device::Cut Device::ApplyExact(const Region& want, IMG_TYPE type)
{
    const Gate::Shared inside(m_gate);
    const auto covers = [&](const Region& got) {
        return got.bin == want.bin && got.x <= want.x && got.y <= want.y && got.x + got.width >= want.x + want.width &&
               got.y + got.height >= want.y + want.height;
    };
    const int fullWidth = m_info.MaxWidth / want.bin, fullHeight = m_info.MaxHeight / want.bin;
    const auto up = [](int value, int step) { return (value + step - 1) / step * step; };
    for (const int step : { 8, 32 }) {
        const int x = want.x / step * step, y = want.y / step * step;
        const int width = std::min(up(want.x + want.width - x, step), fullWidth / step * step);
        const int height = std::min(up(want.y + want.height - y, step), fullHeight / 2 * 2);
        if (width < 1 || height < 1 || KOVSetROIFormat(m_id, width, height, want.bin, type) != KOV_SUCCESS)
            continue;
        KOVSetStartPos(m_id, std::min(x, fullWidth - width), std::min(y, fullHeight - height));
        IMG_TYPE actual{};
        const Region got = ActualRegionInside(&actual);
        if (covers(got))
            return { { want.x - got.x, want.y - got.y, want.width, want.height, want.bin }, false };
    }
    Check(KOVSetROIFormat(m_id, m_info.MaxWidth, m_info.MaxHeight, 1, type));
    return { want, want.bin > 1 };
}

void CutFrame(Frame& frame, const Device::Cut& cut)
{
    const Region& part = cut.part;
    if (cut.binHere)
        BinFrame(frame, part.bin);
    if (part.x == 0 && part.y == 0 && part.width == frame.width && part.height == frame.height)
        return;
    const size_t pixel = BytesOf(frame.type), row = static_cast<size_t>(part.width) * pixel;
    for (int y = 0; y < part.height; ++y)
        std::memmove(
            frame.pixels.data() + static_cast<size_t>(y) * row,
            frame.pixels.data() +
                (static_cast<size_t>(y + part.y) * static_cast<size_t>(frame.width) + static_cast<size_t>(part.x)) * pixel,
            row);
    frame.pixels.resize(row * static_cast<size_t>(part.height));
    if (frame.mosaic)
        frame.mosaic = kovtools::Exchanged(*frame.mosaic, (part.x & 1) != 0, (part.y & 1) != 0);
    frame.width = part.width;
    frame.height = part.height;
    frame.startX += part.x;
    frame.startY += part.y;
}

// ---- frames

std::shared_ptr<Frame> Device::NewFrameInside()
{
    IMG_TYPE type = IMG_RAW8;
    const Region r = ActualRegionInside(&type);
    auto frame = m_pool->Take();
    frame->pixels.resize(static_cast<size_t>(r.width) * static_cast<size_t>(r.height) * BytesOf(type));
    // What changes rarely is as it was at the last look; asking for all of it takes transfers.
    static_cast<kovtools::CameraState&>(*frame) = m_settings;
    frame->width = r.width;
    frame->height = r.height;
    frame->bin = r.bin;
    frame->startX = r.x;
    frame->startY = r.y;
    frame->type = type;
    const auto value = [this](KOV_CONTROL_TYPE control) {
        int32_t v = 0;
        KOV_BOOL automatic = KOV_FALSE;
        KOVGetControlValue(m_id, control, &v, &automatic);
        return v;
    };
    frame->exposure = value(CTRL_EXPOSURE) / 1e6;
    frame->gain = value(CTRL_GAIN);
    frame->mosaic.reset();
    if (kovtools::IsMosaic(*frame))
        frame->mosaic = kovtools::DeliveredPattern(*frame);
    return frame;
}

void Device::StartVideo()
{
    if (m_video)
        return;
    const Gate::Shared inside(m_gate);
    Check(KOVStartVideoCapture(m_id));
    m_video = true;
}

void Device::StopVideo()
{
    if (!m_video)
        return;
    const Gate::Shared inside(m_gate);
    KOVStopVideoCapture(m_id);
    m_video = false;
}

std::shared_ptr<Frame> Device::NextFrame(std::chrono::milliseconds limit)
{
    const Gate::Shared inside(m_gate);
    std::shared_ptr<Frame> frame = NewFrameInside();
    const KOV_ERROR_CODE code = KOVGetVideoData(m_id, frame->pixels.data(), static_cast<int32_t>(frame->pixels.size()),
                                                static_cast<int32_t>(limit.count()));
    if (code == KOV_ERROR_TIMEOUT)
        return nullptr;
    Check(code);
    frame->arrival = std::chrono::steady_clock::now();
    frame->end = Clock::now();
    frame->start = frame->end - std::chrono::microseconds(std::llround(frame->exposure * 1e6));
    KOVGetDroppedFrames(m_id, &frame->dropped);
    return frame;
}

void Device::StartExposure()
{
    const Gate::Shared inside(m_gate);
    Check(KOVStartExposure(m_id));
}

void Device::StopExposure()
{
    const Gate::Shared inside(m_gate);
    KOVStopExposure(m_id);
}

KOV_EXPOSURE_STATUS Device::ExposureStatus() const
{
    const Gate::Shared inside(m_gate);
    KOV_EXPOSURE_STATUS status = EXP_FAILED;
    Check(KOVGetExpStatus(m_id, &status));
    return status;
}

std::shared_ptr<Frame> Device::FetchExposure()
{
    const Gate::Shared inside(m_gate);
    std::shared_ptr<Frame> frame = NewFrameInside();
    Check(KOVGetDataAfterExp(m_id, frame->pixels.data(), static_cast<int32_t>(frame->pixels.size())));
    return frame;
}

// ---- dark frames and hot pixels

void Device::UseDark(const std::filesystem::path& path)
{
    const Gate::Shared inside(m_gate);
    KOV_BOOL on = KOV_TRUE;
    Check(path.empty() ? KOVDisableDarkSubtract(m_id)
                       : KOVEnableDarkSubtract(m_id, std::filesystem::absolute(path).string().c_str(), &on));
    m_darkName = kovtools::TextOf(path.filename());
}

void Device::BeginDark()
{
    const Gate::Shared inside(m_gate);
    kovserve::BeginDark(m_id);
}

bool Device::IsCollectingDark(int* done, int* frames) const
{
    const Gate::Shared inside(m_gate);
    return IsCollecting(m_id, done, frames);
}

void Device::DropDark()
{
    const Gate::Shared inside(m_gate);
    kovserve::DropDark(m_id);
}

std::string Device::SaveDark(const std::filesystem::path& path)
{
    const Gate::Shared inside(m_gate);
    return kovserve::SaveDark(m_id, path);
}

void Device::ChangeHotPixels(const std::string& what)
{
    const Gate::Shared inside(m_gate);
    kovserve::ChangeHotPixels(m_id, what);
}

}  // namespace kovserve

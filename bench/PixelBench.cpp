// The pixel operations on full frames, one thread.
#include <cstring>
#include <memory>
#include <random>
#include <vector>

#include "bench/Yardsticks.h"
#include "imaging/CAlgorithm.h"
#include "imaging/Kernels.h"

#ifdef KOV_BENCH_OPENCV
#  include <opencv2/core.hpp>
#  include <opencv2/imgproc.hpp>
#endif
#ifdef KOV_BENCH_DC1394
#  include <dc1394/dc1394.h>
#endif

namespace bench {

namespace {

// Buffers of one frame size. The pages are touched before the first measurement.
struct Frames {
    explicit Frames(Size s)
        : pixels(static_cast<size_t>(s.w) * static_cast<size_t>(s.h)), raw(pixels), raw16(pixels), out(3 * pixels),
          between(3 * pixels), dark(pixels), lut(256)
    {
        std::mt19937 random(1);
        for (size_t i = 0; i < pixels; ++i) {
            raw[i] = static_cast<uint8_t>(random());
            raw16[i] = static_cast<uint16_t>(random());
            dark[i] = static_cast<uint16_t>(random() & 31);
        }
        for (size_t i = 0; i < 256; ++i)
            lut[i] = static_cast<uint8_t>(255 - i);
    }
    size_t pixels;
    std::vector<uint8_t> raw;
    std::vector<uint16_t> raw16;
    std::vector<uint8_t> out, between;
    std::vector<uint16_t> dark;
    std::vector<uint8_t> lut;
};

void RegisterDemosaic(const Lazy<Frames>& f, Size s, const std::shared_ptr<CAlgorithm>& a)
{
    Register("demosaic", "kov", s, [=] { a->Bayer2RGB24_RG(f->raw.data(), f->out.data(), s.w, s.h); });
    Register("demosaic", "copy of the result", s, [=] { std::memcpy(f->out.data(), f->between.data(), 3 * f->pixels); });
    for (const char* op : { "demosaic", "demosaic with gains" })
        Register(op, FLOOR, s, [=] { std::memcpy(f->out.data(), f->between.data(), 2 * f->pixels); });
    // The gain tables belong to the process: they are set for this one operation and put back.
    Register("demosaic with gains", "kov", s, [=] {
        a->SetRGBWB(70, 90);
        a->Bayer2RGB24_RG(f->raw.data(), f->out.data(), s.w, s.h);
        a->SetRGBWB(50, 50);
    });
    Register("luminance from raw", "kov", s, [=] {
        const imaging::Gains gains = imaging::SnapshotGains();
        imaging::DemosaicY8({ f->raw.data(), s.w, s.h, imaging::PHASE_RG, &gains }, 0, s.h, f->out.data());
    });
    Register("luminance from raw", "kov in two steps", s, [=] {
        a->Bayer2RGB24_RG(f->raw.data(), f->between.data(), s.w, s.h);
        a->RGB2Y8(f->between.data(), f->out.data(), s.w, s.h);
    });
    Register("luminance", "kov", s, [=] { a->RGB2Y8(f->between.data(), f->out.data(), s.w, s.h); });
    Register("gamma, both flips, demosaic", "kov", s, [=] {
        a->Gamma(f->raw.data(), f->lut.data(), s.w, s.h);
        a->SoftMisc(f->raw.data(), s.w, s.h, 1, false, true, true);
        a->Bayer2RGB24_BG(f->raw.data(), f->out.data(), s.w, s.h);
    });
#ifdef KOV_BENCH_OPENCV
    const auto raw = [=] { return cv::Mat(s.h, s.w, CV_8UC1, f->raw.data()); };
    const auto colour = [=] { return cv::Mat(s.h, s.w, CV_8UC3, f->out.data()); };
    const auto bilinear = [=] {
        cv::Mat dst = colour();
        cv::demosaicing(raw(), dst, cv::COLOR_BayerBG2BGR);
    };
    Register("demosaic", "OpenCV bilinear", s, bilinear);
    Register("demosaic with gains", "OpenCV bilinear", s, bilinear);
    Register("luminance from raw", "OpenCV Bayer to grey", s, [=] {
        cv::Mat dst(s.h, s.w, CV_8UC1, f->out.data());
        cv::demosaicing(raw(), dst, cv::COLOR_BayerBG2GRAY);
    });
    Register("luminance", "OpenCV colour to grey", s, [=] {
        cv::Mat src(s.h, s.w, CV_8UC3, f->between.data()), dst(s.h, s.w, CV_8UC1, f->out.data());
        cv::cvtColor(src, dst, cv::COLOR_BGR2GRAY);
    });
    Register("gamma, both flips, demosaic", "OpenCV chain", s, [=] {
        cv::Mat src = raw(), mapped(s.h, s.w, CV_8UC1, f->between.data());
        cv::Mat turned(s.h, s.w, CV_8UC1, f->between.data() + f->pixels), dst = colour();
        cv::LUT(src, cv::Mat(1, 256, CV_8UC1, f->lut.data()), mapped);
        cv::flip(mapped, turned, -1);
        cv::demosaicing(turned, dst, cv::COLOR_BayerRG2BGR);
    });
#endif
#ifdef KOV_BENCH_DC1394
    Register("demosaic", "libdc1394 bilinear", s, [=] {
        dc1394_bayer_decoding_8bit(f->raw.data(), f->out.data(), static_cast<uint32_t>(s.w), static_cast<uint32_t>(s.h),
                                   DC1394_COLOR_FILTER_RGGB, DC1394_BAYER_METHOD_BILINEAR);
    });
#endif
}

void RegisterInPlace(const Lazy<Frames>& f, Size s, const std::shared_ptr<CAlgorithm>& a)
{
    const auto copy8 = [=] { std::memcpy(f->out.data(), f->raw.data(), f->pixels); };
    Register("gamma", "kov", s, [=] { a->Gamma(f->raw.data(), f->lut.data(), s.w, s.h); });
    Register("gamma", "plain loop", s, [=] {
        for (uint8_t& v : f->raw)
            v = f->lut[v];
    });
    Register("dark subtraction", "kov", s, [=] { a->SubtractDark(f->raw.data(), s.w, s.h, 8, f->dark.data()); });
    Register("dark subtraction", "reference form", s,
             [=] { imaging::reference::SubtractDark(f->raw.data(), f->raw.data(), f->pixels, 8, f->dark.data()); });
    for (const char* op : { "gamma", "dark subtraction" })
        Register(op, "copy of the frame", s, copy8);

    struct {
        const char* name;
        bool rows, mirror;
        int cvCode;
    } flips[] = {
        { "flip left to right", false, true, 1 },
        { "flip top to bottom", true, false, 0 },
        { "both flips", true, true, -1 },
    };
    for (const auto& flip : flips) {
        Register(flip.name, "kov", s, [=] { a->SoftMisc(f->raw.data(), s.w, s.h, 1, false, flip.rows, flip.mirror); });
        Register(flip.name, "copy of the frame", s, copy8);
#ifdef KOV_BENCH_OPENCV
        Register(flip.name, "OpenCV flip", s, [=] {
            cv::Mat src(s.h, s.w, CV_8UC1, f->raw.data()), dst(s.h, s.w, CV_8UC1, f->out.data());
            cv::flip(src, dst, flip.cvCode);
        });
#endif
    }
#ifdef KOV_BENCH_OPENCV
    Register("gamma", "OpenCV LUT", s, [=] {
        cv::Mat src(s.h, s.w, CV_8UC1, f->raw.data()), dst(s.h, s.w, CV_8UC1, f->out.data());
        cv::LUT(src, cv::Mat(1, 256, CV_8UC1, f->lut.data()), dst);
    });
#endif

    // In place, so the content is another one at each turn; the time does not depend on it.
    for (int bin = 2; bin <= 4; ++bin) {
        const std::string by = " bin " + std::to_string(bin);
        const int w = s.w / bin / 2 * 2, h = s.h / bin / 2 * 2;
        Register("mono 8-bit" + by, "kov", s, [=] { a->MonoBin(f->raw.data(), nullptr, w, h, bin, false); });
        Register("mono 16-bit" + by, "kov", s, [=] { a->MonoBin(nullptr, f->raw16.data(), w, h, bin, true); });
        Register("colour 8-bit" + by, "kov", s, [=] { a->ColorRAWBin(f->raw.data(), nullptr, w, h, bin, false); });
        Register("colour 16-bit" + by, "kov", s, [=] { a->ColorRAWBin(nullptr, f->raw16.data(), w, h, bin, true); });
        for (const char* kind : { "mono 8-bit", "colour 8-bit" })
            Register(kind + by, "copy of the frame", s, copy8);
        for (const char* kind : { "mono 16-bit", "colour 16-bit" })
            Register(kind + by, "copy of the frame", s, [=] { std::memcpy(f->out.data(), f->raw16.data(), 2 * f->pixels); });
    }
}

}  // namespace

void RegisterPixelBenchmarks()
{
#ifdef KOV_BENCH_OPENCV
    cv::setNumThreads(1);
#endif
    const auto a = std::make_shared<CAlgorithm>();
    a->RGBYUV_Init();
    for (const Size s : g_Sizes) {
        const Lazy<Frames> f([=] { return std::make_unique<Frames>(s); });
        RegisterDemosaic(f, s, a);
        RegisterInPlace(f, s, a);
    }
}

}  // namespace bench

// What a camera answers to vendor requests: registers, versions, temperatures, user ID and hot-pixel table, through the code
// that asks for them. A byte chooses what is asked; each answer is a byte (failed, cut short, or whole) and its data.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "camera/HotPixels.h"
#include "fuzz/FuzzCamera.h"
#include "fuzz/FuzzLink.h"
#include "platform/Platform.h"
#include "sensors/cobalt/Cobalt.h"
#include "sensors/garnet/Garnet.h"
#include "sensors/iolite/Iolite.h"
#include "sensors/quartz/Quartz.h"

namespace {

constexpr int WIDTH = 64, HEIGHT = 48;
constexpr int QUESTIONS = 8;  // in one run

void Must(bool b)
{
    if (!b)
        std::abort();
}

struct Bench {
    Bench()
    {
        setenv("XDG_CONFIG_HOME", "/nonexistent", 1);  // no settings
        for (CCameraBase* const c :
             { static_cast<CCameraBase*>(&cam), static_cast<CCameraBase*>(&cobalt), static_cast<CCameraBase*>(&garnet),
               static_cast<CCameraBase*>(&iolite), static_cast<CCameraBase*>(&quartz) })
            link.Connect(*c);
        link.OnVendor = [this](const SetupPacket& s, uint8_t* p, uint32_t n) { return Answer(s, p, n); };
    }
    int32_t Answer(const SetupPacket& s, uint8_t* p, uint32_t n)
    {
        const uint8_t kind = in.Next();
        if (kind == 0xFF)
            return -1;
        const uint32_t moved = kind >= 0xF0 ? n * (kind & 15u) / 16 : n;
        if (s.bmRequestType & 0x80)
            in.Take(p, moved);
        return static_cast<int32_t>(moved);
    }
    FuzzInput in;
    FuzzLink link{ 0xC11B };
    FuzzCamera cam{ WIDTH, HEIGHT };
    CCameraSCobaltCol cobalt;
    CCameraSGarnetMono garnet;
    CCameraSIoliteMono iolite;
    CCameraSQuartzMono quartz;
};

// The table for the regions that the input names.
void FitTable(FuzzCamera& cam, FuzzInput& in)
{
    cam.m_iBin = 1 + in.Next() % 4;
    cam.m_bHardwareBin = in.Next() & 1;
    cam.m_iWidth = in.Next() % (WIDTH / cam.m_iBin + 1);
    cam.m_iHeight = in.Next() % (HEIGHT / cam.m_iBin + 1);
    cam.m_iStartX = in.Next() % (WIDTH - cam.m_iWidth * cam.m_iBin + 1);
    cam.m_iStartY = in.Next() % (HEIGHT - cam.m_iHeight * cam.m_iBin + 1);
    FitHotPixels(cam);
    int inDark = 0, inTable = 0;
    cam.GetHPSum(&inDark, &inTable);
    Must(inTable >= 0 && inTable <= WIDTH * HEIGHT);
    const auto pixels = HotPixelsOfRegion(cam);
    Must(std::is_sorted(pixels.begin(), pixels.end()));
    for (const int32_t p : pixels)
        Must(p >= 0 && p < WIDTH * HEIGHT);
    cam.HandleHotPixels();
}

void Ask(Bench& b)
{
    FuzzCamera& cam = b.cam;
    uint8_t bytes[4] = { 0xA5, 0xA5, 0xA5, 0xA5 };
    uint16_t word = 0xA5A5;
    uint32_t number = 0;
    switch (b.in.Next() % 16) {
    case 0: Must(cam.ReadCameraRegister(0x3000, &word) || word == 0); break;
    case 1: Must(cam.ReadCameraRegisterByte(0x3000, bytes) || bytes[0] == 0); break;
    case 2: cam.WriteCameraRegister_B(0x3000, b.in.Next(), b.in.Next(), b.in.Next16()); break;
    case 3: cam.WriteCameraRegisterByte_B(0x3000, b.in.Next(), b.in.Next(), b.in.Next()); break;
    case 4:
        cam.GetFirmwareVer(bytes);
        Must(cam.GetFWVer() == bytes[0]);
        break;
    case 5:
        cam.GetFPGAVer(reinterpret_cast<uint8_t*>(&word), bytes);
        for (const uint8_t part : bytes)
            Must(part < 16);
        cam.GetFPGAVerVal(bytes, &number);
        break;
    case 6: cam.IsUSB3Host(); break;
    case 7: {
        const float degrees = cam.GetADTemp();
        Must(degrees == 0 || (degrees >= static_cast<float>(cam.m_iLUTMin) && degrees <= static_cast<float>(cam.m_iLUTMax)));
        break;
    }
    case 8: {
        const float degrees = cam.ReadDigitalTemp();
        Must(degrees >= -128 && degrees < 128);
        break;
    }
    case 9: {
        KOV_ID id, before;
        std::memset(&before, 0xA5, sizeof before);
        id = before;
        Must(cam.ReadIDFromSPI(&id) || std::memcmp(&id, &before, sizeof id) == 0);
        break;
    }
    case 10: {
        KOV_ID id{};
        id.id[0] = b.in.Next();
        cam.WriteIDToSPI(id);
        break;
    }
    case 11:
        cam.ChangeHPCStatus(HPC_LOAD, nullptr);
        FitTable(cam, b.in);
        break;
    case 12: {
        for (int i = b.in.Next() % 8; i > 0; --i)
            cam.m_pDarkBuf[b.in.Next16() % (WIDTH * HEIGHT)] = 100;
        const bool kept = cam.SaveHPCTable();
        FitTable(cam, b.in);
        Must(!kept || cam.m_iHPCNum >= 0);
        break;
    }
    case 13:
        Must(std::isfinite(b.garnet.GetSensorTemp()));
        b.garnet.SetRGBBalance(50, 50, false);
        break;
    case 14: {
        bool automatic = false;
        char offset[4] = {};
        b.iolite.GetBLOffset(&automatic, &offset[0], &offset[1], &offset[2], &offset[3]);
        b.quartz.SetGain(b.in.Next(), false);
        break;
    }
    default:
        b.cobalt.changeConfig();
        b.cobalt.getState(bytes);
        b.cobalt.ReadVar16(1, 2);
        break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size > 512)
        return 0;
    static Bench& bench = *new Bench;
    bench.in = FuzzInput(data, size);
    bench.cam.SetHPCStates(false);
    bench.cam.m_fSensorTemp = 0;
    std::fill_n(bench.cam.m_pDarkBuf, WIDTH * HEIGHT, uint16_t{ 0 });
    for (int i = 0; i < QUESTIONS && !bench.in.Over(); ++i)
        Ask(bench);
    return 0;
}

// Long exposures: beyond what the sensor's shutter registers hold, the host stops the read-out or the clock, times the
// exposure with sleeps and lets one frame come out. One frame a pass, in video as in snap.
#include <algorithm>
#include <cstdint>

#include "base/Trace.h"
#include "capture/CaptureLoop.h"

namespace {

constexpr uint16_t FPGA_HOLD = 1, FPGA_GATE = 11, FPGA_LINE_LENGTH = 19;
constexpr uint16_t GARNET_SHUTTER = 0x3012, IOLITE_SHUTTER = 9, IOLITE_RESTART = 11;
constexpr uint16_t DUNITE_SHUTTER = 11, EBONY_MODE = 0x0200, EBONY_STATE = 0x8200;
constexpr uint16_t LONG_SHUTTER = 12287;        // lines that the sensor counts itself while the host keeps the clock
constexpr uint64_t LONG_FROM = 4000000;         // us; Garnet and Jasper
constexpr uint64_t LONG_FROM_SMALL = 10000000;  // us; Iolite, Agate, Dunite
constexpr int SLOW_CLOCK = 24;                  // MHz

}  // namespace

ChunkQueue::Result CaptureLoop::LongFrame()
{
    m_kept = m_cam.m_lExposure;
    switch (m_form.longWay) {
    case LongWay::Garnet: return LongGarnet();
    case LongWay::Cobalt: return LongCobalt();
    case LongWay::Iolite: return LongIolite();
    case LongWay::Dunite: return LongDunite();
    case LongWay::Kyanite: ExposeKyanite(); break;
    case LongWay::Gate: ExposeGate(); break;
    case LongWay::Lapis: ExposeLapis(); break;
    case LongWay::Ebony: ExposeEbony(); break;
    case LongWay::Jasper: ExposeJasper(); break;
    }

    ChunkQueue::Waits w = FrameWaits();
    if (m_form.longWay != LongWay::Jasper)
        w.first = m_form.longFirst != 0 ? m_form.longFirst : uint32_t(std::max<int64_t>(m_frameTime / 1000, 2000));
    if (m_form.longWay != LongWay::Ebony) {
        w.isCapped = false;
        w.next = m_form.longFixed != 0 ? m_form.longFixed : uint32_t(Per(m_frameTime / 1000, m_queue.Count())) + m_form.longShare;
    }
    w.failed = m_form.longFixed != 0 ? m_form.longFixed : 1;
    const ChunkQueue::Result r = m_queue.ReadFrame(w);

    if (m_form.longWay == LongWay::Kyanite) {
        m_cam.SetGain(m_cam.m_iGain, m_cam.m_bAutoGain);
        m_cam.SetStartPos(m_cam.m_iStartX, m_cam.m_iStartY);
        m_cam.SetBrightness(m_cam.m_iBrightness);
    } else if (m_form.longWay == LongWay::Jasper && m_cam.m_lExposure < LONG_FROM) {
        m_cam.m_bLongExp = false;
        m_cam.SetExp(m_cam.m_lExposure, m_cam.m_bAutoExp);
    }
    return r;
}

// A stop or a change of the exposure ends the steps.
void CaptureLoop::SleepSteps(int64_t step, int64_t count)
{
    for (int64_t i = 0; i < count && IsExposing(); ++i)
        Sleep(step);
}

void CaptureLoop::SleepModern()
{
    const int64_t ms = int64_t(m_kept / 1000);
    if (ms > 1000)
        SleepSteps(200, ms / 200);
    else
        Sleep(ms);
}

void CaptureLoop::ExposeKyanite()
{
    m_cam.WriteCameraRegister(96, 17);
    Fpga(FPGA_HOLD, 1);
    Fpga(FPGA_LINE_LENGTH, uint8_t(m_cam.m_iHMAX & 0xFF));
    Fpga(FPGA_LINE_LENGTH + 1, uint8_t((m_cam.m_iHMAX >> 8) & 0xFF));
    Fpga(FPGA_HOLD, 0);
    Fpga(FPGA_GATE, 1);
    m_model.SleepSensor();
    Fpga(FPGA_GATE, 17);
    SleepModern();
    Fpga(FPGA_GATE, 1);
    m_model.WakeUpSensor();
    Sleep(10);
    Fpga(FPGA_GATE, 0);
}

void CaptureLoop::ExposeGate()
{
    Fpga(FPGA_GATE, 1);
    SleepModern();
    Fpga(FPGA_GATE, 0);
}

void CaptureLoop::ExposeLapis()
{
    const bool old = m_cam.m_FirmwareVer < 18;
    const int64_t ms = int64_t(m_kept / 1000);
    if (!old)
        Fpga(FPGA_GATE, 1);
    if (ms <= 1000) {
        Sleep(ms - 200);
    } else {
        // Steps kept back from the end.
        const int64_t guard = ms < 30000 ? 1 : ms < 100000 ? 2 : ms < 200000 ? 4 : 5;
        for (int64_t i = 1; i <= ms / 200 - guard && IsExposing(); ++i) {
            Sleep(200);
            // Old firmware gives up requests that nothing has answered for too long.
            if (old && ms >= 30000 && i == 100)
                m_queue.KeepAlive();
        }
        if (old && m_cam.m_lExposure != m_kept) {
            m_cam.WriteCameraRegisterByte(530, 1);
            m_cam.WriteCameraRegisterByte(512, 1);
            m_model.StartSensorStreaming();
        }
        if (!old)
            Sleep(guard * 200);
    }
    if (!old)
        Fpga(FPGA_GATE, 0);
}

void CaptureLoop::ExposeEbony()
{
    Fpga(FPGA_GATE, 1);
    Sleep(1000);
    uint8_t value = 0;
    m_cam.ReadCameraRegisterByte(EBONY_STATE, &value);
    m_cam.WriteCameraRegisterByte(EBONY_MODE, value | 2);
    SleepSteps(200, (int64_t(m_kept / 1000) - 1000) / 200);  // the first second has passed
    m_cam.WriteCameraRegisterByte(EBONY_MODE, value);
    Sleep(10);
    Fpga(FPGA_GATE, 0);
}

void CaptureLoop::ExposeJasper()
{
    constexpr int SLOWEST = 2320;  // kHz
    if (m_cam.m_iCMOSClk != SLOWEST) {
        m_cam.WriteCameraRegisterByte(0x305D, 13);
        m_cam.m_iCMOSClk = SLOWEST;
        m_queue.Flush();
    }
    SleepModern();
}

// --- USB 2 ----------------------------------------------------------------------------------------------------------

// ms in which the sensor runs through its own shutter count and reads out.
int64_t CaptureLoop::ReadoutAllowance() const
{
    return Per(int64_t{ m_cam.m_iHMAX } * LONG_SHUTTER + 26, m_cam.m_iCMOSClk) / 1000 + 200;
}

void CaptureLoop::SleepReadoutAware(int64_t wait)
{
    const int64_t ms = int64_t(m_kept / 1000);
    if (ms <= 1000) {
        Sleep(ms);
        return;
    }
    SleepSteps(500, (ms - wait) / 500);
    Sleep((ms - wait - 200) % 500);
}

void CaptureLoop::SleepWhole()
{
    const int64_t ms = int64_t(m_kept / 1000);
    SleepSteps(500, ms / 500);
    if (IsExposing())
        Sleep(ms % 500);
}

ChunkQueue::Result CaptureLoop::LongGarnet()
{
    TraceLine("Begin long exp %d\n", int(m_kept));
    const int32_t gain = m_cam.m_iGain;
    Sleep(200);
    m_cam.StopSensorCLK();
    const int64_t wait = ReadoutAllowance();
    TraceLine("wait:%ld\n", long(wait));
    SleepReadoutAware(wait);
    m_cam.StartSensorCLK();
    const ChunkQueue::Result r = m_queue.ReadFrame({ uint32_t(wait), 500, false, 500, 0, true });
    TraceLine("Long exp:Get one Frame %d\n", int(r.received));

    // What could not be written while the clock stood still.
    m_cam.SetBrightness(m_cam.m_iBrightness);
    if (m_cam.m_iGain != gain)
        m_cam.SetGain(m_cam.m_iGain, m_cam.m_bAutoGain);
    m_cam.GetSensorTemp();

    const int64_t lines = ExposureLines(m_cam, m_form.family, SLOW_CLOCK);
    if (lines < 65535 && m_cam.m_lExposure < LONG_FROM) {
        TraceLine("-----Exit long exp mode\n");
        m_cam.StartSensorCLK();
        m_cam.m_bLongExp = false;
        if (m_cam.m_lExposure < uint64_t(SHORT_EXPOSURE)) {
            TraceLine("exp < %dms recover speed\n", 100);
            m_model.SetCMOSClk();
            if (m_form.family == Family::GarnetS)
                m_cam.SetFPSPerc(m_cam.m_iFPSPerc, m_cam.m_bAutoFPS);
        } else {
            TraceLine("exp > %dms Set slowest speed\n", 100);
        }
        m_cam.WriteCameraRegister(GARNET_SHUTTER, uint16_t(lines));
    }
    return r;
}

ChunkQueue::Result CaptureLoop::LongCobalt()
{
    m_cam.WriteCameraRegister(GARNET_SHUTTER, LONG_SHUTTER);
    Sleep(200);
    m_cam.SendCMD(REQ_STOP_SENSOR_CLOCK);
    const int64_t wait = ReadoutAllowance();
    SleepReadoutAware(wait);
    m_cam.SendCMD(REQ_START_SENSOR_CLOCK);
    const ChunkQueue::Result r = m_queue.ReadFrame({ uint32_t(wait), 500, false, 500, 0, true });

    const int64_t lines = ExposureLines(m_cam, m_form.family, m_cam.m_iCMOSClk);
    if (lines <= 65535 && m_cam.m_lExposure <= 60000000) {
        m_cam.m_bLongExp = false;
        m_model.ApplyGain();
        m_cam.SendCMD(REQ_START_SENSOR_CLOCK);
        Sleep(100);
        m_cam.WriteCameraRegister(GARNET_SHUTTER, uint16_t(lines));
        m_model.ApplyExp();
        m_cam.SendCMD(REQ_START_STREAM);
    }
    return r;
}

ChunkQueue::Result CaptureLoop::LongIolite()
{
    m_cam.WriteCameraRegister(IOLITE_SHUTTER, 0x3000);
    m_cam.WriteCameraRegister(IOLITE_MODE, 33024);
    m_cam.WriteCameraRegister(IOLITE_RESTART, 1);
    Sleep(100);
    m_cam.SendCMD(REQ_STOP_SENSOR_CLOCK);
    SleepWhole();
    m_cam.SendCMD(REQ_START_SENSOR_CLOCK);
    const ChunkQueue::Result r = m_queue.ReadFrame({ m_form.longFirst, m_form.longFixed, false, m_form.longFixed, 0 });

    const int64_t lines = ExposureLines(m_cam, m_form.family, m_cam.m_iCMOSClk);
    if (lines < 16383 && m_cam.m_lExposure < LONG_FROM_SMALL) {
        m_cam.m_bLongExp = false;
        m_cam.SendCMD(m_cam.m_iCMOSClk == SLOW_CLOCK ? REQ_CLOCK_24MHZ : REQ_CLOCK_48MHZ);
        m_cam.WriteCameraRegister(IOLITE_MODE, 0x8000);
        m_cam.WriteCameraRegister(IOLITE_SHUTTER, uint16_t(lines));
    }
    return r;
}

ChunkQueue::Result CaptureLoop::LongDunite()
{
    m_cam.WriteCameraRegister(DUNITE_SHUTTER, 0x6000);
    Sleep(100);
    m_cam.SendCMD(REQ_STOP_SENSOR_CLOCK);
    SleepWhole();
    m_cam.SendCMD(REQ_START_SENSOR_CLOCK);
    Sleep(100);
    const ChunkQueue::Result r = m_queue.ReadFrame({ m_form.longFirst, m_form.longFixed, false, m_form.longFixed, 20 });

    const int64_t lines = ExposureLines(m_cam, m_form.family, m_cam.m_iCMOSClk);
    if (lines < 32767 && m_cam.m_lExposure < LONG_FROM_SMALL) {
        m_cam.m_bLongExp = false;
        m_cam.WriteCameraRegister(DUNITE_RESTART, 1);
        m_cam.WriteCameraRegister(DUNITE_SHUTTER, uint16_t(lines));
    }
    return r;
}

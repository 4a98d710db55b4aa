#include "usb/CCameraFX3.h"

#include <algorithm>
#include <cstdio>
#include <initializer_list>

#include "base/Log.h"
#include "platform/InterfaceGuids.h"
#include "usb/CUsbLink.h"
#include "usb/EndPoints.h"

namespace {

constexpr uint32_t CONTROL_TIMEOUT = 500;  // ms
constexpr uint8_t FPGA_VERSION = 29, FPGA_SUBVERSION_HIGH = 30, FPGA_SUBVERSION_LOW = 31;

// Bits first to end - 1 of a register of `width` bits; none where first is not below end.
uint16_t FieldMask(unsigned first, unsigned end, unsigned width)
{
    unsigned mask = 0;
    for (unsigned b = first; b < end && b < width; ++b)
        mask |= 1u << b;
    return uint16_t(mask);
}

uint16_t Merge(uint16_t old, uint16_t mask, uint16_t value, unsigned first)
{
    const uint16_t shifted = first < 16 ? uint16_t(value << first) : uint16_t(0);
    return uint16_t((old & ~mask) | (shifted & mask));
}

const char* NameOf(uint8_t request)
{
    switch (request) {
    case REQ_FX2_RAM: return "bridge RAM";
    case REQ_CLOCK_24MHZ: return "clock 24 MHz";
    case REQ_CLOCK_48MHZ: return "clock 48 MHz";
    case REQ_WRITE_REG16: return "write 16-bit register";
    case REQ_READ_REG16: return "read 16-bit register";
    case REQ_START_STREAM: return "start stream";
    case REQ_STOP_STREAM: return "stop stream";
    case REQ_MODE_8BIT: return "8-bit mode";
    case REQ_MODE_16BIT: return "16-bit mode";
    case REQ_FIRMWARE_VERSION: return "firmware version";
    case REQ_STOP_SENSOR_CLOCK: return "stop sensor clock";
    case REQ_START_SENSOR_CLOCK: return "start sensor clock";
    case REQ_GUIDE_ON: return "guide on";
    case REQ_GUIDE_OFF: return "guide off";
    case REQ_COOLER_DA: return "cooler power";
    case REQ_DIGITAL_TEMP: return "digital temperature";
    case REQ_IS_USB3_HOST: return "USB 3 host";
    case REQ_TRANSFER_COUNT: return "transfer count";
    case REQ_WRITE_REG8: return "write 8-bit register";
    case REQ_READ_REG8: return "read 8-bit register";
    case REQ_I2C_WRITE: return "I2C write";
    case REQ_I2C_READ: return "I2C read";
    case REQ_READ_FPGA: return "read FPGA register";
    case REQ_WRITE_FPGA: return "write FPGA register";
    case REQ_GPIF_32DQ: return "32-bit bus";
    case REQ_FLASH_WRITE: return "flash write";
    case REQ_FLASH_READ: return "flash read";
    case REQ_FLASH_ERASE: return "flash erase";
    case REQ_ANALOG_TEMP: return "analog temperature";
    default: return "request";
    }
}

// Register or address, value, and of the data as many bytes as a register has, or the first of a block.
void LogRequest(bool input, uint8_t request, uint16_t value, uint16_t index, const uint8_t* data, int32_t length, bool ok,
                uint32_t error)
{
    if (!logging::Enabled(LogLevel::Debug))
        return;
    constexpr int32_t SHOWN = 8;
    char hex[3 * SHOWN + 1] = "";
    for (int32_t i = 0; data && i < std::min(length, SHOWN); ++i)
        std::snprintf(hex + ptrdiff_t{ i } * 3, 4, " %02x", data[i]);
    char result[24] = "ok";
    if (!ok)
        std::snprintf(result, sizeof result, "failed, error %u", error);
    KOV_LOG(Debug, "%s %u %s: 0x%04x 0x%04x, %d bytes%s%s: %s", input ? "IN" : "OUT", unsigned{ request }, NameOf(request),
            unsigned{ value }, unsigned{ index }, int{ length }, hex, length > SHOWN ? " ..." : "", result);
}

}  // namespace

// The tenth on every model. Only ReConnectCamera reads it, and the models that call it have that one.
CCameraFX3::CCameraFX3() : m_guid(platform::g_InterfaceGuids[platform::GUID_COUNT - 1]) {}

CCameraFX3::~CCameraFX3() { ReplaceLink(nullptr); }

void CCameraFX3::ReplaceLink(CUsbLink* link)
{
    CUsbLink* old = nullptr;
    {
        const platform::Lock lock(m_csUsb);
        if (m_pUsbLink == link)
            return;
        old = m_pUsbLink;
        m_pUsbLink = link;
    }
    // Outside the lock: closing waits for requests that are out.
    delete old;
}

bool CCameraFX3::HasLink()
{
    const platform::Lock lock(m_csUsb);
    return m_pUsbLink != nullptr;
}

bool CCameraFX3::Transfer(bool input, uint8_t request, uint16_t value, uint16_t index, uint8_t* data, int32_t* piLength)
{
    bool ok = false;
    uint32_t error = platform::ERROR_GONE;
    {
        const platform::Lock lock(m_csUsb);
        // m_bOpen once more, under the lock: the link that a reconnection has just put here is still being built.
        CCyControlEndPoint* const ep = m_bOpen && m_pUsbLink ? m_pUsbLink->m_pControl : nullptr;
        if (ep) {
            ep->m_iTimeOut = CONTROL_TIMEOUT;
            ep->m_iTarget = 0;
            ep->m_iReqType = 2;
            ep->m_iDirection = input ? 1 : 0;
            ep->m_iReqCode = request;
            ep->m_iValue = value;
            ep->m_iIndex = index;
            ok = ep->XferData(data, piLength);
            error = platform::LastError();
        } else {
            *piLength = 0;
        }
    }
    LogRequest(input, request, value, index, data, *piLength, ok, error);
    return ok;
}

bool CCameraFX3::Command(bool input, uint8_t request, uint16_t value, uint16_t index, void* data, int32_t length)
{
    return m_bOpen && Transfer(input, request, value, index, static_cast<uint8_t*>(data), &length);
}

bool CCameraFX3::SendCMD(uint8_t opcode) { return Command(false, opcode, 0, 0); }

bool CCameraFX3::SendCMD(uint8_t opcode, uint16_t value, uint16_t index, bool input, uint8_t* data, int32_t* piLength)
{
    return m_bOpen && Transfer(input, opcode, value, index, data, piLength);
}

bool CCameraFX3::WriteCameraRegister(uint16_t reg, uint16_t value) { return Command(false, REQ_WRITE_REG16, reg, value); }

bool CCameraFX3::ReadCameraRegister(uint16_t reg, uint16_t* output)
{
    uint8_t ab[2] = {};
    const bool ok = Command(true, REQ_READ_REG16, reg, 0, ab, sizeof ab);
    *output = ok ? uint16_t((ab[0] << 8) + ab[1]) : uint16_t(0);
    return ok;
}

bool CCameraFX3::WriteCameraRegisterByte(uint16_t reg, uint8_t value) { return Command(false, REQ_WRITE_REG8, reg, value); }

bool CCameraFX3::ReadCameraRegisterByte(uint16_t reg, uint8_t* output)
{
    uint8_t b = 0;
    const bool ok = Command(true, REQ_READ_REG8, reg, 0, &b, 1);
    *output = ok ? b : uint8_t(0);
    return ok;
}

bool CCameraFX3::WriteCameraRegister_B(uint16_t reg, uint8_t firstBit, uint8_t lastBit, uint16_t value)
{
    uint16_t old = 0;
    ReadCameraRegister(reg, &old);
    return WriteCameraRegister(reg, Merge(old, FieldMask(firstBit, lastBit + 1u, 16), value, firstBit));
}

// QUIRK: the end bit stays out of the field, unlike in the 16-bit form. Equal numbers read the register and write the
// old value back.
bool CCameraFX3::WriteCameraRegisterByte_B(uint16_t reg, uint8_t firstBit, uint8_t endBit, uint8_t value)
{
    uint8_t old = 0;
    ReadCameraRegisterByte(reg, &old);
    return WriteCameraRegisterByte(reg, uint8_t(Merge(old, FieldMask(firstBit, endBit, 8), value, firstBit)));
}

bool CCameraFX3::WriteSONYREG(uint16_t reg, uint8_t value) { return WriteCameraRegisterByte(reg, value); }
bool CCameraFX3::ReadSONYREG(uint16_t reg, uint8_t* output) { return ReadCameraRegisterByte(reg, output); }
bool CCameraFX3::WriteFPGAREG(uint16_t reg, uint16_t value) { return Command(false, REQ_WRITE_FPGA, reg, value); }
bool CCameraFX3::ReadFPGAREG(uint16_t reg, uint8_t* output) { return Command(true, REQ_READ_FPGA, reg, 0, output, 1); }
bool CCameraFX3::EnableGPIF32DQ(bool enable) { return Command(false, REQ_GPIF_32DQ, enable ? 1 : 0, 0); }

bool CCameraFX3::GetFirmwareVer(uint8_t* ver)
{
    if (!m_bOpen)
        return false;
    uint8_t ab[2] = {};
    const bool ok = Command(true, REQ_FIRMWARE_VERSION, 0, 0, ab, sizeof ab);
    // QUIRK: a reply without the letter reads as version 1, and so does no reply at all.
    *ver = ab[0] == 'V' ? ab[1] : uint8_t(1);
    m_iFWVer = *ver;
    return ok;
}

bool CCameraFX3::GetFPGAVer(uint8_t* ver, uint8_t sub[4])
{
    if (!m_bOpen)
        return false;
    uint8_t high = 0, low = 0;
    ReadFPGAREG(FPGA_VERSION, ver);
    ReadFPGAREG(FPGA_SUBVERSION_HIGH, &high);
    const bool ok = ReadFPGAREG(FPGA_SUBVERSION_LOW, &low);
    sub[0] = high >> 4;
    sub[1] = high & 15;
    sub[2] = low >> 4;
    sub[3] = low & 15;
    m_fpgaVer = *ver;
    m_fpgaVerVal = uint32_t(sub[0]) << 24 | uint32_t(sub[1]) << 16 | uint32_t(sub[2]) << 8 | sub[3];
    return ok;
}

bool CCameraFX3::GetFPGAVerVal(uint8_t* ver, uint32_t* val)
{
    if (!m_bOpen)
        return false;
    *ver = m_fpgaVer;
    *val = m_fpgaVerVal;
    return true;
}

bool CCameraFX3::IsUSB3Host()
{
    uint8_t b = 0;
    const bool ok = Command(true, REQ_IS_USB3_HOST, 0, 0, &b, 1);
    return ok && b == 1;
}

// Under the lock, one step at a time, so that the link cannot go away meanwhile. The abort returns when no request of
// the image endpoint is out any more; its completions need no lock of ours.
bool CCameraFX3::ResetEndPoint(uint8_t)
{
    if (!m_bOpen)
        return false;
    for (const bool reset : { false, true }) {
        const platform::Lock lock(m_csUsb);
        if (!m_bOpen || !m_pUsbLink || !m_pUsbLink->m_pBulkIn)
            continue;
        if (reset)
            m_pUsbLink->m_pBulkIn->Reset();
        else
            m_pUsbLink->m_pBulkIn->Abort();
    }
    return true;
}

bool CCameraFX3::ResetDevice()
{
    if (!m_bOpen)
        return false;
    const platform::Lock lock(m_csUsb);
    if (m_bOpen && m_pUsbLink)
        m_pUsbLink->ResetParentPort();
    return true;
}

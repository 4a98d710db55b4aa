// What the firmware of a virtual camera answers: standard and vendor control requests.
#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "virtual/Camera.h"

namespace kovsim {

using usbstack::Status;

namespace {

enum VendorRequest : uint8_t {
    RAM = 160,
    CLOCK_24 = 163,
    CLOCK_48 = 164,
    WRITE_REG16 = 166,
    READ_REG16 = 167,
    START_USB = 169,  // with data: the EEPROM loader's
    STOP_USB = 170,
    BITS_8 = 171,
    BITS_16 = 172,
    VERSION = 173,
    STOP_CLOCK = 174,
    START_CLOCK = 175,
    GUIDE_ON = 176,
    GUIDE_OFF = 177,
    COOLER_DA = 178,
    DIGITAL_TEMP = 179,
    HOST_IS_USB3 = 180,
    TRANSFER_COUNT = 181,
    WRITE_REG8 = 182,
    READ_REG8 = 183,
    I2C_WRITE = 186,
    I2C_READ = 187,
    READ_FPGA = 188,
    WRITE_FPGA = 189,
    GPIF_32DQ = 190,
    FLASH_WRITE = 194,
    FLASH_READ = 195,
    FLASH_ERASE = 196,
    THERMISTOR = 199,
};

constexpr double POLL_US = 1000;             // the firmware asks the flash before it answers
constexpr uint32_t FPGA_REGISTER = 0x10000;  // in the argument of FailRegister

}  // namespace

Camera::Answer Camera::Ask(uint64_t uPlug, uint8_t bRequestType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex,
                           uint16_t wLength, std::vector<uint8_t> data)
{
    const Setup s{ (bRequestType & 0x80) != 0, bRequest, wValue, wIndex, wLength };
    const bool vendor = (bRequestType & 0x60) == 0x40;
    bool ok;
    Lock lock(m_mutex);
    if (!m_bPresent || uPlug != m_uPlug)
        return { Status::Gone, {}, 0, m_uControlAborts };
    m_dReplyUs = 0;
    if (vendor) {
        uint32_t ms = 0;
        if (TakeFault(FaultKind::SlowControl, nullptr, &ms))
            m_dReplyUs = ms * 1000.0;
        ok = !TakeFault(FaultKind::FailControl, [&](uint32_t a) { return a == 0 || a == bRequest; }) && Vendor(s, data);
        if (!ok && s.bIn)
            data.clear();
        if (s.bIn && data.size() > wLength)
            data.resize(wLength);
        Log(s, data);
    } else {
        ok = Standard(bRequestType, s, data);
        if (s.bIn && data.size() > wLength)
            data.resize(wLength);
    }
    return { ok ? Status::Ok : Status::Stall, std::move(data), m_dReplyUs, m_uControlAborts };
}

Status Camera::Control(uint64_t uPlug, uint8_t bRequestType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex, uint8_t* pData,
                       uint16_t wLength, uint32_t dwTimeoutMs, uint32_t* pdwMoved)
{
    if (pdwMoved)
        *pdwMoved = 0;
    const bool in = (bRequestType & 0x80) != 0;
    std::vector<uint8_t> sent;
    if (!in && wLength)
        sent.assign(pData, pData + wLength);
    const Answer answer = Ask(uPlug, bRequestType, bRequest, wValue, wIndex, wLength, std::move(sent));
    const double limit = dwTimeoutMs * 1000.0, delay = answer.dDelayUs;
    if (delay > 0) {
        const auto until = m_clock.RealTime(m_clock.Now() + (limit > 0 ? std::min(delay, limit) : delay));
        Lock lock(m_mutex);
        const bool givenUp = m_controlWake.wait_until(lock, until, [&] { return answer.uAborts != m_uControlAborts; });
        const bool late = limit > 0 && delay > limit;
        if (givenUp || late) {
            ++m_uLostReplies;
            return givenUp ? Status::Cancelled : Status::TimedOut;
        }
    }
    if (answer.status != Status::Ok)
        return answer.status;
    const uint32_t moved = in ? uint32_t(answer.data.size()) : wLength;
    if (in && moved)
        std::memcpy(pData, answer.data.data(), moved);
    if (pdwMoved)
        *pdwMoved = moved;
    return Status::Ok;
}

void Camera::AbortControl(uint64_t uPlug)
{
    Lock lock(m_mutex);
    if (uPlug == m_uPlug)
        ++m_uControlAborts;
    m_controlWake.notify_all();
}

void Camera::NoteLostReply()
{
    Lock lock(m_mutex);
    ++m_uLostReplies;
}

bool Camera::Standard(uint8_t bRequestType, const Setup& s, std::vector<uint8_t>& data)
{
    enum {
        GET_STATUS = 0,
        CLEAR_FEATURE = 1,
        SET_FEATURE = 3,
        GET_DESCRIPTOR = 6,
        GET_CONFIGURATION = 8,
        SET_CONFIGURATION = 9,
        GET_INTERFACE = 10,
        SET_INTERFACE = 11,
        SET_SEL = 48,
        SET_ISOCH_DELAY = 49
    };
    enum { U1_ENABLE = 48, U2_ENABLE = 49 };
    const bool super = GetSpeed() == usbstack::Speed::Super;
    const int recipient = bRequestType & 0x1F;  // 0 device, 1 interface, 2 endpoint
    switch (s.bRequest) {
    case GET_STATUS: data = { uint8_t(recipient == 2 && uint8_t(s.wIndex) == BULK_IN && m_bHalted), 0 }; return s.bIn;
    case CLEAR_FEATURE:
    case SET_FEATURE:
        if (!s.bIn && recipient == 0 && super && (s.wValue == U1_ENABLE || s.wValue == U2_ENABLE))
            return true;
        if (s.bIn || recipient != 2 || s.wIndex != BULK_IN || s.wValue != 0)
            return false;
        m_bHalted = s.bRequest == SET_FEATURE;
        Flush();
        if (m_bHalted)
            m_bus.Pump();
        return true;
    case GET_DESCRIPTOR:
        data = Descriptor(Descriptors(), uint8_t(s.wValue >> 8), uint8_t(s.wValue));
        return s.bIn && !data.empty();
    case GET_CONFIGURATION: data = { m_bConfiguration }; return s.bIn;
    case SET_CONFIGURATION:
        if (s.bIn || s.wValue > 1)
            return false;
        m_bConfiguration = uint8_t(s.wValue);
        return true;
    case GET_INTERFACE: data = { 0 }; return s.bIn && s.wIndex == 0;
    case SET_INTERFACE: return !s.bIn && s.wIndex == 0 && s.wValue == 0;
    case SET_SEL: return super && !s.bIn && s.wLength == 6;
    case SET_ISOCH_DELAY: return super && !s.bIn && s.wLength == 0;
    default: return false;
    }
}

bool Camera::Vendor(const Setup& s, std::vector<uint8_t>& data)
{
    if (s.bRequest == RAM)
        return VendorLoad(s, data);
    if (m_memory.State() == Cpu::Loader && s.bRequest == START_USB) {
        if (uint32_t(s.wValue) + s.wLength > m_eeprom.size() || s.wLength > 4096)
            return false;
        if (s.bIn) {
            data.assign(m_eeprom.begin() + s.wValue, m_eeprom.begin() + s.wValue + s.wLength);
        } else {
            std::copy(data.begin(), data.end(), m_eeprom.begin() + s.wValue);
            m_bEepromWritten = true;
        }
        return true;
    }
    if (m_memory.State() != Cpu::Firmware)
        return false;

    // Requests that answer something, and all others: none does both.
    const bool asks = s.bRequest == READ_REG16 || s.bRequest == VERSION || s.bRequest == DIGITAL_TEMP ||
                      s.bRequest == HOST_IS_USB3 || s.bRequest == READ_REG8 || s.bRequest == I2C_READ ||
                      s.bRequest == READ_FPGA || s.bRequest == FLASH_READ || s.bRequest == THERMISTOR;
    if (asks != s.bIn && s.bRequest != FLASH_ERASE)
        return false;
    const auto broken = [&](uint32_t reg) { return TakeFault(FaultKind::FailRegister, [reg](uint32_t a) { return a == reg; }); };

    switch (s.bRequest) {
    case START_USB:
        if (s.wLength)
            return false;  // no loader runs
        [[fallthrough]];
    case CLOCK_24:
    case CLOCK_48:
    case BITS_8:
    case BITS_16:
    case STOP_CLOCK:
    case START_CLOCK:
        m_profile->Command(s.bRequest);
        Changed();
        return true;
    case STOP_USB:
        m_profile->Command(s.bRequest);
        Flush();
        Changed();
        return true;
    case WRITE_REG16:
    case WRITE_REG8: {
        if (broken(s.wValue))
            return false;
        Used();
        const bool ok = s.bRequest == WRITE_REG16 ? m_profile->WriteReg16(s.wValue, s.wIndex)
                                                  : m_profile->WriteReg8(s.wValue, uint8_t(s.wIndex));
        Changed();
        return ok;
    }
    case READ_REG16: {
        m_profile->SetTemperature(Celsius());
        const uint16_t v = m_profile->ReadReg16(s.wValue);
        data = { uint8_t(v >> 8), uint8_t(v) };
        return true;
    }
    case READ_REG8: data = { m_profile->ReadReg8(s.wValue) }; return true;
    case WRITE_FPGA:
        if (broken(FPGA_REGISTER | s.wValue))
            return false;
        Used();
        m_profile->WriteFpga(s.wValue, s.wIndex);
        Changed();
        return true;
    case READ_FPGA: data = { m_profile->ReadFpga(s.wValue) }; return true;
    case VERSION: data = { 'V', m_bFirmware }; return true;
    case GUIDE_ON:
    case GUIDE_OFF:
        if (s.wValue > 3)
            return false;
        MoveGuide();
        m_pins[s.wValue] = s.bRequest == GUIDE_ON;
        return true;
    case COOLER_DA: m_thermal.SetDA(uint8_t(s.wValue), m_clock.Now() / 1e6); return true;
    case DIGITAL_TEMP: {
        if (m_facts.temp != ModelFacts::Temp::Digital)
            return false;
        const uint16_t raw = DigitalReading(Celsius());
        data = { uint8_t((raw & 0xF) << 4), uint8_t(raw >> 4) };
        return true;
    }
    case THERMISTOR: {
        if (m_facts.temp != ModelFacts::Temp::Thermistor)
            return false;
        const uint8_t ad = ThermistorReading(Celsius());
        data = { uint8_t((ad & 0xF) << 4), uint8_t(ad >> 4) };
        return true;
    }
    case HOST_IS_USB3: data = { uint8_t(m_facts.bUSB3 && m_settings.bUSB3Host) }; return true;
    case TRANSFER_COUNT:
        m_uTransferCount = uint32_t(s.wValue) << 16 | s.wIndex;
        m_profile->SetTransferCount(m_uTransferCount);
        Changed();
        return true;
    case I2C_WRITE:
    case I2C_READ: {
        const uint32_t base = uint32_t(s.wValue) << 16 | s.wIndex;
        if (!m_facts.bUSB3 || s.wValue > 7 || uint32_t(s.wIndex) + s.wLength > 0x10000)
            return false;
        if (!s.bIn) {
            for (size_t i = 0; i < data.size(); ++i)
                m_i2c[base + uint32_t(i)] = data[i];
            return true;
        }
        data.assign(s.wLength, 0xFF);
        for (auto it = m_i2c.lower_bound(base); it != m_i2c.end() && it->first - base < s.wLength; ++it)
            data[it->first - base] = it->second;
        return true;
    }
    case GPIF_32DQ: return s.wValue <= 1;
    case FLASH_WRITE:
    case FLASH_READ:
    case FLASH_ERASE: return VendorFlash(s, data);
    default: return false;
    }
}

// Request 160, memory of the bridge's processor. USB 2 bridges serve it in hardware, whatever their processor does;
// USB 3 bridges only while their boot loader runs.
bool Camera::VendorLoad(const Setup& s, std::vector<uint8_t>& data)
{
    if (!m_facts.bUSB3) {
        if (s.bIn) {
            data = m_memory.Read(s.wValue, s.wLength);
            return true;
        }
        std::optional<uint8_t> version;
        if (m_memory.LoadFx2(s.wValue, data, &version))
            m_bFirmware = version.value_or(m_facts.bFirmware);
        Changed();
        return true;
    }
    if (m_memory.State() != Cpu::BootLoader)
        return false;
    const uint32_t address = uint32_t(s.wIndex) << 16 | s.wValue;
    if (s.bIn) {
        data = m_memory.Read(address, s.wLength);
        return true;
    }
    if (s.wLength) {
        m_memory.LoadFx3(address, data);
        return true;
    }
    // Without data: the program's entry. The new firmware enumerates anew.
    m_bLoaded = true;
    Drop(m_clock.Now() + 300000);
    return true;
}

// USB 2 bridges have the EEPROM of their firmware and no other memory.
bool Camera::VendorFlash(const Setup& s, std::vector<uint8_t>& data)
{
    if (!m_facts.bUSB3)
        return false;
    const double now = m_clock.Now();
    const uint32_t address = uint32_t(s.wIndex) << 8;
    if (s.bRequest == FLASH_READ)
        return m_flash.Read(address, s.wLength, now, &data);
    if (s.bRequest == FLASH_WRITE)
        return TakeFault(FaultKind::FlashWriteFails, nullptr) || m_flash.Write(address, data, now);
    if (s.bIn) {
        const bool busy = m_flash.Busy(now);
        if (busy)
            m_dReplyUs += POLL_US;
        data = { uint8_t(busy) };
        return s.wValue == 0;
    }
    if (s.wValue != 1 || TakeFault(FaultKind::FlashEraseFails, nullptr))
        return false;
    return m_flash.Erase(s.wIndex, now);
}

}  // namespace kovsim

// The command layer: register accesses and commands as vendor control transfers. Every operation tests m_bOpen first and
// sends nothing while it is clear; every transfer takes m_csUsb for its span and has a time limit of 500 ms. Any thread.
#pragma once
#include <cstdint>

#include "base/Export.h"
#include "base/Shared.h"
#include "platform/Platform.h"
#include "platform/UsbDriver.h"

class CUsbLink;

// Vendor requests. The device side of the same table stands in the firmware of the bridge.
enum VendorRequest : uint8_t {
    REQ_FX2_RAM = 160,  // RAM load; IN: boot loader probe
    REQ_CLOCK_24MHZ = 163,
    REQ_CLOCK_48MHZ = 164,
    REQ_WRITE_REG16 = 166,
    REQ_READ_REG16 = 167,
    REQ_START_STREAM = 169,  // with the RAM loader running: EEPROM access
    REQ_STOP_STREAM = 170,
    REQ_MODE_8BIT = 171,
    REQ_MODE_16BIT = 172,
    REQ_FIRMWARE_VERSION = 173,
    REQ_STOP_SENSOR_CLOCK = 174,
    REQ_START_SENSOR_CLOCK = 175,
    REQ_GUIDE_ON = 176,
    REQ_GUIDE_OFF = 177,
    REQ_COOLER_DA = 178,
    REQ_DIGITAL_TEMP = 179,
    REQ_IS_USB3_HOST = 180,
    REQ_TRANSFER_COUNT = 181,
    REQ_WRITE_REG8 = 182,
    REQ_READ_REG8 = 183,
    REQ_I2C_WRITE = 186,
    REQ_I2C_READ = 187,
    REQ_READ_FPGA = 188,
    REQ_WRITE_FPGA = 189,
    REQ_GPIF_32DQ = 190,
    REQ_FLASH_WRITE = 194,
    REQ_FLASH_READ = 195,
    REQ_FLASH_ERASE = 196,
    REQ_ANALOG_TEMP = 199,
};

enum FX3_FWDWNLOAD_ERROR_CODE {
    FX3_FW_SUCCESS = 0,
    FX3_FW_FAILED = 1,  // transfer failed or camera closed
    FX3_FW_BAD_MEDIA_TYPE = 2,
    FX3_FW_BAD_SIGNATURE = 3,     // image does not begin with C, Y
    FX3_FW_SECTION_TOO_LONG = 5,  // section runs past the image end
    FX3_FW_NO_FILE = 6,           // file cannot be opened, or empty, or no memory
    FX3_FW_ERASE_FAILED = 7,
    FX3_FW_BLOCK_TOO_LONG = 8,  // a block would run past the image end
    FX3_FW_BAD_I2C_SIZE = 9,
};
enum FX3_FWDWNLOAD_MEDIA_TYPE { FX3_MEDIA_RAM = 1, FX3_MEDIA_I2C = 2, FX3_MEDIA_SPI = 3 };

class KOV_CLASS CCameraFX3 {
public:
    CCameraFX3();
    ~CCameraFX3();
    CCameraFX3(const CCameraFX3&) = delete;
    CCameraFX3& operator=(const CCameraFX3&) = delete;

    bool SendCMD(uint8_t opcode);
    bool SendCMD(uint8_t opcode, uint16_t value, uint16_t index, bool in, uint8_t* data, int32_t* length);
    bool WriteCameraRegister(uint16_t reg, uint16_t value);
    bool ReadCameraRegister(uint16_t reg, uint16_t* out);  // *out 0 when closed or failed
    bool WriteCameraRegisterByte(uint16_t reg, uint8_t value);
    bool ReadCameraRegisterByte(uint16_t reg, uint8_t* out);
    // Read, change, write; not one step. The 16-bit form covers bits first to last inclusive.
    bool WriteCameraRegister_B(uint16_t reg, uint8_t firstBit, uint8_t lastBit, uint16_t value);
    // QUIRK: the byte form leaves the end bit out; equal numbers write the old value back.
    bool WriteCameraRegisterByte_B(uint16_t reg, uint8_t firstBit, uint8_t endBit, uint8_t value);
    bool WriteSONYREG(uint16_t reg, uint8_t value);
    bool ReadSONYREG(uint16_t reg, uint8_t* out);
    bool WriteFPGAREG(uint16_t reg, uint16_t value);
    bool ReadFPGAREG(uint16_t reg, uint8_t* out);
    bool EnableGPIF32DQ(bool on);
    bool GetFirmwareVer(uint8_t* ver);
    bool GetFPGAVer(uint8_t* ver, uint8_t sub[4]);
    bool GetFPGAVerVal(uint8_t* ver, uint32_t* val);
    uint8_t GetFWVer() const { return m_iFWVer; }
    bool IsUSB3Host();
    bool ResetEndPoint(uint8_t endpoint);  // abort and reset of the image endpoint; the argument has no effect
    bool ResetDevice();

    // Firmware and flash loaders; called while no capture runs.
    // UpdateFW and EraseFlash send nothing and return false when the EEPROM loader was not built in.
    bool UpdateFW(const uint8_t* image, int32_t length);
    // The records tell their end; length, where positive, only keeps the walk from leaving a damaged image.
    bool UpdateFW2RAM(const uint8_t* image, int32_t length);
    bool EraseFlash();
    bool DownloadBufferToDevice(uint32_t address, uint16_t length, uint8_t* data, uint8_t request);
    bool UploadBufferFromDevice(uint32_t address, uint16_t length, uint8_t* data, uint8_t request);
    bool SetProgramEntry(uint8_t request, uint32_t address);
    bool IsBootLoaderRunning();
    FX3_FWDWNLOAD_ERROR_CODE EraseSectorOfSPIFlash(uint32_t sector, uint8_t request);
    bool WriteToSPIFlash(uint8_t* data, uint32_t length, uint32_t address, uint8_t request);
    bool ReadFromSPIFlash(uint8_t* data, uint32_t length, uint32_t address, uint8_t request);
    FX3_FWDWNLOAD_ERROR_CODE DownloadBuftoSPIFLASH(uint8_t* data, uint32_t length, uint8_t request);
    FX3_FWDWNLOAD_ERROR_CODE DownloadBuftoI2CE2PROM(uint8_t* data, int32_t length, uint8_t request);
    FX3_FWDWNLOAD_ERROR_CODE DownloadFwToRam(uint8_t* data, uint32_t length, uint8_t request);
    FX3_FWDWNLOAD_ERROR_CODE DownloadFw(const char* path, FX3_FWDWNLOAD_MEDIA_TYPE media);

    // Swap the link under m_csUsb, so that a transfer of another thread never meets a link that goes away. The old
    // link is destroyed (which closes it); nullptr leaves none.
    void ReplaceLink(CUsbLink* link);

    // Under m_csUsb, for a thread beside one that may be reconnecting.
    bool HasLink();

    Shared<bool> m_bOpen;               // a device is selected
    platform::Guid m_guid;              // interface that ReConnectCamera searches
    CUsbLink* m_pUsbLink = nullptr;     // owned
    platform::CriticalSection m_csUsb;  // leaf lock, held across one control transfer and never across two
    // As last read by GetFirmwareVer and GetFPGAVer.
    Shared<uint8_t> m_iFWVer;
    Shared<uint8_t> m_fpgaVer;
    Shared<uint32_t> m_fpgaVerVal;  // the four parts, the first in the high byte

private:
    // One control transfer under m_csUsb, unless m_bOpen is clear. *length is updated to the bytes moved.
    // False also when no link is there. data holds *length readable bytes, for IN too.
    bool Transfer(bool in, uint8_t request, uint16_t value, uint16_t index, uint8_t* data, int32_t* length);
    // The same for a fixed length, with the test of m_bOpen; true when the transfer succeeded, whatever it moved.
    bool Command(bool in, uint8_t request, uint16_t value, uint16_t index, void* data = nullptr, int32_t length = 0);
    bool StartEepromLoader();
    bool HaltProcessor(bool halt);
};

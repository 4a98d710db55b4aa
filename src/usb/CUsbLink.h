// One USB device behind the kernel driver: finds it by interface GUID, opens it, keeps its descriptors and endpoints.
#pragma once
#include <cstdint>
#include <memory>
#include <vector>

#include "base/Export.h"
#include "platform/UsbDriver.h"
#include "usb/Descriptors.h"
#include "usb/EndPoints.h"

class KOV_CLASS CUsbLink {
public:
    // open: opens the first device at once (device number 0); a failure shows in IsOpen().
    CUsbLink(void* window, const platform::Guid& guid, bool open);
    // Closes. Unlike Close it lets no exception out: a failure stays unreported.
    ~CUsbLink();
    CUsbLink(const CUsbLink&) = delete;
    CUsbLink& operator=(const CUsbLink&) = delete;

    uint8_t DeviceCount();
    bool CreateHandle(uint8_t dev);
    void DestroyHandle();
    bool IoControl(uint32_t code, void* buffer, uint32_t size);
    void GetDeviceDescriptor();
    void GetLanguageId();
    void GetStringDescriptor(uint8_t* out256, uint8_t index);
    void GetConfigDescriptor(uint8_t index);
    bool GetBosDescriptor();
    void QueryAddress();
    void QueryDriverName();
    void QueryFriendlyName();
    void QueryDriverVersion();
    void QueryStackVersion();
    void QuerySpeed();
    int8_t QueryAltSetting();
    void SelectConfig(uint8_t cfg);
    void SelectAltSetting(int8_t alt);
    void BindEndPoints();
    uint8_t EndPointCount() const;
    bool ResetParentPort();
    bool CyclePort();
    // Closes first when open. False also when the descriptors name no interface; the file is open then.
    bool Open(uint8_t dev);
    // When the driver refuses to close the file or the notice, the error stands in m_uLastError and a const char* is
    // thrown, from Open too when it closes first; the object keeps its handle and descriptors then.
    void Close();
    // Takes the open device for this process. False, with the error in m_uLastError, while another program has it.
    bool Claim();
    bool RegisterForDeviceEvents(void* window);
    bool IsOpen() const { return platform::IsDeviceOpen(m_hDevice); }

    CCyUSBEndPoint** m_pEndPoints = nullptr;  // table of the current interface; entry 0 is the control endpoint
    BosObject* m_pBos = nullptr;
    CCyUSBEndPoint *m_pIsocIn = nullptr, *m_pIsocOut = nullptr, *m_pBulkIn = nullptr, *m_pBulkOut = nullptr;
    CCyControlEndPoint* m_pControl = nullptr;
    CCyUSBEndPoint *m_pInterruptIn = nullptr, *m_pInterruptOut = nullptr;
    uint16_t m_language = 0;
    uint32_t m_uLastError = 0, m_uUsbdStatus = 0, m_uNtStatus = 0;
    uint32_t m_driverVersion = 0, m_stackVersion = 0;
    char m_driverName[256], m_friendlyName[256];
    uint8_t m_manufacturer[256], m_product[256], m_serial[256];  // UTF-16 text
    char m_devicePath[256];
    char m_locationPaths[260], m_locationInfo[260];
    uint16_t m_bcdUsb = 0, m_vendorId = 0, m_productId = 0;
    uint8_t m_usbAddress = 0;
    uint8_t m_deviceClass = 0, m_deviceSubClass = 0, m_deviceProtocol = 0;
    uint32_t m_maxPacketSize0 = 0;
    uint16_t m_bcdDevice = 0;
    uint8_t m_configValue = 0, m_configAttributes = 0, m_maxPower = 0;
    uint8_t m_intfClass = 0, m_intfSubClass = 0, m_intfProtocol = 0;
    bool m_bHighSpeed = false, m_superSpeed = false;
    uint32_t m_bytesReturned = 0;
    uint8_t m_deviceDescriptor[18];
    std::unique_ptr<std::vector<uint8_t>> m_rawConfigs[2];
    std::unique_ptr<std::vector<uint8_t>> m_rawBos;
    ConfigObject* m_configs[2] = {};
    platform::DeviceHandle m_hDevice = platform::INVALID_DEVICE;
    void* m_hWnd = nullptr;
    void *m_deviceNotice = nullptr, *m_handleNotice = nullptr;
    platform::Guid m_guid;
    uint8_t m_deviceCount = 0, m_intfCount = 0, m_altIntfCount = 0, m_configCount = 0;
    uint8_t m_deviceNumber = 0, m_configIndex = 0, m_intfNumber = 0, m_intfIndex = 0;

private:
    CUsbLink(void* window, const platform::Guid& guid);  // closed
    InterfaceObject* CurrentInterface() const;           // nullptr when there is none
    void CopyInterfaceClass();
    void FreeDescriptors();  // everything that Open built but the handle; never throws
};

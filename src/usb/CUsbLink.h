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
    CUsbLink(void* hWnd, const platform::Guid& guid, bool open);
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
    void GetStringDescriptor(uint8_t* pOut256, uint8_t index);
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
    bool RegisterForDeviceEvents(void* hWnd);
    bool IsOpen() const { return platform::IsDeviceOpen(m_hDevice); }

    CCyUSBEndPoint** m_pEndPoints = nullptr;  // table of the current interface; entry 0 is the control endpoint
    BosObject* m_pBos = nullptr;
    CCyUSBEndPoint *m_pIsocIn = nullptr, *m_pIsocOut = nullptr, *m_pBulkIn = nullptr, *m_pBulkOut = nullptr;
    CCyControlEndPoint* m_pControl = nullptr;
    CCyUSBEndPoint *m_pInterruptIn = nullptr, *m_pInterruptOut = nullptr;
    uint16_t m_wLanguage = 0;
    uint32_t m_uLastError = 0, m_uUsbdStatus = 0, m_uNtStatus = 0;
    uint32_t m_uDriverVersion = 0, m_uStackVersion = 0;
    char m_szDriverName[256], m_szFriendlyName[256];
    uint8_t m_szManufacturer[256], m_szProduct[256], m_szSerial[256];  // UTF-16 text
    char m_szDevicePath[256];
    char m_szLocationPaths[260], m_szLocationInfo[260];
    uint16_t m_wBcdUsb = 0, m_wVendorId = 0, m_wProductId = 0;
    uint8_t m_bUsbAddress = 0;
    uint8_t m_bDeviceClass = 0, m_bDeviceSubClass = 0, m_bDeviceProtocol = 0;
    uint32_t m_uMaxPacketSize0 = 0;
    uint16_t m_wBcdDevice = 0;
    uint8_t m_bConfigValue = 0, m_bConfigAttributes = 0, m_bMaxPower = 0;
    uint8_t m_bIntfClass = 0, m_bIntfSubClass = 0, m_bIntfProtocol = 0;
    bool m_bHighSpeed = false, m_bSuperSpeed = false;
    uint32_t m_uBytesReturned = 0;
    uint8_t m_abDeviceDescriptor[18];
    std::unique_ptr<std::vector<uint8_t>> m_apRawConfig[2];
    std::unique_ptr<std::vector<uint8_t>> m_pRawBos;
    ConfigObject* m_apConfig[2] = {};
    platform::DeviceHandle m_hDevice = platform::INVALID_DEVICE;
    void* m_hWnd = nullptr;
    void *m_hDeviceNotice = nullptr, *m_hHandleNotice = nullptr;
    platform::Guid m_guid;
    uint8_t m_bDeviceCount = 0, m_bIntfCount = 0, m_bAltIntfCount = 0, m_bConfigCount = 0;
    uint8_t m_bDeviceNumber = 0, m_bConfigIndex = 0, m_bIntfNumber = 0, m_bIntfIndex = 0;

private:
    CUsbLink(void* hWnd, const platform::Guid& guid);  // closed
    InterfaceObject* CurrentInterface() const;         // nullptr when there is none
    void CopyInterfaceClass();
    void FreeDescriptors();  // everything that Open built but the handle; never throws
};

#include "usb/CUsbLink.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "platform/Platform.h"
#include "platform/XferRecord.h"

using platform::IsDeviceOpen;
using platform::IUsbDriver;
using platform::UsbDriver;

namespace {

constexpr uint8_t GET_DESCRIPTOR = 6;
constexpr uint32_t DESCRIPTOR_TIMEOUT = 5;  // seconds
constexpr uint8_t DESC_DEVICE = 1, DESC_CONFIG = 2, DESC_STRING = 3, DESC_BOS = 15;
constexpr uint16_t LANGUAGE_ENGLISH_US = 1033;

// Device registry properties.
constexpr uint32_t PROP_LOCATION_INFO = 13, PROP_LOCATION_PATHS = 35;
constexpr uint32_t LOCATION_LIMIT = 259;

// A walk over the interfaces ends with ERROR_NO_MORE; a driver that never says so must not hold a host for ever.
constexpr uint32_t WALK_LIMIT = 0x10000;

// Filters of the arrival and removal notices, in the layout of the Windows messages.
struct InterfaceFilter {
    uint32_t dwSize, dwType, reserved;
    platform::Guid guid;
    uint32_t name;
};
struct HandleFilter {
    uint32_t dwSize, dwType, reserved, pad;
    int64_t hDevice;
    uint8_t rest[32];
};
static_assert(sizeof(InterfaceFilter) == 32 && sizeof(HandleFilter) == 56);
constexpr uint32_t NOTICE_INTERFACE = 5, NOTICE_HANDLE = 6;

// A snapshot of the present devices, released on every path.
class CDeviceList {
public:
    explicit CDeviceList(const platform::Guid& guid) : m_h(UsbDriver().GetClassDevs(guid)) {}
    ~CDeviceList() { Destroy(); }
    CDeviceList(const CDeviceList&) = delete;
    CDeviceList& operator=(const CDeviceList&) = delete;
    void Destroy()
    {
        if (m_h)
            UsbDriver().DestroyList(m_h);
        m_h = nullptr;
    }
    operator IUsbDriver::DevInfo() const { return m_h; }

private:
    IUsbDriver::DevInfo m_h;
};

// One GET_DESCRIPTOR through the driver. The block holds the record and, behind it, the wanted bytes.
class CDescriptorRead {
public:
    CDescriptorRead(CUsbLink& link, uint8_t type, uint8_t index, uint16_t language, uint16_t wanted)
        : m_block(RECORD_SIZE + wanted)
    {
        XferRecord* const r = reinterpret_cast<XferRecord*>(m_block.data());
        r->setup.bmRequestType = 0x80;
        r->setup.bRequest = GET_DESCRIPTOR;
        r->setup.wValue = uint16_t((type << 8) | index);
        r->setup.wIndex = language;
        r->setup.wLength = wanted;
        r->setup.dwTimeout = DESCRIPTOR_TIMEOUT;
        r->dwBufferOffset = RECORD_SIZE;
        r->dwBufferLength = wanted;
        m_bOk = link.IoControl(platform::IO_CONTROL, m_block.data(), uint32_t(m_block.size()));
        link.m_uUsbdStatus = r->dwUsbdStatus;
        link.m_uNtStatus = r->dwNtStatus;
    }
    explicit operator bool() const { return m_bOk; }
    const uint8_t* Data() const { return m_block.data() + RECORD_SIZE; }
    std::unique_ptr<std::vector<uint8_t>> Take() const
    {
        return std::make_unique<std::vector<uint8_t>>(m_block.begin() + RECORD_SIZE, m_block.end());
    }

private:
    std::vector<uint8_t> m_block;
    bool m_bOk;
};

// Descriptors of unknown length are read twice: their head, then the whole of the length that it tells.
std::unique_ptr<std::vector<uint8_t>> ReadWhole(CUsbLink& link, uint8_t type, uint8_t index, uint16_t wHead)
{
    const CDescriptorRead head(link, type, index, 0, wHead);
    if (!head)
        return nullptr;
    const CDescriptorRead whole(link, type, index, 0, U16(head.Data() + 2));
    if (!whole)
        return nullptr;
    return whole.Take();
}

template <class T>
T QueryNumber(CUsbLink& link, uint32_t code)
{
    T value = 0;
    return link.IoControl(code, &value, sizeof value) ? value : T{ 0 };
}

}  // namespace

CUsbLink::CUsbLink(void* wnd, const platform::Guid& guid)
    : m_szDriverName{}, m_szFriendlyName{}, m_szManufacturer{}, m_szProduct{}, m_szSerial{}, m_szDevicePath{},
      m_szLocationPaths{}, m_szLocationInfo{}, m_abDeviceDescriptor{}, m_hWnd(wnd), m_guid(guid)
{
}

// In two steps, so that the destructor closes what an open without memory has left open.
CUsbLink::CUsbLink(void* wnd, const platform::Guid& guid, bool open) : CUsbLink(wnd, guid)
{
    if (m_hWnd)
        RegisterForDeviceEvents(m_hWnd);
    if (open)
        Open(m_bDeviceNumber);
}

// A close path that fails throws a character string, as from Close. Out of a destructor that would end the process, and
// nobody is left who could act on it: the error stays in m_uLastError, the text is dropped, the rest is released.
CUsbLink::~CUsbLink()
{
    try {
        Close();
    } catch (...) {
        FreeDescriptors();
    }
    if (m_hDeviceNotice && !UsbDriver().UnregisterNotice(m_hDeviceNotice))
        m_uLastError = platform::LastError();  // "Failed to close the device notification handle."
}

uint8_t CUsbLink::DeviceCount()
{
    m_bDeviceCount = 0;
    const CDeviceList list(m_guid);
    if (!list)
        return 0;
    for (uint32_t i = 0; i < WALK_LIMIT; ++i) {
        if (UsbDriver().EnumInterface(list, i))
            ++m_bDeviceCount;
        else if (platform::LastError() == platform::ERROR_NO_MORE)
            break;  // any other failure passes over this entry only
    }
    return m_bDeviceCount;
}

bool CUsbLink::CreateHandle(uint8_t dev)
{
    const platform::BusLook look;
    const uint8_t bCount = DeviceCount();
    if (bCount == 0 || dev > bCount - 1)
        return false;
    CDeviceList list(m_guid);
    std::string path;
    bool found = false;
    if (list) {
        if (UsbDriver().EnumInfo(list, dev)) {
            UsbDriver().GetProperty(list, dev, PROP_LOCATION_PATHS, m_szLocationPaths, LOCATION_LIMIT);
            UsbDriver().GetProperty(list, dev, PROP_LOCATION_INFO, m_szLocationInfo, LOCATION_LIMIT);
        }
        found = UsbDriver().EnumInterface(list, dev) && UsbDriver().GetInterfacePath(list, dev, &path);
    }
    if (!found) {
        list.Destroy();
        m_hDevice = platform::INVALID_DEVICE;
        m_bDeviceNumber = 0;
        return false;
    }
    const size_t n = std::min(path.size(), sizeof m_szDevicePath - 1);
    std::memcpy(m_szDevicePath, path.data(), n);
    m_szDevicePath[n] = 0;
    m_hDevice = UsbDriver().Open(m_szDevicePath);
    const bool ok = IsDeviceOpen(m_hDevice);
    if (!ok)
        m_uLastError = platform::LastError();
    return ok;
}

void CUsbLink::DestroyHandle()
{
    if (m_hHandleNotice) {
        if (!UsbDriver().UnregisterNotice(m_hHandleNotice)) {
            m_uLastError = platform::LastError();
            throw "Failed to close the handle notification handle.";
        }
        m_hHandleNotice = nullptr;
    }
    if (!IsOpen())
        return;
    if (!UsbDriver().Close(m_hDevice)) {
        m_uLastError = platform::LastError();
        throw "Failed to close handle to driver.";
    }
    m_hDevice = platform::INVALID_DEVICE;
}

bool CUsbLink::IoControl(uint32_t code, void* buffer, uint32_t dwSize)
{
    if (!IsOpen())
        return false;
    m_uBytesReturned = 0;
    if (!UsbDriver().IoControl(m_hDevice, code, buffer, dwSize, buffer, dwSize, &m_uBytesReturned, nullptr)) {
        m_uLastError = platform::LastError();
        return false;
    }
    return m_uBytesReturned == dwSize;
}

void CUsbLink::GetDeviceDescriptor()
{
    const CDescriptorRead read(*this, DESC_DEVICE, 0, 0, sizeof m_abDeviceDescriptor);
    if (!read)
        return;
    const uint8_t* const d = read.Data();
    std::memcpy(m_abDeviceDescriptor, d, sizeof m_abDeviceDescriptor);
    m_wBcdUsb = U16(d + 2);
    m_bDeviceClass = d[4];
    m_bDeviceSubClass = d[5];
    m_bDeviceProtocol = d[6];
    m_uMaxPacketSize0 = (m_wBcdUsb >> 8) == 2 ? d[7] : 1u << (d[7] & 31);
    m_wVendorId = U16(d + 8);
    m_wProductId = U16(d + 10);
    m_wBcdDevice = U16(d + 12);
    m_bConfigCount = d[17];
}

void CUsbLink::GetLanguageId()
{
    const CDescriptorRead head(*this, DESC_STRING, 0, 0, 2);
    if (!head)
        return;
    const uint32_t dwLength = head.Data()[0];
    const CDescriptorRead whole(*this, DESC_STRING, 0, 0, uint16_t(dwLength));
    if (!whole || dwLength < 4)
        return;
    m_wLanguage = U16(whole.Data() + 2);
    // QUIRK: the scan steps over every second language, so English in second place is not found and a host sees the
    // first language's strings. It counts as if it did not, which would take it past the end.
    for (uint32_t i = 0, at = 2; i < (dwLength - 2) / 2 && at + 2 <= dwLength; ++i, at += 4)
        if (U16(whole.Data() + at) == LANGUAGE_ENGLISH_US)
            m_wLanguage = LANGUAGE_ENGLISH_US;
}

void CUsbLink::GetStringDescriptor(uint8_t* out256, uint8_t index)
{
    const CDescriptorRead head(*this, DESC_STRING, index, m_wLanguage, 2);
    if (!head)
        return;
    const uint8_t length = head.Data()[0];
    const CDescriptorRead whole(*this, DESC_STRING, index, m_wLanguage, length);
    // The second answer may tell another length than the first; only what was asked for is there.
    if (!whole || length < 3 || whole.Data()[0] < 3 || whole.Data()[1] != DESC_STRING)
        return;
    std::memset(out256, 0, 256);
    std::memcpy(out256, whole.Data() + 2, size_t(std::min(length, whole.Data()[0]) - 2));
}

void CUsbLink::GetConfigDescriptor(uint8_t index)
{
    if (index >= std::size(m_apRawConfig))
        return;  // two are kept, whatever the device claims to have
    m_apRawConfig[index] = ReadWhole(*this, DESC_CONFIG, index, 9);
}

bool CUsbLink::GetBosDescriptor()
{
    m_pRawBos = ReadWhole(*this, DESC_BOS, 0, 5);
    return m_pRawBos != nullptr;
}

void CUsbLink::QueryAddress() { m_bUsbAddress = QueryNumber<uint8_t>(*this, platform::IO_USB_ADDRESS); }
void CUsbLink::QueryDriverVersion() { m_uDriverVersion = QueryNumber<uint32_t>(*this, platform::IO_DRIVER_VERSION); }
void CUsbLink::QueryStackVersion() { m_uStackVersion = QueryNumber<uint32_t>(*this, platform::IO_STACK_VERSION); }
void CUsbLink::QueryDriverName() { IoControl(platform::IO_DRIVER_NAME, m_szDriverName, sizeof m_szDriverName); }
void CUsbLink::QueryFriendlyName() { IoControl(platform::IO_FRIENDLY_NAME, m_szFriendlyName, sizeof m_szFriendlyName); }

void CUsbLink::QuerySpeed()
{
    const uint32_t speed = QueryNumber<uint32_t>(*this, platform::IO_DEVICE_SPEED);
    m_bHighSpeed = speed == 2;
    m_bSuperSpeed = speed == 4;
}

int8_t CUsbLink::QueryAltSetting()
{
    uint8_t bAlt = 0;
    return IoControl(platform::IO_ALT_SETTING, &bAlt, sizeof bAlt) ? int8_t(bAlt) : int8_t(-1);
}

void CUsbLink::SelectConfig(uint8_t cfg)
{
    if (!m_apConfig[0])
        return;
    m_bConfigIndex = 0;
    // QUIRK: compared with iConfiguration, the number of a string, not with the configuration's value. A number that
    // names no configuration of ours leaves the first one.
    const bool named = m_apConfig[0]->iConfiguration == cfg || (m_apConfig[1] && m_apConfig[1]->iConfiguration == cfg);
    if (named && cfg < std::size(m_apConfig) && m_apConfig[cfg])
        m_bConfigIndex = cfg;
    const ConfigObject& c = *m_apConfig[m_bConfigIndex];
    m_bConfigValue = c.bConfigurationValue;
    m_bConfigAttributes = c.bmAttributes;
    m_bMaxPower = c.bMaxPower;
    m_bIntfCount = c.bNumInterfaces;
    m_bAltIntfCount = c.bAltInterfaces;
    if (c.apInterfaces[0])
        m_bIntfNumber = c.apInterfaces[0]->bInterfaceNumber;
    SelectAltSetting(QueryAltSetting());
    CopyInterfaceClass();
}

void CUsbLink::SelectAltSetting(int8_t alt)
{
    const ConfigObject* const c = m_apConfig[m_bConfigIndex];
    for (uint8_t i = 0; c && i < c->bAltInterfaces; ++i) {
        if (c->apInterfaces[i]->bAlternateSetting != alt)  // NOLINT(bugprone-signed-char-misuse): -1 is none of them
            continue;
        m_bIntfIndex = i;
        CopyInterfaceClass();
        BindEndPoints();
        return;
    }
}

void CUsbLink::CopyInterfaceClass()
{
    if (const InterfaceObject* const p = CurrentInterface()) {
        m_bIntfClass = p->bInterfaceClass;
        m_bIntfSubClass = p->bInterfaceSubClass;
        m_bIntfProtocol = p->bInterfaceProtocol;
    }
}

InterfaceObject* CUsbLink::CurrentInterface() const
{
    const ConfigObject* const c = m_apConfig[m_bConfigIndex];
    return c ? c->apInterfaces[m_bIntfIndex] : nullptr;
}

void CUsbLink::BindEndPoints()
{
    InterfaceObject* const p = CurrentInterface();
    if (m_bConfigCount == 0 || m_bIntfCount == 0 || !p)
        return;
    m_pEndPoints = p->apEndPoints;
    m_pEndPoints[0] = m_pControl;
    m_pIsocIn = m_pIsocOut = m_pBulkIn = m_pBulkOut = m_pInterruptIn = m_pInterruptOut = nullptr;

    CCyUSBEndPoint** const aapFirst[3][2] = { { &m_pIsocOut, &m_pIsocIn },
                                              { &m_pBulkOut, &m_pBulkIn },
                                              { &m_pInterruptOut, &m_pInterruptIn } };
    const unsigned count = std::min<unsigned>(EndPointCount(), unsigned(std::size(p->apEndPoints)));
    for (unsigned i = 1; i < count; ++i) {
        CCyUSBEndPoint* const ep = m_pEndPoints[i];
        if (!ep)
            continue;
        ep->m_bDirect = 1;
        if (ep->m_bmAttributes == 0)
            continue;
        CCyUSBEndPoint*& first = *aapFirst[ep->m_bmAttributes - 1][(ep->m_bEndpointAddress & 0x80) ? 1 : 0];
        if (!first)
            first = ep;
    }
}

uint8_t CUsbLink::EndPointCount() const
{
    const InterfaceObject* const p = IsOpen() ? CurrentInterface() : nullptr;
    return p ? uint8_t(p->bNumEndpoints + 1) : uint8_t(0);
}

bool CUsbLink::ResetParentPort() { return IoControl(platform::IO_RESET_PARENT_PORT, nullptr, 0); }
bool CUsbLink::CyclePort() { return IoControl(platform::IO_CYCLE_PORT, nullptr, 0); }

bool CUsbLink::Claim()
{
    if (platform::UsbDriver().Claim(m_hDevice))
        return true;
    m_uLastError = platform::LastError();
    return false;
}

bool CUsbLink::Open(uint8_t dev)
{
    if (IsOpen())
        Close();
    if (!CreateHandle(dev)) {
        m_hDevice = platform::INVALID_DEVICE;
        m_bDeviceNumber = 0;
        return false;
    }
    m_bDeviceNumber = dev;
    GetDeviceDescriptor();
    GetLanguageId();
    GetStringDescriptor(m_szManufacturer, m_abDeviceDescriptor[14]);
    GetStringDescriptor(m_szProduct, m_abDeviceDescriptor[15]);
    GetStringDescriptor(m_szSerial, m_abDeviceDescriptor[16]);

    const uint8_t usbMajor = uint8_t(m_wBcdUsb >> 8);
    try {
        if (usbMajor == 3 && GetBosDescriptor())
            m_pBos = ParseBos(m_pRawBos->data(), uint32_t(m_pRawBos->size()));
    } catch (const char*) {
        platform::ShowMessage("Please correct firmware BOS descriptor table", "Wrong BOS Descriptor");
        Close();
        return false;
    }

    QueryAddress();
    QueryDriverName();
    QueryFriendlyName();
    QueryDriverVersion();
    QueryStackVersion();
    QuerySpeed();

    try {
        for (uint8_t i = 0; i < m_bConfigCount && i < std::size(m_apConfig); ++i) {
            GetConfigDescriptor(i);
            if (m_apRawConfig[i])
                m_apConfig[i] =
                    ParseConfig(m_hDevice, m_apRawConfig[i]->data(), uint32_t(m_apRawConfig[i]->size()), usbMajor != 2);
        }
    } catch (const char*) {
        platform::ShowMessage("Please correct firmware descriptor table", "Wrong Device Configuration");
        Close();
        return false;
    }

    m_pControl = new CCyControlEndPoint(m_hDevice, nullptr);
    m_pControl->m_bLength = 7;
    m_pControl->m_bDescriptorType = 5;
    m_pControl->m_bEndpointAddress = 0;
    m_pControl->m_bmAttributes = 0;
    m_pControl->m_bInterval = 0;
    m_pControl->m_iMaxPktSize = uint16_t(m_uMaxPacketSize0);

    if (!m_apConfig[0] || !m_apConfig[0]->apInterfaces[0])
        return false;  // the file stays open
    SelectConfig(0);
    if (m_hDeviceNotice) {
        HandleFilter filter{};
        filter.dwSize = sizeof filter;
        filter.dwType = NOTICE_HANDLE;
        filter.hDevice = m_hDevice;
        m_hHandleNotice = UsbDriver().RegisterHandleNotice(m_hWnd, &filter);
    }
    return true;
}

void CUsbLink::Close()
{
    DestroyHandle();
    FreeDescriptors();
}

void CUsbLink::FreeDescriptors()
{
    // With its fields: a device whose descriptor cannot be read must not pass for the one opened before it.
    std::memset(m_abDeviceDescriptor, 0, sizeof m_abDeviceDescriptor);
    m_wBcdUsb = m_wVendorId = m_wProductId = m_wBcdDevice = 0;
    m_bDeviceClass = m_bDeviceSubClass = m_bDeviceProtocol = 0;
    m_uMaxPacketSize0 = 0;
    m_pRawBos.reset();
    delete m_pBos;
    m_pBos = nullptr;
    for (size_t i = 0; i < std::size(m_apConfig); ++i) {
        m_apRawConfig[i].reset();
        delete m_apConfig[i];
        m_apConfig[i] = nullptr;
    }
    delete m_pControl;  // entry 0 of the tables just freed only pointed to it
    m_pControl = nullptr;
    m_pEndPoints = nullptr;
    m_pIsocIn = m_pIsocOut = m_pBulkIn = m_pBulkOut = m_pInterruptIn = m_pInterruptOut = nullptr;
    m_bDeviceCount = m_bIntfCount = m_bAltIntfCount = m_bConfigCount = 0;
    m_bConfigIndex = m_bIntfIndex = 0;  // they index what is gone
}

bool CUsbLink::RegisterForDeviceEvents(void* wnd)
{
    InterfaceFilter filter{};
    filter.dwSize = sizeof filter;
    filter.dwType = NOTICE_INTERFACE;
    filter.guid = m_guid;
    m_hDeviceNotice = UsbDriver().RegisterInterfaceNotice(wnd, &filter);
    if (!m_hDeviceNotice)
        m_uLastError = platform::LastError();
    return m_hDeviceNotice != nullptr;
}

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
    uint32_t size, type, reserved;
    platform::Guid guid;
    uint32_t name;
};
struct HandleFilter {
    uint32_t size, type, reserved, pad;
    int64_t device;
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
        r->setup.timeout = DESCRIPTOR_TIMEOUT;
        r->bufferOffset = RECORD_SIZE;
        r->bufferLength = wanted;
        m_ok = link.IoControl(platform::IO_CONTROL, m_block.data(), uint32_t(m_block.size()));
        link.m_uUsbdStatus = r->usbdStatus;
        link.m_uNtStatus = r->ntStatus;
    }
    explicit operator bool() const { return m_ok; }
    const uint8_t* Data() const { return m_block.data() + RECORD_SIZE; }
    std::unique_ptr<std::vector<uint8_t>> Take() const
    {
        return std::make_unique<std::vector<uint8_t>>(m_block.begin() + RECORD_SIZE, m_block.end());
    }

private:
    std::vector<uint8_t> m_block;
    bool m_ok;
};

// Descriptors of unknown length are read twice: their head, then the whole of the length that it tells.
std::unique_ptr<std::vector<uint8_t>> ReadWhole(CUsbLink& link, uint8_t type, uint8_t index, uint16_t headBytes)
{
    const CDescriptorRead head(link, type, index, 0, headBytes);
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
    : m_driverName{}, m_friendlyName{}, m_manufacturer{}, m_product{}, m_serial{}, m_devicePath{}, m_locationPaths{},
      m_locationInfo{}, m_deviceDescriptor{}, m_hWnd(wnd), m_guid(guid)
{
}

// In two steps, so that the destructor closes what an open without memory has left open.
CUsbLink::CUsbLink(void* wnd, const platform::Guid& guid, bool open) : CUsbLink(wnd, guid)
{
    if (m_hWnd)
        RegisterForDeviceEvents(m_hWnd);
    if (open)
        Open(m_deviceNumber);
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
    if (m_deviceNotice && !UsbDriver().UnregisterNotice(m_deviceNotice))
        m_uLastError = platform::LastError();  // "Failed to close the device notification handle."
}

uint8_t CUsbLink::DeviceCount()
{
    m_deviceCount = 0;
    const CDeviceList list(m_guid);
    if (!list)
        return 0;
    for (uint32_t i = 0; i < WALK_LIMIT; ++i) {
        if (UsbDriver().EnumInterface(list, i))
            ++m_deviceCount;
        else if (platform::LastError() == platform::ERROR_NO_MORE)
            break;  // any other failure passes over this entry only
    }
    return m_deviceCount;
}

bool CUsbLink::CreateHandle(uint8_t dev)
{
    const platform::BusLook look;
    const uint8_t count = DeviceCount();
    if (count == 0 || dev > count - 1)
        return false;
    CDeviceList list(m_guid);
    std::string path;
    bool found = false;
    if (list) {
        if (UsbDriver().EnumInfo(list, dev)) {
            UsbDriver().GetProperty(list, dev, PROP_LOCATION_PATHS, m_locationPaths, LOCATION_LIMIT);
            UsbDriver().GetProperty(list, dev, PROP_LOCATION_INFO, m_locationInfo, LOCATION_LIMIT);
        }
        found = UsbDriver().EnumInterface(list, dev) && UsbDriver().GetInterfacePath(list, dev, &path);
    }
    if (!found) {
        list.Destroy();
        m_hDevice = platform::INVALID_DEVICE;
        m_deviceNumber = 0;
        return false;
    }
    const size_t n = std::min(path.size(), sizeof m_devicePath - 1);
    std::memcpy(m_devicePath, path.data(), n);
    m_devicePath[n] = 0;
    m_hDevice = UsbDriver().Open(m_devicePath);
    const bool ok = IsDeviceOpen(m_hDevice);
    if (!ok)
        m_uLastError = platform::LastError();
    return ok;
}

void CUsbLink::DestroyHandle()
{
    if (m_handleNotice) {
        if (!UsbDriver().UnregisterNotice(m_handleNotice)) {
            m_uLastError = platform::LastError();
            throw "Failed to close the handle notification handle.";
        }
        m_handleNotice = nullptr;
    }
    if (!IsOpen())
        return;
    if (!UsbDriver().Close(m_hDevice)) {
        m_uLastError = platform::LastError();
        throw "Failed to close handle to driver.";
    }
    m_hDevice = platform::INVALID_DEVICE;
}

bool CUsbLink::IoControl(uint32_t code, void* buffer, uint32_t size)
{
    if (!IsOpen())
        return false;
    m_bytesReturned = 0;
    if (!UsbDriver().IoControl(m_hDevice, code, buffer, size, buffer, size, &m_bytesReturned, nullptr)) {
        m_uLastError = platform::LastError();
        return false;
    }
    return m_bytesReturned == size;
}

void CUsbLink::GetDeviceDescriptor()
{
    const CDescriptorRead read(*this, DESC_DEVICE, 0, 0, sizeof m_deviceDescriptor);
    if (!read)
        return;
    const uint8_t* const d = read.Data();
    std::memcpy(m_deviceDescriptor, d, sizeof m_deviceDescriptor);
    m_bcdUsb = U16(d + 2);
    m_deviceClass = d[4];
    m_deviceSubClass = d[5];
    m_deviceProtocol = d[6];
    m_maxPacketSize0 = (m_bcdUsb >> 8) == 2 ? d[7] : 1u << (d[7] & 31);
    m_vendorId = U16(d + 8);
    m_productId = U16(d + 10);
    m_bcdDevice = U16(d + 12);
    m_configCount = d[17];
}

void CUsbLink::GetLanguageId()
{
    const CDescriptorRead head(*this, DESC_STRING, 0, 0, 2);
    if (!head)
        return;
    const uint32_t length = head.Data()[0];
    const CDescriptorRead whole(*this, DESC_STRING, 0, 0, uint16_t(length));
    if (!whole || length < 4)
        return;
    m_language = U16(whole.Data() + 2);
    // QUIRK: the scan steps over every second language, so English in second place is not found and a host sees the
    // first language's strings. It counts as if it did not, which would take it past the end.
    for (uint32_t i = 0, at = 2; i < (length - 2) / 2 && at + 2 <= length; ++i, at += 4)
        if (U16(whole.Data() + at) == LANGUAGE_ENGLISH_US)
            m_language = LANGUAGE_ENGLISH_US;
}

void CUsbLink::GetStringDescriptor(uint8_t* out256, uint8_t index)
{
    const CDescriptorRead head(*this, DESC_STRING, index, m_language, 2);
    if (!head)
        return;
    const uint8_t length = head.Data()[0];
    const CDescriptorRead whole(*this, DESC_STRING, index, m_language, length);
    // The second answer may tell another length than the first; only what was asked for is there.
    if (!whole || length < 3 || whole.Data()[0] < 3 || whole.Data()[1] != DESC_STRING)
        return;
    std::memset(out256, 0, 256);
    std::memcpy(out256, whole.Data() + 2, size_t(std::min(length, whole.Data()[0]) - 2));
}

void CUsbLink::GetConfigDescriptor(uint8_t index)
{
    if (index >= std::size(m_rawConfigs))
        return;  // two are kept, whatever the device claims to have
    m_rawConfigs[index] = ReadWhole(*this, DESC_CONFIG, index, 9);
}

bool CUsbLink::GetBosDescriptor()
{
    m_rawBos = ReadWhole(*this, DESC_BOS, 0, 5);
    return m_rawBos != nullptr;
}

void CUsbLink::QueryAddress() { m_usbAddress = QueryNumber<uint8_t>(*this, platform::IO_USB_ADDRESS); }
void CUsbLink::QueryDriverVersion() { m_driverVersion = QueryNumber<uint32_t>(*this, platform::IO_DRIVER_VERSION); }
void CUsbLink::QueryStackVersion() { m_stackVersion = QueryNumber<uint32_t>(*this, platform::IO_STACK_VERSION); }
void CUsbLink::QueryDriverName() { IoControl(platform::IO_DRIVER_NAME, m_driverName, sizeof m_driverName); }
void CUsbLink::QueryFriendlyName() { IoControl(platform::IO_FRIENDLY_NAME, m_friendlyName, sizeof m_friendlyName); }

void CUsbLink::QuerySpeed()
{
    const uint32_t speed = QueryNumber<uint32_t>(*this, platform::IO_DEVICE_SPEED);
    m_bHighSpeed = speed == 2;
    m_superSpeed = speed == 4;
}

int8_t CUsbLink::QueryAltSetting()
{
    uint8_t alt = 0;
    return IoControl(platform::IO_ALT_SETTING, &alt, sizeof alt) ? int8_t(alt) : int8_t(-1);
}

void CUsbLink::SelectConfig(uint8_t cfg)
{
    if (!m_configs[0])
        return;
    m_configIndex = 0;
    // QUIRK: compared with iConfiguration, the number of a string, not with the configuration's value. A number that
    // names no configuration of ours leaves the first one.
    const bool named = m_configs[0]->iConfiguration == cfg || (m_configs[1] && m_configs[1]->iConfiguration == cfg);
    if (named && cfg < std::size(m_configs) && m_configs[cfg])
        m_configIndex = cfg;
    const ConfigObject& c = *m_configs[m_configIndex];
    m_configValue = c.bConfigurationValue;
    m_configAttributes = c.bmAttributes;
    m_maxPower = c.bMaxPower;
    m_intfCount = c.bNumInterfaces;
    m_altIntfCount = c.altInterfaces;
    if (c.interfaces[0])
        m_intfNumber = c.interfaces[0]->bInterfaceNumber;
    SelectAltSetting(QueryAltSetting());
    CopyInterfaceClass();
}

void CUsbLink::SelectAltSetting(int8_t alt)
{
    const ConfigObject* const c = m_configs[m_configIndex];
    for (uint8_t i = 0; c && i < c->altInterfaces; ++i) {
        if (c->interfaces[i]->bAlternateSetting != alt)  // NOLINT(bugprone-signed-char-misuse): -1 is none of them
            continue;
        m_intfIndex = i;
        CopyInterfaceClass();
        BindEndPoints();
        return;
    }
}

void CUsbLink::CopyInterfaceClass()
{
    if (const InterfaceObject* const p = CurrentInterface()) {
        m_intfClass = p->bInterfaceClass;
        m_intfSubClass = p->bInterfaceSubClass;
        m_intfProtocol = p->bInterfaceProtocol;
    }
}

InterfaceObject* CUsbLink::CurrentInterface() const
{
    const ConfigObject* const c = m_configs[m_configIndex];
    return c ? c->interfaces[m_intfIndex] : nullptr;
}

void CUsbLink::BindEndPoints()
{
    InterfaceObject* const p = CurrentInterface();
    if (m_configCount == 0 || m_intfCount == 0 || !p)
        return;
    m_pEndPoints = p->endPoints;
    m_pEndPoints[0] = m_pControl;
    m_pIsocIn = m_pIsocOut = m_pBulkIn = m_pBulkOut = m_pInterruptIn = m_pInterruptOut = nullptr;

    CCyUSBEndPoint** const aapFirst[3][2] = { { &m_pIsocOut, &m_pIsocIn },
                                              { &m_pBulkOut, &m_pBulkIn },
                                              { &m_pInterruptOut, &m_pInterruptIn } };
    const unsigned count = std::min<unsigned>(EndPointCount(), unsigned(std::size(p->endPoints)));
    for (unsigned i = 1; i < count; ++i) {
        CCyUSBEndPoint* const ep = m_pEndPoints[i];
        if (!ep)
            continue;
        ep->m_bDirect = 1;
        if (ep->m_attributes == 0)
            continue;
        CCyUSBEndPoint*& first = *aapFirst[ep->m_attributes - 1][(ep->m_endpointAddress & 0x80) ? 1 : 0];
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
        m_deviceNumber = 0;
        return false;
    }
    m_deviceNumber = dev;
    GetDeviceDescriptor();
    GetLanguageId();
    GetStringDescriptor(m_manufacturer, m_deviceDescriptor[14]);
    GetStringDescriptor(m_product, m_deviceDescriptor[15]);
    GetStringDescriptor(m_serial, m_deviceDescriptor[16]);

    const uint8_t usbMajor = uint8_t(m_bcdUsb >> 8);
    try {
        if (usbMajor == 3 && GetBosDescriptor())
            m_pBos = ParseBos(m_rawBos->data(), uint32_t(m_rawBos->size()));
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
        for (uint8_t i = 0; i < m_configCount && i < std::size(m_configs); ++i) {
            GetConfigDescriptor(i);
            if (m_rawConfigs[i])
                m_configs[i] = ParseConfig(m_hDevice, m_rawConfigs[i]->data(), uint32_t(m_rawConfigs[i]->size()), usbMajor != 2);
        }
    } catch (const char*) {
        platform::ShowMessage("Please correct firmware descriptor table", "Wrong Device Configuration");
        Close();
        return false;
    }

    m_pControl = new CCyControlEndPoint(m_hDevice, nullptr);
    m_pControl->m_length = 7;
    m_pControl->m_descriptorType = 5;
    m_pControl->m_endpointAddress = 0;
    m_pControl->m_attributes = 0;
    m_pControl->m_interval = 0;
    m_pControl->m_iMaxPktSize = uint16_t(m_maxPacketSize0);

    if (!m_configs[0] || !m_configs[0]->interfaces[0])
        return false;  // the file stays open
    SelectConfig(0);
    if (m_deviceNotice) {
        HandleFilter filter{};
        filter.size = sizeof filter;
        filter.type = NOTICE_HANDLE;
        filter.device = m_hDevice;
        m_handleNotice = UsbDriver().RegisterHandleNotice(m_hWnd, &filter);
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
    std::memset(m_deviceDescriptor, 0, sizeof m_deviceDescriptor);
    m_bcdUsb = m_vendorId = m_productId = m_bcdDevice = 0;
    m_deviceClass = m_deviceSubClass = m_deviceProtocol = 0;
    m_maxPacketSize0 = 0;
    m_rawBos.reset();
    delete m_pBos;
    m_pBos = nullptr;
    for (size_t i = 0; i < std::size(m_configs); ++i) {
        m_rawConfigs[i].reset();
        delete m_configs[i];
        m_configs[i] = nullptr;
    }
    delete m_pControl;  // entry 0 of the tables just freed only pointed to it
    m_pControl = nullptr;
    m_pEndPoints = nullptr;
    m_pIsocIn = m_pIsocOut = m_pBulkIn = m_pBulkOut = m_pInterruptIn = m_pInterruptOut = nullptr;
    m_deviceCount = m_intfCount = m_altIntfCount = m_configCount = 0;
    m_configIndex = m_intfIndex = 0;  // they index what is gone
}

bool CUsbLink::RegisterForDeviceEvents(void* wnd)
{
    InterfaceFilter filter{};
    filter.size = sizeof filter;
    filter.type = NOTICE_INTERFACE;
    filter.guid = m_guid;
    m_deviceNotice = UsbDriver().RegisterInterfaceNotice(wnd, &filter);
    if (!m_deviceNotice)
        m_uLastError = platform::LastError();
    return m_deviceNotice != nullptr;
}

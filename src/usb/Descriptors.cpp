#include "usb/Descriptors.h"

#include <cstring>

namespace {

constexpr uint8_t TYPE_INTERFACE = 4, TYPE_ENDPOINT = 5, TYPE_COMPANION = 0x30;
constexpr uint32_t CONFIG_HEAD = 9, INTERFACE_HEAD = 9, BOS_HEAD = 5;
constexpr unsigned MAX_ENDPOINT_SLOTS = 32, MAX_INTERFACES = 8;
constexpr int MAX_FOREIGN = 11;  // foreign descriptors skipped between the endpoints of one interface
constexpr uint8_t CAP_USB20 = 2, CAP_SUPERSPEED = 3, CAP_CONTAINER = 4;

// The bytes of a descriptor block; nothing behind the end can be had.
struct Block {
    const uint8_t* p;
    uint32_t dwSize;
    bool Has(uint32_t dwAt, uint32_t dwCount) const { return dwAt <= dwSize && dwSize - dwAt >= dwCount; }
};

uint8_t StepOf(const Block& b, uint32_t dwAt)
{
    if (b.p[dwAt] == 0)
        throw "Descriptor of length 0.";
    return b.p[dwAt];
}

CCyUSBEndPoint* MakeEndPoint(platform::DeviceHandle hDevice, const EndPointDescriptor& d, const CompanionDescriptor* pComp)
{
    switch (d.bmAttributes) {  // the whole byte: with any usage bit set the slot stays empty
    case 0: return new CCyControlEndPoint(hDevice, &d);
    case 1: return new CCyIsocEndPoint(hDevice, &d, pComp);
    case 2: return new CCyBulkEndPoint(hDevice, &d, pComp);
    case 3: return new CCyInterruptEndPoint(hDevice, &d, pComp);
    default: return nullptr;
    }
}

// dwAt: place of the interface head, which fits.
std::unique_ptr<InterfaceObject> ParseInterface(platform::DeviceHandle hDevice, const Block& b, uint32_t dwAt, bool bSuperSpeed)
{
    auto o = std::make_unique<InterfaceObject>();
    const uint8_t* const h = b.p + dwAt;
    o->bLength = StepOf(b, dwAt);
    o->bDescriptorType = h[1];
    o->bInterfaceNumber = h[2];
    o->bAlternateSetting = h[3];
    o->bNumEndpoints = h[4];
    o->bInterfaceClass = h[5];
    o->bInterfaceSubClass = h[6];
    o->bInterfaceProtocol = h[7];
    o->iInterface = h[8];
    o->wTotalLength = o->bLength;

    uint32_t dwCursor = dwAt + o->bLength;
    int iForeign = 0;
    for (unsigned slot = 1; slot <= o->bNumEndpoints && b.Has(dwCursor, 2);) {
        const uint8_t bStep = StepOf(b, dwCursor);
        o->wTotalLength = uint16_t(o->wTotalLength + bStep);
        if (b.p[dwCursor + 1] != TYPE_ENDPOINT) {
            if (++iForeign > MAX_FOREIGN)
                ++slot;  // the cursor stays: the slots run out on this descriptor
            else
                dwCursor += bStep;
            continue;
        }
        EndPointDescriptor d;
        if (!b.Has(dwCursor, sizeof d))
            break;
        std::memcpy(&d, b.p + dwCursor, sizeof d);
        dwCursor += bStep;

        CompanionDescriptor comp;
        bool bComp = false;
        if (bSuperSpeed && b.Has(dwCursor, sizeof comp) && b.p[dwCursor + 1] == TYPE_COMPANION) {
            bComp = true;
            std::memcpy(&comp, b.p + dwCursor, sizeof comp);
            const uint8_t bCompStep = StepOf(b, dwCursor);
            o->wTotalLength = uint16_t(o->wTotalLength + bCompStep);
            dwCursor += bCompStep;
        }
        if (slot < MAX_ENDPOINT_SLOTS)
            o->apEndPoints[slot] = MakeEndPoint(hDevice, d, bComp ? &comp : nullptr);
        ++slot;
    }
    return o;
}

}  // namespace

InterfaceObject::~InterfaceObject()
{
    for (unsigned i = 1; i < MAX_ENDPOINT_SLOTS; ++i)
        delete apEndPoints[i];
}

ConfigObject::~ConfigObject()
{
    for (InterfaceObject* p : apInterfaces)
        delete p;
}

ConfigObject* ParseConfig(platform::DeviceHandle hDevice, const uint8_t* pRaw, uint32_t dwSize, bool bSuperSpeed)
{
    const Block b{ pRaw, dwSize };
    if (!b.Has(0, CONFIG_HEAD))
        throw "Configuration descriptor too short.";
    auto o = std::make_unique<ConfigObject>();
    o->bLength = StepOf(b, 0);
    o->bDescriptorType = pRaw[1];
    o->wTotalLength = U16(pRaw + 2);
    o->bNumInterfaces = pRaw[4];
    o->bConfigurationValue = pRaw[5];
    o->iConfiguration = pRaw[6];
    o->bmAttributes = pRaw[7];
    o->bMaxPower = pRaw[8];

    uint32_t dwAt = o->bLength;
    while (dwAt < o->wTotalLength && o->bAltInterfaces < MAX_INTERFACES && b.Has(dwAt, 2)) {
        if (pRaw[dwAt + 1] != TYPE_INTERFACE) {
            dwAt += StepOf(b, dwAt);
            continue;
        }
        if (!b.Has(dwAt, INTERFACE_HEAD))
            break;
        InterfaceObject* const pIntf = ParseInterface(hDevice, b, dwAt, bSuperSpeed).release();
        o->apInterfaces[o->bAltInterfaces++] = pIntf;
        dwAt += pIntf->wTotalLength;
    }
    for (unsigned i = 0; i < o->bAltInterfaces; ++i)
        for (unsigned j = 0; j < o->bAltInterfaces; ++j)
            if (o->apInterfaces[j]->bInterfaceNumber == o->apInterfaces[i]->bInterfaceNumber)
                ++o->apInterfaces[i]->bAltSettings;
    return o.release();
}

BosObject* ParseBos(const uint8_t* pRaw, uint32_t dwSize)
{
    const Block b{ pRaw, dwSize };
    if (!b.Has(0, BOS_HEAD))
        throw "BOS descriptor too short.";
    auto o = std::make_unique<BosObject>();
    o->bLength = StepOf(b, 0);
    o->bDescriptorType = pRaw[1];
    o->wTotalLength = U16(pRaw + 2);
    o->bNumDeviceCaps = pRaw[4];

    uint32_t dwAt = o->bLength;
    for (unsigned i = 0; i < o->bNumDeviceCaps && b.Has(dwAt, 3); ++i) {
        const uint8_t* const d = pRaw + dwAt;
        const uint8_t bStep = StepOf(b, dwAt);
        if (d[2] == CAP_USB20 && b.Has(dwAt, 7)) {
            const uint32_t dwAttributes = U16(d + 3) | (uint32_t(U16(d + 5)) << 16);
            o->pUsb20.reset(new BosUsb20Extension{ d[0], d[1], d[2], dwAttributes });
        } else if (d[2] == CAP_SUPERSPEED && b.Has(dwAt, 10)) {
            o->pSuperSpeed.reset(new BosSuperSpeed{ d[0], d[1], d[2], d[3], U16(d + 4), d[6], d[7], U16(d + 8) });
        } else if (d[2] == CAP_CONTAINER && b.Has(dwAt, 20)) {
            o->pContainerId.reset(new BosContainerId{ d[0], d[1], d[2], {} });
            std::memcpy(o->pContainerId->abContainerId, d + 4, 16);
        }
        dwAt += bStep;
    }
    return o.release();
}

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
    uint32_t size;
    bool Has(uint32_t at, uint32_t count) const { return at <= size && size - at >= count; }
};

uint8_t StepOf(const Block& b, uint32_t at)
{
    if (b.p[at] == 0)
        throw "Descriptor of length 0.";
    return b.p[at];
}

CCyUSBEndPoint* MakeEndPoint(platform::DeviceHandle device, const EndPointDescriptor& d, const CompanionDescriptor* comp)
{
    switch (d.bmAttributes) {  // the whole byte: with any usage bit set the slot stays empty
    case 0: return new CCyControlEndPoint(device, &d);
    case 1: return new CCyIsocEndPoint(device, &d, comp);
    case 2: return new CCyBulkEndPoint(device, &d, comp);
    case 3: return new CCyInterruptEndPoint(device, &d, comp);
    default: return nullptr;
    }
}

// at: place of the interface head, which fits.
std::unique_ptr<InterfaceObject> ParseInterface(platform::DeviceHandle device, const Block& b, uint32_t at, bool superSpeed)
{
    auto o = std::make_unique<InterfaceObject>();
    const uint8_t* const h = b.p + at;
    o->bLength = StepOf(b, at);
    o->bDescriptorType = h[1];
    o->bInterfaceNumber = h[2];
    o->bAlternateSetting = h[3];
    o->bNumEndpoints = h[4];
    o->bInterfaceClass = h[5];
    o->bInterfaceSubClass = h[6];
    o->bInterfaceProtocol = h[7];
    o->iInterface = h[8];
    o->wTotalLength = o->bLength;

    uint32_t cursor = at + o->bLength;
    int foreign = 0;
    for (unsigned slot = 1; slot <= o->bNumEndpoints && b.Has(cursor, 2);) {
        const uint8_t step = StepOf(b, cursor);
        o->wTotalLength = uint16_t(o->wTotalLength + step);
        if (b.p[cursor + 1] != TYPE_ENDPOINT) {
            if (++foreign > MAX_FOREIGN)
                ++slot;  // the cursor stays: the slots run out on this descriptor
            else
                cursor += step;
            continue;
        }
        EndPointDescriptor d;
        if (!b.Has(cursor, sizeof d))
            break;
        std::memcpy(&d, b.p + cursor, sizeof d);
        cursor += step;

        CompanionDescriptor comp;
        bool hasCompanion = false;
        if (superSpeed && b.Has(cursor, sizeof comp) && b.p[cursor + 1] == TYPE_COMPANION) {
            hasCompanion = true;
            std::memcpy(&comp, b.p + cursor, sizeof comp);
            const uint8_t compStep = StepOf(b, cursor);
            o->wTotalLength = uint16_t(o->wTotalLength + compStep);
            cursor += compStep;
        }
        if (slot < MAX_ENDPOINT_SLOTS)
            o->endPoints[slot] = MakeEndPoint(device, d, hasCompanion ? &comp : nullptr);
        ++slot;
    }
    return o;
}

}  // namespace

InterfaceObject::~InterfaceObject()
{
    for (unsigned i = 1; i < MAX_ENDPOINT_SLOTS; ++i)
        delete endPoints[i];
}

ConfigObject::~ConfigObject()
{
    for (InterfaceObject* p : interfaces)
        delete p;
}

ConfigObject* ParseConfig(platform::DeviceHandle device, const uint8_t* raw, uint32_t size, bool superSpeed)
{
    const Block b{ raw, size };
    if (!b.Has(0, CONFIG_HEAD))
        throw "Configuration descriptor too short.";
    auto o = std::make_unique<ConfigObject>();
    o->bLength = StepOf(b, 0);
    o->bDescriptorType = raw[1];
    o->wTotalLength = U16(raw + 2);
    o->bNumInterfaces = raw[4];
    o->bConfigurationValue = raw[5];
    o->iConfiguration = raw[6];
    o->bmAttributes = raw[7];
    o->bMaxPower = raw[8];

    uint32_t at = o->bLength;
    while (at < o->wTotalLength && o->altInterfaces < MAX_INTERFACES && b.Has(at, 2)) {
        if (raw[at + 1] != TYPE_INTERFACE) {
            at += StepOf(b, at);
            continue;
        }
        if (!b.Has(at, INTERFACE_HEAD))
            break;
        InterfaceObject* const intf = ParseInterface(device, b, at, superSpeed).release();
        o->interfaces[o->altInterfaces++] = intf;
        at += intf->wTotalLength;
    }
    for (unsigned i = 0; i < o->altInterfaces; ++i)
        for (unsigned j = 0; j < o->altInterfaces; ++j)
            if (o->interfaces[j]->bInterfaceNumber == o->interfaces[i]->bInterfaceNumber)
                ++o->interfaces[i]->altSettings;
    return o.release();
}

BosObject* ParseBos(const uint8_t* raw, uint32_t size)
{
    const Block b{ raw, size };
    if (!b.Has(0, BOS_HEAD))
        throw "BOS descriptor too short.";
    auto o = std::make_unique<BosObject>();
    o->bLength = StepOf(b, 0);
    o->bDescriptorType = raw[1];
    o->wTotalLength = U16(raw + 2);
    o->bNumDeviceCaps = raw[4];

    uint32_t at = o->bLength;
    for (unsigned i = 0; i < o->bNumDeviceCaps && b.Has(at, 3); ++i) {
        const uint8_t* const d = raw + at;
        const uint8_t step = StepOf(b, at);
        if (d[2] == CAP_USB20 && b.Has(at, 7)) {
            const uint32_t attributes = U16(d + 3) | (uint32_t(U16(d + 5)) << 16);
            o->usb20.reset(new BosUsb20Extension{ d[0], d[1], d[2], attributes });
        } else if (d[2] == CAP_SUPERSPEED && b.Has(at, 10)) {
            o->superSpeed.reset(new BosSuperSpeed{ d[0], d[1], d[2], d[3], U16(d + 4), d[6], d[7], U16(d + 8) });
        } else if (d[2] == CAP_CONTAINER && b.Has(at, 20)) {
            o->containerId.reset(new BosContainerId{ d[0], d[1], d[2], {} });
            std::memcpy(o->containerId->containerId, d + 4, 16);
        }
        at += step;
    }
    return o.release();
}

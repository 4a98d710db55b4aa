// The one list of all product IDs and classes. A new model gets a row here and one in its family.
#include <algorithm>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>

#include "api/DeviceTable.h"
#include "base/Log.h"
#include "platform/InterfaceGuids.h"
#include "platform/UsbDriver.h"
#include "sensors/agate/Agate.h"
#include "sensors/beryl/Beryl.h"
#include "sensors/cobalt/Cobalt.h"
#include "sensors/ebony/Ebony.h"
#include "sensors/garnet/Garnet.h"
#include "sensors/iolite/Iolite.h"
#include "sensors/jasper/Jasper.h"
#include "sensors/kyanite/Kyanite.h"
#include "sensors/lapis/Lapis.h"
#include "sensors/marble/Marble.h"
#include "sensors/quartz/Quartz.h"
#include "usb/CUsbLink.h"

Shared<int32_t> g_aProductID[DEVICE_MAX];
Shared<int32_t> g_iCameraCount;
Shared<int32_t> g_iLastOpened;
Shared<bool> g_bReopenProbe;
Shared<CCameraBase*> g_apCamera[DEVICE_MAX];
Shared<int32_t> g_aImageBytes[DEVICE_MAX];

namespace {

template <class T>
CCameraBase* Make()
{
    return new T();
}

struct FactoryRow {
    int32_t productId;
    CCameraBase* (*Create)();
    uint8_t group;  // product IDs that count as one model; 0: none. The same ones raise the flag.
};

constexpr FactoryRow g_Factory[] = {
    { 0xC01A, Make<CCameraSAgateCol>, 0 },
    { 0xC02A, Make<CCameraSBerylCol>, 0 },
    { 0xC02B, Make<CCameraSBerylMono>, 0 },
    { 0xC03A, Make<CCameraSCobaltCol>, 1 },
    { 0xC03B, Make<CCameraSCobaltCol>, 1 },
    { 0xC03C, Make<CCameraSCobaltCol>, 1 },
    { 0xC04A, Make<CCameraSDuniteMono>, 2 },
    { 0xC04B, Make<CCameraSDuniteCol>, 3 },
    { 0xC04C, Make<CCameraSDuniteMono>, 2 },
    { 0xC04D, Make<CCameraSDuniteMono>, 2 },
    { 0xC04E, Make<CCameraSDuniteCol>, 3 },
    { 0xC04F, Make<CCameraSDuniteCol>, 3 },
    { 0xC05A, Make<CCameraSEbonyCol>, 0 },
    { 0xC06A, Make<CCameraSFlintCol>, 0 },
    { 0xC07A, Make<CCameraSGarnetMono>, 0 },
    { 0xC07B, Make<CCameraSGarnetCol>, 0 },
    { 0xC07D, Make<CCameraSGarnetMono_S>, 0 },
    { 0xC07E, Make<CCameraSGarnetCol_S>, 0 },
    { 0xC08A, Make<CCameraSHaliteCol>, 0 },
    { 0xC09A, Make<CCameraSIoliteMono>, 0 },
    { 0xC0AA, Make<CCameraSJasperCol>, 4 },
    { 0xC0AC, Make<CCameraSJasperCol>, 4 },
    { 0xC0AD, Make<CCameraSJasperCol>, 4 },
    { 0xC0B0, Make<CCameraSKyaniteCol>, 0 },
    { 0xC0B1, Make<CCameraSKyaniteCol_C>, 0 },
    { 0xC0B2, Make<CCameraSKyaniteMono>, 0 },
    { 0xC0B3, Make<CCameraSKyaniteMono_C>, 0 },
    // QUIRK: LapisCol's OpenCamera accepts the two LapisMono variants as well, but it is counted by equality alone.
    { 0xC0CA, Make<CCameraSLapisCol>, 0 },
    { 0xC0CB, Make<CCameraSLapisMono>, 5 },
    { 0xC0CC, Make<CCameraSLapisCol_C>, 0 },
    { 0xC0CD, Make<CCameraSLapisMono_C>, 0 },
    { 0xC0CE, Make<CCameraSLapisMono>, 5 },
    { 0xC0CF, Make<CCameraSLapisMono>, 5 },
    { 0xC0DA, Make<CCameraSMarbleCol>, 0 },
    { 0xC0DB, Make<CCameraSMarbleCol_C>, 0 },
    { 0xC0DC, Make<CCameraSMarbleMono>, 0 },
    { 0xC0DD, Make<CCameraSMarbleMono_C>, 0 },
    { 0xC0EA, Make<CCameraSNephriteCol>, 0 },
    { 0xC0EB, Make<CCameraSNephriteCol_C>, 0 },
    { 0xC0FA, Make<CCameraSOnyxCol>, 0 },
    { 0xC0FB, Make<CCameraSOnyxCol_C>, 0 },
    { 0xC10A, Make<CCameraSPyriteCol>, 0 },
    { 0xC11A, Make<CCameraSQuartzCol>, 0 },
    { 0xC11B, Make<CCameraSQuartzMono>, 0 },
};
static_assert(std::is_sorted(std::begin(g_Factory), std::end(g_Factory),
                             [](const FactoryRow& a, const FactoryRow& b) { return a.productId < b.productId; }));

const FactoryRow* FindRow(int32_t productId)
{
    const auto it =
        std::find_if(std::begin(g_Factory), std::end(g_Factory), [=](const FactoryRow& r) { return r.productId == productId; });
    return it == std::end(g_Factory) ? nullptr : it;
}

}  // namespace

CCameraBase* CreateCameraObject(int id, bool forOpen)
{
    g_bReopenProbe = false;
    const FactoryRow* row = FindRow(g_aProductID[id]);
    if (row == nullptr)
        return nullptr;
    CCameraBase* cam = nullptr;
    try {
        cam = row->Create();
        cam->m_ownedByFrame = true;
    } catch (const std::bad_alloc&) {
    }
    g_bReopenProbe = row->group != 0 && !forOpen;
    return cam;
}

int RunningIndex(int id)
{
    const FactoryRow* row = FindRow(g_aProductID[id]);
    int n = 0;
    for (int j = 0; j < id; ++j) {
        const FactoryRow* other = FindRow(g_aProductID[j]);
        if (row != nullptr && row->group != 0)
            n += other != nullptr && other->group == row->group;
        else
            n += g_aProductID[j] == g_aProductID[id];
    }
    return n;
}

int32_t EnumerateCameras()
{
    int32_t found[DEVICE_MAX];
    int32_t n = 0;
    const platform::BusLook look;
    for (const platform::Guid& guid : platform::g_InterfaceGuids) {
        auto link = std::make_unique<CUsbLink>(nullptr, guid, true);
        const int devices = link->DeviceCount();
        for (int i = 0; i < devices; ++i) {
            try {
                // False also for a damaged configuration; the IDs are known then. The first one is open already.
                if (i > 0 || !link->IsOpen())
                    link->Open(static_cast<uint8_t>(i));
            } catch (const char* error) {
                // The driver does not let go of the device before. A new link has none to close.
                KOV_LOG(Warn, "%s", error);
                link = std::make_unique<CUsbLink>(nullptr, guid, false);
                link->Open(static_cast<uint8_t>(i));
            }
            if (link->m_vendorId == platform::CAMERA_VENDOR_ID)
                found[n++] = link->m_productId;
        }
    }
    std::copy_n(found, n, g_aProductID);
    g_iCameraCount = n;
    KOV_LOG(Info, "%d cameras found", n);
    return n;
}

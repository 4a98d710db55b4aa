#include <string>

#include "torture/Faults.h"

using usbstack::BulkRequest;
using usbstack::Status;

namespace {

class FaultyDevice final : public usbstack::IDevice {
public:
    explicit FaultyDevice(usbstack::IDevice* p) : m_p(p) {}
    ~FaultyDevice() override
    {
        const InLibrary virtualSide(false);
        m_p.reset();
    }
    Status Control(uint8_t bType, uint8_t bRequest, uint16_t wValue, uint16_t wIndex, uint8_t* pData, uint16_t wLength,
                   uint32_t dwTimeoutMs, uint32_t* pdwMoved) override
    {
        const InLibrary virtualSide(false);
        *pdwMoved = 0;
        return g_UsbCalls.Fails() ? Status::Stall
                                  : m_p->Control(bType, bRequest, wValue, wIndex, pData, wLength, dwTimeoutMs, pdwMoved);
    }
    Status SubmitBulk(BulkRequest* p) override
    {
        const InLibrary virtualSide(false);
        if (g_UsbCalls.Fails())
            return Status::Failed;
        Sent* const s = new Sent{ *p, p };
        s->request.context = s;
        s->request.OnComplete = [](BulkRequest* own, Status status, uint32_t dwBytes) {
            const std::unique_ptr<Sent> done(static_cast<Sent*>(own->context));
            const bool bFails = status == Status::Ok && g_UsbCalls.Fails();
            const InLibrary library;
            done->pAsked->OnComplete(done->pAsked, bFails ? Status::Failed : status, bFails ? 0 : dwBytes);
        };
        const Status status = m_p->SubmitBulk(&s->request);
        if (status != Status::Ok)
            delete s;
        return status;
    }
    void Abort(uint8_t bEndpoint) override
    {
        const InLibrary virtualSide(false);
        m_p->Abort(bEndpoint);
    }
    Status ResetPipe(uint8_t bEndpoint) override
    {
        return Try([&] { return m_p->ResetPipe(bEndpoint); });
    }
    void SetTransferSize(uint8_t, uint32_t) override {}
    Status ResetPort() override
    {
        return Try([&] { return m_p->ResetPort(); });
    }
    Status CyclePort() override
    {
        return Try([&] { return m_p->CyclePort(); });
    }
    usbstack::Speed GetSpeed() override { return m_p->GetSpeed(); }
    uint8_t GetAddress() override { return m_p->GetAddress(); }
    int GetAltSetting() override { return g_UsbCalls.Fails() ? -1 : m_p->GetAltSetting(); }
    Status Claim() override { return g_UsbCalls.Fails() ? Status::Busy : m_p->Claim(); }
    void AbortControl() override
    {
        const InLibrary virtualSide(false);
        m_p->AbortControl();
    }

private:
    struct Sent {
        BulkRequest request;
        BulkRequest* pAsked;
    };
    template <class Call>
    static Status Try(Call call)
    {
        const InLibrary virtualSide(false);
        return g_UsbCalls.Fails() ? Status::Failed : call();
    }
    std::unique_ptr<usbstack::IDevice> m_p;
};

class FaultyStack final : public usbstack::IStack {
public:
    explicit FaultyStack(usbstack::IStack& bus) : m_Bus(bus) {}
    std::vector<usbstack::DeviceInfo> Enumerate() override
    {
        std::vector<usbstack::DeviceInfo> found;
        {
            const InLibrary virtualSide(false);
            if (!g_UsbCalls.Fails())
                found = m_Bus.Enumerate();
        }
        return std::vector<usbstack::DeviceInfo>(found);  // the library's own from here on
    }
    usbstack::IDevice* Open(const std::string& sPath, Status* pStatus) override
    {
        const InLibrary virtualSide(false);
        *pStatus = Status::Failed;
        usbstack::IDevice* const p = g_UsbCalls.Fails() ? nullptr : m_Bus.Open(sPath, pStatus);
        return p ? new FaultyDevice(p) : nullptr;
    }

private:
    usbstack::IStack& m_Bus;
};

}  // namespace

std::unique_ptr<usbstack::IStack> MakeFaultyStack(usbstack::IStack& bus) { return std::make_unique<FaultyStack>(bus); }

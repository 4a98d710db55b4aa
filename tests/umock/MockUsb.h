// Puts any usbstack::IDevice behind an unmodified libusb: a fake device node under umockdev, whose usbfs requests are
// answered from the device. The program must run under `umockdev-wrapper`; client and fake share one process.
//
//   MockBus bus;
//   MockUsb camera(bus, 2, "1.4", device);      // bus 2, port path 1.4; descriptors are asked of the device
//   ... usbstack::LibusbStack().Enumerate() ...
//   camera.Vanish();  camera.Plug();            // returns with a new address
//
// Every handle of libusb must be closed before the MockUsb goes; the device must outlive it. Bulk data go straight into
// the client's memory. Short requests need scatter-gather (the default); see SetCapabilities.
#pragma once
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "platform/UsbStack.h"

struct _UMockdevTestbed;

// The machine: its bus with hubs, and the memory that usbfs grants to all devices together. One at a time.
class MockBus {
public:
    MockBus();
    ~MockBus();
    MockBus(const MockBus&) = delete;
    MockBus& operator=(const MockBus&) = delete;

    // 0: unlimited. bTold: the limit also stands where the system tells it, in whole MiB.
    void SetMemoryLimit(uint64_t lBytes, bool bTold = false);
    uint64_t MemoryPeak() const;  // most that was in use
    int MemoryRefusals() const;
    void Reserve(int64_t lBytes);  // what another process takes (or, negative, gives back)

private:
    friend class MockUsb;
    bool Take(uint64_t lBytes);
    void Give(uint64_t lBytes);
    void AddHub(uint8_t bBus, const std::string& sName, usbstack::Speed speed);
    uint8_t NextAddress() { return ++m_bAddress; }

    _UMockdevTestbed* m_pBed;
    std::set<std::string> m_hubs;
    uint8_t m_bAddress = 0;
    mutable std::mutex m_mutex;
    uint64_t m_limit = 0, m_lUsed = 0, m_lPeak = 0;
    int m_iRefusals = 0;
};

class MockUsb {
public:
    static constexpr uint32_t SCATTER_GATHER = 0x08, CONTINUATION = 0x02;

    MockUsb(MockBus& bus, uint8_t bBus, std::string sPorts, usbstack::IDevice& device);
    ~MockUsb();
    MockUsb(const MockUsb&) = delete;
    MockUsb& operator=(const MockUsb&) = delete;

    void Plug();                     // does nothing while plugged
    void Vanish();                   // every request ends, the node goes, the system tells it
    void ReplaceUnderSameAddress();  // as a hub with a controller of its own does that is pulled and plugged again
    uint8_t Address() const { return m_bAddress; }

    // How hosts differ; to be set before the device is opened. CONTINUATION makes libusb split requests in 16 KiB.
    void SetCapabilities(uint32_t dw) { m_dwCapabilities = dw; }
    void SetClaimError(int iErrno) { m_iClaimError = iErrno; }  // 0: none
    void SetResetError(int iErrno) { m_iResetError = iErrno; }  // ENODEV: comes back as another device

    struct Counts {
        int iClaims = 0, iReleases = 0, iResets = 0, iClearHalts = 0, iRefusedHalts = 0, iDiscards = 0, iBulk = 0, iControl = 0,
            iOutstanding = 0, iAtReset = 0;  // iAtReset: requests outstanding at the last reset
    };
    Counts Seen() const;

private:
    struct Node;
    struct Urb;
    struct Ioctl;
    friend struct Ioctl;

    long Handle(Node& node, unsigned long lRequest, void* pArg, int* piErrno);  // umockdev's thread
    int SubmitUrb(Node& node, void* pUrb);
    int Discard(Node& node, void* pUrb);
    int Reap(Node& node, void** ppUrb);
    void Submit(Urb& urb);
    void Finish(Urb& urb, int iStatus);
    void EndAll(Node& node, int iStatus);
    void ControlLoop();
    static void OnComplete(usbstack::BulkRequest* request, usbstack::Status status, uint32_t dwBytes);

    MockBus& m_bus;
    usbstack::IDevice& m_device;
    const uint8_t m_bBus;
    const std::string m_sPorts;
    uint8_t m_bAddress = 0;
    uint32_t m_dwCapabilities = SCATTER_GATHER;
    int m_iClaimError = 0, m_iResetError = 0;

    mutable std::mutex m_mutex;  // not held while the device is called
    std::condition_variable m_cv;
    std::list<std::shared_ptr<Node>> m_nodes;  // one a plug; the last is the present one
    std::list<std::shared_ptr<Urb>> m_control;
    Counts m_counts;
    bool m_stop = false;
    std::thread m_thread;  // control requests, which may take time
};

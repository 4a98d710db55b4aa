// The lower USB seam: what the library needs of a USB stack. Two stacks exist, libusb and the virtual bus. This header
// stands alone: it is all that the virtual cameras know of the library.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace usbstack {

enum class Status {
    Ok,
    Cancelled,  // ended by Abort or by closing the handle
    Stall,      // endpoint halted, or the device refused the control request
    TimedOut,
    Gone,    // device has vanished; every later call on the handle gives this too
    Busy,    // claimed by another process
    Access,  // no permission for the device node
    NoMemory,
    Failed  // anything else
};

enum class Speed { Unknown, Full, High, Super };

// A present device. Order of a list: bus number, then port path; it is the same for the same plugs.
struct DeviceInfo {
    uint16_t vendorId = 0, productId = 0;
    uint8_t bus = 0;
    uint8_t address = 0;
    std::string portPath;  // "1.4.2"; with the bus it names the socket, not the device
    std::string path;      // opaque name for Open; changes with every plug
    Speed speed = Speed::Unknown;
};

// One outstanding bulk request. Owned by the caller, who keeps it and the buffer alive until OnComplete was called.
struct BulkRequest {
    uint8_t endpoint = 0;
    uint8_t* data = nullptr;  // data land here directly
    uint32_t length = 0;
    // Called exactly once for every request that SubmitBulk accepted, on the stack's event thread (or inside Abort or
    // the handle's destructor), with the bytes moved. It must not call into the handle and must not block.
    void (*OnComplete)(BulkRequest* request, Status status, uint32_t bytes) = nullptr;
    void* context = nullptr;  // the caller's own
    void* stack = nullptr;    // the stack's own
};

// An open device. Calls may come from several threads; control requests are already serialised by the caller.
// Destroying the handle aborts all requests, waits for their completions and releases the device.
class IDevice {
public:
    virtual ~IDevice() = default;

    // Synchronous control transfer, standard and vendor. `timeoutMs` 0 waits without limit. Moves at most `length` bytes
    // from or to `data`, by bit 7 of `requestType`; *moved takes the count, also on failure. Blocks.
    virtual Status Control(uint8_t requestType, uint8_t request, uint16_t value, uint16_t index, uint8_t* data, uint16_t length,
                           uint32_t timeoutMs, uint32_t* moved) = 0;

    // Queues a read behind those already queued on this endpoint; they complete in order. Never blocks. On anything but
    // Ok nothing is queued and OnComplete is not called. A stack with a memory limit keeps what exceeds it in order and
    // sends it later. Only a request for which there is no room though none of this process is out ends with NoMemory.
    virtual Status SubmitBulk(BulkRequest* request) = 0;

    // Returns when every outstanding request of the endpoint has completed: afterwards nothing writes into a buffer.
    virtual void Abort(uint8_t endpoint) = 0;

    // Clears a halt. Requests still outstanding are cancelled first.
    virtual Status ResetPipe(uint8_t endpoint) = 0;

    virtual void SetTransferSize(uint8_t endpoint, uint32_t size) = 0;  // hint of the largest single request
    virtual Status ResetPort() = 0;  // resets the device in place; outstanding requests are cancelled
    virtual Status CyclePort() = 0;  // the device re-enumerates; the handle is stale afterwards
    virtual Speed GetSpeed() = 0;
    virtual uint8_t GetAddress() = 0;
    virtual int GetAltSetting() = 0;  // of interface 0; -1 when unknown

    // Takes the device for this process: Busy while another process has it. Looking at a device (descriptors, addresses,
    // control requests) needs no claim, bulk requests and resets claim by themselves. Kept until the last handle closes.
    virtual Status Claim() { return Status::Ok; }

    // Cancels the control request that this handle has with the device: its Control returns soon with Cancelled. Does not
    // wait; may be called while Control blocks in another thread.
    virtual void AbortControl() {}

    // True: Control returns when its time limit is over, whatever the device does. Then the thread that wants an answer asks
    // itself, which saves two changes of thread a request; else another one asks, which can be left behind.
    virtual bool KeepsTimeLimits() const { return false; }
};

class IStack {
public:
    virtual ~IStack() = default;
    virtual std::vector<DeviceInfo> Enumerate() = 0;  // all present devices of the vendor 0x0E5A
    // The caller owns the result. nullptr: *status tells why. Opening takes nothing away from another process that uses
    // the device (Claim does); the handles of one process share it.
    virtual IDevice* Open(const std::string& path, Status* status) = 0;
};

#if defined(_WIN32)
#  define KOV_PLUGIN_EXPORT __declspec(dllexport)
#else
#  define KOV_PLUGIN_EXPORT __attribute__((visibility("default")))
#endif

// A stack that the program or a preloaded library brings along. The library looks for the symbol KOVUsbStackPlugin (C
// linkage) in the process and asks it at each enumeration and open; a non-null result takes the place of libusb. It may
// change while no device is open. On Windows the library looks in the program itself and in kovsim.dll, if that is loaded.
inline constexpr uint32_t PLUGIN_VERSION = 2;  // of these classes; a library takes no other than its own
struct Plugin {
    uint32_t version;  // PLUGIN_VERSION
    IStack* stack;     // lives until every device of it has been closed and the entry tells another
    double clockRate;  // how many times faster than real time the library's clock is to run
};
using PluginEntry = const Plugin* (*)();

}  // namespace usbstack

// The upper USB seam: the kernel driver as CUsbLink and the endpoints see it. On Windows it is SetupDi, CreateFile and
// DeviceIoControl; elsewhere one adapter decodes the requests and calls a USB stack (UsbStack.h).
#pragma once
#include <cstdint>
#include <memory>
#include <string>

namespace platform {

struct Guid {
    uint32_t data1;
    uint16_t data2, data3;
    uint8_t data4[8];
};
static_assert(sizeof(Guid) == 16);

// Device handle. -1 is closed, -2 is invalid too; other values are the driver's own.
using DeviceHandle = intptr_t;
constexpr DeviceHandle INVALID_DEVICE = -1;
inline bool IsDeviceOpen(DeviceHandle h) { return h != -1 && h != -2; }

// One outstanding request, in the layout of the Windows record.
struct Overlapped {
    uintptr_t Internal;      // the driver's own
    uintptr_t InternalHigh;  // the driver's own
    uint32_t Offset, OffsetHigh;
    void* hEvent;  // platform::EventHandle, signalled on completion
};
static_assert(sizeof(void*) != 8 || sizeof(Overlapped) == 32);

// Error numbers that the code above distinguishes.
constexpr uint32_t ERROR_NONE = 0;
constexpr uint32_t ERROR_FILE_NOT_THERE = 2;
constexpr uint32_t ERROR_NO_ACCESS = 5;
constexpr uint32_t ERROR_BAD_HANDLE = 6;
constexpr uint32_t ERROR_NOT_READY = 21;
constexpr uint32_t ERROR_GENERAL_FAILURE = 31;
constexpr uint32_t ERROR_SHARED = 32;  // in use by another process
constexpr uint32_t ERROR_BAD_PARAMETER = 87;
constexpr uint32_t ERROR_TIMED_OUT = 121;
constexpr uint32_t ERROR_NO_MORE = 259;
constexpr uint32_t ERROR_CANCELLED_IO = 995;
constexpr uint32_t ERROR_INCOMPLETE = 996;  // GetOverlappedResult without waiting: not yet done
constexpr uint32_t ERROR_PENDING = 997;
constexpr uint32_t ERROR_GONE = 1167;  // device not connected

// Request codes of the driver. Sizes and directions are told at the callers.
enum IoCode : uint32_t {
    IO_DRIVER_VERSION = 0x220000,
    IO_STACK_VERSION = 0x220004,
    IO_ALT_SETTING = 0x220008,
    IO_USB_ADDRESS = 0x220010,
    IO_CONTROL = 0x220020,
    IO_BUFFERED = 0x220024,
    IO_CYCLE_PORT = 0x220028,
    IO_RESET_PIPE = 0x22002C,
    IO_RESET_PARENT_PORT = 0x220030,
    IO_SET_TRANSFER_SIZE = 0x220038,
    IO_DRIVER_NAME = 0x22003C,
    IO_FRIENDLY_NAME = 0x220040,
    IO_ABORT_PIPE = 0x220044,
    IO_DIRECT = 0x22004B,
    IO_DEVICE_SPEED = 0x22004C,
};

// Every call that fails leaves its error for LastError() of the same thread; IoControl and GetResult set it on success
// too (ERROR_NONE).
class IUsbDriver {
public:
    virtual ~IUsbDriver() = default;

    // Device information: a snapshot of the present devices of one interface GUID, in a stable order.
    using DevInfo = void*;
    virtual DevInfo GetClassDevs(const Guid& guid) = 0;       // nullptr on failure
    virtual bool EnumInterface(DevInfo, uint32_t index) = 0;  // ERROR_NO_MORE past the end
    virtual bool EnumInfo(DevInfo, uint32_t index) = 0;
    virtual bool GetProperty(DevInfo, uint32_t index, uint32_t property, char* out, uint32_t size) = 0;
    virtual bool GetInterfacePath(DevInfo, uint32_t index, std::string* path) = 0;
    virtual void DestroyList(DevInfo) = 0;

    // Opens for parallel overlapped requests. INVALID_DEVICE on failure.
    virtual DeviceHandle Open(const char* path) = 0;
    // After it returns nothing writes into a caller's memory any more.
    virtual bool Close(DeviceHandle) = 0;
    // Takes the device for this process; ERROR_SHARED while another has it. A driver that shares devices always agrees.
    virtual bool Claim(DeviceHandle) { return true; }

    // Without overlapped it blocks until done. With it: true when done at once, else false with ERROR_PENDING, and the
    // record's event is signalled later; in, out and the record must live until then.
    virtual bool IoControl(DeviceHandle, uint32_t code, void* in, uint32_t inBytes, void* out, uint32_t outBytes, uint32_t* moved,
                           Overlapped* overlapped) = 0;
    // ERROR_INCOMPLETE while the request is out (wait false): the caller gives it up with that and may free in, record
    // and event; a buffer of IO_DIRECT is still written to until the pipe is aborted or the device closed. A record that
    // was never begun gives ERROR_BAD_PARAMETER.
    virtual bool GetResult(DeviceHandle, Overlapped*, uint32_t* moved, bool wait) = 0;

    // Arrival and removal notices, for a window handle or for an open device. nullptr on failure.
    virtual void* RegisterInterfaceNotice(void* window, const void* filter) = 0;
    virtual void* RegisterHandleNotice(void* window, const void* filter) = 0;
    virtual bool UnregisterNotice(void* notice) = 0;
};

// While one lives, all device lists that its thread asks for show one moment: the bus is listed once. A driver that keeps a
// list of its own, as that of Windows does, needs none.
class BusLook {
public:
    BusLook();
    ~BusLook();
    BusLook(const BusLook&) = delete;
    BusLook& operator=(const BusLook&) = delete;

private:
    struct Listing;
    std::unique_ptr<Listing> m_listing;  // nullptr inside another one, whose listing counts
};

// While one lives, a control request that its thread begins may be done before the call returns, since the thread waits for
// it anyway: for at most `ms` of the library's clock, after which it counts as given up. Nothing else differs; a driver
// that has the system do its requests does not care.
class Patience {
public:
    explicit Patience(uint32_t ms);
    ~Patience();
    Patience(const Patience&) = delete;
    Patience& operator=(const Patience&) = delete;
};

// The error of the calling thread's last driver call.
uint32_t LastError();
void SetLastError(uint32_t error);

IUsbDriver& UsbDriver();         // the driver of this process
void SetUsbDriver(IUsbDriver*);  // tests only: nullptr brings the default back

}  // namespace platform

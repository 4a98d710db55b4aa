// The upper USB seam on Windows: SetupDi, CreateFile and DeviceIoControl, passed through.
#include "platform/UsbDriver.h"  // first: Windows makes macros of names that it declares

#include <windows.h>

#include <dbt.h>
#include <setupapi.h>

#include <algorithm>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "platform/UsbAdapter.h"

namespace platform {
namespace {

static_assert(sizeof(GUID) == sizeof(Guid) && sizeof(OVERLAPPED) == sizeof(Overlapped) && sizeof(OVERLAPPED) == 32);
static_assert(offsetof(OVERLAPPED, hEvent) == offsetof(Overlapped, hEvent));
static_assert(sizeof(DEV_BROADCAST_DEVICEINTERFACE_A) == 32 && sizeof(DEV_BROADCAST_HANDLE) == 56);
static_assert(ERROR_NO_MORE == ERROR_NO_MORE_ITEMS && ERROR_CANCELLED_IO == ERROR_OPERATION_ABORTED &&
              ERROR_INCOMPLETE == ERROR_IO_INCOMPLETE && ERROR_PENDING == ERROR_IO_PENDING &&
              ERROR_GONE == ERROR_DEVICE_NOT_CONNECTED);

constexpr DWORD LIST_FLAGS = DIGCF_PRESENT | DIGCF_DEVICEINTERFACE;
static_assert(LIST_FLAGS == 18);
// The record's head as the system counts it on 64-bit Windows, whatever this compiler's padding.
constexpr DWORD DETAIL_HEAD = 8, DETAIL_PATH_AT = 4;
// A driver that does not let go of a cancelled request for so long keeps its memory for good.
constexpr int CANCEL_LIMIT_MS = 2000;

// The system's own error is not kept between calls: allocations and locks in between change it.
bool Told(bool ok)
{
    SetLastError(ok ? ERROR_NONE : ::GetLastError());
    return ok;
}

struct List {
    HDEVINFO h;
    GUID guid;
};
List& ListOf(IUsbDriver::DevInfo h) { return *static_cast<List*>(h); }
HANDLE File(DeviceHandle h) { return reinterpret_cast<HANDLE>(h); }

bool FindInterface(const List& list, DWORD index, SP_DEVICE_INTERFACE_DATA* data)
{
    data->cbSize = sizeof *data;
    return Told(SetupDiEnumDeviceInterfaces(list.h, nullptr, &list.guid, index, data) != 0);
}
bool FindInfo(const List& list, DWORD index, SP_DEVINFO_DATA* data)
{
    data->cbSize = sizeof *data;
    return Told(SetupDiEnumDeviceInfo(list.h, index, data) != 0);
}

// An overlapped request that the kernel has. Its record and its copy of the input are ours, so a caller that gives it up
// may free its own while the kernel still writes. The event is the caller's: the kernel holds a reference to the object.
struct Request {
    OVERLAPPED ov{};
    HANDLE file = nullptr;
    std::vector<uint8_t> block;
    void* caller = nullptr;  // where the block goes back to, inside the caller's own calls only

    bool IsDone() const { return HasOverlappedIoCompleted(&ov); }
    void GiveBack() const
    {
        if (!block.empty())
            std::memcpy(caller, block.data(), block.size());
    }
};

class WinUsbDriver final : public IUsbDriver {
public:
    DevInfo GetClassDevs(const Guid& guid) override
    {
        List list{ nullptr, { guid.data1, guid.data2, guid.data3, {} } };
        std::copy(std::begin(guid.data4), std::end(guid.data4), list.guid.Data4);
        list.h = SetupDiGetClassDevsA(&list.guid, nullptr, nullptr, LIST_FLAGS);
        return Told(list.h != INVALID_HANDLE_VALUE) ? new List(list) : nullptr;
    }
    bool EnumInterface(DevInfo h, uint32_t index) override
    {
        SP_DEVICE_INTERFACE_DATA data{};
        return FindInterface(ListOf(h), index, &data);
    }
    bool EnumInfo(DevInfo h, uint32_t index) override
    {
        SP_DEVINFO_DATA data{};
        return FindInfo(ListOf(h), index, &data);
    }
    bool GetProperty(DevInfo h, uint32_t index, uint32_t property, char* out, uint32_t size) override
    {
        SP_DEVINFO_DATA data{};
        return FindInfo(ListOf(h), index, &data) &&
               Told(SetupDiGetDeviceRegistryPropertyA(ListOf(h).h, &data, property, nullptr, reinterpret_cast<BYTE*>(out), size,
                                                      nullptr) != 0);
    }
    bool GetInterfacePath(DevInfo h, uint32_t index, std::string* path) override
    {
        SP_DEVICE_INTERFACE_DATA data{};
        if (!FindInterface(ListOf(h), index, &data))
            return false;
        DWORD needed = 0;
        SetupDiGetDeviceInterfaceDetailA(ListOf(h).h, &data, nullptr, 0, &needed, nullptr);
        if (needed <= DETAIL_PATH_AT)
            return Told(false);
        // In words, for the alignment of the record.
        std::vector<uint64_t> block((needed + 7) / 8 + 1);
        auto* const detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(block.data());
        detail->cbSize = DETAIL_HEAD;
        if (!Told(SetupDiGetDeviceInterfaceDetailA(ListOf(h).h, &data, detail, needed, nullptr, nullptr) != 0))
            return false;
        // The needed size counts the head of 4 bytes and the path's end.
        path->assign(reinterpret_cast<const char*>(block.data()) + DETAIL_PATH_AT, needed - DETAIL_PATH_AT - 1);
        return true;
    }
    void DestroyList(DevInfo h) override
    {
        SetupDiDestroyDeviceInfoList(ListOf(h).h);
        delete &ListOf(h);
    }

    DeviceHandle Open(const char* path) override
    {
        const HANDLE h = CreateFileA(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                     OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
        Told(h != INVALID_HANDLE_VALUE);
        return reinterpret_cast<DeviceHandle>(h);
    }
    // The requests that are out are cancelled and waited for, then nothing writes any more.
    bool Close(DeviceHandle h) override
    {
        std::list<std::unique_ptr<Request>> out = Withdraw(File(h));
        if (!out.empty())
            CancelIoEx(File(h), nullptr);
        for (const auto& r : out)
            for (int i = 0; i < CANCEL_LIMIT_MS && !r->IsDone(); ++i)
                Sleep(1);
        const bool ok = Told(CloseHandle(File(h)) != 0);
        for (auto& r : out)
            if (!r->IsDone())
                static_cast<void>(r.release());
        return ok;
    }

    bool IoControl(DeviceHandle h, uint32_t code, void* in, uint32_t inBytes, void* out, uint32_t outBytes, uint32_t* moved,
                   Overlapped* overlapped) override
    {
        DWORD bytes = 0;
        // An abort is waited for by its caller to the end, without fetching a result.
        if (!overlapped || code == IO_ABORT_PIPE) {
            const BOOL ok =
                DeviceIoControl(File(h), code, in, inBytes, out, outBytes, &bytes, reinterpret_cast<OVERLAPPED*>(overlapped));
            Told(ok != 0);
            *moved = bytes;
            return ok != 0;
        }
        GiveUp(overlapped);
        auto owner = std::make_unique<Request>();
        Request& r = *owner;
        r.file = File(h);
        r.ov.hEvent = overlapped->hEvent;
        r.caller = in;
        r.block.assign(static_cast<uint8_t*>(in), static_cast<uint8_t*>(in) + inBytes);
        {
            // Before the kernel has it: another thread may close the file.
            const std::lock_guard l(m_mutex);
            m_slots[overlapped] = std::move(owner);
        }
        const BOOL ok =
            DeviceIoControl(File(h), code, r.block.data(), inBytes, out == in ? r.block.data() : out, outBytes, &bytes, &r.ov);
        const DWORD error = ok ? ERROR_NONE : ::GetLastError();
        if (error != ERROR_PENDING)
            r.GiveBack();
        if (error != ERROR_NONE && error != ERROR_PENDING) {
            const std::lock_guard l(m_mutex);
            m_slots.erase(overlapped);
        }
        *moved = bytes;
        SetLastError(error);
        return ok != 0;
    }
    bool GetResult(DeviceHandle h, Overlapped* overlapped, uint32_t* moved, bool wait) override
    {
        *moved = 0;
        std::unique_ptr<Request> r;
        {
            const std::lock_guard l(m_mutex);
            const auto it = m_slots.find(overlapped);
            if (it != m_slots.end()) {
                r = std::move(it->second);
                m_slots.erase(it);
            }
        }
        if (!r) {
            SetLastError(ERROR_BAD_PARAMETER);
            return false;
        }
        DWORD bytes = 0;
        const BOOL ok = GetOverlappedResult(File(h), &r->ov, &bytes, wait);
        const DWORD error = ok ? ERROR_NONE : ::GetLastError();
        if (error == ERROR_INCOMPLETE) {
            const std::lock_guard l(m_mutex);
            m_givenUp.push_back(std::move(r));
        } else {
            r->GiveBack();
            *moved = bytes;
        }
        SetLastError(error);
        return ok != 0;
    }

    void* RegisterInterfaceNotice(void* window, const void* filter) override { return Register(window, filter); }
    void* RegisterHandleNotice(void* window, const void* filter) override { return Register(window, filter); }
    bool UnregisterNotice(void* notice) override { return Told(UnregisterDeviceNotification(notice) != 0); }

private:
    // Whatever the slot was used for before is over for the caller. What has ended among the abandoned is freed.
    void GiveUp(Overlapped* overlapped)
    {
        const std::lock_guard l(m_mutex);
        m_givenUp.remove_if([](const auto& r) { return r->IsDone(); });
        const auto it = m_slots.find(overlapped);
        if (it == m_slots.end())
            return;
        if (!it->second->IsDone())
            m_givenUp.push_back(std::move(it->second));
        m_slots.erase(it);
    }
    // Takes the requests of a file out of the books.
    std::list<std::unique_ptr<Request>> Withdraw(HANDLE file)
    {
        std::list<std::unique_ptr<Request>> out;
        const std::lock_guard l(m_mutex);
        for (auto it = m_slots.begin(); it != m_slots.end();) {
            if (it->second->file == file) {
                out.push_back(std::move(it->second));
                it = m_slots.erase(it);
            } else {
                ++it;
            }
        }
        for (auto it = m_givenUp.begin(); it != m_givenUp.end();) {
            const auto next = std::next(it);
            if ((*it)->file == file)
                out.splice(out.end(), m_givenUp, it);
            it = next;
        }
        return out;
    }

    static void* Register(void* window, const void* filter)
    {
        void* const h = RegisterDeviceNotificationA(window, const_cast<void*>(filter), DEVICE_NOTIFY_WINDOW_HANDLE);
        Told(h != nullptr);
        return h;
    }

    std::mutex m_mutex;
    std::unordered_map<Overlapped*, std::unique_ptr<Request>> m_slots;  // the newest request of each slot
    std::list<std::unique_ptr<Request>> m_givenUp;                      // that the kernel still has
};

// Real cameras are the kernel driver's; a stack is there for virtual ones only.
class NoStack final : public usbstack::IStack {
public:
    std::vector<usbstack::DeviceInfo> Enumerate() override { return {}; }
    usbstack::IDevice* Open(const std::string&, usbstack::Status* status) override
    {
        *status = usbstack::Status::Gone;
        return nullptr;
    }
};

}  // namespace

// Exported by the program itself or by a library that was loaded into it.
usbstack::PluginEntry FindPluginEntry()
{
    for (const wchar_t* const module : { static_cast<const wchar_t*>(nullptr), L"kovsim.dll" })
        if (const HMODULE h = GetModuleHandleW(module))
            if (const FARPROC p = GetProcAddress(h, "KOVUsbStackPlugin"))
                return reinterpret_cast<usbstack::PluginEntry>(reinterpret_cast<void*>(p));
    return nullptr;
}

usbstack::IStack& NativeStack()
{
    static NoStack s_stack;
    return s_stack;
}

IUsbDriver* NativeDriver()
{
    // Never destroyed: a camera that a program leaves open is closed after static objects may be gone.
    static WinUsbDriver* const s_driver = new WinUsbDriver;
    return s_driver;
}

}  // namespace platform

// What the devices of the latest listing have told about themselves. A device keeps its descriptors as long as it stays
// plugged; whoever looks which cameras there are need not ask them all again. Any thread.
#pragma once
#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "base/Mutex.h"
#include "platform/UsbStack.h"
#include "platform/XferRecord.h"

namespace platform {

// The descriptors of one plug of one device.
class KnownDevice {
public:
    explicit KnownDevice(usbstack::DeviceInfo info) : m_info(std::move(info)) {}
    bool Is(const usbstack::DeviceInfo& i) const
    {
        const auto key = [](const usbstack::DeviceInfo& d) {
            return std::tie(d.vendorId, d.productId, d.bus, d.address, d.portPath, d.path, d.speed);
        };
        return key(m_info) == key(i);
    }
    static bool IsRead(const SetupPacket& s) { return s.bmRequestType == 0x80 && s.bRequest == 6; }

    // The answer to a read, as the device gave it before; at most s.wLength bytes.
    bool Answer(const SetupPacket& s, uint8_t* data, uint32_t* moved) const
    {
        const MutexLock l(m_mutex);
        const auto it = m_answers.find(KeyOf(s));
        if (it == m_answers.end())
            return false;
        std::copy(it->second.begin(), it->second.end(), data);
        *moved = uint32_t(it->second.size());
        return true;
    }
    void Store(const SetupPacket& s, std::vector<uint8_t> answer)
    {
        const MutexLock l(m_mutex);
        m_answers[KeyOf(s)] = std::move(answer);
    }
    void Clear()
    {
        const MutexLock l(m_mutex);
        m_answers.clear();
    }

private:
    using Key = std::tuple<uint16_t, uint16_t, uint16_t>;  // which descriptor, language, length
    static Key KeyOf(const SetupPacket& s) { return { s.wValue, s.wIndex, s.wLength }; }

    const usbstack::DeviceInfo m_info;
    mutable Mutex m_mutex;
    std::map<Key, std::vector<uint8_t>> m_answers KOV_TSA(guarded_by(m_mutex));
};

class DescriptorCache {
public:
    // Forgets what is not in the listing, or another device there.
    void Update(const std::vector<usbstack::DeviceInfo>& listing)
    {
        const MutexLock l(m_mutex);
        Devices present;
        for (const usbstack::DeviceInfo& d : listing) {
            const auto it = m_devices.find(d.path);
            present[d.path] = it != m_devices.end() && it->second->Is(d) ? it->second : std::make_shared<KnownDevice>(d);
        }
        m_devices = std::move(present);
    }
    // nullptr for a device that the latest listing did not show.
    std::shared_ptr<KnownDevice> Find(const std::string& path) const
    {
        const MutexLock l(m_mutex);
        const auto it = m_devices.find(path);
        return it == m_devices.end() ? nullptr : it->second;
    }
    void Clear()
    {
        const MutexLock l(m_mutex);
        m_devices.clear();
    }

private:
    using Devices = std::map<std::string, std::shared_ptr<KnownDevice>>;
    mutable Mutex m_mutex;
    Devices m_devices KOV_TSA(guarded_by(m_mutex));
};

}  // namespace platform

// A virtual camera as the host controller of a system meets it. usbstack::IDevice is what a program sees of a device through
// its system; this is a step below the system: requests are queued and taken back one by one, nothing blocks, and data come
// in packets.
#pragma once
#include <array>
#include <chrono>
#include <cstdint>
#include <vector>

#include "platform/UsbStack.h"

namespace kovsim {

// One plug of a camera, from VirtualBus::OpenDevice; calls may come from any thread. Destroying it takes back all requests.
class UsbDevice {
public:
    virtual ~UsbDevice() = default;
    virtual bool Present() const = 0;  // false for ever once the camera was pulled out or has enumerated anew

    struct Answer {
        usbstack::Status status = usbstack::Status::Gone;  // Ok, Stall or Gone
        std::vector<uint8_t> data;                         // of a request that asks; at most its wLength
        std::chrono::steady_clock::time_point due;         // not to be told before: the firmware works that long
    };
    // data: what follows a request that sends. The request is carried out at once.
    virtual Answer Control(const std::array<uint8_t, 8>& setup, std::vector<uint8_t> data) = 0;
    virtual void NoteLostReply() = 0;  // an answer was not waited for

    // As IDevice::SubmitBulk, with two differences. A request ends early only with a frame; one that ends within a packet
    // while more comes ends with Failed, a babble, and loses that packet. There is no claim: whoever has the plug has the device.
    virtual usbstack::Status SubmitBulk(usbstack::BulkRequest* request) = 0;
    // Returns when the request has completed: as Cancelled, or with what it had got by then.
    virtual void Unlink(usbstack::BulkRequest* request) = 0;

    // The cable is pulled and plugged in again, unless this plug is over anyway: registers as after power on, flash kept.
    virtual void Replug() = 0;
};

}  // namespace kovsim

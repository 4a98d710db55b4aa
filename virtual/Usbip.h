// USB/IP 1.1.1 (Documentation/usb/usbip_protocol of Linux), the side that has the devices, without its sockets: bytes in, bytes
// out. A system that speaks it takes virtual cameras for devices on a bus of its own.
#pragma once
#include <algorithm>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "virtual/VirtualBus.h"

namespace kovsim {

// The cameras of a bus by the names that clients ask for, and which of them a connection has.
class UsbipExports {
public:
    explicit UsbipExports(VirtualBus& bus) : m_bus(bus) {}
    struct Export {
        usbstack::DeviceInfo info;
        std::string sBusId;  // "2-1": bus and port; stays the same over plugs
        bool bTaken = false;
    };
    std::vector<Export> List();

private:
    friend class UsbipSession;
    VirtualBus& m_bus;
    std::mutex m_mutex;
    std::set<std::string> m_taken;
};

// One connection. It asks for the list of cameras or imports one; from then on it is that camera's cable, and its end pulls it.
// All functions are called by one thread. Memory is bounded: WINDOW of data on their way, a record for each waiting request.
class UsbipSession {
public:
    static constexpr size_t WINDOW = 16u << 20;  // bytes with the camera or not yet sent; one request may exceed it
    static constexpr uint32_t MAX_TRANSFER = 64u << 20;
    static constexpr size_t MAX_WAITING = 65536;  // requests

    // wake is called from any thread when Step has work.
    UsbipSession(UsbipExports& exports, std::function<void()> wake);
    ~UsbipSession();

    // What has come from the client. False: the connection is to be ended, after what Output has; see Ended.
    bool Receive(std::span<const uint8_t> bytes);
    // Moves what has been done to the output, and more to the camera. False as above: the camera was pulled out.
    bool Step();
    // Bytes to be sent next. Sent tells how many of them have been.
    std::span<const uint8_t> Output() const;
    void Sent(size_t bytes);
    // False: nothing more is to be received before something has been sent.
    bool WantsInput() const { return m_uMoving < 2 * WINDOW; }
    // When Step will have work without being woken.
    std::optional<std::chrono::steady_clock::time_point> Due() const;

    const std::string& Imported() const { return m_sBusId; }  // empty: nothing yet
    const std::string& Ended() const { return m_sEnded; }     // why

private:
    struct Transfer;
    struct Waiting {
        uint32_t uSequence, uLength;
        bool bShortNotOk;
    };
    struct Late {
        uint32_t uSequence;
        std::chrono::steady_clock::time_point due;
        std::vector<uint8_t> reply;
    };
    struct Block {
        std::unique_ptr<uint8_t[]> bytes;
        size_t uSize, uCost;  // cost: what it counts for in m_uMoving
    };

    bool End(std::string sWhy);
    // Each of them: bytes taken off the front; 0 for more to come first.
    size_t TakeOperation(std::span<const uint8_t> in);
    size_t TakeCommand(std::span<const uint8_t> in);
    void AnswerList();
    void Import(const std::string& sBusId);
    bool SubmitControl(std::span<const uint8_t> header, std::span<const uint8_t> data);
    void Unlink(uint32_t uSequence, uint32_t uVictim);
    bool TakeBack(uint32_t uVictim);
    void Refill();
    void Reap();
    void Put(const std::vector<uint8_t>& bytes);
    static void OnComplete(usbstack::BulkRequest* request, usbstack::Status status, uint32_t bytes);

    UsbipExports& m_exports;
    const std::function<void()> m_wake;
    std::unique_ptr<UsbDevice> m_device;
    std::string m_sBusId, m_sEnded;
    uint32_t m_uDeviceId = 0;
    std::vector<uint8_t> m_in;
    std::deque<Block> m_out;
    size_t m_uOutAt = 0;   // bytes of the first block that have been sent
    size_t m_uMoving = 0;  // bytes of m_transfers and m_out
    std::deque<Waiting> m_waiting;
    std::deque<std::unique_ptr<Transfer>> m_transfers;  // with the camera, oldest first
    std::deque<Late> m_late;                            // by due

    std::mutex m_mutex;
    std::deque<Transfer*> m_ready;  // guarded by it: completed, still in m_transfers
};

}  // namespace kovsim

// All cameras of this process. Event loop only.
#pragma once
#include <memory>
#include <vector>

#include "Device.h"

namespace kovindi {

class Devices {
public:
    static Devices& Instance();
    void Update(const std::vector<Sighting>& seen);
    Device* Find(int serial);  // null once the device has been deleted
    void Remove(int serial);   // later, when the event loop is at rest
    // One upload at a time in this process: the framework loses one of two pictures that end in the same instant.
    bool TakeTurn(int serial);  // false: wait until UploadTurn() comes
    void GiveTurn();
    void EndAll();  // closes all cameras; waits for them, but not long

private:
    std::vector<std::unique_ptr<Device>> m_devices;
    std::vector<int> m_waiting;
    int m_turn = 0;
};

}  // namespace kovindi

#include "Devices.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <string>
#include <thread>

#include "MainThread.h"

namespace kovindi {

Devices& Devices::Instance()
{
    static auto* devices = new Devices;  // cameras tell things until the process has ended
    return *devices;
}

void Devices::Update(const std::vector<Sighting>& seen)
{
    std::set<std::string> models;
    for (const Sighting& s : seen)
        models.insert(s.info.Name);
    for (const auto& d : m_devices)
        models.insert(d->Model());
    for (const std::string& model : models) {
        std::vector<Device*> mine;
        std::vector<KnownCamera> known;
        for (const auto& d : m_devices)
            if (d->Model() == model && !d->HasLeft()) {
                mine.push_back(d.get());
                known.push_back(d->Known());
            }
        std::vector<std::optional<std::string>> ids;
        const KOV_CAMERA_INFO* info = nullptr;
        for (const Sighting& s : seen)
            if (model == s.info.Name) {
                ids.push_back(s.id);
                info = &s.info;
            }
        const Changes changes = Compare(known, ids);
        for (const size_t i : changes.gone)
            mine[i]->Leave();
        for (const size_t i : changes.doubtful)
            mine[i]->Verify();
        if (changes.doubtful.empty())
            for (Device* d : mine)
                d->ForgetVerified();
        for (const KnownCamera& k : changes.appeared) {
            m_devices.push_back(std::make_unique<Device>(*info, k.id, k.ordinal));
            m_devices.back()->ISGetProperties(nullptr);
        }
    }
}

Device* Devices::Find(int serial)
{
    const auto it = std::find_if(m_devices.begin(), m_devices.end(), [=](const auto& d) { return d->Serial() == serial; });
    return it == m_devices.end() ? nullptr : it->get();
}

void Devices::Remove(int serial)
{
    OnMainThread([this, serial] { std::erase_if(m_devices, [=](const auto& d) { return d->Serial() == serial; }); });
}

bool Devices::TakeTurn(int serial)
{
    if (m_turn != 0) {
        m_waiting.push_back(serial);
        return false;
    }
    m_turn = serial;
    return true;
}

void Devices::GiveTurn()
{
    m_turn = 0;
    while (!m_waiting.empty() && m_turn == 0) {
        Device* next = Find(m_waiting.front());
        m_waiting.erase(m_waiting.begin());
        if (next == nullptr)
            continue;
        m_turn = next->Serial();
        next->UploadTurn();
    }
}

void Devices::EndAll()
{
    for (const auto& d : m_devices)
        if (!d->HasLeft())
            d->EndCamera();
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    const auto ended = [](const auto& d) { return d->HasEnded(); };
    while (!std::all_of(m_devices.begin(), m_devices.end(), ended) && std::chrono::steady_clock::now() < limit)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
}

}  // namespace kovindi

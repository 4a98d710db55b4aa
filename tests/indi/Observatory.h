// A running indiserver with the driver on virtual cameras, and a client that remembers what it was told.
#pragma once
#include <baseclient.h>
#include <basedevice.h>
#include <gtest/gtest.h>
#include <indiproperty.h>
#include <indipropertyblob.h>
#include <indipropertynumber.h>
#include <indipropertyswitch.h>
#include <indipropertytext.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using Seconds = std::chrono::duration<double>;

struct Blob {
    std::string device, format;
    std::vector<uint8_t> bytes;
};

// Values by "Device.PROPERTY.ELEMENT", states by "Device.PROPERTY".
class Client : public INDI::BaseClient {
    static auto Of(const std::string& format)
    {
        return [&format](const Blob& b) { return format.empty() || b.format == format; };
    }

public:
    // The framework's thread calls what is below until then.
    ~Client() override { disconnectServer(); }
    bool Wait(const std::function<bool()>& condition, Seconds limit)
    {
        std::unique_lock lock(m_mutex);
        return m_news.wait_for(lock, limit, condition);
    }
    // Within conditions of Wait only.
    double Number(const std::string& key) const { return m_numbers.count(key) ? m_numbers.at(key) : NAN; }
    bool Is(const std::string& property, IPState state) const
    {
        return m_states.count(property) && m_states.at(property) == state;
    }
    bool Has(const std::string& device) const { return m_devices.count(device) != 0; }
    size_t Blobs(const std::string& format = "") const
    {
        return static_cast<size_t>(std::count_if(m_blobs.begin(), m_blobs.end(), Of(format)));
    }
    size_t Changes(const std::string& property) const { return m_changes.count(property) ? m_changes.at(property) : 0; }
    bool Said(const std::string& part) const
    {
        return std::any_of(m_messages.begin(), m_messages.end(),
                           [&](const auto& m) { return m.find(part) != std::string::npos; });
    }
    std::string Messages()
    {
        const std::lock_guard lock(m_mutex);
        std::string all;
        for (const auto& m : m_messages)
            all += m + "\n";
        return all;
    }
    Blob TakeBlob(const std::string& format = "")  // and forgets what came before it
    {
        const std::lock_guard lock(m_mutex);
        m_blobs.erase(m_blobs.begin(), std::find_if(m_blobs.begin(), m_blobs.end(), Of(format)));
        Blob b = std::move(m_blobs.front());
        m_blobs.pop_front();
        return b;
    }
    double Get(const std::string& key)
    {
        const std::lock_guard lock(m_mutex);
        return Number(key);
    }
    bool Knows(const std::string& property) const { return m_states.count(property) && m_states.at(property) != IPS_BUSY; }
    void Forget(const std::string& property)  // a state that was told before
    {
        const std::lock_guard lock(m_mutex);
        m_states.erase(property);
    }

    // Both send a copy: the thread that listens writes into the property.
    void Set(const std::string& device, const std::string& property, const std::map<std::string, double>& values)
    {
        const INDI::PropertyNumber p = getDevice(device.c_str()).getNumber(property.c_str());
        ASSERT_TRUE(p.isValid()) << property;
        INDI::PropertyNumber wish(p.size());
        for (size_t i = 0; i < p.size(); ++i) {
            const auto v = values.find(p[i].getName());
            wish[i].fill(p[i].getName(), "", "%g", 0, 0, 0, v != values.end() ? v->second : p[i].getValue());
        }
        wish.fill(device.c_str(), property.c_str(), "", "", IP_RW, 0, IPS_IDLE);
        Forget(device + "." + property);
        sendNewNumber(wish);
    }
    void Switch(const std::string& device, const std::string& property, const std::string& on)
    {
        const INDI::PropertySwitch p = getDevice(device.c_str()).getSwitch(property.c_str());
        ASSERT_TRUE(p.isValid()) << property;
        INDI::PropertySwitch wish(p.size());
        for (size_t i = 0; i < p.size(); ++i)
            wish[i].fill(p[i].getName(), "", p[i].isNameMatch(on) ? ISS_ON : ISS_OFF);
        wish.fill(device.c_str(), property.c_str(), "", "", IP_RW, p.getRule(), 0, IPS_IDLE);
        Forget(device + "." + property);
        sendNewSwitch(wish);
    }

protected:
    void newDevice(INDI::BaseDevice d) override
    {
        Note([&] { m_devices.insert(d.getDeviceName()); });
    }
    void removeDevice(INDI::BaseDevice d) override
    {
        Note([&] {
            m_devices.erase(d.getDeviceName());
            std::erase_if(m_states, [&](const auto& s) { return s.first.starts_with(std::string(d.getDeviceName()) + "."); });
        });
    }
    void newProperty(INDI::Property p) override
    {
        Note([&] { m_devices.insert(p.getDeviceName()); });  // one that comes back is no new device to the framework
        if (p.getType() != INDI_BLOB)
            updateProperty(p);
    }
    void removeProperty(INDI::Property p) override
    {
        Note([&] { m_states.erase(Key(p)); });
    }
    void newMessage(INDI::BaseDevice d, int id) override
    {
        Note([&] { m_messages.push_back(d.messageQueue(static_cast<size_t>(id))); });
    }
    void updateProperty(INDI::Property p) override
    {
        Note([&] {
            const std::string key = Key(p);
            m_states[key] = p.getState();
            ++m_changes[key];
            if (p.getType() == INDI_NUMBER)
                for (const auto& w : *p.getNumber())
                    m_numbers[key + "." + w.getName()] = w.getValue();
            else if (p.getType() == INDI_SWITCH)
                for (const auto& w : *p.getSwitch())
                    m_numbers[key + "." + w.getName()] = w.getState() == ISS_ON;
            else if (p.getType() == INDI_BLOB)
                for (const auto& w : *p.getBLOB())
                    if (w.getSize() > 0) {
                        const auto* bytes = static_cast<const uint8_t*>(w.getBlob());
                        m_blobs.push_back({ p.getDeviceName(), w.getFormat(), { bytes, bytes + w.getBlobLen() } });
                    }
        });
    }

private:
    static std::string Key(const INDI::Property& p) { return std::string(p.getDeviceName()) + "." + p.getName(); }
    void Note(const std::function<void()>& change)
    {
        {
            const std::lock_guard lock(m_mutex);
            change();
        }
        m_news.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_news;
    std::set<std::string> m_devices;
    std::map<std::string, double> m_numbers;
    std::map<std::string, IPState> m_states;
    std::map<std::string, size_t> m_changes;
    std::deque<Blob> m_blobs;
    std::vector<std::string> m_messages;
};

class Observatory {
public:
    // `sim` as in KOVSIM. The folder keeps settings and configuration; it is to outlive the observatory.
    Observatory(const std::string& sim, const std::filesystem::path& home) : m_home(home)
    {
        static int s_port = 17000 + getpid() % 20000;
        const std::string port = std::to_string(++s_port);
        const std::string pipe = home / "pipe", pins = Pins(), socket = home / "socket";
        std::filesystem::remove(pipe);
        mkfifo(pipe.c_str(), 0600);
        // As the server starts it, and how it ends.
        const std::string driver = home / "indi_kov_ccd";
        std::filesystem::remove(m_ending);
        std::ofstream(driver) << "#!/bin/sh\n" KOV_DRIVER "\necho $? >" << m_ending.string() << ".part\nmv " << m_ending.string()
                              << ".part " << m_ending.string() << "\n";
        std::filesystem::permissions(driver, std::filesystem::perms::owner_all);
        m_server = fork();
        if (m_server == 0) {
            prctl(PR_SET_PDEATHSIG, SIGTERM);
            setenv("KOVSIM", sim.c_str(), 1);
            setenv("HOME", home.c_str(), 1);
            setenv("XDG_CONFIG_HOME", home.c_str(), 1);
            setenv("KOV_TESTBUS_PIPE", pipe.c_str(), 1);
            setenv("KOV_TESTBUS_PINS", pins.c_str(), 1);
            setenv("LD_PRELOAD", KOV_TESTBUS, 1);
            if (std::freopen((home / "server.log").c_str(), "a", stderr) == nullptr)
                _exit(126);
            execlp("indiserver", "indiserver", "-r", "0", "-m", "1000", "-u", socket.c_str(), "-p", port.c_str(), "-v",
                   driver.c_str(), nullptr);
            _exit(127);
        }
        m_port = static_cast<unsigned>(s_port);
        Dial(client);
    }
    ~Observatory()
    {
        client.disconnectServer();
        kill(m_server, SIGTERM);
        waitpid(m_server, nullptr, 0);
        int status = -1;
        for (int i = 0; i < 400 && !(std::ifstream(m_ending) >> status); ++i)
            std::this_thread::sleep_for(25ms);
        EXPECT_EQ(status, 0) << "of the driver";
    }

    std::string Pins() const { return m_home / "pins"; }
    void Tell(const std::string& command) { std::ofstream(m_home / "pipe") << command << std::endl; }
    enum Fault { NO_FRAME = 1, STALL_BULK = 5, SLOW_CONTROL = 6 };  // as the virtual bus counts them
    void Break(int camera, Fault fault, int times, int arg = 0)
    {
        Tell("fault " + std::to_string(camera) + " " + std::to_string(fault) + " " + std::to_string(times) + " " +
             std::to_string(arg));
    }

    void Dial(Client& c) const
    {
        // Not over TCP: where small messages go back and forth, that holds each up for 40 ms.
        c.setServer(("localhost:" + (m_home / "socket").string()).c_str(), m_port);
        for (int i = 0; i < 200 && !c.connectServer(); ++i)
            std::this_thread::sleep_for(25ms);
    }

    // Connects the device and switches its pictures on.
    void Connect(const std::string& device) { Connect(device, client); }
    static void Connect(const std::string& device, Client& client)
    {
        ASSERT_TRUE(client.Wait([&] { return client.Has(device) && client.Knows(device + ".CONNECTION"); }, 15s)) << device;
        if (!client.Wait([&] { return client.Is(device + ".CONNECTION", IPS_OK); }, 0s)) {
            client.Forget(device + ".CCD_CONTROLS");
            client.Switch(device, "CONNECTION", "CONNECT");
        }
        ASSERT_TRUE(client.Wait([&] { return client.Is(device + ".CCD_CONTROLS", IPS_OK); }, 15s)) << client.Messages();
        client.setBLOBMode(B_ALSO, device.c_str(), nullptr);
        client.Set(device, "CCD_FRAME", { { "X", 0 } });  // the first format is in force when this is answered
        ASSERT_TRUE(client.Wait([&] { return client.Is(device + ".CCD_FRAME", IPS_OK); }, 5s));
    }

    Client client;

private:
    const std::filesystem::path m_home, m_ending = m_home / "ending";
    pid_t m_server;
    unsigned m_port = 0;
};

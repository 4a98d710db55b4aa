// ASCOM Alpaca over the engine room: a Camera device (ICameraV3) for each camera, the management interface, and
// discovery. The routes stand in one table in Alpaca.cpp.
#pragma once
#include <netinet/in.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <stop_token>
#include <string>
#include <thread>

#include "kovcam/serve/Observatory.h"

namespace httplib {
class Server;
struct Request;
struct Response;
}  // namespace httplib

namespace kovserve {

class AlpacaCamera;

class Alpaca {
public:
    // `folder` keeps the cameras' unique IDs; a folder that cannot be written gives IDs that last as long as the server.
    Alpaca(Observatory& observatory, const std::filesystem::path& folder, std::string version);
    ~Alpaca();
    void AddRoutes(httplib::Server& server);

private:
    struct Ids {
        uint32_t client = 0, transaction = 0;
        bool hasClient = false;
    };
    void Device(const httplib::Request& request, httplib::Response& response, bool put);
    void Management(const httplib::Request& request, httplib::Response& response);
    std::shared_ptr<AlpacaCamera> Find(const std::string& number);
    std::string UniqueId(const std::string& key);

    Observatory& m_observatory;
    const std::filesystem::path m_file;
    const std::string m_version;
    std::atomic<uint32_t> m_transaction{ 0 };
    std::mutex m_mutex;
    std::vector<std::shared_ptr<AlpacaCamera>> m_cameras;
    std::map<std::string, std::string> m_ids;
};

// Answers the search for Alpaca servers on UDP with the port of this one, from the address that was asked. `listen` is what the
// server listens at, a name or an address: who asks by way of another address of this machine, where the server is not, gets no
// answer. A port that is taken is told on standard error.
class Discovery {
public:
    Discovery(int udpPort, int alpacaPort, const std::string& listen);
    ~Discovery();
    Discovery(const Discovery&) = delete;
    Discovery& operator=(const Discovery&) = delete;

private:
    void Run(const std::stop_token& stop, int alpacaPort, in_addr at);
    int m_socket = -1;
    std::jthread m_thread;
};

}  // namespace kovserve

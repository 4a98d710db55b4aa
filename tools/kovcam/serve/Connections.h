// What strangers may cost: the number of connections, the time and the size of a request, and what follows a refused one.
#pragma once
#include <httplib.h>

#include <map>
#include <mutex>
#include <string>

namespace kovserve {

// A connection has a thread, and nobody gets all of them. One too many is told so and closed at once. The head of a request
// has to come within ten seconds and 16 KiB, its body within ten more. After a request that was refused the connection is
// closed where the answer tells so: what is left of its body must not be read as another request.
class LimitedServer : public httplib::Server {
public:
    static constexpr int CONNECTIONS = 128, OF_ONE_ADDRESS = 64;

    LimitedServer();

private:
    class Place;
    bool process_and_close_socket(socket_t socket) override;
    bool Serve(socket_t socket);

    std::mutex m_mutex;
    int m_count = 0;
    std::map<std::string, int> m_ofAddress;
};

}  // namespace kovserve

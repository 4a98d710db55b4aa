#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kovcam/serve/Alpaca.h"

namespace kovserve {

Discovery::Discovery(int udpPort, int alpacaPort, bool network)
{
    m_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    // Several servers of a machine share the port.
    setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setsockopt(m_socket, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(udpPort));
    address.sin_addr.s_addr = htonl(network ? INADDR_ANY : INADDR_LOOPBACK);
    if (m_socket < 0 || bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        fmt::print(stderr,
                   "clients will not find this server by themselves: UDP port {}: {}. Give them the address, or another "
                   "--discovery port\n",
                   udpPort, std::strerror(errno));
        if (m_socket >= 0)
            close(m_socket);
        m_socket = -1;
        return;
    }
    m_thread = std::jthread([this, alpacaPort](const std::stop_token& stop) { Run(stop, alpacaPort); });
}

Discovery::~Discovery()
{
    m_thread = {};  // it has ended before its socket goes
    if (m_socket >= 0)
        close(m_socket);
}

void Discovery::Run(const std::stop_token& stop, int alpacaPort)
{
    static constexpr std::string_view ASKS = "alpacadiscovery1";
    const std::string answer = fmt::format("{{\"AlpacaPort\":{}}}", alpacaPort);
    while (!stop.stop_requested()) {
        pollfd p{ m_socket, POLLIN, 0 };
        if (poll(&p, 1, 200) <= 0)
            continue;
        char text[64];
        sockaddr_in from{};
        socklen_t length = sizeof(from);
        const ssize_t n = recvfrom(m_socket, text, sizeof(text), 0, reinterpret_cast<sockaddr*>(&from), &length);
        if (n >= static_cast<ssize_t>(ASKS.size()) && std::string_view(text, ASKS.size()) == ASKS)
            sendto(m_socket, answer.data(), answer.size(), 0, reinterpret_cast<const sockaddr*>(&from), length);
    }
}

}  // namespace kovserve

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kovcam/serve/Alpaca.h"

namespace kovserve {

namespace {

// What the server listens at, as an IPv4 address; broadcasts know no other.
bool AddressOf(const std::string& listen, in_addr& address)
{
    if (listen == "::") {  // IPv4 too
        address.s_addr = htonl(INADDR_ANY);
        return true;
    }
    addrinfo wanted{}, *found = nullptr;
    wanted.ai_family = AF_INET;
    if (getaddrinfo(listen.c_str(), nullptr, &wanted, &found) != 0)
        return false;
    address = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
    freeaddrinfo(found);
    return true;
}

}  // namespace

Discovery::Discovery(int udpPort, int alpacaPort, const std::string& listen)
{
    in_addr at{};
    if (!AddressOf(listen, at)) {
        fmt::print(stderr,
                   "clients will not find this server by themselves: they search by IPv4, of which {} is no address. "
                   "Give them the address, or another --listen\n",
                   listen);
        return;
    }
    m_socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    // Several servers of a machine share the port.
    setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    setsockopt(m_socket, SOL_SOCKET, SO_REUSEPORT, &on, sizeof(on));
    setsockopt(m_socket, IPPROTO_IP, IP_PKTINFO, &on, sizeof(on));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(udpPort));
    // A socket that is bound to an address gets no broadcasts, but all else that comes to it, whoever shares the port.
    if (ntohl(at.s_addr) >> 24 == IN_LOOPBACKNET)
        address.sin_addr = at;
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
    m_thread = std::jthread([this, alpacaPort, at](const std::stop_token& stop) { Run(stop, alpacaPort, at); });
}

Discovery::~Discovery()
{
    m_thread = {};  // it has ended before its socket goes
    if (m_socket >= 0)
        close(m_socket);
}

void Discovery::Run(const std::stop_token& stop, int alpacaPort, in_addr at)
{
    static constexpr std::string_view ASKS = "alpacadiscovery1";
    std::string answer = fmt::format("{{\"AlpacaPort\":{}}}", alpacaPort);
    while (!stop.stop_requested()) {
        pollfd p{ m_socket, POLLIN, 0 };
        if (poll(&p, 1, 200) <= 0)
            continue;
        char text[64];
        sockaddr_in from{};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))];
        iovec part{ text, sizeof(text) };
        msghdr message{ &from, sizeof(from), &part, 1, control, sizeof(control), 0 };
        const ssize_t n = recvmsg(m_socket, &message, 0);
        if (n < static_cast<ssize_t>(ASKS.size()) || std::string_view(text, ASKS.size()) != ASKS)
            continue;
        // The address of this machine that was asked, or that has the interface which a broadcast came in by.
        const cmsghdr* const head = CMSG_FIRSTHDR(&message);
        if (head == nullptr || head->cmsg_level != IPPROTO_IP || head->cmsg_type != IP_PKTINFO)
            continue;
        in_pktinfo asked;
        std::memcpy(&asked, CMSG_DATA(head), sizeof(asked));
        if (at.s_addr != htonl(INADDR_ANY) && at.s_addr != asked.ipi_spec_dst.s_addr)
            continue;
        part = { answer.data(), answer.size() };
        sendmsg(m_socket, &message, 0);  // with the same control message it leaves from there
    }
}

}  // namespace kovserve

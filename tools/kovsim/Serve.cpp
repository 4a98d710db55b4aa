#include "kovsim/Serve.h"

#include <fmt/format.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "virtual/Usbip.h"

namespace kovsim {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr int MAX_CONNECTIONS = 64;
constexpr milliseconds LOOK{ 250 };           // how late an unplugged camera is noticed that nobody asks anything
constexpr std::chrono::seconds DECIDE{ 30 };  // until a client has to have imported a camera

class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    Descriptor(Descriptor&& o) noexcept : m_fd(std::exchange(o.m_fd, -1)) {}
    Descriptor& operator=(Descriptor&&) = delete;
    ~Descriptor()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    int Get() const { return m_fd; }

private:
    int m_fd;
};

// "127.0.0.1:3240"
std::string NameOf(const sockaddr_storage& address, socklen_t size)
{
    std::array<char, NI_MAXHOST> host{};
    std::array<char, NI_MAXSERV> port{};
    if (getnameinfo(reinterpret_cast<const sockaddr*>(&address), size, host.data(), host.size(), port.data(), port.size(),
                    NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return "?";
    return fmt::format(fmt::runtime(address.ss_family == AF_INET6 ? "[{}]:{}" : "{}:{}"), host.data(), port.data());
}

class Connection {
public:
    Connection(UsbipExports& exports, Descriptor socket, std::string client)
        : m_socket(std::move(socket)), m_sClient(std::move(client)), m_wake(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
          m_session(exports, [this] { eventfd_write(m_wake.Get(), 1); })
    {
        const int on = 1;
        setsockopt(m_socket.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        setsockopt(m_socket.Get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    }

    void Run()
    {
        const auto decide = steady_clock::now() + DECIDE;
        bool bKnown = false;
        std::string why;
        while (why.empty()) {
            const short ready = Wait();
            const bool bOpen = ready & (POLLIN | POLLHUP | POLLERR) ? Receive(&why) : m_session.Step();
            Send(&why);
            if (!bOpen && why.empty())
                why = m_session.Ended();
            if (!std::exchange(bKnown, !m_session.Imported().empty()) && bKnown)
                fmt::print(stderr, "kovsim: {} takes {}\n", m_sClient, m_session.Imported());
            if (!bKnown && steady_clock::now() > decide)
                why = "asks for no camera";
        }
        if (bKnown || why != CLOSED)
            fmt::print(stderr, "kovsim: {} {}{}\n", m_sClient, why, bKnown ? ", " + m_session.Imported() + " is free again" : "");
    }

private:
    static constexpr const char* CLOSED = "has closed the connection";

    // Until there is something to do; what the socket is ready for.
    short Wait()
    {
        auto until = steady_clock::now() + LOOK;
        if (const auto due = m_session.Due())
            until = std::min(until, *due);
        const auto ms = std::chrono::ceil<milliseconds>(until - steady_clock::now()).count();
        const int events = (m_session.WantsInput() ? POLLIN : 0) | (m_session.Output().empty() ? 0 : POLLOUT);
        std::array<pollfd, 2> fds{ { { m_socket.Get(), static_cast<short>(events), 0 }, { m_wake.Get(), POLLIN, 0 } } };
        poll(fds.data(), fds.size(), static_cast<int>(std::max<decltype(ms)>(ms, 0)));
        eventfd_t count = 0;
        if (fds[1].revents)
            eventfd_read(m_wake.Get(), &count);
        return fds[0].revents;
    }

    bool Receive(std::string* pWhy)
    {
        std::array<uint8_t, 16384> buffer;
        const ssize_t n = recv(m_socket.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
        if (n > 0)
            return m_session.Receive({ buffer.data(), static_cast<size_t>(n) });
        if (n == 0 || (errno != EAGAIN && errno != EINTR))
            *pWhy = CLOSED;
        return true;
    }

    void Send(std::string* pWhy)
    {
        while (!m_session.Output().empty()) {
            const auto out = m_session.Output();
            const ssize_t n = send(m_socket.Get(), out.data(), out.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            if (n >= 0)
                m_session.Sent(static_cast<size_t>(n));
            else if (errno == EAGAIN)
                return;
            else if (errno != EINTR) {
                *pWhy = CLOSED;
                return;
            }
        }
    }

    Descriptor m_socket;
    const std::string m_sClient;
    Descriptor m_wake;
    UsbipSession m_session;
};

Descriptor Listen(const ServeOptions& o, std::string* pName)
{
    addrinfo hints{}, *list = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    if (const int e = getaddrinfo(o.sAddress.c_str(), std::to_string(o.iPort).c_str(), &hints, &list))
        throw std::runtime_error(fmt::format("--listen {}: {}", o.sAddress, gai_strerror(e)));
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owner(list, freeaddrinfo);
    Descriptor socket(::socket(list->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(socket.Get(), list->ai_addr, list->ai_addrlen) != 0 || listen(socket.Get(), 16) != 0)
        throw std::runtime_error(fmt::format("cannot listen at {}, port {}: {}. Another port is taken with --port.", o.sAddress,
                                             o.iPort, std::strerror(errno)));
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&address), &size);
    *pName = NameOf(address, size);
    return socket;
}

}  // namespace

void Serve(VirtualBus& bus, const ServeOptions& options)
{
    std::string name;
    const Descriptor listener = Listen(options, &name);
    UsbipExports exports(bus);
    const auto cameras = exports.List();
    const auto models = bus.Cameras();
    fmt::print("kovsim: {} at {}\n", cameras.size() == 1 ? "a camera" : fmt::format("{} cameras", cameras.size()), name);
    for (const auto& e : cameras) {
        const auto it =
            std::find_if(models.begin(), models.end(), [&](const auto* m) { return m->Facts().wProductId == e.info.productId; });
        fmt::print("  {}  {:04x}:{:04x}  {}\n", e.sBusId, e.info.vendorId, e.info.productId, (*it)->Facts().sToken);
    }
    fmt::print("A Linux system takes one with: modprobe vhci-hcd; usbip attach --remote ADDRESS --busid {}\n",
               cameras.front().sBusId);
    std::fflush(stdout);

    std::atomic<int> connections = 0;
    for (;;) {
        sockaddr_storage address{};
        socklen_t size = sizeof address;
        Descriptor socket(accept4(listener.Get(), reinterpret_cast<sockaddr*>(&address), &size, SOCK_CLOEXEC));
        if (socket.Get() < 0) {
            std::this_thread::sleep_for(milliseconds(50));  // out of descriptors, or a client that has gone again
            continue;
        }
        const std::string client = NameOf(address, size);
        if (connections >= MAX_CONNECTIONS) {
            fmt::print(stderr, "kovsim: {} is refused, there are {} connections\n", client, MAX_CONNECTIONS);
            continue;
        }
        ++connections;
        try {
            std::thread([&, socket = std::move(socket), client]() mutable {
                try {
                    Connection(exports, std::move(socket), client).Run();
                } catch (const std::exception& e) {
                    fmt::print(stderr, "kovsim: {}: {}\n", client, e.what());
                }
                --connections;
            }).detach();
        } catch (const std::system_error& e) {
            --connections;
            fmt::print(stderr, "kovsim: {} is refused, there is no thread for it: {}\n", client, e.what());
        }
    }
}

}  // namespace kovsim

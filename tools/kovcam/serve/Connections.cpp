#include "kovcam/serve/Connections.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <list>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

namespace kovserve {

namespace {

using Steady = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr auto IDLE = 20s;         // between two requests
constexpr auto READING = 10s;      // of a head, and of a body
constexpr auto WRITING = 10s;      // without the client taking anything
constexpr int UNSENT = 64 * 1024;  // bytes that wait in the system
constexpr size_t HEAD = size_t{ 16 } * 1024;
constexpr size_t FRAMING = size_t{ 4 } * 1024;  // of a body in chunks, whose sum the library does not limit
constexpr auto LINGER = 500ms;                  // a refusal is to arrive before the connection's reset

bool WaitFor(socket_t socket, short what, Steady::duration limit)
{
    pollfd p{ socket, what, 0 };
    return poll(&p, 1, std::max(0, static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(limit).count()))) > 0;
}

std::pair<std::string, int> AddressOf(const sockaddr_storage& from)
{
    char text[INET6_ADDRSTRLEN] = {};
    if (from.ss_family == AF_INET6) {
        const auto& six = reinterpret_cast<const sockaddr_in6&>(from);
        inet_ntop(AF_INET6, &six.sin6_addr, text, sizeof(text));
        return { text, ntohs(six.sin6_port) };
    }
    const auto& four = reinterpret_cast<const sockaddr_in&>(from);
    inet_ntop(AF_INET, &four.sin_addr, text, sizeof(text));
    return { text, ntohs(four.sin_port) };
}

// One connection, with what was read too far kept for the next request.
class LimitedStream final : public httplib::Stream {
public:
    explicit LimitedStream(socket_t socket) : m_socket(socket)
    {
        // The system would keep megabytes for a client that takes little: a stream of pictures would be seconds late.
        setsockopt(m_socket, IPPROTO_TCP, TCP_NOTSENT_LOWAT, &UNSENT, sizeof(UNSENT));
    }

    // True when the next one has begun to come; false also once `over` tells so.
    template <class Over>
    bool WaitForRequest(Over over) const
    {
        const auto end = Steady::now() + IDLE;
        while (m_from == m_buffer.size() && !WaitFor(m_socket, POLLIN, 100ms))
            if (over() || Steady::now() > end)
                return false;
        return !over();
    }
    void BeginHead()
    {
        m_deadline = Steady::now() + READING;
        m_left = HEAD;
        m_answered = m_closing = false;
    }
    void BeginBody(size_t longest)
    {
        m_deadline = Steady::now() + READING;
        m_left = longest + FRAMING;
    }

    bool is_readable() const override
    {
        return m_from < m_buffer.size() || WaitFor(m_socket, POLLIN, m_deadline - Steady::now());
    }
    bool is_writable() const override { return WaitFor(m_socket, POLLOUT, WRITING); }
    ssize_t read(char* to, size_t size) override
    {
        if (m_left == 0)
            return -1;
        if (m_from == m_buffer.size()) {
            if (!is_readable())
                return -1;
            m_buffer.resize(4096);
            const ssize_t n = recv(m_socket, m_buffer.data(), m_buffer.size(), 0);
            m_from = 0;
            m_buffer.resize(static_cast<size_t>(std::max<ssize_t>(0, n)));
            if (n <= 0)
                return n;
        }
        const size_t n = std::min({ size, m_buffer.size() - m_from, m_left });
        std::memcpy(to, m_buffer.data() + m_from, n);
        m_from += n;
        m_left -= n;
        return static_cast<ssize_t>(n);
    }
    ssize_t write(const char* from, size_t size) override
    {
        if (!std::exchange(m_answered, true))  // the head of the answer, in one piece
            m_closing = std::string_view(from, size).find("\r\nConnection: close\r\n") != std::string_view::npos;
        return is_writable() ? send(m_socket, from, size, MSG_NOSIGNAL) : -1;
    }
    bool IsClosing() const { return m_closing; }  // the answer told so
    void get_remote_ip_and_port(std::string& ip, int& port) const override { Get(getpeername, ip, port); }
    void get_local_ip_and_port(std::string& ip, int& port) const override { Get(getsockname, ip, port); }
    socket_t socket() const override { return m_socket; }

private:
    template <class Ask>
    void Get(Ask ask, std::string& ip, int& port) const
    {
        sockaddr_storage address{};
        socklen_t length = sizeof(address);
        if (ask(m_socket, reinterpret_cast<sockaddr*>(&address), &length) == 0)
            std::tie(ip, port) = AddressOf(address);
    }

    const socket_t m_socket;
    std::vector<char> m_buffer;
    size_t m_from = 0, m_left = 0;
    Steady::time_point m_deadline{};
    bool m_answered = false, m_closing = false;
};

// A thread a connection; those that are over are joined when the next one begins.
class Threads final : public httplib::TaskQueue {
public:
    void enqueue(std::function<void()> work) override
    {
        const std::lock_guard lock(m_mutex);
        const auto reap = [this] { std::erase_if(m_threads, [](Entry& e) { return e.over && (e.thread.join(), true); }); };
        // Those that are turned away take a moment, too; until then nobody else is let in.
        for (reap(); m_threads.size() >= size_t{ 2 } * LimitedServer::CONNECTIONS; reap())
            std::this_thread::sleep_for(10ms);
        Entry& e = m_threads.emplace_back();
        e.thread = std::thread([work = std::move(work), &over = e.over] {
            work();
            over = true;
        });
    }
    void shutdown() override
    {
        const std::lock_guard lock(m_mutex);
        for (Entry& e : m_threads)
            e.thread.join();
        m_threads.clear();
    }

private:
    struct Entry {
        std::thread thread;
        std::atomic<bool> over{ false };
    };
    std::mutex m_mutex;
    std::list<Entry> m_threads;
};

}  // namespace

// A place among the connections, while it lives; none when there are too many.
class LimitedServer::Place {
public:
    Place(LimitedServer& server, std::string address) : m_server(server), m_address(std::move(address))
    {
        const std::lock_guard lock(m_server.m_mutex);
        int& own = m_server.m_ofAddress[m_address];
        m_given = m_server.m_count < CONNECTIONS && own < OF_ONE_ADDRESS;
        m_server.m_count += m_given ? 1 : 0;
        own += m_given ? 1 : 0;
    }
    ~Place()
    {
        if (!m_given)
            return;
        const std::lock_guard lock(m_server.m_mutex);
        --m_server.m_count;
        if (--m_server.m_ofAddress[m_address] == 0)
            m_server.m_ofAddress.erase(m_address);
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    explicit operator bool() const { return m_given; }

private:
    LimitedServer& m_server;
    const std::string m_address;
    bool m_given = false;
};

LimitedServer::LimitedServer()
{
    new_task_queue = [] { return new Threads; };
    // For the header that tells them.
    set_keep_alive_timeout(std::chrono::seconds(IDLE).count());
    set_keep_alive_max_count(100000);
}

bool LimitedServer::process_and_close_socket(socket_t socket)
{
    const bool good = Serve(socket);
    ::shutdown(socket, SHUT_WR);
    for (char rest[4096]; WaitFor(socket, POLLIN, LINGER) && recv(socket, rest, sizeof(rest), MSG_DONTWAIT) > 0;) {
    }
    ::close(socket);
    return good;
}

bool LimitedServer::Serve(socket_t socket)
{
    LimitedStream stream(socket);
    std::string address;
    int port = 0;
    stream.get_remote_ip_and_port(address, port);
    const Place place(*this, address);
    if (!place) {
        static constexpr std::string_view FULL =
            "HTTP/1.1 503 Service Unavailable\r\nConnection: close\r\nContent-Type: text/plain\r\n"
            "Content-Length: 21\r\n\r\ntoo many connections\n";
        stream.write(FULL.data(), FULL.size());
        return false;
    }
    for (bool closed = false;
         !closed && !stream.IsClosing() && stream.WaitForRequest([this] { return svr_sock_ == INVALID_SOCKET; });) {
        stream.BeginHead();
        if (!process_request(stream, false, closed, [&](httplib::Request&) { stream.BeginBody(payload_max_length_); }))
            return false;
    }
    return true;
}

}  // namespace kovserve

#include "HttpServer.h"

#include "base/FileDescriptor.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <poll.h>
#include <sys/socket.h>

namespace zel {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

constexpr size_t MostThreads = 128;
constexpr size_t HeadLimit = 64 * 1024;
constexpr auto TimeToAsk = seconds(10);
constexpr auto TimeToTake = seconds(30);
constexpr auto TimeToLeave = seconds(1);
constexpr size_t LeastAskedPerSecond = 16 * 1024;
constexpr size_t LeastTakenPerSecond = 1024;

bool waitFor(int socket, short events, Clock::time_point deadline)
{
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd state{socket, events, 0};
        const int ready = ::poll(&state, 1, int(std::max<long>(left, 0)));
        if (ready >= 0 || errno != EINTR)
            return ready > 0;
    }
}

} // namespace

/// The other end of one connection.
class Peer : public httplib::Stream
{
public:
    explicit Peer(socket_t socket, std::function<void()> answering)
        : m_socket(socket)
        , m_answering(std::move(answering))
    {
    }

    void allow(size_t more) { m_allowed += more; }

    void drop()
    {
        m_dropped = true;
        ::shutdown(m_socket, SHUT_RDWR);
    }
    bool isDropped() const { return m_dropped; }

    /// A socket that is closed with input unread takes its answer back, so what still comes is waited for, a
    /// while.
    void finish()
    {
        ::shutdown(m_socket, SHUT_WR);
        const auto deadline = Clock::now() + TimeToLeave;
        while (waitFor(m_socket, POLLIN, deadline)
               && ::recv(m_socket, m_buffer.data(), m_buffer.size(), MSG_DONTWAIT) > 0) { }
    }

    bool is_readable() const override { return m_begin < m_end || waitFor(m_socket, POLLIN, askedBy()); }
    bool is_writable() const override { return waitFor(m_socket, POLLOUT, takenBy()); }

    ssize_t read(char *bytes, size_t size) override
    {
        if (m_begin == m_end && !fill())
            return -1;
        const size_t count = std::min(size, m_end - m_begin);
        std::copy_n(m_buffer.data() + m_begin, count, bytes);
        m_begin += count;
        return ssize_t(count);
    }

    ssize_t write(const char *bytes, size_t size) override
    {
        if (m_answering)
            std::exchange(m_answering, {})();
        if (m_taken == 0)
            m_answered = Clock::now();
        if (!is_writable())
            return -1;
        const ssize_t count = ::send(m_socket, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
        m_taken += count > 0 ? size_t(count) : 0;
        return count < 0 && errno == EAGAIN ? 0 : count;
    }

    void get_remote_ip_and_port(std::string &, int &) const override { }
    void get_local_ip_and_port(std::string &, int &) const override { }
    socket_t socket() const override { return m_socket; }

private:
    bool fill()
    {
        const size_t room = std::min(m_buffer.size(), m_allowed - m_asked);
        if (room == 0 || !waitFor(m_socket, POLLIN, askedBy()))
            return false;
        const ssize_t count = ::recv(m_socket, m_buffer.data(), room, MSG_DONTWAIT);
        m_begin = 0;
        m_end = count > 0 ? size_t(count) : 0;
        m_asked += m_end;
        return m_end > 0;
    }

    Clock::time_point askedBy() const
    {
        return m_connected + TimeToAsk + seconds(m_asked / LeastAskedPerSecond);
    }
    Clock::time_point takenBy() const
    {
        return m_answered + TimeToTake + seconds(m_taken / LeastTakenPerSecond);
    }

    const socket_t m_socket;
    bool m_dropped = false; // read and written under the server's lock
    std::function<void()> m_answering; // called once, when the answer begins
    const Clock::time_point m_connected = Clock::now();
    Clock::time_point m_answered = m_connected;
    size_t m_allowed = HeadLimit;
    size_t m_asked = 0;
    size_t m_taken = 0;
    std::array<char, 16384> m_buffer;
    size_t m_begin = 0;
    size_t m_end = 0;
};

HttpServer::HttpServer(BodyLimit bodyLimit)
    : m_bodyLimit(std::move(bodyLimit))
{
    class Threads : public httplib::ThreadPool
    {
    public:
        explicit Threads(HttpServer &server)
            : ThreadPool(MostThreads)
            , m_server(server)
        {
        }
        void enqueue(std::function<void()> connection) override
        {
            m_server.enter(nullptr);
            ThreadPool::enqueue(std::move(connection));
        }

    private:
        HttpServer &m_server;
    };
    // Called once the server listens. The library lets five peers wait to be let in; who comes sixth waits a
    // second.
    new_task_queue = [this] {
        ::listen(svr_sock_, SOMAXCONN);
        return new Threads(*this);
    };
}

// Called for each connection twice: when it comes, with no peer, and when a thread takes it.
void HttpServer::enter(Peer *peer)
{
    const std::lock_guard lock(m_mutex);
    if (peer)
        m_asking.push_back(peer);
    else
        ++m_connected;
    // The dropped ones are connected until their threads have seen it.
    while (m_connected - m_dropped > MostThreads && !m_asking.empty()) {
        m_asking.front()->drop();
        m_asking.pop_front();
        ++m_dropped;
    }
}

void HttpServer::leave(Peer *peer)
{
    const std::lock_guard lock(m_mutex);
    m_asking.remove(peer);
    m_dropped -= peer->isDropped();
    --m_connected;
}

bool HttpServer::process_and_close_socket(socket_t socket)
{
    const FileDescriptor owner(socket);
    Peer peer(socket, [this, &peer] {
        const std::lock_guard lock(m_mutex);
        m_asking.remove(&peer);
    });
    enter(&peer);
    try {
        bool closed = false;
        process_request(peer, true, closed,
                        [&](httplib::Request &request) { peer.allow(2 * m_bodyLimit(request)); });
        peer.finish();
    } catch (const std::exception &) {
        // Memory is exhausted; the peer sees its connection end.
    }
    leave(&peer);
    return true;
}

} // namespace zel

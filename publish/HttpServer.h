// The HTTP library's server, made to hold out against peers that are idle, slow or greedy.
#pragma once

#include <functional>
#include <httplib.h>
#include <list>
#include <mutex>

namespace zel {

class Peer;

/// One request per connection, each on a thread of its own up to a fixed number. A peer has ten seconds to
/// ask, and more only while what it sends comes at 16 KiB a second or more; what it is sent it has to take at
/// 1 KiB a second or more. When all threads are taken, the peer that has been asking longest makes room for
/// the next: idle peers, however many, keep nobody out, and peers that are being answered are left alone.
/// Heads are limited to 64 KiB, bodies to what `bodyLimit` says of the request once its head is known.
class HttpServer : public httplib::Server
{
public:
    using BodyLimit = std::function<size_t(const httplib::Request &request)>;

    explicit HttpServer(BodyLimit bodyLimit);

private:
    bool process_and_close_socket(socket_t socket) override;
    void enter(Peer *peer);
    void leave(Peer *peer);

    const BodyLimit m_bodyLimit;
    std::mutex m_mutex;
    size_t m_connected = 0;
    size_t m_dropped = 0;
    std::list<Peer *> m_asking; // in the order in which they came
};

} // namespace zel

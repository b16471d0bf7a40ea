// A server for rows that need one.
#pragma once

#include <functional>
#include <httplib.h>
#include <string>

namespace bench {

/// Answers on loopback until this object ends, in a process of its own, so that it counts for no row's
/// memory.
class ServerProcess
{
public:
    /// `setUp` says what is answered; it runs in that process.
    explicit ServerProcess(const std::function<void(httplib::Server &)> &setUp);

    ~ServerProcess();
    ServerProcess(const ServerProcess &) = delete;
    ServerProcess &operator=(const ServerProcess &) = delete;

    std::string address(const std::string &path) const;

private:
    pid_t m_process = -1;
    int m_port = 0;
};

} // namespace bench

#include "ServerProcess.h"

#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace bench {
namespace {

[[noreturn]] void serve(int port, const std::function<void(httplib::Server &)> &setUp)
{
    httplib::Server server;
    server.set_tcp_nodelay(true);
    setUp(server);
    const int bound = server.bind_to_any_port("127.0.0.1");
    const bool told = ::write(port, &bound, sizeof bound) == sizeof bound;
    ::_exit(told && server.listen_after_bind() ? 0 : 1);
}

} // namespace

ServerProcess::ServerProcess(const std::function<void(httplib::Server &)> &setUp)
{
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return;
    m_process = ::fork();
    if (m_process == 0)
        serve(ends[1], setUp);
    ::close(ends[1]);
    if (::read(ends[0], &m_port, sizeof m_port) != sizeof m_port)
        m_port = 0;
    ::close(ends[0]);
}

ServerProcess::~ServerProcess()
{
    if (m_process > 0 && ::kill(m_process, SIGTERM) == 0)
        ::waitpid(m_process, nullptr, 0);
}

std::string ServerProcess::address(const std::string &path) const
{
    return "http://127.0.0.1:" + std::to_string(m_port) + path;
}

} // namespace bench

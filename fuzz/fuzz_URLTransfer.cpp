// Any bytes as what a server answers. "%%" parts the answers to one request after the other, as redirections
// make them and further attempts; what stands behind "@@" in an answer is sent again and again. Each input
// answers a check, and then a download that has the beginning of its file.
#include "base/FileDescriptor.h"
#include "net/URLSession.h"
#include "Sandbox.h"

#include <QNetworkProxy>

#include <future>
#include <mutex>
#include <netinet/in.h>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

namespace {

constexpr qint64 LongestBody = 256 * 1024;
constexpr size_t LongestAnswer = 1024 * 1024;

std::vector<std::string> split(const std::string &text, const std::string &at)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t end = 0; (end = text.find(at, start)) != std::string::npos; start = end + at.size())
        parts.push_back(text.substr(start, end - start));
    parts.push_back(text.substr(start));
    return parts;
}

std::ptrdiff_t countThreads()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {});
}

// Stands for every server there is: it is the application's proxy, so that no redirection leads out of the
// machine.
class HostileServer
{
public:
    static HostileServer &instance()
    {
        static auto *peer = new HostileServer; // its thread runs to the end of the process
        return *peer;
    }

    void begin(const std::string &script)
    {
        const std::lock_guard lock(m_mutex);
        m_answers = split(script, "%%");
        m_next = 0;
        m_connections.clear();
    }

private:
    HostileServer()
        : m_listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto *name = reinterpret_cast<sockaddr *>(&address);
        zel::require(::bind(m_listener.get(), name, size) == 0 && ::listen(m_listener.get(), 64) == 0
                     && ::getsockname(m_listener.get(), name, &size) == 0);
        QNetworkProxy::setApplicationProxy(
            {QNetworkProxy::HttpProxy, QStringLiteral("127.0.0.1"), ntohs(address.sin_port)});
        std::thread([this] { serve(); }).detach();
    }

    [[noreturn]] void serve()
    {
        for (;;) {
            zel::FileDescriptor connection(::accept(m_listener.get(), nullptr, nullptr));
            std::string request;
            char piece[4096];
            for (ssize_t count = 0; request.find("\r\n\r\n") == std::string::npos;
                 request.append(piece, count))
                if ((count = ::recv(connection.get(), piece, sizeof piece, 0)) <= 0)
                    break;
            answer(connection.get());
            // A connection that is closed with bytes unread would take the answer back.
            ::shutdown(connection.get(), SHUT_WR);
            const std::lock_guard lock(m_mutex);
            m_connections.push_back(std::move(connection));
        }
    }

    void answer(int connection)
    {
        std::vector<std::string> parts;
        {
            const std::lock_guard lock(m_mutex);
            if (m_next < m_answers.size())
                parts = split(m_answers[m_next++], "@@");
        }
        if (parts.empty() || !send(connection, parts[0]) || parts.size() == 1 || parts[1].empty())
            return;
        std::string repeated;
        while (repeated.size() < 16'384)
            repeated += parts[1];
        for (size_t sent = 0; sent < LongestAnswer && send(connection, repeated);)
            sent += repeated.size();
    }

    static bool send(int connection, const std::string &bytes)
    {
        for (size_t at = 0; at < bytes.size();) {
            const ssize_t count = ::send(connection, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
            if (count <= 0)
                return false;
            at += size_t(count);
        }
        return true;
    }

    const zel::FileDescriptor m_listener;
    std::mutex m_mutex;
    std::vector<std::string> m_answers;
    size_t m_next = 0;
    std::vector<zel::FileDescriptor> m_connections;
};

const std::string Kept = "0123456789";

class Beginning : public zel::BodyFile
{
public:
    Beginning()
        : m_file(::memfd_create("beginning", MFD_CLOEXEC))
    {
        zel::require(zel::writeAll(m_file.get(), Kept.data(), Kept.size()));
    }
    ZELError open() override { return {}; }
    int descriptor() const override { return m_file.get(); }
    QString location() const override { return QStringLiteral("the beginning"); }
    QByteArray validator() const override { return m_validator; }
    bool startAgain(const QByteArray &validator) override
    {
        setContinued(false);
        m_validator = validator;
        return ::ftruncate(m_file.get(), 0) == 0;
    }

private:
    const zel::FileDescriptor m_file;
    QByteArray m_validator = "\"v\"";
};

zel::URLRequest requestFor(const char *method)
{
    zel::URLRequest request;
    request.url = QUrl(QStringLiteral("http://updates.example/check"));
    request.method = method;
    request.body = "{}";
    request.timeout = std::chrono::seconds(2);
    request.deadline = std::chrono::seconds(4);
    request.bodyLimit = LongestBody;
    return request;
}

// Starts the task that `make` makes of what its completion calls, and waits for its end.
template <typename Make> void load(Make make)
{
    const auto before = countThreads();
    std::promise<void> ended;
    int completions = 0;
    auto task = make([&] {
        zel::require(++completions == 1);
        ended.set_value();
    });
    task->resume();
    ended.get_future().wait();
    task.reset();
    // What a session's thread still holds in its last instructions would be taken for a leak.
    while (countThreads() > before)
        std::this_thread::yield();
}

void check()
{
    load([](const auto &ended) {
        return zel::dataTask(requestFor("POST"),
                             [ended](const QByteArray &body, const QUrl &, const ZELError &error) {
                                 zel::require(body.isNull() == bool(error) && body.size() <= LongestBody);
                                 ended();
                             });
    });
}

void download()
{
    const zel::Sandbox sandbox;
    const auto file = std::make_shared<Beginning>();
    zel::URLRequest request = requestFor("GET");
    request.pauses = {std::chrono::milliseconds(0), std::chrono::milliseconds(0)};
    request.deadline = std::chrono::seconds(1); // what a server asks for as a pause counts, too
    load([&](const auto &ended) {
        return zel::downloadTask(
            request, QString::fromStdString(sandbox.inside().string()),
            [ended](const QString &location, const QUrl &, const ZELError &error) {
                zel::require(location.isNull() == bool(error));
                ended();
            },
            file);
    });
    // What was there is the beginning still, or it is gone.
    std::string content(size_t(LongestBody) + 1, ' ');
    const ssize_t size = ::pread(file->descriptor(), content.data(), content.size(), 0);
    zel::require(size >= 0 && size <= LongestBody);
    zel::require(file->validator() != "\"v\"" || !file->isContinued() || content.starts_with(Kept));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char *data, std::size_t size)
{
    const std::string script(zel::textOf(data, size));
    HostileServer::instance().begin(script);
    check();
    HostileServer::instance().begin(script);
    download();
    return 0;
}

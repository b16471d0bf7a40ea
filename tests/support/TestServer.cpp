#include "TestServer.h"

#include <QSslSocket>

#include <chrono>
#include <netinet/in.h>
#include <sys/socket.h>

namespace {

// Once the peer is gone, the socket is closed by whatever waits on it, and warns of each later write.
void write(QTcpSocket &socket, const QByteArray &bytes)
{
    if (socket.state() == QAbstractSocket::ConnectedState)
        socket.write(bytes);
}

bool flush(QTcpSocket &socket)
{
    while (socket.bytesToWrite() > 0)
        if (!socket.waitForBytesWritten(-1))
            return false;
    return socket.state() == QAbstractSocket::ConnectedState;
}

QByteArray head(const TestServer::Answer &answer)
{
    QByteArray text = "HTTP/1.1 " + QByteArray::number(answer.status) + " Scripted\r\n";
    for (const auto &[name, value] : answer.headers)
        text += name + ": " + value + "\r\n";
    if (answer.framing == TestServer::Framing::Length)
        text += "Content-Length: " + QByteArray::number(answer.body.size()) + "\r\n";
    if (answer.framing == TestServer::Framing::Chunked)
        text += "Transfer-Encoding: chunked\r\n";
    return text + "Connection: close\r\n";
}

QByteArray framed(QByteArrayView piece, TestServer::Framing framing)
{
    if (framing != TestServer::Framing::Chunked || piece.isEmpty())
        return piece.toByteArray();
    return QByteArray::number(piece.size(), 16) + "\r\n" + piece.toByteArray() + "\r\n";
}

} // namespace

TestServer::Answer TestServer::Answer::redirect(const QString &location, int status)
{
    return {.status = status, .body = "moved", .headers = {{"Location", location.toUtf8()}}};
}

TestServer::TestServer(std::optional<QSslConfiguration> tls)
    : m_tls(std::move(tls))
    , m_listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto *name = reinterpret_cast<sockaddr *>(&address);
    socklen_t size = sizeof address;
    if (::bind(m_listener.get(), name, size) != 0 || ::listen(m_listener.get(), SOMAXCONN) != 0
        || ::getsockname(m_listener.get(), name, &size) != 0)
        qFatal("the test server cannot listen");
    m_port = ntohs(address.sin_port);
    m_accepting = std::thread([this] { accept(); });
}

TestServer::~TestServer()
{
    {
        const std::lock_guard lock(m_mutex);
        m_ending = true;
        // Wakes every thread that waits for a byte or a connection.
        for (const int descriptor : std::as_const(m_open))
            ::shutdown(descriptor, SHUT_RDWR);
        ::shutdown(m_listener.get(), SHUT_RDWR);
        m_changed.notify_all();
    }
    m_accepting.join();
    for (std::thread &connection : m_connections)
        connection.join();
}

void TestServer::answer(const QString &path, const QList<Answer> &answers)
{
    const std::lock_guard lock(m_mutex);
    m_answers[path.toUtf8()] = answers;
}

void TestServer::answer(const QString &path, std::function<Answer(const Request &request)> make)
{
    const std::lock_guard lock(m_mutex);
    m_makers[path.toUtf8()] = std::move(make);
}

void TestServer::release()
{
    const std::lock_guard lock(m_mutex);
    m_released = true;
    m_changed.notify_all();
}

QUrl TestServer::url(const QString &path) const
{
    QUrl url(path);
    url.setScheme(m_tls ? "https" : "http");
    url.setHost("127.0.0.1");
    url.setPort(m_port);
    return url;
}

QList<TestServer::Request> TestServer::requests() const
{
    const std::lock_guard lock(m_mutex);
    return m_requests;
}

bool TestServer::waitForRequests(int count) const
{
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(30), [&] { return m_requests.size() >= count; });
}

void TestServer::accept()
{
    int descriptor = -1;
    while ((descriptor = ::accept4(m_listener.get(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0)
        m_connections.emplace_back([this, descriptor] { serve(descriptor); });
}

void TestServer::serve(int descriptor)
{
    QSslSocket socket;
    socket.setSocketDescriptor(descriptor);
    // A second name of the connection, ours to shut down: the socket closes its own as soon as the peer is
    // gone, and the number may then stand for another file.
    const zel::FileDescriptor handle(::dup(descriptor));
    {
        const std::lock_guard lock(m_mutex);
        if (m_ending)
            return;
        m_open.append(handle.get());
    }
    if (m_tls) {
        socket.setSslConfiguration(*m_tls);
        socket.startServerEncryption();
    }
    if (!m_tls || socket.waitForEncrypted(-1))
        if (const std::optional<Request> request = receive(socket))
            send(socket, take(*request));
    const std::lock_guard lock(m_mutex);
    m_open.removeOne(handle.get());
}

std::optional<TestServer::Request> TestServer::receive(QTcpSocket &socket)
{
    const auto line = [&]() -> QByteArray {
        while (!socket.canReadLine())
            if (!socket.waitForReadyRead(-1))
                return {};
        return socket.readLine().trimmed();
    };
    const QList<QByteArray> start = line().split(' ');
    if (start.size() != 3)
        return {};
    Request request{.method = start[0], .path = start[1], .headers = {}, .body = {}};
    for (QByteArray header = line(); !header.isEmpty(); header = line()) {
        const qsizetype colon = header.indexOf(':');
        request.headers[header.left(colon).toLower()] = header.mid(colon + 1).trimmed();
    }
    const qint64 length = request.headers.value("content-length").toLongLong();
    while (request.body.size() < length) {
        if (socket.bytesAvailable() == 0 && !socket.waitForReadyRead(-1))
            return {};
        request.body += socket.read(length - request.body.size());
    }
    return request;
}

TestServer::Answer TestServer::take(const Request &request)
{
    const std::lock_guard lock(m_mutex);
    m_requests.append(request);
    m_changed.notify_all();
    if (const auto maker = m_makers.find(request.path); maker != m_makers.end())
        return maker->second(request);
    QList<Answer> &answers = m_answers[request.path.split('?').first()];
    if (answers.isEmpty())
        return {.status = 404, .body = "nothing here"};
    return answers.size() == 1 ? answers.first() : answers.takeFirst();
}

void TestServer::send(QTcpSocket &socket, const Answer &answer)
{
    if (answer.stallAt == BeforeHead)
        waitForRelease(socket);
    if (answer.dropAt == BeforeHead)
        return;
    std::this_thread::sleep_for(answer.drip);
    if (answer.endless == Endless::Interim)
        repeat(socket, "HTTP/1.1 100 Continue\r\n\r\n");
    write(socket, head(answer));
    if (answer.endless == Endless::Head)
        repeat(socket, "X-Line: " + QByteArray(50, 'x') + "\r\n");
    write(socket, "\r\n");
    if (answer.endless == Endless::Body)
        repeat(socket, framed(answer.body, answer.framing));
    const qsizetype piece = answer.drip.count() > 0 ? 1 : 64 * 1024;
    for (qsizetype at = 0; flush(socket) && at <= answer.body.size();) {
        if (at == answer.stallAt)
            waitForRelease(socket);
        if (at == answer.dropAt)
            return;
        if (at == answer.body.size())
            break;
        qsizetype end = qMin(at + piece, answer.body.size());
        for (const qsizetype stop : {answer.stallAt, answer.dropAt})
            if (stop > at)
                end = qMin(end, stop);
        std::this_thread::sleep_for(answer.drip);
        write(socket, framed(QByteArrayView(answer.body).sliced(at, end - at), answer.framing));
        at = end;
    }
    if (answer.endless == Endless::Trailers) {
        write(socket, "0\r\n");
        repeat(socket, "X-Line: " + QByteArray(50, 'x') + "\r\n");
    }
    if (answer.framing == Framing::Chunked)
        write(socket, "0\r\n\r\n");
    flush(socket);
}

void TestServer::waitForRelease(QTcpSocket &socket)
{
    flush(socket);
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_released || m_ending; });
}

void TestServer::repeat(QTcpSocket &socket, const QByteArray &text)
{
    const QByteArray piece = text.repeated(1 + 16 * 1024 / text.size());
    while (flush(socket))
        write(socket, piece);
}

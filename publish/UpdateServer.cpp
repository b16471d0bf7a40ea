#include "UpdateServer.h"

#include "FeedFile.h"

#include "base/FileDescriptor.h"
#include "base/SystemCalls.h"
#include "common/UpdateRecord.h"
#include "install/StagingFolder.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QTemporaryFile>
#include <QUrl>

#include <algorithm>
#include <array>
#include <chrono>
#include <httplib.h>
#include <list>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

// Two parts: an HTTP server that holds out against its peers, and what it answers from a release folder. The
// library gives each connection a thread for as long as its peer likes, so that a few idle peers keep
// everybody else out. It leaves two doors to change that: the stream that it reads requests from, here a peer
// with its own deadlines, and the queue of its threads. A proxy in front would do the same; this server is
// for those who have none yet.

namespace zel {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

constexpr size_t MostConnections = 128;
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

// The other end of one connection.
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

    // A socket that is closed with input unread takes its answer back, so what still comes is waited for, a
    // while.
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

// One request per connection, each on a thread of its own up to a fixed number. A peer has ten seconds to
// ask, and more only while what it sends comes at 16 KiB a second or more; what it is sent it has to take at
// 1 KiB a second or more. When all threads are taken, the peer that has been asking longest makes room for
// the next: idle peers, however many, keep nobody out, and peers that are being answered are left alone.
// Heads are limited to 64 KiB, bodies to what `bodyLimit` says of the request once its head is known.
class HttpServer : public httplib::Server
{
public:
    using BodyLimit = std::function<size_t(const httplib::Request &request)>;

    // `settle` is called for each request whose head is there, and may change it.
    HttpServer(BodyLimit bodyLimit, std::function<void(httplib::Request &request)> settle);

private:
    bool process_and_close_socket(socket_t socket) override;
    void enter(Peer *peer);
    void leave(Peer *peer);

    const BodyLimit m_bodyLimit;
    const std::function<void(httplib::Request &request)> m_settle;
    std::mutex m_mutex;
    size_t m_connected = 0;
    size_t m_dropped = 0;
    std::list<Peer *> m_asking; // in the order in which they came
};

HttpServer::HttpServer(BodyLimit bodyLimit, std::function<void(httplib::Request &request)> settle)
    : m_bodyLimit(std::move(bodyLimit))
    , m_settle(std::move(settle))
{
    class Threads : public httplib::ThreadPool
    {
    public:
        explicit Threads(HttpServer &server)
            : ThreadPool(MostConnections)
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
    while (m_connected - m_dropped > MostConnections && !m_asking.empty()) {
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
        process_request(peer, true, closed, [&](httplib::Request &request) {
            peer.allow(2 * m_bodyLimit(request));
            m_settle(request);
        });
        peer.finish();
    } catch (const std::exception &) {
        // Memory is exhausted; the peer sees its connection end.
    }
    leave(&peer);
    return true;
}

namespace {

constexpr size_t CheckLimit = size_t(64) << 10;
constexpr size_t LogLimit = size_t(32) << 20; // files in a log are at most 1 MiB, but there can be some
const char *const AnyPath = "[\\s\\S]*"; // a dot would leave out names with a line break
const char *const PatchLogPath = "/wexmoor7/updates/patch/";

const char *contentType(const QString &file)
{
    const QString suffix = QFileInfo(file).suffix();
    if (suffix == QLatin1String("html"))
        return "text/html; charset=utf-8";
    if (suffix == QLatin1String("json"))
        return "application/json";
    return suffix == QLatin1String("zip") ? "application/zip" : "application/octet-stream";
}

size_t bodyLimit(const httplib::Request &request)
{
    return request.path == PatchLogPath ? LogLimit : CheckLimit;
}

// Gives the body to `take`, piece by piece. Returns the status: 200 when all of it was taken.
int readBody(const httplib::Request &request, const httplib::ContentReader &body,
             const std::function<int(QByteArrayView piece)> &take)
{
    const bool chunked = request.has_header("Transfer-Encoding");
    if (request.is_multipart_form_data())
        return 415;
    if (!chunked && !request.has_header("Content-Length"))
        return 200;
    const size_t limit = bodyLimit(request);
    if (!chunked && request.get_header_value<uint64_t>("Content-Length") > limit)
        return 413;
    size_t taken = 0;
    int status = 200;
    const bool whole = body([&](const char *bytes, size_t count) {
        taken += count;
        status = taken > limit ? 413 : take({bytes, qsizetype(count)});
        return status == 200;
    });
    return whole || status != 200 ? status : 400;
}

// What tells one version of a file from the others. Files are replaced by new ones, whose numbers differ even
// where their times do not.
struct FileVersion {
    explicit FileVersion(const QFile &open)
    {
        struct stat status = {};
        ::fstat(open.handle(), &status);
        const timespec written = timesOf(status)[1];
        const QDateTime time = QDateTime::fromSecsSinceEpoch(written.tv_sec, Qt::UTC);
        tag = QStringLiteral("\"%1-%2-%3.%4\"")
                  .arg(qulonglong(status.st_ino), 0, 16)
                  .arg(qlonglong(status.st_size), 0, 16)
                  .arg(qlonglong(written.tv_sec), 0, 16)
                  .arg(qlonglong(written.tv_nsec), 0, 16)
                  .toStdString();
        modified =
            QLocale::c().toString(time, QStringLiteral("ddd, dd MMM yyyy hh:mm:ss 'GMT'")).toStdString();
    }

    std::string tag;
    std::string modified;
};

void answerJson(httplib::Response &response, const QByteArray &json)
{
    response.set_content(json.constData(), size_t(json.size()), "application/json");
}

QJsonValue absolute(const QJsonValue &address, const QUrl &base)
{
    return base.resolved(QUrl(address.toString())).toString(QUrl::FullyEncoded);
}

QJsonObject withAbsoluteAddresses(QJsonObject entry, const QUrl &base)
{
    for (const QLatin1String name : {key::File, key::History}) {
        if (entry.contains(name))
            entry[name] = absolute(entry[name], base);
    }
    if (const QJsonArray patches = entry.value(key::Patches).toArray(); !patches.isEmpty()) {
        QJsonArray served;
        for (const QJsonValue patch : patches)
            served.append(withAbsoluteAddresses(patch.toObject(), base));
        entry[key::Patches] = served;
    }
    return entry;
}

} // namespace

UpdateServer::UpdateServer(const QString &folder, std::function<void(const QString &)> said)
    : m_folder(folder)
    , m_said(std::move(said))
    , m_server(std::make_unique<HttpServer>(bodyLimit,
                                            [this](httplib::Request &request) { settleRange(request); }))
{
    m_server->Get(AnyPath, [this](const auto &request, auto &response) { serveFile(request, response); });
    m_server->Post(AnyPath, [this](const auto &request, auto &response, const auto &body) {
        post(request, response, body);
    });
    m_server->set_logger([this](const httplib::Request &request, const httplib::Response &response) {
        m_said(QStringLiteral("%1 %2 %3")
                   .arg(QString::fromStdString(request.method), QString::fromStdString(request.path))
                   .arg(response.status));
    });
}

UpdateServer::~UpdateServer() = default;

int UpdateServer::bind(const QString &host, int port)
{
    const std::string name = host.toStdString();
    const int bound = port == 0              ? m_server->bind_to_any_port(name)
        : m_server->bind_to_port(name, port) ? port
                                             : -1;
    QUrl address;
    address.setScheme(QStringLiteral("http"));
    address.setHost(host);
    address.setPort(bound);
    m_address = address.toString() + u'/';
    return bound;
}

void UpdateServer::run()
{
    m_server->listen_after_bind();
}

// A file right in the folder, by its name: nothing below, nothing hidden, no links.
QString UpdateServer::servedFile(const std::string &path) const
{
    const QString name = QString::fromStdString(path).mid(1);
    if (name.isEmpty() || name.startsWith(u'.') || name.contains(u'/') || name.contains(QChar(u'\0')))
        return {};
    const QFileInfo file(m_folder + u'/' + name);
    return file.isFile() && !file.isSymLink() ? file.filePath() : QString();
}

void UpdateServer::serveFile(const httplib::Request &request, httplib::Response &response) const
{
    const auto file = std::make_shared<QFile>(servedFile(request.path));
    if (file->fileName().isEmpty() || !file->open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        response.status = 404;
        response.set_content("Not found\n", "text/plain");
        return;
    }
    const FileVersion version(*file);
    response.set_header("Accept-Ranges", "bytes");
    response.set_header("ETag", version.tag);
    response.set_header("Last-Modified", version.modified);
    if (!request.ranges.empty() && request.ranges[0].first >= file->size()) {
        response.status = 416;
        response.set_header("Content-Range", "bytes */" + std::to_string(file->size()));
        return;
    }
    response.set_content_provider(size_t(file->size()), contentType(file->fileName()),
                                  [file](size_t offset, size_t length, httplib::DataSink &sink) {
                                      constexpr size_t step = 1 << 18;
                                      if (!file->seek(qint64(offset)))
                                          return false;
                                      const QByteArray piece = file->read(qint64(std::min(length, step)));
                                      return !piece.isEmpty()
                                          && sink.write(piece.constData(), size_t(piece.size()));
                                  });
}

// The library answers ranges, but as they are asked for: beyond the end, too, and whatever version the asker
// has the beginning of. Ranges that mean nothing here are left out: then all of the file is the answer.
void UpdateServer::settleRange(httplib::Request &request) const
{
    if (request.ranges.empty())
        return;
    const auto ranges = std::exchange(request.ranges, {});
    QFile file(servedFile(request.path));
    if (request.method == "POST" || ranges.size() != 1 || !file.open(QIODevice::ReadOnly))
        return;
    const FileVersion version(file);
    const std::string condition = request.get_header_value("If-Range");
    if (!condition.empty() && condition != version.tag)
        return;
    auto [first, last] = ranges[0];
    const auto size = ssize_t(file.size());
    if (first < 0) { // the last bytes
        first = std::max<ssize_t>(size - last, last > 0 ? 0 : size);
        last = -1;
    }
    request.ranges = {{first, last < 0 ? size - 1 : std::min(last, size - 1)}};
}

void UpdateServer::post(const httplib::Request &request, httplib::Response &response,
                        const httplib::ContentReader &body) const
{
    if (request.path == PatchLogPath)
        return storeLog(request, response, body);
    // What a client tells of itself changes no answer: all get the whole feed, and choose.
    response.status = readBody(request, body, [](QByteArrayView) { return 200; });
    if (response.status != 200)
        return;
    if (!servedFile(request.path).isNull())
        serveFile(request, response);
    else
        answerCheck(request, response);
}

// The log is not kept in memory while it comes, nor is a half one ever seen under a name.
void UpdateServer::storeLog(const httplib::Request &request, httplib::Response &response,
                            const httplib::ContentReader &body) const
{
    const QString folder = m_folder + QLatin1String("/logs");
    const QString time = QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    const QString name = QStringLiteral("%1/%2-%3.json").arg(folder, time, newUUID());
    QTemporaryFile file(folder + QLatin1String("/.XXXXXX"));
    if (!QDir().mkpath(folder) || !file.open()) {
        response.status = 500;
        return;
    }
    response.status = readBody(request, body, [&file](QByteArrayView piece) {
        const bool room = writableBytes(file.handle()).value_or(0) > piece.size();
        return room && file.write(piece.data(), piece.size()) == piece.size() ? 200 : 507;
    });
    if (response.status != 200)
        return;
    const std::lock_guard lock(m_judging);
    if (!file.seek(0) || !QJsonDocument::fromJson(file.readAll()).isObject())
        response.status = 400;
    else if (!file.rename(name))
        response.status = 500;
    else {
        file.setAutoRemove(false);
        answerJson(response, "{}");
    }
}

void UpdateServer::answerCheck(const httplib::Request &request, httplib::Response &response) const
{
    QJsonArray records;
    if (const ZELError error = readFeed(m_folder, records)) {
        m_said(error.message);
        response.status = 500;
        return;
    }
    // The address that the client used reaches this server; the one it listens at may not ("0.0.0.0", a
    // proxy).
    const QUrl asked(QLatin1String("http://") + QString::fromStdString(request.get_header_value("Host"))
                     + u'/');
    const QUrl base = asked.isValid() && !asked.host().isEmpty() ? asked : QUrl(m_address);
    QJsonArray served;
    for (const QJsonValue record : std::as_const(records))
        served.append(withAbsoluteAddresses(record.toObject(), base));
    answerJson(response, QJsonDocument(served).toJson(QJsonDocument::Compact));
}

} // namespace zel

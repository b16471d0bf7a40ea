#include "UpdateServer.h"

#include "base/SystemCalls.h"
#include "HttpServer.h"
#include "install/StagingFolder.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryFile>
#include <QUrl>

namespace zel {

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
    for (const QLatin1String key : {QLatin1String("file"), QLatin1String("history")}) {
        if (entry.contains(key))
            entry[key] = absolute(entry[key], base);
    }
    if (const QJsonArray patches = entry.value(QLatin1String("patches")).toArray(); !patches.isEmpty()) {
        QJsonArray served;
        for (const QJsonValue patch : patches)
            served.append(withAbsoluteAddresses(patch.toObject(), base));
        entry[QLatin1String("patches")] = served;
    }
    return entry;
}

} // namespace

UpdateServer::UpdateServer(const QString &folder, std::function<void(const QString &)> said)
    : m_folder(folder)
    , m_said(std::move(said))
    , m_server(std::make_unique<HttpServer>(bodyLimit))
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
    if (const ZELError error = ReleaseFolder(m_folder).read(records)) {
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

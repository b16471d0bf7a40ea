// An update server for a release folder: for trying updates, and for small teams behind a proxy of theirs.
#pragma once

#include <QString>

#include <functional>
#include <memory>
#include <mutex>

namespace httplib {
class ContentReader;
struct Request;
struct Response;
} // namespace httplib

namespace zel {

class HttpServer;

/// Answers over HTTP:
///  - GET of a file in the folder, with entity tags, and single ranges of bytes for those who go on with a
///    download; POST of one too, because that is how release notes are asked for;
///  - POST to "/wexmoor7/updates/patch/": a patch log of at most 32 MiB, stored as a file in the folder's
///    "logs", which is never served, as long as the disk has room;
///  - any other POST: a check, of at most 64 KiB, answered with the feed, its addresses made absolute.
/// What type a body says that it has does not matter. A peer has ten seconds to ask, and more only while what
/// it sends comes at 16 KiB a second or more; what it is sent it has to take at 1 KiB a second or more. Peers
/// that are idle, however many, keep nobody out.
class UpdateServer
{
public:
    /// `said` gets one line per request, on the threads that serve them.
    UpdateServer(const QString &folder, std::function<void(const QString &)> said);
    ~UpdateServer();

    /// Takes the address; port 0 takes a free one. Returns the port, or -1 when the address cannot be had.
    int bind(const QString &host, int port);

    /// Serves until the process ends.
    void run();

private:
    void serveFile(const httplib::Request &request, httplib::Response &response) const;
    void settleRange(httplib::Request &request) const;
    void post(const httplib::Request &request, httplib::Response &response,
              const httplib::ContentReader &body) const;
    void storeLog(const httplib::Request &request, httplib::Response &response,
                  const httplib::ContentReader &body) const;
    void answerCheck(const httplib::Request &request, httplib::Response &response) const;
    QString servedFile(const std::string &path) const;

    const QString m_folder;
    const std::function<void(const QString &)> m_said;
    QString m_address; // "http://host:port/"
    std::unique_ptr<HttpServer> m_server;
    mutable std::mutex m_judging; // of logs, which takes memory: one at a time
};

} // namespace zel

// A real HTTP/1.1 server on loopback whose answers are scripted, path by path, to misbehave where a test
// needs it.
#pragma once

#include "base/FileDescriptor.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QSslConfiguration>
#include <QString>
#include <QUrl>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

class QTcpSocket;

/// Answers on threads of its own, so also while the test's thread blocks. Every connection carries one
/// request and is closed after its answer. All functions are safe from any thread.
class TestServer
{
public:
    /// How a body's end is told: by its announced length, by the end of the connection, or by chunked coding.
    enum class Framing { Length, Close, Chunked };

    /// Where an answer stops coming to an end.
    enum class Endless { Nowhere, Interim, Head, Body, Trailers };

    static constexpr qsizetype Never = -2;
    static constexpr qsizetype BeforeHead = -1; ///< a point before the first byte of the answer

    struct Answer {
        int status = 200;
        QByteArray body = {};
        QList<std::pair<QByteArray, QByteArray>> headers = {};
        Framing framing = Framing::Length;
        qsizetype dropAt = Never; ///< body bytes after which the connection is dropped, or BeforeHead
        qsizetype stallAt = Never; ///< body bytes after which the answer waits for `release`, or BeforeHead
        Endless endless = Endless::Nowhere; ///< goes on there until the peer is gone
        std::chrono::milliseconds drip{0}; ///< pause before the head and before each byte of the body

        static Answer redirect(const QString &location, int status = 302);
    };

    struct Request {
        QByteArray method;
        QByteArray path; ///< with its query
        QMap<QByteArray, QByteArray> headers; ///< names in lower case
        QByteArray body;
    };

    /// Listens on a free port; over TLS when a configuration with key and certificate is given.
    explicit TestServer(std::optional<QSslConfiguration> tls = {});

    /// Drops what is open, stalled answers too.
    ~TestServer();
    TestServer(const TestServer &) = delete;
    TestServer &operator=(const TestServer &) = delete;

    /// Gives a path its answers: the first request gets the first, and so on; the last one repeats. A path
    /// without answers is a 404 with a body.
    void answer(const QString &path, const QList<Answer> &answers);

    /// Makes the answers of a path from what is asked, on the threads that serve.
    void answer(const QString &path, std::function<Answer(const Request &request)> make);

    /// Lets every stalled answer go on, those that come later too.
    void release();

    QUrl url(const QString &path) const;

    /// What was asked until now, in the order of arrival.
    QList<Request> requests() const;

    /// Returns as soon as `count` requests have arrived; false when they do not within half a minute.
    bool waitForRequests(int count) const;

private:
    void accept();
    void serve(int descriptor);
    std::optional<Request> receive(QTcpSocket &socket);
    Answer take(const Request &request);
    void send(QTcpSocket &socket, const Answer &answer);
    void waitForRelease(QTcpSocket &socket);
    void repeat(QTcpSocket &socket, const QByteArray &text);

    const std::optional<QSslConfiguration> m_tls;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::map<QByteArray, QList<Answer>> m_answers;
    std::map<QByteArray, std::function<Answer(const Request &)>> m_makers;
    QList<Request> m_requests;
    QList<int> m_open; // descriptors of the connections
    std::vector<std::thread> m_connections;
    const zel::FileDescriptor m_listener;
    quint16 m_port = 0;
    bool m_released = false;
    bool m_ending = false;
    std::thread m_accepting;
};

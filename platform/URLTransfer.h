// One HTTP exchange, redirections included, on the thread that runs it.
//
// libcurl does the protocol. Qt's own network access was tried first: version 6.4 takes a connection that is dropped
// in the middle of a body for the body's end in up to a third of all cases, with chunked coding beyond detection.
#pragma once

#include "URLSession.h"

#include <atomic>
#include <chrono>
#include <curl/curl.h>
#include <functional>
#include <memory>

namespace zel {

/// Where the bytes of a body go.
class BodySink
{
public:
    virtual ~BodySink() = default;

    /// Called before anything is sent; an error ends the transfer.
    virtual ZELError open() = 0;

    /// Takes the next bytes; an error ends the transfer.
    virtual ZELError write(QByteArrayView bytes) = 0;

    /// Whether the server may code the body, which is then decoded before it is written.
    virtual bool takesDecodedContent() const = 0;
};

/// Made, run and destroyed on one thread; `cancel` alone may be called from any.
class URLTransfer
{
public:
    /// Called before the first session starts: what is initialised first is cleaned up last, so the libraries
    /// beneath are still there while sessions end at exit.
    static void initialiseLibraries();

    using Progress = std::function<void(qint64 received, qint64 expected)>;

    /// `sink` outlives the transfer. `progress` is called after each piece of the body and at its end.
    URLTransfer(const URLRequest &request, BodySink &sink, Progress progress);

    /// Does it all; returns the transport error, if any. Takes a few hundred KiB of memory besides the sink's.
    ZELError run();

    void cancel();

    /// The error of a transfer that was cancelled.
    ZELError cancelled() const;

    /// The address that answered last.
    QUrl responseUrl() const { return m_request.url; }

private:
    using Clock = std::chrono::steady_clock;

    template <auto close> struct Closer {
        template <typename Handle> void operator()(Handle *handle) const { close(handle); }
    };
    using Easy = std::unique_ptr<CURL, Closer<curl_easy_cleanup>>;
    using Multi = std::unique_ptr<CURLM, Closer<curl_multi_cleanup>>;
    using List = std::unique_ptr<curl_slist, Closer<curl_slist_free_all>>;

    ZELError exchange();
    ZELError perform();
    ZELError redirect();
    void configure();
    void configureProxy();
    ZELError outcome();
    bool isRedirected() const;
    size_t receive(QByteArrayView bytes);
    ZELError failure(const QString &reason, qint64 code = 0) const;

    URLRequest m_request; // as it stands after the redirections so far
    BodySink &m_sink;
    const Progress m_progress;
    const Multi m_multi; // outlives the exchange in it
    List m_headers;
    Easy m_easy;
    std::atomic<bool> m_cancelled = false;
    Clock::time_point m_lastByte;
    curl_off_t m_moved = 0; // bytes both ways, as last seen
    qint64 m_received = 0;
    ZELError m_sinkError;
};

} // namespace zel

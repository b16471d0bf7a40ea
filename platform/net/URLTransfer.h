// One HTTP transfer, redirections and further attempts included, on the thread that runs it.
#pragma once

#include "AnswerHead.h"
#include "Attempts.h"
#include "BodySinks.h"
#include "ProxyLookup.h"
#include "TransferClock.h"
#include "URLRequest.h"

#include <atomic>
#include <curl/curl.h>
#include <functional>
#include <memory>

namespace zel {

/// A GET into a sink with a file is tried again where the request has pauses for it, and asks for what is
/// missing of the file. Everything else is sent once.
///
/// Made, run and destroyed on one thread; `cancel` alone may be called from any.
class URLTransfer
{
public:
    /// Called before the first session starts: what is initialised first is cleaned up last, so the libraries
    /// beneath are still there while sessions end at exit.
    static void initialiseLibraries();

    using Progress = std::function<void(qint64 received, qint64 expected)>;

    /// `sink` outlives the transfer. `progress` is called after each piece of the body and at its end, and at
    /// the beginning where there is something of the file. What a server says instead of the file is no
    /// progress.
    URLTransfer(const URLRequest &request, BodySink &sink, Progress progress);

    /// Does it all; returns the transport error, if any. Takes a few hundred KiB of memory besides the
    /// sink's.
    ZELError run();

    void cancel();

    /// The error of a transfer that was cancelled.
    ZELError cancelled() const;

    /// The address that answered last.
    QUrl responseUrl() const { return m_url; }

private:
    using Clock = std::chrono::steady_clock;

    template <auto close> struct Closer {
        template <typename Handle> void operator()(Handle *handle) const { close(handle); }
    };
    using Easy = std::unique_ptr<CURL, Closer<curl_easy_cleanup>>;
    using Multi = std::unique_ptr<CURLM, Closer<curl_multi_cleanup>>;
    using List = std::unique_ptr<curl_slist, Closer<curl_slist_free_all>>;

    // What is to be made of an answer whose head is known.
    enum class Answer { Body, Redirection, NoRest, PassingFault, NoProxy };

    ZELError attempt();
    ZELError pause(std::chrono::milliseconds length);
    ZELError exchange();
    ZELError findProxy();
    ZELError perform();
    ZELError redirect();
    void configure();
    void configureProxy();
    void configureRest();
    ZELError outcome();
    ZELError proxyFailure();
    ZELError begin();
    bool isTooShort() const;
    Answer answer() const;
    AnswerHead head() const { return AnswerHead(m_easy.get()); }
    bool isRefusedByProxy() const { return !m_proxy.address.isEmpty() && head().wantsPassword(); }
    bool mayTryAgain() const;
    qint64 kept() const { return m_sink.file() ? m_sink.file()->kept() : 0; }
    void report();
    ZELError judge();
    bool receiveHead(QByteArrayView line);
    bool receiveBody(QByteArrayView bytes);
    template <auto receive> static size_t take(char *bytes, size_t, size_t count, void *self) noexcept;
    ZELError wait(std::chrono::milliseconds most);
    ZELError failure(const QString &reason, qint64 code = 0) const;
    ZELError passingFailure(const QString &reason, qint64 code = 0);
    QString shownAddress() const;

    const URLRequest m_request;
    QUrl m_url; // these two as they stand after the redirections so far
    QByteArray m_method;
    BodySink &m_sink;
    const Progress m_progress;
    const Multi m_multi; // outlives the exchange in it
    List m_headers;
    Easy m_easy;
    std::atomic<bool> m_cancelled = false;
    TransferClock m_clock;
    Attempts m_attempts;
    std::optional<PassingFault> m_fault; // that ended this exchange, if it was such a one
    bool m_asksForRest = false; // in this attempt
    qint64 m_offset = 0; // from which on this exchange asks; 0: for all
    qint64 m_movedBefore = 0; // bytes both ways in the exchanges before this one
    qint64 m_moved = 0; // in this one
    qint64 m_headBytes = 0; // of this exchange: interim answers, header and trailer
    int m_codings = 0;
    bool m_begun = false; // the sink has begun with this answer's body
    bool m_isFile = false; // and it may be of the file
    qint64 m_received = 0; // of the body, what was there before included
    qint64 m_expected = -1;
    qint64 m_keptBeside = 0; // of the file, while the body comes
    std::unique_ptr<ProxyLookup> m_lookup; // the latest one
    Proxy m_proxy;
    ZELError m_refusal; // why bytes that came were not taken
    bool m_memoryIsOut = false;
};

} // namespace zel

// libcurl does the protocol. Qt's own network access was tried first: version 6.4 takes a connection that is
// dropped in the middle of a body for the body's end in up to a third of all cases, with chunked coding
// beyond detection.
//
// What libcurl would do by itself is kept from it where the updater must decide. Redirections are followed
// here, one exchange after the other (`run`, `redirect`), so that every address is judged before anything is
// sent to it: a redirection to `file:` or any other scheme ends in `exchange` as "not an HTTP address", one
// from https down to http in `redirect`. Times are judged by `TransferClock`, not by libcurl's options, which
// know no pace over both directions and start anew with each exchange. The multi interface is used for one
// transfer alone, since only its wait can be woken by `cancel` from another thread.
//
// Each transport error gets its text in `failure`: the address and the reason, which completions hand on as
// they are.
#include "URLTransfer.h"

#include "common/DDLog.h"
#include "common/WireValues.h"

#include <QNetworkProxy>

#include <algorithm>
#include <utility>

namespace {

constexpr int MostRedirections = 20;
constexpr long PieceSize = 256 * 1024;

// libcurl keeps every header and trailer line of a response, and has no limit for trailers.
constexpr qint64 LongestHead = 256 * 1024;

/// The values of a header line's list; nothing when the line is another header's.
QByteArrayList listIn(QByteArrayView line, QByteArrayView name)
{
    if (line.size() <= name.size() || line[name.size()] != ':'
        || line.first(name.size()).compare(name, Qt::CaseInsensitive) != 0)
        return {};
    QByteArrayList values;
    for (const QByteArray &value : line.sliced(name.size() + 1).toByteArray().toLower().split(','))
        if (const QByteArray trimmed = value.trimmed(); !trimmed.isEmpty() && trimmed != "identity")
            values.append(trimmed);
    return values;
}

} // namespace

namespace zel {

TransferClock::TransferClock(const URLRequest &request, Time start)
    : m_timeout(request.timeout)
    , m_deadline(request.deadline ? std::optional(start + *request.deadline) : std::nullopt)
    , m_pace(request.pace)
    , m_lastByte(start)
    , m_spanStart(start)
{
}

void TransferClock::tell(qint64 moved, Time now)
{
    if (std::exchange(m_moved, moved) != moved)
        m_lastByte = now;
    if (!m_pace || now - m_spanStart < m_pace->span)
        return;
    m_slow = m_slow || moved - m_spanMoved < m_pace->bytes;
    m_spanStart = now;
    m_spanMoved = moved;
}

const char *TransferClock::complaint(Time now) const
{
    if (now - m_lastByte >= m_timeout)
        return "the server is silent";
    if (m_deadline && now >= *m_deadline)
        return "it takes too long";
    return m_slow ? "the server is too slow" : nullptr;
}

std::chrono::milliseconds TransferClock::left(Time now) const
{
    Time next = m_lastByte + m_timeout;
    if (m_deadline)
        next = std::min(next, *m_deadline);
    if (m_pace)
        next = std::min(next, m_spanStart + m_pace->span);
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(next - now), std::chrono::milliseconds(0));
}

void URLTransfer::initialiseLibraries()
{
    [[maybe_unused]] static const CURLcode once = curl_global_init(CURL_GLOBAL_DEFAULT);
}

URLTransfer::URLTransfer(const URLRequest &request, BodySink &sink, Progress progress)
    : m_request(request)
    , m_sink(sink)
    , m_progress(std::move(progress))
    , m_multi(curl_multi_init())
    , m_clock(request, Clock::now())
{
}

ZELError URLTransfer::run()
{
    if (m_cancelled)
        return cancelled();
    if (const ZELError error = m_sink.open())
        return error;
    for (int redirections = 0; redirections <= MostRedirections; ++redirections) {
        if (const ZELError error = exchange())
            return error;
        if (!isRedirected())
            return {};
        if (const ZELError error = redirect())
            return error;
    }
    return failure(QStringLiteral("too many redirections"));
}

void URLTransfer::cancel()
{
    m_cancelled = true;
    curl_multi_wakeup(m_multi.get());
}

ZELError URLTransfer::cancelled() const
{
    return failure(QStringLiteral("cancelled"), URLErrorCode::Cancelled);
}

ZELError URLTransfer::exchange()
{
    if (!isWebAddress(m_request.url))
        return failure(QStringLiteral("not an HTTP address"));
    m_easy.reset(curl_easy_init());
    if (!m_easy || !m_multi)
        return failure(QStringLiteral("out of memory"));
    m_movedBefore += std::exchange(m_moved, 0);
    m_headBytes = 0;
    m_codings = 0;
    configure();
    curl_multi_add_handle(m_multi.get(), m_easy.get());
    const ZELError error = perform();
    curl_multi_remove_handle(m_multi.get(), m_easy.get());
    return error;
}

void URLTransfer::configure()
{
    CURL *easy = m_easy.get();
    curl_easy_setopt(easy, CURLOPT_URL, m_request.url.toEncoded(QUrl::RemoveFragment).constData());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    // A session has one request, which gains nothing from a protocol of many streams, states and compressed
    // headers.
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "ZELUpdater");
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L); // a name that is still looked up holds nobody up
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, PieceSize);
    if (const QByteArray certificates = qgetenv("SSL_CERT_FILE"); !certificates.isEmpty())
        curl_easy_setopt(easy, CURLOPT_CAINFO, certificates.constData());
    configureProxy();

    m_headers.reset(curl_slist_append(nullptr, "Cache-Control: no-cache"));
    if (m_sink.takesDecodedContent())
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, ""); // every coding that can be decoded
    else
        curl_slist_append(m_headers.get(), "Accept-Encoding: identity");
    if (!m_request.languages.isEmpty())
        curl_slist_append(m_headers.get(), ("Accept-Language: " + m_request.languages).constData());
    if (m_request.method == "POST") {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(m_request.body.size()));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, m_request.body.constData());
        curl_slist_append(m_headers.get(), ("Content-Type: " + m_request.contentType).constData());
        curl_slist_append(m_headers.get(), "Expect:"); // no waiting for a leave to send the body
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, m_headers.get());

    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, take<&URLTransfer::receiveHead>);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, take<&URLTransfer::receiveBody>);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
}

void URLTransfer::configureProxy()
{
    const QList<QNetworkProxy> proxies =
        QNetworkProxyFactory::proxyForQuery(QNetworkProxyQuery(m_request.url));
    const QNetworkProxy proxy = proxies.value(0, QNetworkProxy::NoProxy);
    QUrl address;
    if (proxy.type() == QNetworkProxy::Socks5Proxy)
        address.setScheme(QStringLiteral("socks5h"));
    else if (proxy.type() == QNetworkProxy::HttpProxy || proxy.type() == QNetworkProxy::HttpCachingProxy)
        address.setScheme(QStringLiteral("http"));
    if (!address.scheme().isEmpty()) {
        address.setHost(proxy.hostName());
        address.setPort(proxy.port());
        address.setUserName(proxy.user());
        address.setPassword(proxy.password());
    }
    // An empty address keeps libcurl from reading the environment, which is the host's to decide.
    curl_easy_setopt(m_easy.get(), CURLOPT_PROXY, address.toEncoded().constData());
    curl_easy_setopt(m_easy.get(), CURLOPT_PROXYAUTH, CURLAUTH_ANY);
}

ZELError URLTransfer::perform()
{
    for (int running = 1;;) {
        if (const CURLMcode code = curl_multi_perform(m_multi.get(), &running); code != CURLM_OK)
            return failure(QString::fromUtf8(curl_multi_strerror(code)));
        if (m_cancelled)
            return cancelled();
        if (running == 0)
            return outcome();
        if (const ZELError error = judge())
            return error;
        const qint64 left = m_clock.left(Clock::now()).count();
        if (const CURLMcode code =
                curl_multi_poll(m_multi.get(), nullptr, 0, int(qMin<qint64>(left, 60'000)), nullptr);
            code != CURLM_OK)
            return failure(QString::fromUtf8(curl_multi_strerror(code)));
    }
}

ZELError URLTransfer::judge()
{
    curl_off_t sent = 0;
    curl_off_t received = 0;
    long head = 0;
    curl_easy_getinfo(m_easy.get(), CURLINFO_SIZE_UPLOAD_T, &sent);
    curl_easy_getinfo(m_easy.get(), CURLINFO_SIZE_DOWNLOAD_T, &received);
    curl_easy_getinfo(m_easy.get(), CURLINFO_HEADER_SIZE, &head);
    m_moved = sent + received + head;
    m_clock.tell(m_movedBefore + m_moved, Clock::now());
    const char *complaint = m_clock.complaint(Clock::now());
    return complaint ? failure(QLatin1String(complaint), URLErrorCode::TimedOut) : ZELError();
}

ZELError URLTransfer::outcome()
{
    int queued = 0;
    const CURLMsg *message = curl_multi_info_read(m_multi.get(), &queued);
    const CURLcode result = message ? message->data.result : CURLE_FAILED_INIT;
    if (m_memoryIsOut)
        return failure(QStringLiteral("out of memory"));
    if (m_refusal)
        return m_refusal;
    if (isRedirected())
        return {}; // its body was not taken
    if (result != CURLE_OK)
        return failure(QString::fromUtf8(curl_easy_strerror(result)),
                       result == CURLE_OPERATION_TIMEDOUT ? URLErrorCode::TimedOut : 0);
    // Not looked at by any flow, but what somebody looks for when a flow fails.
    long status = 0;
    curl_easy_getinfo(m_easy.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status < 200 || status >= 300)
        systemLog(QStringLiteral("%1 answered with HTTP status %2")
                      .arg(m_request.url.toString(QUrl::RemoveUserInfo | QUrl::RemoveQuery))
                      .arg(status));
    m_progress(m_received, announcedSize());
    return {};
}

// libcurl's C code must not be left by an exception.
template <auto receive> size_t URLTransfer::take(char *bytes, size_t, size_t count, void *self) noexcept
{
    auto *transfer = static_cast<URLTransfer *>(self);
    try {
        return (transfer->*receive)({bytes, qsizetype(count)}) ? count : CURL_WRITEFUNC_ERROR;
    } catch (const std::bad_alloc &) {
        transfer->m_memoryIsOut = true;
        return CURL_WRITEFUNC_ERROR;
    }
}

bool URLTransfer::receiveHead(QByteArrayView line)
{
    m_headBytes += line.size();
    if (m_headBytes > LongestHead)
        m_refusal =
            failure(QStringLiteral("the header is longer than the limit of %1 bytes").arg(LongestHead));
    // Each coding may blow up the one below it a thousand times, and what that decodes to may still be
    // nothing.
    if (m_sink.takesDecodedContent())
        m_codings += int(listIn(line, "Content-Encoding").size());
    for (const QByteArray &coding : listIn(line, "Transfer-Encoding"))
        m_codings += coding == "chunked" ? 0 : 2; // never asked for
    if (m_codings > 1)
        m_refusal = failure(QStringLiteral("the answer is coded more than once"));
    return !m_refusal;
}

bool URLTransfer::receiveBody(QByteArrayView bytes)
{
    if (m_cancelled || isRedirected())
        return false;
    const qint64 expected = announcedSize();
    if (m_received == 0 && expected >= 0)
        m_refusal = m_sink.expect(expected);
    if (!m_refusal)
        m_refusal = m_sink.write(bytes);
    if (m_refusal)
        return false;
    m_received += bytes.size();
    m_progress(m_received, expected);
    return true;
}

qint64 URLTransfer::announcedSize() const
{
    curl_off_t size = -1;
    curl_easy_getinfo(m_easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &size);
    return size;
}

bool URLTransfer::isRedirected() const
{
    long status = 0;
    curl_easy_getinfo(m_easy.get(), CURLINFO_RESPONSE_CODE, &status);
    curl_header *location = nullptr;
    return (status == 301 || status == 302 || status == 303 || status == 307 || status == 308)
        && curl_easy_header(m_easy.get(), "Location", 0, CURLH_HEADER, -1, &location) == CURLHE_OK
        && *location->value;
}

ZELError URLTransfer::redirect()
{
    curl_header *location = nullptr;
    curl_easy_header(m_easy.get(), "Location", 0, CURLH_HEADER, -1, &location);
    const QUrl relative = QUrl::fromEncoded(location->value);
    const QUrl target = relative.isValid() ? m_request.url.resolved(relative) : relative;
    if (m_request.url.scheme() == QLatin1String("https") && target.scheme() == QLatin1String("http"))
        return failure(QStringLiteral("redirected to an insecure address"));
    long status = 0;
    curl_easy_getinfo(m_easy.get(), CURLINFO_RESPONSE_CODE, &status);
    if (status != 307 && status != 308)
        m_request.method = "GET";
    m_request.url = target;
    return {};
}

ZELError URLTransfer::failure(const QString &reason, qint64 code) const
{
    ZELError error = ZELError::withMessage(
        QStringLiteral("cannot load \"%1\": %2").arg(m_request.url.toDisplayString(), reason));
    error.code = code;
    return error;
}

} // namespace zel

#include "URLTransfer.h"

#include <QNetworkProxy>

namespace {

constexpr int MostRedirections = 20;
constexpr long PieceSize = 256 * 1024;

bool isLoadable(const QUrl &url)
{
    return url.isValid() && !url.host().isEmpty()
        && (url.scheme() == QLatin1String("http") || url.scheme() == QLatin1String("https"));
}

} // namespace

namespace zel {

void URLTransfer::initialiseLibraries()
{
    [[maybe_unused]] static const CURLcode once = curl_global_init(CURL_GLOBAL_DEFAULT);
}

URLTransfer::URLTransfer(const URLRequest &request, BodySink &sink, Progress progress)
    : m_request(request)
    , m_sink(sink)
    , m_progress(std::move(progress))
    , m_multi(curl_multi_init())
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
    if (!isLoadable(m_request.url))
        return failure(QStringLiteral("not an HTTP address"));
    m_easy.reset(curl_easy_init());
    if (!m_easy || !m_multi)
        return failure(QStringLiteral("out of memory"));
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
    if (m_request.method == "POST") {
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(m_request.body.size()));
        curl_easy_setopt(easy, CURLOPT_POSTFIELDS, m_request.body.constData());
        curl_slist_append(m_headers.get(), ("Content-Type: " + m_request.contentType).constData());
        curl_slist_append(m_headers.get(), "Expect:"); // no waiting for a leave to send the body
    }
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, m_headers.get());

    curl_write_callback take = [](char *bytes, size_t, size_t count, void *self) {
        return static_cast<URLTransfer *>(self)->receive({bytes, qsizetype(count)});
    };
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, take);
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
    m_lastByte = Clock::now();
    m_moved = 0;
    for (int running = 1;;) {
        curl_multi_perform(m_multi.get(), &running);
        if (m_cancelled)
            return cancelled();
        if (running == 0)
            return outcome();
        curl_off_t sent = 0;
        curl_off_t received = 0;
        long head = 0;
        curl_easy_getinfo(m_easy.get(), CURLINFO_SIZE_UPLOAD_T, &sent);
        curl_easy_getinfo(m_easy.get(), CURLINFO_SIZE_DOWNLOAD_T, &received);
        curl_easy_getinfo(m_easy.get(), CURLINFO_HEADER_SIZE, &head);
        if (std::exchange(m_moved, sent + received + head) != m_moved)
            m_lastByte = Clock::now();
        const auto left =
            m_request.timeout - std::chrono::floor<std::chrono::milliseconds>(Clock::now() - m_lastByte);
        if (left.count() <= 0)
            return failure(QStringLiteral("the server is silent"), URLErrorCode::TimedOut);
        curl_multi_poll(m_multi.get(), nullptr, 0, int(qMin<qint64>(left.count(), 60'000)), nullptr);
    }
}

ZELError URLTransfer::outcome()
{
    int queued = 0;
    const CURLMsg *message = curl_multi_info_read(m_multi.get(), &queued);
    const CURLcode result = message ? message->data.result : CURLE_FAILED_INIT;
    if (m_sinkError)
        return m_sinkError;
    if (isRedirected())
        return {}; // its body was refused
    if (result != CURLE_OK)
        return failure(QString::fromUtf8(curl_easy_strerror(result)),
                       result == CURLE_OPERATION_TIMEDOUT ? URLErrorCode::TimedOut : 0);
    curl_off_t expected = -1;
    curl_easy_getinfo(m_easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected);
    m_progress(m_received, expected);
    return {};
}

size_t URLTransfer::receive(QByteArrayView bytes)
{
    if (m_cancelled || isRedirected())
        return CURL_WRITEFUNC_ERROR;
    m_sinkError = m_sink.write(bytes);
    if (m_sinkError)
        return CURL_WRITEFUNC_ERROR;
    curl_off_t expected = -1;
    curl_easy_getinfo(m_easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &expected);
    m_received += bytes.size();
    m_progress(m_received, expected);
    return size_t(bytes.size());
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

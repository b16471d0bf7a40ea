// libcurl does the protocol. Qt's own network access was tried first: version 6.4 takes a connection that is
// dropped in the middle of a body for the body's end in up to a third of all cases, with chunked coding
// beyond detection.
//
// What libcurl would do by itself is kept from it where the updater must decide. Redirections are followed
// here, one exchange after the other (`attempt`, `redirect`), so that every address is judged before anything
// is sent to it: a redirection to `file:` or any other scheme ends in `exchange` as "not an HTTP address",
// one from https down to http in `redirect`. Times are judged by `TransferClock`, not by libcurl's options,
// which know no pace over both directions and start anew with each exchange. The multi interface is used for
// one transfer alone, since only its wait can be woken by `cancel` from another thread.
//
// A download that breaks off is tried again (`run`), and each further attempt asks for the rest of the file
// with "Range" and "If-Range". The bytes that come are appended only when the answer says that they are
// exactly that rest (`AnswerHead::isRest`); anything else is asked for whole, or written aside. What is put
// together from several answers is judged by its hash in the end, by whoever knows it.
//
// Each transport error gets its text in `failure`: the address and the reason, which completions hand on as
// they are.
#include "URLTransfer.h"

#include "common/DDLog.h"
#include "common/WireValues.h"
#include "PartialContent.h"

#include <algorithm>
#include <utility>

namespace {

constexpr int MostRedirections = 20;
constexpr long PieceSize = 256 * 1024;

// libcurl keeps every header and trailer line of a response, and has no limit for trailers.
constexpr qint64 LongestHead = 256 * 1024;

} // namespace

namespace zel {

void URLTransfer::initialiseLibraries()
{
    [[maybe_unused]] static const CURLcode once = curl_global_init(CURL_GLOBAL_DEFAULT);
}

URLTransfer::URLTransfer(const URLRequest &request, BodySink &sink, Progress progress)
    : m_request(request)
    , m_url(request.url)
    , m_sink(sink)
    , m_progress(std::move(progress))
    , m_multi(curl_multi_init())
    , m_clock(request, Clock::now())
    , m_attempts(request.pauses)
{
}

ZELError URLTransfer::run()
{
    if (m_cancelled)
        return cancelled();
    if (const ZELError error = m_sink.open())
        return error;
    for (;;) {
        const qint64 before = kept();
        if (before > 0)
            m_progress(before, m_request.size.value_or(-1));
        if (before > 0 && before == m_request.size) // its contents are not judged here
            return {};
        const ZELError error = attempt();
        if (!error || !m_fault || !mayTryAgain())
            return error;
        m_fault->cameFurther = kept() > before;
        const auto length = m_attempts.next(*m_fault);
        if (!length || !m_clock.allows(Clock::now() + *length))
            return error;
        systemLog(error.message + QStringLiteral("; another attempt in %1 s").arg(length->count() / 1000.0));
        if (const ZELError stopped = pause(*length))
            return stopped;
        m_clock.restart(Clock::now());
    }
}

ZELError URLTransfer::attempt()
{
    m_url = m_request.url;
    m_method = m_request.method;
    m_asksForRest = true;
    if (m_lookup && m_lookup->answer())
        m_lookup.reset(); // there may be another network by now
    for (int redirections = 0; redirections <= MostRedirections; ++redirections) {
        if (const ZELError error = exchange())
            return error;
        switch (answer()) {
        case Answer::Redirection:
            if (const ZELError error = redirect())
                return error;
            break;
        case Answer::NoRest:
            m_asksForRest = false; // the same address, for the whole
            break;
        default:
            return {};
        }
    }
    return failure(QStringLiteral("too many redirections"));
}

ZELError URLTransfer::pause(std::chrono::milliseconds length)
{
    const Clock::time_point end = Clock::now() + length;
    while (!m_cancelled) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        if (left.count() <= 0)
            return {};
        if (const ZELError error = wait(left))
            return error;
    }
    return cancelled();
}

// For the network, `cancel` or the answer about a proxy.
ZELError URLTransfer::wait(std::chrono::milliseconds most)
{
    const int length = int(std::clamp<qint64>(most.count(), 0, 60'000));
    const CURLMcode code = curl_multi_poll(m_multi.get(), nullptr, 0, length, nullptr);
    return code == CURLM_OK ? ZELError() : failure(QString::fromUtf8(curl_multi_strerror(code)));
}

bool URLTransfer::mayTryAgain() const
{
    return m_request.method == "GET" && m_sink.file() && !m_attempts.isLast();
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
    m_fault.reset();
    if (!isWebAddress(m_url))
        return failure(QStringLiteral("not an HTTP address"));
    m_easy.reset(curl_easy_init());
    if (!m_easy || !m_multi)
        return failure(QStringLiteral("out of memory"));
    m_movedBefore += std::exchange(m_moved, 0);
    m_headBytes = 0;
    m_codings = 0;
    m_begun = false;
    m_isFile = false;
    m_received = 0;
    m_expected = -1;
    if (const ZELError error = findProxy())
        return error;
    configure();
    curl_multi_add_handle(m_multi.get(), m_easy.get());
    const ZELError error = perform();
    curl_multi_remove_handle(m_multi.get(), m_easy.get());
    return error;
}

// Asked for once in an attempt as long as no other host is asked.
ZELError URLTransfer::findProxy()
{
    if (!m_lookup || !m_lookup->isFor(m_url))
        m_lookup = std::make_unique<ProxyLookup>(m_url, [this] { curl_multi_wakeup(m_multi.get()); });
    std::optional<Proxy> found;
    while (!(found = m_lookup->answer())) {
        if (m_cancelled)
            return cancelled();
        const Clock::time_point now = Clock::now();
        m_clock.tell(m_movedBefore, now);
        if (m_clock.complaint(now))
            return passingFailure(QStringLiteral("the system does not say which proxy to use"),
                                  URLErrorCode::TimedOut);
        if (const ZELError error = wait(m_clock.left(now)))
            return error;
    }
    m_proxy = *found;
    if (!m_proxy.address.isEmpty() && m_proxy.port() == 0)
        return failure(QStringLiteral("the proxy %1 has no port").arg(m_proxy.name()));
    return {};
}

void URLTransfer::configure()
{
    CURL *easy = m_easy.get();
    curl_easy_setopt(easy, CURLOPT_URL, m_url.toEncoded(QUrl::RemoveFragment).constData());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    // A session has one request, which gains nothing from a protocol of many streams, states and compressed
    // headers.
    curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, long(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(easy, CURLOPT_USERAGENT, "ZELUpdater");
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L); // a name that is still looked up holds nobody up
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, PieceSize);
    if (const QByteArray certificates = qgetenv("SSL_CERT_FILE"); !certificates.isEmpty()) {
        curl_easy_setopt(easy, CURLOPT_CAINFO, certificates.constData());
        curl_easy_setopt(easy, CURLOPT_PROXY_CAINFO, certificates.constData());
    }
    configureProxy();

    m_headers.reset(curl_slist_append(nullptr, "Cache-Control: no-cache"));
    if (m_sink.takesDecodedContent())
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, ""); // every coding that can be decoded
    else
        curl_slist_append(m_headers.get(), "Accept-Encoding: identity");
    configureRest();
    if (!m_request.languages.isEmpty())
        curl_slist_append(m_headers.get(), ("Accept-Language: " + m_request.languages).constData());
    if (m_method == "POST") {
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

// What is set here keeps libcurl from looking into the environment by itself.
void URLTransfer::configureProxy()
{
    const QByteArray &address = m_proxy.address;
    curl_easy_setopt(m_easy.get(), CURLOPT_PROXY, address.isNull() ? "" : address.constData());
    curl_easy_setopt(m_easy.get(), CURLOPT_NOPROXY, "");
    curl_easy_setopt(m_easy.get(), CURLOPT_PROXYAUTH, CURLAUTH_ANY);
}

// Not with CURLOPT_RANGE: libcurl would take answers to it for errors that are judged here.
void URLTransfer::configureRest()
{
    const BodyFile *file = m_asksForRest && m_method == "GET" ? m_sink.file() : nullptr;
    m_offset = file ? file->kept() : 0;
    if (m_offset == 0)
        return;
    const QByteArray range = "Range: bytes=" + QByteArray::number(m_offset) + '-';
    curl_slist_append(m_headers.get(), range.constData());
    curl_slist_append(m_headers.get(), ("If-Range: " + file->validator()).constData());
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
        if (const ZELError error = wait(m_clock.left(Clock::now())))
            return error;
    }
}

ZELError URLTransfer::judge()
{
    m_moved = head().bytesMoved();
    m_clock.tell(m_movedBefore + m_moved, Clock::now());
    const char *complaint = m_clock.complaint(Clock::now());
    return complaint ? passingFailure(QLatin1String(complaint), URLErrorCode::TimedOut) : ZELError();
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
    if (const ZELError error = proxyFailure())
        return error;
    const Answer answer = this->answer();
    if (answer == Answer::PassingFault)
        return passingFailure(QStringLiteral("HTTP status %1").arg(head().status()));
    if (answer != Answer::Body)
        return {}; // its body was not taken
    if (result != CURLE_OK) {
        const qint64 code = result == CURLE_OPERATION_TIMEDOUT ? URLErrorCode::TimedOut : 0;
        const QString reason = QString::fromUtf8(curl_easy_strerror(result));
        return isPassing(result) ? passingFailure(reason, code) : failure(reason, code);
    }
    if (!m_begun)
        if (const ZELError error = begin())
            return error;
    if (isTooShort())
        return passingFailure(QStringLiteral("the answer ended early"));
    // Not looked at by any flow, but what somebody looks for when a flow fails.
    if (const long status = head().status(); status < 200 || status >= 300)
        systemLog(QStringLiteral("%1 answered with HTTP status %2").arg(shownAddress()).arg(status));
    report();
    return {};
}

ZELError URLTransfer::proxyFailure()
{
    if (isRefusedByProxy())
        return failure(QStringLiteral("the proxy %1 asks for a password").arg(m_proxy.name()));
    const long status = head().tunnelStatus();
    if (status == 0 || (status >= 200 && status < 300))
        return {};
    const QString reason =
        QStringLiteral("the proxy %1 answered with HTTP status %2").arg(m_proxy.name()).arg(status);
    return isPassing(status) ? passingFailure(reason) : failure(reason);
}

// A rest that ends early is of no use. What may be the whole file, and did not say how long it is, is asked
// for again as long as that is possible; after that whoever gets it sees that it is another file.
bool URLTransfer::isTooShort() const
{
    if (m_offset > 0)
        return m_received < m_expected;
    return m_isFile && m_expected < 0 && m_request.size && m_received < *m_request.size && mayTryAgain();
}

void URLTransfer::report()
{
    if (m_isFile || !m_sink.file())
        m_progress(std::max(m_received, m_keptBeside), m_expected);
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
    m_codings += codingsIn(line, m_sink.takesDecodedContent());
    if (m_codings > 1)
        m_refusal = failure(QStringLiteral("the answer is coded more than once"));
    return !m_refusal;
}

bool URLTransfer::receiveBody(QByteArrayView bytes)
{
    if (m_cancelled || (!m_begun && answer() != Answer::Body))
        return false;
    if (!m_begun)
        m_refusal = begin();
    if (!m_refusal && m_offset > 0 && bytes.size() > m_expected - m_received)
        m_refusal = failure(QStringLiteral("the answer is longer than the range that it has"));
    if (!m_refusal)
        m_refusal = m_sink.write(bytes);
    if (m_refusal)
        return false;
    m_received += bytes.size();
    report();
    return true;
}

// The answer's body begins, and the sink hears where in the file.
ZELError URLTransfer::begin()
{
    const AnswerHead head = this->head();
    BodyStart start{.size = head.announcedSize()};
    if (m_offset > 0 && head.status() == 206) { // judged by `isRest`
        m_received = m_offset;
        start = {m_offset, contentRange(head.header("Content-Range"))->total, m_sink.file()->validator()};
    } else {
        const bool isWhole = head.status() == 200;
        m_offset = 0;
        start.isFile = isWhole && (!m_request.size || start.size < 0 || start.size == *m_request.size);
        if (isWhole && head.header("Content-Encoding").isNull())
            start.validator =
                strongValidator(head.header("ETag"), head.header("Last-Modified"), head.header("Date"));
    }
    m_begun = true;
    m_isFile = start.isFile;
    m_expected = start.size;
    const ZELError error = m_sink.begin(start);
    m_keptBeside = kept();
    return error;
}

URLTransfer::Answer URLTransfer::answer() const
{
    if (isRefusedByProxy())
        return Answer::NoProxy;
    const AnswerHead head = this->head();
    if (!head.redirection().isEmpty())
        return Answer::Redirection;
    const long status = head.status();
    const bool passes = isPassing(status) && mayTryAgain();
    // Some servers, and what filters between, refuse whoever asks for a range, or fail at it.
    const bool refusesRest = (status >= 400 && !passes)
        || (status == 206 && m_offset > 0
            && !head.isRest(m_offset, m_request.size, m_sink.file()->validator()));
    if (m_offset > 0 && !m_begun && refusesRest)
        return Answer::NoRest;
    return passes ? Answer::PassingFault : Answer::Body;
}

ZELError URLTransfer::redirect()
{
    const QUrl relative = QUrl::fromEncoded(head().redirection());
    const QUrl target = relative.isValid() ? m_url.resolved(relative) : relative;
    if (m_url.scheme() == QLatin1String("https") && target.scheme() == QLatin1String("http"))
        return failure(QStringLiteral("redirected to an insecure address"));
    if (const long status = head().status(); status != 307 && status != 308)
        m_method = "GET";
    m_url = target;
    return {};
}

ZELError URLTransfer::failure(const QString &reason, qint64 code) const
{
    ZELError error =
        ZELError::withMessage(QStringLiteral("cannot load \"%1\": %2").arg(shownAddress(), reason));
    error.code = code;
    return error;
}

// A failure that may be gone when one asks again.
ZELError URLTransfer::passingFailure(const QString &reason, qint64 code)
{
    m_fault = {.isSilence = code == URLErrorCode::TimedOut, .asked = head().retryAfter()};
    return failure(reason, code);
}

// Passwords, and what queries have in their place, are nobody's business.
QString URLTransfer::shownAddress() const
{
    return m_url.toString(QUrl::RemoveUserInfo | QUrl::RemoveQuery | QUrl::RemoveFragment);
}

} // namespace zel

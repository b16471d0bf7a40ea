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
// exactly that rest (`isRestOf`); anything else is asked for whole, or written aside. What is put together
// from several answers is judged by its hash in the end, by whoever knows it.
//
// Each transport error gets its text in `failure`: the address and the reason, which completions hand on as
// they are.
#include "URLTransfer.h"

#include "common/DDLog.h"
#include "common/WireValues.h"
#include "PartialContent.h"

#include <QRandomGenerator>

#include <algorithm>
#include <utility>

namespace {

constexpr int MostRedirections = 20;
constexpr long PieceSize = 256 * 1024;

// libcurl keeps every header and trailer line of a response, and has no limit for trailers.
constexpr qint64 LongestHead = 256 * 1024;

// What a server may ask for as a pause.
constexpr std::chrono::seconds LongestPause(60);

// The values of a header line's list; nothing when the line is another header's.
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

bool isPassing(CURLcode code)
{
    switch (code) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_PARTIAL_FILE:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SSL_CONNECT_ERROR: // broken off; certificates have a code of their own
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
        return true;
    default:
        return false;
    }
}

bool isPassingStatus(long status)
{
    return status == 429 || status == 500 || (status >= 502 && status <= 504);
}

// So that those who lost a server at one moment do not all come back at another.
std::chrono::milliseconds withJitter(std::chrono::milliseconds pause)
{
    return pause
        + std::chrono::milliseconds(QRandomGenerator::global()->bounded(qint64(pause.count() / 4 + 1)));
}

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
{
}

ZELError URLTransfer::run()
{
    if (m_cancelled)
        return cancelled();
    if (const ZELError error = m_sink.open())
        return error;
    for (;;) {
        const BodyFile *file = m_sink.file();
        if (file && file->kept() > 0 && file->kept() == m_request.size) { // its contents are not judged here
            m_progress(file->kept(), file->kept());
            return {};
        }
        const ZELError error = attempt();
        if (!error || !m_passes || !mayTryAgain())
            return error;
        curl_off_t asked = 0;
        curl_easy_getinfo(m_easy.get(), CURLINFO_RETRY_AFTER, &asked);
        const auto length = std::max<std::chrono::milliseconds>(
            withJitter(m_request.pauses[m_attempts++]),
            std::min(std::chrono::seconds(std::min<qint64>(asked, LongestPause.count())), LongestPause));
        if (!m_clock.allows(Clock::now() + length))
            return error;
        systemLog(error.message + QStringLiteral("; another attempt in %1 s").arg(length.count() / 1000.0));
        if (const ZELError stopped = pause(length))
            return stopped;
        m_clock.restart(Clock::now());
    }
}

ZELError URLTransfer::attempt()
{
    m_url = m_request.url;
    m_method = m_request.method;
    m_asksForRest = true;
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
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0)
            return {};
        curl_multi_poll(m_multi.get(), nullptr, 0, int(left), nullptr);
    }
    return cancelled();
}

bool URLTransfer::mayTryAgain() const
{
    return m_request.method == "GET" && m_sink.file() && m_attempts < m_request.pauses.size();
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
    m_passes = false;
    if (!isWebAddress(m_url))
        return failure(QStringLiteral("not an HTTP address"));
    m_easy.reset(curl_easy_init());
    if (!m_easy || !m_multi)
        return failure(QStringLiteral("out of memory"));
    m_movedBefore += std::exchange(m_moved, 0);
    m_headBytes = 0;
    m_codings = 0;
    m_begun = false;
    m_received = 0;
    m_expected = -1;
    configure();
    curl_multi_add_handle(m_multi.get(), m_easy.get());
    const ZELError error = perform();
    curl_multi_remove_handle(m_multi.get(), m_easy.get());
    return error;
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

void URLTransfer::configureProxy()
{
    m_proxy = proxyFor(m_url);
    // What is set here keeps libcurl from looking into the environment by itself.
    curl_easy_setopt(m_easy.get(), CURLOPT_PROXY,
                     m_proxy.address.isNull() ? "" : m_proxy.address.constData());
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
    if (isRefusedByProxy())
        return failure(QStringLiteral("the proxy %1 asks for a password").arg(m_proxy.name()));
    const Answer answer = this->answer();
    if (answer == Answer::PassingFault)
        return passingFailure(QStringLiteral("HTTP status %1").arg(status()));
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
    if (m_offset > 0 && m_received < m_expected)
        return passingFailure(QStringLiteral("the answer ended early"));
    // Not looked at by any flow, but what somebody looks for when a flow fails.
    if (status() < 200 || status() >= 300)
        systemLog(QStringLiteral("%1 answered with HTTP status %2")
                      .arg(m_url.toString(QUrl::RemoveUserInfo | QUrl::RemoveQuery))
                      .arg(status()));
    m_progress(m_received, m_expected);
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
    m_progress(m_received, m_expected);
    return true;
}

// The answer's body begins, and the sink hears where in the file.
ZELError URLTransfer::begin()
{
    m_begun = true;
    m_expected = announcedSize();
    const bool isWhole = status() == 200;
    if (m_offset > 0 && status() == 206) { // judged by `isRestOf`
        m_received = m_offset;
        m_expected = contentRange(header("Content-Range"))->total;
        return m_sink.begin({m_offset, m_expected, m_sink.file()->validator()});
    }
    m_offset = 0;
    BodyStart start{.size = m_expected};
    start.isFile = isWhole && (!m_request.size || m_expected < 0 || m_expected == *m_request.size);
    if (isWhole && header("Content-Encoding").isNull())
        start.validator = strongValidator(header("ETag"), header("Last-Modified"), header("Date"));
    return m_sink.begin(start);
}

URLTransfer::Answer URLTransfer::answer() const
{
    if (isRefusedByProxy())
        return Answer::NoProxy;
    if (isRedirected())
        return Answer::Redirection;
    const long status = this->status();
    // Some servers, and what filters between, refuse whoever asks for a range.
    const bool refusesRest = (status >= 400 && !isPassingStatus(status))
        || (status == 206 && m_offset > 0 && !isRestOf(*m_sink.file()));
    if (m_offset > 0 && !m_begun && refusesRest)
        return Answer::NoRest;
    return isPassingStatus(status) && mayTryAgain() ? Answer::PassingFault : Answer::Body;
}

// Whether a 206 has the bytes that are missing, and no others: from where the file ends to its end, of a file
// as long as the one asked for, not coded, and of the version that is there.
bool URLTransfer::isRestOf(const BodyFile &file) const
{
    const auto range = contentRange(header("Content-Range"));
    const QByteArray tag = header("ETag");
    return range && range->first == m_offset && range->last == range->total - 1
        && (!m_request.size || range->total == *m_request.size)
        && (announcedSize() < 0 || announcedSize() == range->total - m_offset)
        && header("Content-Encoding").isNull()
        && (tag.isNull() || !file.validator().startsWith('"') || tag == file.validator());
}

// Of a connection through a proxy, and, without encryption, of an answer that comes from it.
bool URLTransfer::isRefusedByProxy() const
{
    if (m_proxy.address.isEmpty())
        return false;
    long connectStatus = 0;
    curl_easy_getinfo(m_easy.get(), CURLINFO_HTTP_CONNECTCODE, &connectStatus);
    long reason = CURLPX_OK;
    curl_easy_getinfo(m_easy.get(), CURLINFO_PROXY_ERROR, &reason);
    return connectStatus == 407 || status() == 407 || reason == CURLPX_NO_AUTH
        || reason == CURLPX_USER_REJECTED;
}

long URLTransfer::status() const
{
    long status = 0;
    curl_easy_getinfo(m_easy.get(), CURLINFO_RESPONSE_CODE, &status);
    return status;
}

// Null: there is none. Empty, which nothing can be read from: there are several.
QByteArray URLTransfer::header(const char *name) const
{
    curl_header *found = nullptr;
    if (curl_easy_header(m_easy.get(), name, 0, CURLH_HEADER, -1, &found) != CURLHE_OK)
        return {};
    return found->amount == 1 ? QByteArray(found->value) : QByteArray("");
}

qint64 URLTransfer::announcedSize() const
{
    curl_off_t size = -1;
    curl_easy_getinfo(m_easy.get(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &size);
    return size;
}

bool URLTransfer::isRedirected() const
{
    const long status = this->status();
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
    const QUrl target = relative.isValid() ? m_url.resolved(relative) : relative;
    if (m_url.scheme() == QLatin1String("https") && target.scheme() == QLatin1String("http"))
        return failure(QStringLiteral("redirected to an insecure address"));
    if (status() != 307 && status() != 308)
        m_method = "GET";
    m_url = target;
    return {};
}

ZELError URLTransfer::failure(const QString &reason, qint64 code) const
{
    ZELError error =
        ZELError::withMessage(QStringLiteral("cannot load \"%1\": %2").arg(m_url.toDisplayString(), reason));
    error.code = code;
    return error;
}

// A failure that may be gone when one asks again.
ZELError URLTransfer::passingFailure(const QString &reason, qint64 code)
{
    m_passes = true;
    return failure(reason, code);
}

} // namespace zel

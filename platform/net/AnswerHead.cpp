#include "AnswerHead.h"

#include "PartialContent.h"

#include <QByteArrayList>

namespace zel {

namespace {

template <typename Number> Number numberOf(CURL *exchange, CURLINFO what, Number otherwise = 0)
{
    curl_easy_getinfo(exchange, what, &otherwise);
    return otherwise;
}

curl_header *find(CURL *exchange, const char *name)
{
    curl_header *found = nullptr;
    return curl_easy_header(exchange, name, 0, CURLH_HEADER, -1, &found) == CURLHE_OK ? found : nullptr;
}

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

} // namespace

long AnswerHead::status() const
{
    return numberOf<long>(m_exchange, CURLINFO_RESPONSE_CODE);
}

QByteArray AnswerHead::header(const char *name) const
{
    const curl_header *found = find(m_exchange, name);
    if (!found)
        return {};
    return found->amount == 1 ? QByteArray(found->value) : QByteArray("");
}

qint64 AnswerHead::announcedSize() const
{
    return numberOf<curl_off_t>(m_exchange, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, -1);
}

QByteArray AnswerHead::redirection() const
{
    const long status = this->status();
    const bool redirects = status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
    const curl_header *location = redirects ? find(m_exchange, "Location") : nullptr;
    return location && *location->value ? QByteArray(location->value) : QByteArray();
}

std::chrono::seconds AnswerHead::retryAfter() const
{
    return std::chrono::seconds(numberOf<curl_off_t>(m_exchange, CURLINFO_RETRY_AFTER));
}

bool AnswerHead::isRest(qint64 offset, std::optional<qint64> size, const QByteArray &validator) const
{
    const auto range = contentRange(header("Content-Range"));
    const QByteArray tag = header("ETag");
    return range && range->first == offset && range->last == range->total - 1
        && (!size || range->total == *size)
        && (announcedSize() < 0 || announcedSize() == range->total - offset)
        && header("Content-Encoding").isNull()
        && (tag.isNull() || !validator.startsWith('"') || tag == validator);
}

long AnswerHead::tunnelStatus() const
{
    return numberOf<long>(m_exchange, CURLINFO_HTTP_CONNECTCODE);
}

bool AnswerHead::wantsPassword() const
{
    const long reason = numberOf<long>(m_exchange, CURLINFO_PROXY_ERROR, CURLPX_OK);
    return tunnelStatus() == 407 || status() == 407 || reason == CURLPX_NO_AUTH
        || reason == CURLPX_USER_REJECTED;
}

qint64 AnswerHead::bytesMoved() const
{
    return numberOf<curl_off_t>(m_exchange, CURLINFO_SIZE_UPLOAD_T)
        + numberOf<curl_off_t>(m_exchange, CURLINFO_SIZE_DOWNLOAD_T)
        + numberOf<long>(m_exchange, CURLINFO_HEADER_SIZE);
}

int codingsIn(QByteArrayView line, bool isDecoded)
{
    int codings = isDecoded ? int(listIn(line, "Content-Encoding").size()) : 0;
    for (const QByteArray &coding : listIn(line, "Transfer-Encoding"))
        codings += coding == "chunked" ? 0 : 2;
    return codings;
}

} // namespace zel

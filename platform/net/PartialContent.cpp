#include "PartialContent.h"

#include <algorithm>
#include <curl/curl.h>

namespace zel {

namespace {

constexpr qsizetype LongestValidator = 256;

std::optional<qint64> number(QByteArrayView digits)
{
    const bool plain = !digits.isEmpty()
        && std::all_of(digits.begin(), digits.end(), [](char c) { return c >= '0' && c <= '9'; });
    bool ok = false;
    const qint64 value = digits.toLongLong(&ok);
    return plain && ok ? std::optional(value) : std::nullopt;
}

bool isEntityTag(QByteArrayView text)
{
    return text.size() >= 2 && text.startsWith('"') && text.endsWith('"')
        && std::all_of(text.begin() + 1, text.end() - 1,
                       [](char c) { return c > ' ' && c <= '~' && c != '"'; });
}

// Seconds since 1970; nothing for what is no date.
std::optional<time_t> dateOf(const QByteArray &text)
{
    const bool visible = std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
    const time_t time = visible && text.size() <= LongestValidator && !text.contains('"')
        ? curl_getdate(text.constData(), nullptr)
        : -1;
    return time >= 0 ? std::optional(time) : std::nullopt;
}

} // namespace

std::optional<ContentRange> contentRange(QByteArrayView header)
{
    constexpr QByteArrayView unit = "bytes ";
    const QByteArrayView range = header.startsWith(unit) ? header.sliced(unit.size()) : QByteArrayView();
    const qsizetype dash = range.indexOf('-');
    const qsizetype slash = range.indexOf('/');
    if (dash < 0 || slash < dash)
        return std::nullopt;
    const auto first = number(range.first(dash));
    const auto last = number(range.sliced(dash + 1, slash - dash - 1));
    const auto total = number(range.sliced(slash + 1));
    if (!first || !last || !total || *first > *last || *last >= *total)
        return std::nullopt;
    return ContentRange{*first, *last, *total};
}

bool isValidator(QByteArrayView text)
{
    return text.size() <= LongestValidator && (isEntityTag(text) || dateOf(text.toByteArray()));
}

QByteArray strongValidator(const QByteArray &entityTag, const QByteArray &lastModified,
                           const QByteArray &date)
{
    if (!entityTag.isNull())
        return isValidator(entityTag) && entityTag.startsWith('"') ? entityTag : QByteArray();
    const auto modified = dateOf(lastModified);
    const auto answered = dateOf(date);
    return modified && answered && *answered - *modified >= 1 ? lastModified : QByteArray();
}

} // namespace zel

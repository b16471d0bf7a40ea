// Qt's parser knows no bounds, and the end of memory within it is the end of the process. So values are
// counted first, by a rule that can only count too many, and the memory that they may take is asked for in
// one piece and given back: a refusal is an error then. Between asking and parsing others may take it, which
// no look ahead could prevent.
#include "BoundedJson.h"

#include <cstdlib>
#include <cstring>

namespace zel {

namespace {

// What a value takes at most while it is parsed, measured with lists and objects of one value each.
constexpr qint64 BytesPerValue = 256;

// The end of the text that begins at a quotation mark: behind the mark that is not escaped.
const char *endOfText(const char *at, const char *end)
{
    while (at != end) {
        const auto *mark = static_cast<const char *>(std::memchr(at + 1, '"', size_t(end - at - 1)));
        if (!mark)
            return end;
        const char *escapes = mark;
        while (escapes > at + 1 && escapes[-1] == '\\')
            --escapes;
        if ((mark - escapes) % 2 == 0)
            return mark + 1;
        at = mark;
    }
    return end;
}

bool isMemoryFor(qint64 bytes)
{
    void *const block = std::malloc(size_t(bytes));
    const bool there = block != nullptr;
    std::free(block);
    return there;
}

} // namespace

// No fewer than the parser makes of a text, be it JSON or not: each value begins behind one of these marks.
qint64 valuesIn(QByteArrayView json)
{
    qint64 count = 1;
    const char *const end = json.end();
    for (const char *at = json.begin(); at != end;) {
        if (*at == '"') {
            at = endOfText(at, end);
        } else {
            count += *at == ',' || *at == '[' || *at == '{';
            ++at;
        }
    }
    return count;
}

ZELError parseJson(const QByteArray &json, qint64 mostValues, QJsonDocument &document)
{
    const qint64 values = valuesIn(json);
    if (values > mostValues)
        return ZELError::withMessage(QStringLiteral("it has too many values"));
    if (!isMemoryFor(values * BytesPerValue + 2 * json.size()))
        return ZELError::withMessage(QStringLiteral("there is no memory for its %1 values").arg(values));
    document = QJsonDocument::fromJson(json);
    return {};
}

} // namespace zel

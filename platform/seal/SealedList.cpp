// The list of a seal, read by itself. A library that reads any property list can be kept busy for hours by the 64 MiB that
// a list may have: by keys that meet in one place of its table, by references in a long text, by attributes. A list has
// one shape and needs none of that.
#include "SealedItems.h"

#include <optional>
#include <utility>

namespace zel {

namespace {

constexpr qsizetype DigestSize = 32;

bool appendCharacter(QByteArrayView reference, QByteArray &text)
{
    constexpr std::pair<const char *, char> names[] = {
        {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
    for (const auto &[name, character] : names) {
        if (reference == name) {
            text += character;
            return true;
        }
    }
    if (!reference.startsWith('#') || reference.size() > 8)
        return false;
    const bool hexadecimal = reference.startsWith("#x");
    bool isNumber = false;
    const char32_t number =
        reference.sliced(hexadecimal ? 2 : 1).toByteArray().toUInt(&isNumber, hexadecimal ? 16 : 10);
    if (!isNumber || number == 0 || number > 0x10ffff)
        return false;
    text += QString::fromUcs4(&number, 1).toUtf8();
    return true;
}

class ListReader
{
public:
    explicit ListReader(QByteArrayView xml)
        : m_rest(xml)
    {
    }

    bool read(SealedItems &items)
    {
        QByteArrayView tag = nextTag();
        if (!tag.startsWith("?xml"))
            return false;
        for (tag = nextTag(); tag.startsWith("!DOCTYPE");)
            tag = nextTag();
        bool version = false;
        bool files = false;
        bool links = false;
        const auto value = [&](const QByteArray &key) {
            if (key == "version")
                return !std::exchange(version, true) && nextTag() == "integer"
                    && text("integer").value_or("").trimmed() == "1";
            if (key == "files")
                return !std::exchange(files, true) && readItems(items.files, &ListReader::digest);
            return key == "links" && !std::exchange(links, true)
                && readItems(items.links, &ListReader::target);
        };
        return (tag == "plist" || tag.startsWith("plist ")) && nextTag() == "dict" && readDictionary(value)
            && nextTag() == "/plist" && m_rest.trimmed().isEmpty() && version && files && links;
    }

private:
    using Value = std::optional<QByteArray>;

    // What stands between the next angle brackets; null where something else comes first.
    QByteArrayView nextTag()
    {
        m_rest = m_rest.trimmed();
        const qsizetype end = m_rest.startsWith('<') ? m_rest.indexOf('>') : -1;
        if (end < 0)
            return {};
        const QByteArrayView tag = m_rest.first(end).sliced(1).trimmed();
        m_rest = m_rest.sliced(end + 1);
        return tag;
    }

    // The content of an element that has begun, up to its end.
    Value text(QByteArrayView element)
    {
        const qsizetype end = m_rest.indexOf('<');
        QByteArrayView raw = m_rest.first(qMax(end, qsizetype(0)));
        m_rest = m_rest.sliced(raw.size());
        QByteArray text;
        text.reserve(raw.size());
        for (qsizetype reference = raw.indexOf('&'); reference >= 0; reference = raw.indexOf('&')) {
            text += raw.first(reference);
            const qsizetype semicolon = raw.indexOf(';', reference);
            if (semicolon < 0 || !appendCharacter(raw.first(semicolon).sliced(reference + 1), text))
                return std::nullopt;
            raw = raw.sliced(semicolon + 1);
        }
        text += raw;
        const QByteArrayView tag = nextTag();
        return tag.startsWith('/') && tag.sliced(1) == element ? Value(text) : std::nullopt;
    }

    // Behind its start.
    template <typename Take> bool readDictionary(const Take &takeValue)
    {
        for (QByteArrayView tag = nextTag(); tag != "/dict"; tag = nextTag()) {
            const Value key = tag == "key" ? text("key") : std::nullopt;
            if (!key || !takeValue(*key))
                return false;
        }
        return true;
    }

    bool readItems(QMap<QByteArray, QByteArray> &items, Value (ListReader::*readValue)())
    {
        const QByteArrayView tag = nextTag();
        if (tag == "dict/")
            return true;
        return tag == "dict" && readDictionary([&](const QByteArray &path) {
                   const Value value = (this->*readValue)();
                   if (!value || items.contains(path) || items.size() == MaxItems)
                       return false;
                   items.insert(items.cend(), path, *value);
                   return true;
               });
    }

    Value digest()
    {
        const Value coded = nextTag() == "data" ? text("data") : std::nullopt;
        const QByteArray digest = QByteArray::fromBase64(coded.value_or(QByteArray()));
        return digest.size() == DigestSize ? Value(digest) : std::nullopt;
    }

    Value target()
    {
        const QByteArrayView tag = nextTag();
        if (tag == "string/")
            return QByteArray("");
        return tag == "string" ? text("string") : std::nullopt;
    }

    QByteArrayView m_rest;
};

} // namespace

std::optional<SealedItems> fromPropertyList(const QByteArray &xml)
{
    SealedItems items;
    return xml.startsWith("<?xml") && ListReader(xml).read(items) ? std::optional(items) : std::nullopt;
}

} // namespace zel

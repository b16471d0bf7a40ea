// The list of a seal is written by libplist and read by a reader of its own. A library that reads any
// property list can be kept busy for hours by the 64 MiB that a list may have: by keys that meet in one place
// of its table, by references in a long text, by attributes. A list has one shape and needs none of that;
// whatever else stands in it makes it malformed.
//
// Both sides of a comparison are in the order of their paths, so that one pass finds the first difference.
#include "SealedItems.h"

#include "base/SafeText.h"
#include "platform/Containment.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>
#include <plist/plist.h>
#include <utility>

namespace {

constexpr qint64 Version = 1;

ZELError problem(const QByteArray &path, const char *what)
{
    return ZELError::withMessage(zel::shownPath(path) + u' ' + QLatin1String(what));
}

bool canBeListed(const QByteArray &name)
{
    const QString text = QString::fromUtf8(name);
    const bool forbidden = std::any_of(text.begin(), text.end(), [](QChar c) {
        const bool control = c < u' ' && c != u'\t' && c != u'\n' && c != u'\r';
        return control || c == QChar(0xfffe) || c == QChar(0xffff);
    });
    return !forbidden && text.toUtf8() == name;
}

using Items = QMap<QByteArray, QByteArray>;

// Goes through the items below a folder, in the order of their paths, which are relative to it.
class ItemsBelow
{
public:
    ItemsBelow(const Items &items, const QByteArray &folder)
        : m_prefix(folder.isEmpty() ? folder : folder + '/')
        , m_item(items.lowerBound(m_prefix))
        , m_end(items.end())
    {
    }

    bool atEnd() const { return m_item == m_end || !m_item.key().startsWith(m_prefix); }
    QByteArrayView path() const { return QByteArrayView(m_item.key()).sliced(m_prefix.size()); }
    const QByteArray &value() const { return m_item.value(); }
    void next() { ++m_item; }

private:
    QByteArray m_prefix;
    Items::const_iterator m_item;
    Items::const_iterator m_end;
};

// Both are in the order of their paths.
ZELError compare(const Items &sealed, ItemsBelow found, const QByteArrayList &own, const char *changed)
{
    auto item = sealed.begin();
    for (; !found.atEnd(); found.next()) {
        if (own.contains(found.path()))
            continue;
        const int order = item == sealed.end() ? 1 : QByteArrayView(item.key()).compare(found.path());
        if (order > 0)
            return problem(found.path().toByteArray(), "is not sealed");
        if (order < 0)
            break;
        if (*item != found.value())
            return problem(item.key(), changed);
        ++item;
    }
    return item == sealed.end() ? ZELError() : problem(item.key(), "is missing");
}

plist_t dictionaryOf(const Items &items, plist_t (*makeValue)(const QByteArray &))
{
    plist_t dictionary = plist_new_dict();
    for (auto item = items.begin(); item != items.end(); ++item)
        plist_dict_set_item(dictionary, item.key().constData(), makeValue(item.value()));
    return dictionary;
}

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

// Behind `fromPropertyList`.
class ListReader
{
public:
    explicit ListReader(QByteArrayView xml)
        : m_rest(xml)
    {
    }

    bool read(zel::SealedItems &items)
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
                   if (!value || items.contains(path) || items.size() == zel::MaxItems)
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

namespace zel {

QString shownPath(const QByteArray &path)
{
    constexpr size_t longest = 4096; // of a hostile list, a name may have megabytes
    return QString::fromStdString(safeText({path.constData(), size_t(path.size())}, longest));
}

ZELError checkNames(const SealedItems &items)
{
    for (const Items &part : {items.files, items.links}) {
        for (auto item = part.begin(); item != part.end(); ++item) {
            if (!canBeListed(item.key()))
                return problem(item.key(),
                               "has a name that cannot be sealed (not UTF-8, or control characters)");
        }
    }
    for (auto link = items.links.begin(); link != items.links.end(); ++link) {
        if (!canBeListed(link.value()))
            return problem(link.key(),
                           "has a target that cannot be sealed (not UTF-8, or control characters)");
    }
    return {};
}

ZELError checkLinks(const SealedItems &items, const QByteArray &folder, qint64 &namesLeft)
{
    LinkTree tree;
    for (ItemsBelow links(items.links, folder); !links.atEnd(); links.next())
        tree.add(links.path(), links.value());
    const std::optional<QByteArray> link = tree.linkThatLeadsOut(namesLeft);
    return link
        ? problem(*link, "is a link that leads out of the bundle, in a circle or through too many names")
        : ZELError();
}

ZELError compareItems(const SealedItems &sealed, const SealedItems &items, const QByteArray &folder,
                      const QByteArrayList &own)
{
    if (const ZELError error = compare(sealed.files, {items.files, folder}, own, "was changed"))
        return error;
    return compare(sealed.links, {items.links, folder}, {}, "points elsewhere");
}

QByteArray toPropertyList(const SealedItems &items)
{
    const auto digest = [](const QByteArray &bytes) {
        return plist_new_data(bytes.constData(), uint64_t(bytes.size()));
    };
    const auto target = [](const QByteArray &bytes) { return plist_new_string(bytes.constData()); };
    const std::unique_ptr<void, decltype(&plist_free)> list(plist_new_dict(), plist_free);
    plist_dict_set_item(list.get(), "version", plist_new_uint(Version));
    plist_dict_set_item(list.get(), "files", dictionaryOf(items.files, digest));
    plist_dict_set_item(list.get(), "links", dictionaryOf(items.links, target));
    char *text = nullptr;
    uint32_t size = 0;
    plist_to_xml(list.get(), &text, &size);
    const std::unique_ptr<char, decltype(&std::free)> xml(text, std::free);
    // Written bare, a carriage return in a name would be read as a newline by any other XML reader.
    return QByteArray(text, qsizetype(size)).replace("\r", "&#13;");
}

std::optional<SealedItems> fromPropertyList(const QByteArray &xml)
{
    SealedItems items;
    return xml.startsWith("<?xml") && ListReader(xml).read(items) ? std::optional(items) : std::nullopt;
}

} // namespace zel

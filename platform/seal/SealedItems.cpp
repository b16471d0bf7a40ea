#include "SealedItems.h"

#include "base/SafeText.h"
#include "LinkTree.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <plist/plist.h>

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

/// Goes through the items below a folder, in the order of their paths, which are relative to it.
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

} // namespace zel

// Three ways to the same question. `liesWithin` asks the system, which is enough for paths that the host or a
// publisher names. A path that a stranger names must be judged before the system follows it: whoever walks it
// opens folder after folder without following links, and `PathNames` says which name comes next when the
// links on the way are followed by hand. The links of a sealed bundle are judged all at once, from the list
// alone, by `LinkTree`, which walks with `PathNames` too, so that both refuse the same.
//
// Links can name each other, so that a few of them make a way of any length: hence the bounds, for one way
// and for all ways together. The archive tool has a stricter rule of its own, and none of Qt.
#include "Containment.h"

#include <QByteArrayList>
#include <QFile>

#include <algorithm>
#include <filesystem>
#include <system_error>

namespace fs = std::filesystem;

namespace zel {

namespace {

constexpr size_t MaxLinks = 40; // as the kernel has it
constexpr qsizetype MaxLinkNames = 4096;

// Empty where that is not possible.
fs::path resolved(const QString &path)
{
    std::error_code error;
    // Before links are resolved: of a relative path whose first name does not exist, nothing would be.
    const fs::path absolute = fs::absolute(QFile::encodeName(path).toStdString(), error);
    const fs::path result = error ? fs::path() : fs::weakly_canonical(absolute, error);
    return result.has_filename() ? result : result.parent_path(); // no slash behind the last name
}

} // namespace

bool liesWithin(const QString &path, const QString &folder)
{
    const fs::path inner = resolved(path);
    const fs::path outer = resolved(folder);
    return std::mismatch(outer.begin(), outer.end(), inner.begin(), inner.end()).first == outer.end();
}

PathNames::PathNames(QByteArrayView path, qint64 &left)
    : m_rest{path}
    , m_left(left)
{
}

std::optional<QByteArrayView> PathNames::next()
{
    for (;;) {
        while (m_rest.size() > 1 && m_rest.back().isNull())
            m_rest.pop_back();
        QByteArrayView &rest = m_rest.back();
        if (rest.isNull())
            return std::nullopt;
        const qsizetype slash = rest.indexOf('/');
        const QByteArrayView name = slash < 0 ? rest : rest.first(slash);
        rest = slash < 0 ? QByteArrayView() : rest.sliced(slash + 1);
        if (!name.isEmpty() && name != ".")
            return name;
    }
}

bool PathNames::atEnd() const
{
    return std::ranges::all_of(m_rest, [](QByteArrayView rest) { return rest.isNull(); });
}

bool PathNames::follow(const QByteArray &target)
{
    const qsizetype names = target.count('/') + 1;
    m_linkNames += names;
    m_left -= names;
    if (target.isEmpty() || target.startsWith('/') || m_targets.size() >= MaxLinks
        || m_linkNames > MaxLinkNames || m_left < 0)
        return false;
    m_targets.push_back(target); // shares the bytes, so that they stay where they are
    m_rest.push_back(m_targets.back());
    return true;
}

void LinkTree::add(QByteArrayView path, const QByteArray &target)
{
    size_t depth = 0;
    for (bool last = false; !last;) {
        const qsizetype slash = path.indexOf('/');
        last = slash < 0;
        const QByteArrayView name = last ? path : path.first(slash);
        path = path.sliced(last ? path.size() : slash + 1);
        if (++depth < m_trail.size() && at(m_trail[depth]).name == name)
            continue;
        m_trail.resize(depth);
        m_trail.push_back(child(m_trail.back(), name));
    }
    m_trail.resize(depth + 1);
    m_nodes[size_t(m_trail.back())].target = &target;
    m_links.push_back(m_trail.back());
}

std::optional<QByteArray> LinkTree::linkThatLeadsOut(qint64 &namesLeft) const
{
    const auto link =
        std::ranges::find_if(m_links, [&](int node) { return !staysInside(at(node), namesLeft); });
    return link == m_links.end() ? std::nullopt : std::optional(pathOf(*link));
}

int LinkTree::child(int parent, QByteArrayView name)
{
    int &node = m_children[{parent, name}];
    if (node == 0) {
        node = int(m_nodes.size());
        m_nodes.push_back({parent, name});
    }
    return node;
}

bool LinkTree::staysInside(const Node &link, qint64 &namesLeft) const
{
    PathNames names(link.name, namesLeft);
    int place = link.parent;
    int below = 0; // names behind that place that are not in the tree
    while (const std::optional<QByteArrayView> name = names.next()) {
        if (*name == "..") {
            if (below == 0 && place == 0)
                return false;
            if (below > 0)
                --below;
            else
                place = at(place).parent;
            continue;
        }
        const int next = below > 0 ? 0 : m_children.value({place, *name}, 0);
        if (next == 0)
            ++below;
        else if (!at(next).target)
            place = next;
        else if (!names.follow(*at(next).target))
            return false;
    }
    return true;
}

QByteArray LinkTree::pathOf(int node) const
{
    QByteArrayList names;
    for (; node != 0; node = at(node).parent)
        names.prepend(at(node).name.toByteArray());
    return names.join('/');
}

} // namespace zel

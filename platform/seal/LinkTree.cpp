#include "LinkTree.h"

#include "platform/PathNames.h"

#include <QByteArrayList>

#include <algorithm>

namespace zel {

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

// The links of a bundle, to see where each of them leads without asking the disk.
#pragma once

#include <QByteArray>
#include <QHash>

#include <optional>
#include <utility>
#include <vector>

namespace zel {

/// The folders that hold links, and the links in them. A walk along a link is a walk in this tree: a name that is not in
/// it is a folder or file without links below, or nothing at all, and is only counted, for ".." to take it back. So each
/// name costs one look-up, however deep it is; with the paths as texts it would cost their length. Memory: some hundred
/// bytes for a link or folder.
class LinkTree
{
public:
    /// Adds a link; it costs least when paths come in their order. Path and target must outlive the tree.
    void add(QByteArrayView path, const QByteArray &target);

    /// The path of the first link that is not acceptable: absolute, or one that leaves the tree or never ends when it is
    /// followed from link to link as the system does. `namesLeft` counts down the names that links add.
    std::optional<QByteArray> linkThatLeadsOut(qint64 &namesLeft) const;

private:
    struct Node {
        int parent;
        QByteArrayView name;
        const QByteArray *target = nullptr; // null for a folder
    };

    const Node &at(int node) const { return m_nodes[size_t(node)]; }
    int child(int parent, QByteArrayView name);
    bool staysInside(const Node &link, qint64 &namesLeft) const;
    QByteArray pathOf(int node) const;

    std::vector<Node> m_nodes{{-1, {}}};
    QHash<std::pair<int, QByteArrayView>, int> m_children; // none is 0, the root
    std::vector<int> m_links;
    std::vector<int> m_trail{0}; // the nodes on the way to the link that was added last
};

} // namespace zel

// Whether what a path or a link leads to stays inside a folder: of what is on the disk, of a walk name by
// name, and of a list of links.
#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>

#include <optional>
#include <utility>
#include <vector>

namespace zel {

/// Whether `path` is `folder` or lies below it, with all links resolved. Neither needs to exist. What cannot
/// be resolved holds everything.
bool liesWithin(const QString &path, const QString &folder);

/// The names that lie ahead of a walk which follows links by itself, name by name, to see that none leads
/// out. A link puts the names of its target before those that are left. What links can add is bounded, as
/// they can name each other: 40 links and 4096 names for a path, and for all paths together what the walker
/// allows. Linear in time and memory.
class PathNames
{
public:
    /// `left` counts down the names that links may still add, for all paths that are walked with it; it and
    /// the path's bytes must outlive the walk.
    PathNames(QByteArrayView path, qint64 &left);

    /// The next name, ".." included, but not "" and "."; nothing at the end.
    std::optional<QByteArrayView> next();

    /// Whether nothing follows the name that came last, not even a slash.
    bool atEnd() const;

    /// Goes on with a link's target; false when the link must not be followed: its target is empty or
    /// absolute, or a bound is exceeded.
    bool follow(const QByteArray &target);

private:
    std::vector<QByteArray> m_targets; // their bytes
    std::vector<QByteArrayView> m_rest; // of the path, and of each target begun since; null when none is left
    qint64 &m_left;
    int m_linkNames = 0;
};

/// The folders that hold links, and the links in them. A walk along a link is a walk in this tree: a name
/// that is not in it is a folder or file without links below, or nothing at all, and is only counted, for
/// ".." to take it back. So each name costs one look-up, however deep it is; with the paths as texts it would
/// cost their length. Memory: some hundred bytes for a link or folder.
class LinkTree
{
public:
    /// Adds a link; it costs least when paths come in their order. Path and target must outlive the tree.
    void add(QByteArrayView path, const QByteArray &target);

    /// The path of the first link that is not acceptable: absolute, or one that leaves the tree or never ends
    /// when it is followed from link to link as the system does. `namesLeft` counts down the names that links
    /// add.
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

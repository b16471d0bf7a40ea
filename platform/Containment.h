// The names on a walk along a path.
#pragma once

#include <QByteArray>

#include <optional>
#include <vector>

namespace zel {

/// The names that lie ahead of a walk which follows links by itself, name by name, to see that none leads out. A link
/// puts the names of its target before those that are left. What links can add is bounded, as they can name each other:
/// 40 links and 4096 names for a path, and for all paths together what the walker allows. Linear in time and memory.
class PathNames
{
public:
    /// `left` counts down the names that links may still add, for all paths that are walked with it; it and the path's
    /// bytes must outlive the walk.
    PathNames(QByteArrayView path, qint64 &left);

    /// The next name, ".." included, but not "" and "."; nothing at the end.
    std::optional<QByteArrayView> next();

    /// Whether nothing follows the name that came last, not even a slash.
    bool atEnd() const;

    /// Goes on with a link's target; false when the link must not be followed: its target is empty or absolute, or a
    /// bound is exceeded.
    bool follow(const QByteArray &target);

private:
    std::vector<QByteArray> m_targets; // their bytes
    std::vector<QByteArrayView> m_rest; // of the path, and of each target begun since; null when none is left
    qint64 &m_left;
    int m_linkNames = 0;
};

} // namespace zel

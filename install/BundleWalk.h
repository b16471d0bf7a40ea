// Paths that a manifest names, walked inside the bundle that they are meant for.
#pragma once

#include "base/FileDescriptor.h"

#include <QByteArrayList>
#include <QString>

#include <optional>
#include <vector>

namespace zel {

enum class FinalLink {
    Keep, ///< the last name stands for the link itself
    Follow, ///< a link in the last place is followed like any other
};

/// How many names all walks of one patch may take together: an honest one of 200,000 commands needs half of
/// them.
constexpr qint64 MaxNamesWalked = 1 << 20;

/// Where a path leads: an item in an open folder, whether it exists or not.
struct WalkedItem {
    int folder; ///< the last one on the way that exists; good until the next walk
    QByteArrayList missing; ///< names of folders between that one and the item, which do not exist
    int error; ///< why the first of those could not be entered, as errno; 0 when none is missing
    QByteArray name;
    QByteArray path; ///< of the item, from the bundle's root and free of links
};

/// Walks along paths from a bundle's root, folder by folder, by descriptors: no link leads it elsewhere, were
/// it made while the walk goes on. Links are followed name by name, within the bounds of `PathNames`. The
/// folders of the last walk stay open, `MaxFolderDepth` at most, because the next path mostly leads through
/// them: a bundle must not be changed between walks but by the one who walks.
class BundleWalk
{
public:
    /// `namesLeft` counts down what is left of `MaxNamesWalked`: folders opened, and names that links add.
    BundleWalk(const QString &bundle, qint64 &namesLeft);

    /// Where a path leads; nothing when it is not one inside the bundle: empty, of PATH_MAX bytes or more,
    /// absolute, with "..", with a NUL, naming the root itself, passing through a link that is absolute,
    /// climbs out of the bundle, goes in circles or through too many names, or nested deeper than
    /// `MaxFolderDepth` folders. What does not exist is no reason to refuse. Nothing is changed. Linear in
    /// time.
    std::optional<WalkedItem> find(const QString &path, FinalLink finalLink);

    /// Makes the folders that are missing on the way to an item found last. False, with errno, when one
    /// cannot be made.
    bool makeFolders(WalkedItem &item);

    /// To be told before the item found last is removed: it may be, or hold, a folder that is open.
    void forgetFolders();

private:
    struct Folder {
        QByteArray name;
        FileDescriptor descriptor;
    };
    struct Steps;

    int current() const { return m_depth == 0 ? m_root.get() : m_folders[m_depth - 1].descriptor.get(); }
    bool step(Steps &steps, const QByteArray &name);
    bool goUp(Steps &steps);
    bool enter(const QByteArray &name);
    std::optional<WalkedItem> arrive(Steps &steps);

    FileDescriptor m_root;
    std::vector<Folder> m_folders; // one in the other; the walk is in the first `m_depth` of them
    size_t m_depth = 0;
    qint64 &m_namesLeft;
};

} // namespace zel

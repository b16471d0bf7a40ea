// Paths that a manifest names, kept inside the bundle that they are meant for.
#pragma once

#include <QString>

namespace zel {

enum class FinalLink {
    Keep, ///< the last name stands for the link itself
    Follow, ///< a link in the last place is followed like any other
};

/// The path of the item `relative` of a bundle, free of links below the bundle's root, or a null string when it is
/// not a path inside the bundle: empty, absolute, with "..", with a NUL, naming the root itself, or passing through a
/// link that is absolute, climbs out of the bundle or goes in circles. What does not exist is no reason to refuse.
/// The answer holds as long as nobody else changes the bundle: bundles are built in private folders.
QString pathInBundle(const QString &bundle, const QString &relative, FinalLink finalLink);

} // namespace zel

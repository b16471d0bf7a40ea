// What a bundle's Info.plist says, and the program that it names.
#pragma once

#include "common/ZELError.h"

#include <QString>
#include <QVariantMap>

#include <optional>

namespace zel {

/// Whether a bundle can be at a path: there is a folder there, itself and not by way of a link, whatever
/// slashes or dots end the path. Folders above it may be links. Safe from any thread.
bool isRealBundle(const QString &path);

/// The folder that a bundle keeps its Info.plist and its seal in: `Contents` when that is a folder, else the
/// bundle.
QString contentsFolder(const QString &bundle);

/// The info dictionary of a bundle, from `Contents/Info.plist`, else from `Info.plist`, in XML or binary form
/// (value types: see PropertyList.h). Nothing when the path, links followed, is no folder; an empty map when
/// there is no plist, or one that cannot be read, is larger than 4 MiB or holds no dictionary. Safe from any
/// thread.
std::optional<QVariantMap> bundleInfo(const QString &bundle);

/// Whether something stands in the place of a bundle's Info.plist, be it nothing that can be read.
bool hasInfo(const QString &bundle);

/// The integer value of a bundle's "CFBundleVersion": 0 when the key is missing; nothing when the path, links
/// followed, is no folder. Safe from any thread.
std::optional<qint64> bundleBuild(const QString &bundle);

/// The path below the bundle of the program that its Info.plist names; null when it names none.
QString programPath(const QString &bundle);

/// Makes the program that the bundle's Info.plist names ("CFBundleExecutable", in `Contents/MacOS`)
/// executable for all who may read it, and readable and executable for its owner. A seal covers no modes, and
/// so whoever brought the bundle could have left the bit out. No link is followed, neither for the bundle nor
/// below it: a program that is not named, not there, behind a link or no regular file is left alone, which is
/// no error. Safe from any thread.
ZELError ensureProgramIsExecutable(const QString &bundle);

} // namespace zel

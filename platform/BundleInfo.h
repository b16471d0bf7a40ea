// What a bundle's Info.plist says.
#pragma once

#include <QString>
#include <QVariantMap>

#include <optional>

namespace zel {

/// Whether a bundle can be at a path: there is a folder there, itself and not by way of a link, whatever slashes or dots
/// end the path. Folders above it may be links. Safe from any thread.
bool isRealBundle(const QString &path);

/// The folder that a bundle keeps its Info.plist and its seal in: `Contents` when that is a folder, else the bundle.
QString contentsFolder(const QString &bundle);

/// The info dictionary of a bundle, from `Contents/Info.plist`, else from `Info.plist`, in XML or binary form
/// (value types: see PropertyList.h). Nothing when the path, links followed, is no folder; an empty map when there is
/// no plist, or one that cannot be read, is larger than 4 MiB or holds no dictionary. Safe from any thread.
std::optional<QVariantMap> bundleInfo(const QString &bundle);

/// Whether something stands in the place of a bundle's Info.plist, be it nothing that can be read.
bool hasInfo(const QString &bundle);

/// The integer value of a bundle's "CFBundleVersion": 0 when the key is missing; nothing when the path, links
/// followed, is no folder. Safe from any thread.
std::optional<qint64> bundleBuild(const QString &bundle);

} // namespace zel

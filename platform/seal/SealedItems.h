// The list of a bundle's items that a seal is made over. Nothing here touches the disk.
#pragma once

#include "common/ZELError.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QMap>
#include <QString>

#include <optional>

namespace zel {

constexpr qsizetype MaxItems = 500'000;

/// The files and links below a folder. Paths are relative to it, as the file system has them, with "/"
/// between.
struct SealedItems {
    QMap<QByteArray, QByteArray> files; ///< path to SHA-256 (32 bytes)
    QMap<QByteArray, QByteArray> links; ///< path to the link's target
};

/// A path for people to read in one line, as `safeText` makes it.
QString shownPath(const QByteArray &path);

/// Why the items cannot be listed in XML: a path or target that is not UTF-8 or has control characters other
/// than tab, newline and carriage return.
ZELError checkNames(const SealedItems &items);

/// Why a link below `folder` (empty for all) is not acceptable: an absolute target, or one that leaves the
/// folder when it is followed from link to link as the system does, or that never ends. Targets that do not
/// exist are acceptable. `namesLeft` counts down the names that links add (see platform/Containment.h).
/// Linear in time; memory is some hundred bytes for a link and for a folder that holds links.
ZELError checkLinks(const SealedItems &items, const QByteArray &folder, qint64 &namesLeft);

/// The first difference between what was sealed of a folder (empty for all) and what of `items` lies below
/// it, but for the files `own`, which are not sealed. Linear in time; ends at the first difference.
ZELError compareItems(const SealedItems &sealed, const SealedItems &items, const QByteArray &folder,
                      const QByteArrayList &own);

/// The items as an XML property list; their names must have passed `checkNames`.
QByteArray toPropertyList(const SealedItems &items);

/// Reads what `toPropertyList` writes; nothing where it is malformed, has a key twice, a value of the wrong
/// type, a digest of the wrong size, more files or links than a bundle may have, or anything that XML has and
/// a list does not use: attributes, comments, CDATA sections. Paths are only ever compared, so any text is
/// accepted for them. Linear in time; memory is some hundred bytes for an item.
std::optional<SealedItems> fromPropertyList(const QByteArray &xml);

} // namespace zel

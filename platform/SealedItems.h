// The list of a bundle's items that a seal is made over. Nothing here touches the disk.
#pragma once

#include "ZELError.h"

#include <QByteArray>
#include <QMap>
#include <QString>

#include <optional>

namespace zel {

/// The files and links below a folder. Paths are relative to it, as the file system has them, with "/" between.
struct SealedItems {
    QMap<QByteArray, QByteArray> files; ///< path to SHA-256 (32 bytes)
    QMap<QByteArray, QByteArray> links; ///< path to the link's target
};

/// A path for people to read in one line, as `safeText` makes it.
QString shownPath(const QByteArray &path);

/// Why the items cannot be listed in XML: a path or target that is not UTF-8 or has control characters other than
/// tab, newline and carriage return.
ZELError checkNames(const SealedItems &items);

/// Why a link is not acceptable: an absolute target, or one that leaves the folder when it is followed from link to
/// link as the system does, or that never ends. Targets that do not exist are acceptable.
ZELError checkLinks(const SealedItems &items);

/// The first difference between what was sealed and what is there.
ZELError compareItems(const SealedItems &sealed, const SealedItems &found);

/// The items below `folder` alone, their paths relative to it.
SealedItems itemsBelow(const SealedItems &items, const QByteArray &folder);

/// The items as an XML property list; their names must have passed `checkNames`.
QByteArray toPropertyList(const SealedItems &items);

/// Reads what `toPropertyList` writes; nothing where it is malformed, has a key twice, a value of the wrong type or a
/// digest of the wrong size. Paths are only ever compared, so any text is accepted for them.
std::optional<SealedItems> fromPropertyList(const QByteArray &xml);

} // namespace zel

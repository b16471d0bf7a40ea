// What is really in a bundle. Below the bundle's own path no link is ever followed.
#pragma once

#include "base/FileDescriptor.h"
#include "SealedItems.h"

namespace zel {

/// A bundle's folder, held open. For one thread at a time.
class BundleFolder
{
public:
    /// Opens a bundle, which must be a real folder: a link to one is refused, while folders above it may be links.
    ZELError open(const QString &bundle);

    /// Adds every file, with its digest, and every link below the folder to `items`. Unreadable items, anything but
    /// files, links and folders, more than 500 000 items and folders nested deeper than 128 are errors.
    /// Memory: a few hundred bytes per item; files are read in pieces.
    ZELError scan(SealedItems &items) const;

    /// Whether there is a folder (a link is none) at a path below the bundle.
    bool hasFolder(const QByteArray &path) const;

    /// Reads a file below the bundle; an error when it is larger than `limit` bytes.
    ZELError read(const QByteArray &path, qint64 limit, QByteArray &bytes) const;

private:
    FileDescriptor m_folder;
};

} // namespace zel

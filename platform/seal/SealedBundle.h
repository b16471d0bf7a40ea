// A sealed bundle on the disk: its folder, its seal, and the bundles nested in it.
#pragma once

#include "base/FileDescriptor.h"
#include "SealedItems.h"
#include "SealSigners.h"

namespace zel {

/// A bundle's folder, held open. For one thread at a time.
class BundleFolder
{
public:
    /// Opens a bundle, which must be a real folder: a link to one is refused, while folders above it may be
    /// links.
    ZELError open(const QString &bundle);

    /// Adds every file, with its digest, and every link below the folder to `items`. Unreadable items,
    /// anything but files, links and folders, more than `MaxItems` of all and folders nested deeper than
    /// `MaxFolderDepth` are errors. Memory: a few hundred bytes per item; files are read in pieces.
    ZELError scan(SealedItems &items) const;

    /// Whether there is a folder (a link is none) at a path below the bundle.
    bool hasFolder(const QByteArray &path) const;

    /// Reads a file below the bundle; an error when it is larger than `limit` bytes.
    ZELError read(const QByteArray &path, qint64 limit, QByteArray &bytes) const;

private:
    FileDescriptor m_folder;
};

constexpr qint64 MaxResourcesSize = 64 << 20; // bytes; what some 400 000 items take

constexpr int MaxNestedBundles = 1024;

/// What is left for the check of one bundle with all that are nested in it: whole and honest bundles stay far
/// below, a small file that unpacks to nested seals, or to links through links, does not.
struct SealBudget {
    qint64 listBytes = 192 << 20; ///< of all lists, the outermost included
    qint64 signatureBytes = 16 << 20; ///< of all signatures, likewise
    int signers = MaxNestedBundles + 8; ///< of all signatures, likewise
    qint64 linkNames = 4 << 20; ///< that links add to the paths of links
};

/// A bundle in an open folder: that folder itself, or one below it. The folder must outlive it.
class SealedBundle
{
public:
    /// `path` is relative to the folder; empty stands for the folder itself.
    explicit SealedBundle(const BundleFolder &folder, const QByteArray &path = {});

    /// Where the seal is or belongs, relative to the bundle: `_CodeSignature`, inside `Contents` where that
    /// is a folder.
    QByteArray sealPath() const { return m_sealPath; }

    /// The two files of the seal, relative to the bundle: the list and the signature.
    QByteArrayList sealFiles() const
    {
        return {m_sealPath + "/CodeResources", m_sealPath + "/CodeSignature"};
    }

    /// Reads the bundle's seal; an error when its signature is not valid or not by one of the pinned signers.
    ZELError readSeal(SealedItems &sealed, SealBudget &budget, const SignerPins &pins = std::nullopt) const;

    /// Whether the bundle is what was sealed; `all` are the items of the whole open folder.
    ZELError compare(const SealedItems &sealed, const SealedItems &all, SealBudget &budget) const;

private:
    const BundleFolder &m_folder;
    QByteArray m_path;
    QByteArray m_sealPath;
};

/// Whether the seals of all bundles nested in the folder, at any depth, are valid. A folder is a nested
/// bundle when it holds a seal, or part of one, where its own would be. More than `MaxNestedBundles` are not
/// looked at, but an error.
ZELError verifyNested(const BundleFolder &folder, const SealedItems &items, SealBudget &budget);

} // namespace zel

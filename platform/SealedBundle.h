// One bundle with its seal, and the bundles nested in it.
#pragma once

#include "BundleScan.h"
#include "SignerPins.h"

namespace zel {

constexpr qint64 MaxResourcesSize = 64 << 20; // bytes; what some 400 000 items take
constexpr qint64 MaxSignatureSize = 1 << 20;

/// A bundle in an open folder: that folder itself, or one below it. The folder must outlive it.
class SealedBundle
{
public:
    /// `path` is relative to the folder; empty stands for the folder itself.
    explicit SealedBundle(const BundleFolder &folder, const QByteArray &path = {});

    /// Where the seal is or belongs, relative to the bundle: `_CodeSignature`, inside `Contents` where that is a
    /// folder.
    QByteArray sealPath() const { return m_sealPath; }

    /// What the seal is made over, of the items of the whole open folder: the bundle's, without the seal itself.
    SealedItems sealedPart(const SealedItems &all) const;

    /// Reads the bundle's seal; an error when its signature is not valid or not by one of the pinned signers.
    ZELError readSeal(SealedItems &sealed, const SignerPins &pins = std::nullopt) const;

    /// Whether the bundle is what was sealed; `all` are the items of the whole open folder.
    ZELError compare(const SealedItems &sealed, const SealedItems &all) const;

private:
    QByteArray resourcesPath() const { return m_sealPath + "/CodeResources"; }
    QByteArray signaturePath() const { return m_sealPath + "/CodeSignature"; }

    const BundleFolder &m_folder;
    QByteArray m_path;
    QByteArray m_sealPath;
};

/// Whether the seals of all bundles nested in the folder, at any depth, are valid. A folder is a nested bundle when it
/// holds a seal, or part of one, where its own would be.
ZELError verifyNested(const BundleFolder &folder, const SealedItems &items);

} // namespace zel

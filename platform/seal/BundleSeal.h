// The seal of a bundle: a signed list of everything in it. docs/bundle-seal.md describes the two files.
#pragma once

#include "common/ZELError.h"
#include "SealSignature.h"

#include <QList>
#include <QString>

namespace zel {

/// Seals a bundle, in place of the seal that it may have, by one to eight signers. The new seal is verified
/// before this returns. On an error the bundle is as it was, with the seal that it had; the message says what
/// stands in the way: an unreadable or special file, a name that cannot be sealed, a link that leads out of
/// the bundle, a nested bundle whose seal is not valid, a folder that cannot be written. The bundle itself
/// must be a real folder, as for `verifySeal`; folders above it may be links. Each file is read twice, in
/// pieces; memory is some kilobytes per item. Nobody may change the bundle meanwhile.
ZELError sealBundle(const QString &bundle, const QList<Signer> &signers);

/// No error when the bundle's seal is valid: its signature verifies, every file and link is as it was sealed,
/// nothing was added, and the seals of all nested bundles are valid too. Modes, times and empty folders are
/// not sealed. Anyone's signature will do, unless signers are pinned; nested bundles may be signed by anyone.
/// The bundle may be hostile: it must be a real folder (see `isRealBundle`), no link in it is followed, and
/// what exceeds a limit is refused. Memory: some kilobytes per item. Safe from any thread.
ZELError verifySeal(const QString &bundle, const SignerPins &pins = std::nullopt);

/// Those whose certificates a bundle's seal names as its signers; none where there is no seal that can be
/// read. Says nothing about whether the seal is valid: `verifySeal` does. Safe from any thread.
QList<SealSigner> sealSigners(const QString &bundle);

} // namespace zel

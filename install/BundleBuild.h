// The steps between a downloaded file and a new bundle. Each works on the thread that calls it, in the
// staging folder that it is given, and takes along everything that it made when it fails: what is not known
// to be good neither stays nor is handed out.
#pragma once

#include "ArchiveExtractor.h"
#include "common/UpdateRecord.h"
#include "common/ZELError.h"
#include "seal/SealSigners.h"

#include <QVariantList>

#include <stop_token>

namespace zel {

/// What a new bundle is made of and judged by, besides the downloaded file.
struct BuildInputs {
    QString installedBundle; ///< what patches start from and the new bundle is compared with; only read
    SignerPins signers = {}; ///< those that may have sealed the new bundle, as for `verifySeal`
    qint64 announcedBuild = 0; ///< the build of the update record
    QString archiveTool = zel::archiveTool(); ///< what unpacks archives
    std::stop_token stop = {}; ///< ends the step, which has failed then
};

/// Why a downloaded file is not the one that was offered. The offer's hash must be there and equal the file's
/// MD5; its size and SHA-256 must be the file's where they are there. An empty hash stands for any file of 0
/// or of a multiple of 32768 bytes, which is no protection: with `pinned` the other two must be there then.
ZELError checkPayload(const QString &file, const OfferedFile &offered, bool pinned);

struct UnpackedBundle {
    bool unpacked = false; ///< the archive was sound, and the bundle, if it holds one, is good
    QString path; ///< null: there is none
};

/// Unpacks a full archive in a folder of its own in `staging`. Without pinned signers a bundle is trusted for
/// its archive's hash, with them it must be sealed by one of them.
UnpackedBundle unpackUpdate(const QString &archive, const QString &staging, const BuildInputs &inputs);

/// Applies a bundle patch that starts from `startBuild` to a copy of the installed bundle, in a folder of its
/// own in `staging`. The result must be validly sealed, by a pinned signer where there are pins. Null when
/// that failed; `log` receives the patch log either way.
QString patchInstalled(const QString &patch, qint64 startBuild, const QString &staging,
                       const BuildInputs &inputs, QVariantList &log);

} // namespace zel

// What makes a new bundle trustworthy, in the order in which it is judged:
//
// - the downloaded file is the one that was announced (`checkPayload`): that is worth as much as the
//   connection to the server is, and protects a full archive where no signers are pinned;
// - the new bundle is sealed (always after a patch, and by a pinned signer wherever there are pins);
// - it states itself to be what was announced (`compareWithAnnounced`): the seal of an older build is valid,
//   too.
//
// Everything is built in a folder with a new name inside the staging folder, so that no downloaded file's
// name can meet it, and that folder goes as a whole when a step fails.
#include "BundleBuild.h"

#include "common/DDLog.h"
#include "common/WireValues.h"
#include "MD5Digest.h"
#include "PatchLog.h"
#include "PatchRunner.h"
#include "platform/BundleInfo.h"
#include "platform/FileTree.h"
#include "seal/BundleSeal.h"
#include "SHA256.h"
#include "StagingFolder.h"

#include <QDir>
#include <QFileInfo>

namespace zel {

namespace {

// No download's name can meet one that is drawn only now.
ZELError makeBuildFolder(const QString &staging, QString &folder)
{
    folder = QDir(staging).filePath(newUUID());
    return makePrivateFolder(folder);
}

// What the installed bundle states of itself, the new one must state as it was announced. A seal alone would
// let any bundle of the same signer take its place: an older build under a new number, or another
// application.
ZELError compareWithAnnounced(const QString &bundle, const BuildInputs &inputs)
{
    const QString build = QStringLiteral("CFBundleVersion");
    const QString identifier = QStringLiteral("CFBundleIdentifier");
    const QVariantMap installed = bundleInfo(inputs.installedBundle).value_or(QVariantMap());
    if (installed.isEmpty()
        && hasInfo(inputs.installedBundle)) // else a read that fails would let anything pass
        return ZELError::withMessage(QStringLiteral("the installed bundle's Info.plist cannot be read"));
    const QVariantMap built = bundleInfo(bundle).value_or(QVariantMap());
    const qint64 number = integerValue(built[build]);
    if (installed.contains(build) && number != inputs.announcedBuild)
        return ZELError::withMessage(QStringLiteral("the new bundle is build %1, announced was build %2")
                                         .arg(number)
                                         .arg(inputs.announcedBuild));
    if (installed.contains(build) && number <= integerValue(installed[build]))
        return ZELError::withMessage(QStringLiteral("the new bundle is build %1, installed is build %2")
                                         .arg(number)
                                         .arg(integerValue(installed[build])));
    if (installed.contains(identifier) && built[identifier] != installed[identifier])
        return ZELError::withMessage(QStringLiteral("the new bundle is another application, \"%1\"")
                                         .arg(built[identifier].toString().left(100)));
    return {};
}

ZELError judgeUnpacked(const QString &bundle, const BuildInputs &inputs)
{
    if (!isRealBundle(bundle))
        return ZELError::withMessage(QStringLiteral("the new bundle is no folder"));
    if (inputs.signers) {
        if (const ZELError error = verifySeal(bundle, inputs.signers))
            return error;
    }
    return compareWithAnnounced(bundle, inputs);
}

} // namespace

ZELError checkPayload(const QString &file, const OfferedFile &offered, bool pinned)
{
    if (!offered.hash)
        return ZELError::withMessage(QStringLiteral("no hash was announced for the download"));
    if (pinned && offered.hash->isEmpty() && !(offered.size && offered.sha256))
        return ZELError::withMessage(QStringLiteral("an empty hash without \"sha256\" and \"size\" is none"));
    if (offered.size && *offered.size != QFileInfo(file).size())
        return ZELError::withMessage(QStringLiteral("the download has %1 bytes, announced were %2")
                                         .arg(QFileInfo(file).size())
                                         .arg(*offered.size));
    const std::optional<QString> md5 = MD5FromFile(file);
    if (!md5 || *md5 != *offered.hash)
        return ZELError::withMessage(QStringLiteral("the download has another MD5 than was announced"));
    if (!offered.sha256)
        return {};
    const std::optional<QString> sha256 = sha256OfFile(file);
    if (!sha256 || *sha256 != offered.sha256->toLower())
        return ZELError::withMessage(QStringLiteral("the download has another SHA-256 than was announced"));
    return {};
}

UnpackedBundle unpackUpdate(const QString &archive, const QString &staging, const BuildInputs &inputs)
{
    DDLogInfo(QStringLiteral("extracting update"));
    UnpackedBundle result;
    QString folder;
    ZELError failure = makeBuildFolder(staging, folder);
    if (!failure) {
        const auto unpacked = [&](bool ok, const QString &bundle, const ZELError &error) {
            result = {ok, bundle};
            failure = error;
        };
        extractArchive(archive, folder, unpacked, {.tool = inputs.archiveTool, .stop = inputs.stop});
    }
    if (!failure)
        failure = judgeUnpacked(result.path, inputs);
    if (!failure)
        failure = ensureProgramIsExecutable(result.path); // whatever the archive said: modes are not sealed
    if (failure) {
        systemLog(failure.message);
        removeTree(folder);
        // An archive that holds no bundle is unpacked all the same.
        result = {result.unpacked && result.path.isNull(), {}};
    }
    DDLogInfo(result.unpacked ? QStringLiteral("extraction succeeded") : QStringLiteral("extraction failed"));
    return result;
}

QString patchInstalled(const QString &patch, qint64 startBuild, const QString &staging,
                       const BuildInputs &inputs, QVariantList &log)
{
    const auto failed = [&log](const ZELError &error, const char *entry, const char *message) {
        systemLog(error.message);
        appendEntry(log, QLatin1String(entry));
        DDLogInfo(QLatin1String(message));
        return false;
    };
    QString folder;
    makeBuildFolder(staging, folder); // without it the copy fails
    // Deliberate: the new bundle, too, bears the number of the build that it was patched from.
    const QString oldPath = folder + QStringLiteral("/Old-%1.app").arg(startBuild);
    const QString patchedPath = folder + QStringLiteral("/Patched-%1.app").arg(startBuild);
    const auto build = [&] {
        if (const ZELError error = copyTree(inputs.installedBundle, oldPath))
            // The misspelling is kept: those who read logs search for it.
            return failed(error, "Unable to copy old appliocation to temp folder", "Unable to copy old app");
        if (inputs.stop.stop_requested() || !applyBundlePatch(oldPath, patchedPath, patch, log, inputs.stop))
            return false;
        if (const ZELError error = verifySeal(patchedPath, inputs.signers))
            return failed(error, "failed with code signing error", "patch failed with codesigning error");
        if (const ZELError error = compareWithAnnounced(patchedPath, inputs))
            return failed(error, "failed with another bundle than announced",
                          "patch failed with another bundle");
        return !inputs.stop.stop_requested();
    };
    if (build())
        return patchedPath;
    removeTree(folder);
    return {};
}

} // namespace zel

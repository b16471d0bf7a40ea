// A signature says of a file that the publisher made it. Of those that were never signed nothing says so but
// the seal: a bundle that is sealed by the signers, with the build that the record gives, is theirs. A patch
// has no seal. It is theirs for what it does: it leads from one such bundle to the other. Else whoever had
// the folder could have clients work through a file of his own, under the publisher's signature.
//
// What is left to the publisher's word are the rest of the record (for whom it is, its version) and the
// notes. So the builds are named one by one, and a feed that is signed in part is refused: one that lost a
// signature, and was changed then, looks just like one that never had it.
#include "FeedAdoption.h"

#include "common/UpdateRecord.h"
#include "FeedRecord.h"
#include "install/BundleBuild.h"
#include "install/PatchFile.h"
#include "PatchMaker.h"
#include "platform/BundleInfo.h"
#include "platform/FileTree.h"
#include "ReleasedBundles.h"
#include "seal/BundleSeal.h"

#include <QFile>

namespace zel {

namespace {

class Adoption
{
public:
    Adoption(const QString &folder, const QString &scratch, const FeedSigning &signing,
             const QJsonArray &records, QJsonArray &leftOut)
        : m_folder(folder)
        , m_scratch(scratch)
        , m_known(fingerprintsOf(signing.signers) + signing.former)
        , m_records(records)
        , m_leftOut(leftOut)
        , m_bundles(folder, scratch)
    {
    }

    ZELError adopt(QJsonObject &record)
    {
        QString bundle;
        if (const ZELError error = m_bundles.unpack(record, bundle))
            return error;
        if (const ZELError error = judge(record, bundle))
            return recordError(record, QLatin1String("its archive cannot be signed for: ") + error.message);
        QJsonArray proved;
        for (const QJsonValue patch : record[key::Patches].toArray()) {
            QJsonObject entry = patch.toObject();
            QString whyNot;
            if (const ZELError error = prove(record, bundle, entry, whyNot))
                return error;
            if (whyNot.isEmpty())
                proved.append(entry);
            else
                m_leftOut.append(QJsonObject{{key::Build, buildOf(record)},
                                             {QLatin1String("from"), buildOf(patch)},
                                             {QLatin1String("reason"), whyNot}});
        }
        for (const QLatin1String ofSignatures : {key::Issued, key::Expires, key::Builds})
            record.remove(ofSignatures);
        record[key::Patches] = proved;
        record[key::Identifier] =
            bundleInfo(bundle).value_or(QVariantMap())[QStringLiteral("CFBundleIdentifier")].toString();
        return describeNotes(m_folder, record);
    }

private:
    ZELError judge(const QJsonObject &record, const QString &bundle) const
    {
        if (const ZELError error = verifySeal(bundle))
            return error;
        if (bundleBuild(bundle) != buildOf(record))
            return ZELError::withMessage(QStringLiteral("the bundle in it is of another build"));
        const QString others = missingAmong(sealSigners(bundle), m_known);
        return others.isEmpty()
            ? ZELError()
            : ZELError::withMessage(QStringLiteral("it is sealed by %1, whose key is not given").arg(others));
    }

    // The bundle that a patch starts from is judged when its own record is.
    ZELError prove(const QJsonObject &record, const QString &bundle, QJsonObject &entry, QString &whyNot)
    {
        QJsonObject earlier;
        QString oldBundle;
        for (const QJsonValue other : m_records) {
            if (buildOf(other) == buildOf(entry))
                earlier = other.toObject();
        }
        if (earlier.isEmpty()) {
            whyNot = QStringLiteral("that is not in the feed, and it cannot be tried");
            return {};
        }
        const QString copy = m_scratch + QLatin1String("/patch");
        if (const ZELError error = describeFile(m_folder, record, entry, copy))
            return error;
        if (const ZELError error = m_bundles.unpack(earlier, oldBundle))
            return error;
        whyNot = judgePatch(oldBundle, bundle, copy, entry).message;
        QFile::remove(copy);
        return {};
    }

    // Of what kind a patch is, the file says and not the entry.
    ZELError judgePatch(const QString &oldBundle, const QString &bundle, const QString &patch,
                        QJsonObject &entry) const
    {
        PatchManifest manifest;
        {
            PatchFile file;
            if (const ZELError error = PatchFile::read(patch, {.oldBundle = treeSize(oldBundle)}, file))
                return ZELError::withMessage(QLatin1String("the patch does not apply: ") + error.message);
            manifest = file.manifest;
        }
        entry.remove(key::Format);
        entry.remove(key::Requires);
        if (manifest.format > 1) {
            entry[key::Format] = manifest.format;
            entry[key::Requires] = QJsonArray::fromStringList(manifest.requirements);
        }
        // Of the first format all that comes out is executable.
        const Modes modes = manifest.format > 1 ? Modes::Compared : Modes::Ignored;
        return provePatch(oldBundle, bundle, patch, m_scratch + QLatin1String("/built"), modes);
    }

    const QString m_folder;
    const QString m_scratch;
    const QStringList m_known;
    const QJsonArray m_records;
    QJsonArray &m_leftOut;
    ReleasedBundles m_bundles;
};

} // namespace

ZELError checkVouched(const QString &folder, const QJsonArray &records, const QList<qint64> &vouched)
{
    for (const QJsonValue record : records) {
        if (record.toObject().contains(key::Signed))
            continue;
        const qint64 build = buildOf(record);
        if (isSigned(records))
            return ZELError::withMessage(
                QStringLiteral("build %1 in %2 is not signed, and others are: somebody has put its record "
                               "there, or has taken its signature away; take the record out of "
                               "releases.json, or bring the feed back")
                    .arg(build)
                    .arg(folder));
        if (!vouched.contains(build))
            return ZELError::withMessage(
                QStringLiteral("build %1 in %2 is not signed: bring the signed feed back, if there was one; "
                               "take the build's record out of releases.json; or, if the record, its notes "
                               "and its files are yours, name it with 'zelupdater refresh --sign-unsigned "
                               "%1'")
                    .arg(build)
                    .arg(folder));
    }
    return {};
}

ZELError adoptUnsigned(const QString &folder, const QString &scratch, const FeedSigning &signing,
                       QJsonArray &records, QJsonArray &leftOut)
{
    Adoption adoption(folder, scratch, signing, records, leftOut);
    for (QJsonValueRef listed : records) {
        QJsonObject record = listed.toObject();
        if (const ZELError error = adoption.adopt(record))
            return error;
        listed = record;
    }
    return {};
}

} // namespace zel

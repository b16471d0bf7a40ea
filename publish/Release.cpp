#include "Release.h"

#include "FeedAdoption.h"
#include "FeedFile.h"
#include "FeedRecord.h"
#include "platform/BundleInfo.h"
#include "platform/FileContents.h"
#include "ReleaseFiles.h"
#include "seal/BundleSeal.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>

#include <algorithm>

namespace zel {

namespace {

ZELError problem(const QString &message)
{
    return ZELError::withMessage(message);
}

} // namespace

ZELError NewBuild::read(const QString &bundle, NewBuild &build)
{
    const std::optional<QVariantMap> info = bundleInfo(bundle);
    if (!info)
        return problem(bundle + QLatin1String(" is not a bundle"));
    const QString number = (*info)[QStringLiteral("CFBundleVersion")].toString();
    bool understood = false;
    build.number = number.toLongLong(&understood);
    if (number.isEmpty())
        return problem(bundle
                       + QLatin1String(" states no build: its Info.plist needs a CFBundleVersion above 0"));
    if (!understood || build.number <= 0)
        return problem(
            QStringLiteral("%1 states the build '%2': CFBundleVersion has to be a whole number above "
                           "0, such as 25, and CFBundleShortVersionString is for versions")
                .arg(bundle, number));
    if (QFileInfo(bundle).suffix() != QLatin1String("app"))
        return problem(bundle
                       + QLatin1String(" must be named *.app: updaters find it in the archive by that"));
    if (const ZELError error = verifySeal(bundle))
        return problem(error.message + QLatin1String("; seal the bundle with 'zelupdater sign' first"));
    build.bundle = bundle;
    build.name = QFileInfo(bundle).completeBaseName();
    build.version = (*info)[QStringLiteral("CFBundleShortVersionString")].toString();
    build.identifier = (*info)[QStringLiteral("CFBundleIdentifier")].toString();
    build.signers = sealSigners(bundle);
    return {};
}

ZELError openToAdd(const QString &folder, const ReleaseFolder::Options &options, QJsonArray &records)
{
    if (const ZELError error = readFeed(folder, records))
        return error;
    if (options.signing.signers.isEmpty())
        return isSigned(records)
            ? problem(QStringLiteral("the records in %1 are signed: give --key and --cert").arg(folder))
            : ZELError();
    if (const ZELError error = checkVouched(folder, records, {}))
        return error;
    return openFeed(records, options.signing, options.say);
}

Release::Release(const QString &folder, const ScratchFolder &scratch, const ReleaseFolder::Options &options,
                 ReleaseFolder::Added &added)
    : m_folder(folder)
    , m_scratch(scratch)
    , m_options(options)
    , m_added(added)
    , m_earlier(folder, scratch.path())
{
}

ZELError Release::make(const NewBuild &build, const QByteArray &notes, const QJsonArray &records)
{
    m_build = build;
    if (const ZELError error = checkBegin(records))
        return error;
    if (const ZELError error = compareWithSigners())
        return error;
    if (const ZELError error = compareWithLast(records))
        return error;
    if (const ZELError error = addArchive())
        return error;
    for (const QJsonValue earlier : records) {
        if (m_options.noPatches || buildOf(earlier) >= m_build.number)
            continue;
        for (const int format : m_options.patchFormats) {
            if (const ZELError error = addPatch(earlier.toObject(), format))
                return error;
        }
    }
    finishRecord();
    const ZELError error = notes.isNull() ? ZELError() : addNotes(notes);
    m_added.record = m_record.toJson();
    return error;
}

// Files without a record harm nobody: a record without its files would.
ZELError Release::publish()
{
    const Uninterrupted publishing;
    ZELError error = moveFiles();
    if (!error)
        error = appendRecord();
    if (error && !mayBeNamed()) {
        for (const QString &name : std::as_const(m_moved))
            QFile::remove(place(name));
    }
    return error;
}

// A feed that somebody has emptied looks like that of a first release. What is left of earlier ones tells it,
// but for what a release of this build may have left that was cut off.
ZELError Release::checkBegin(const QJsonArray &records) const
{
    if (!signs() || !records.isEmpty() || m_options.startAnew)
        return {};
    const QString own = QStringLiteral("-to-%1.").arg(m_build.number);
    const QStringList kinds{QStringLiteral("*.zip"), QStringLiteral("*.zelpatch")};
    for (const QString &name : QDir(m_folder).entryList(kinds, QDir::Files | QDir::System)) {
        if (name != stem() + QLatin1String(".zip") && !name.contains(own))
            return problem(
                QStringLiteral("%1 lies in %2, and releases.json has no record of any release: bring that "
                               "back, or give --start-anew if there is to be no earlier one")
                    .arg(name, m_folder));
    }
    return {};
}

ZELError Release::compareWithSigners() const
{
    const QString missing = missingAmong(m_build.signers, fingerprintsOf(m_options.signing.signers));
    if (!signs() || m_options.newSigner || missing.isEmpty())
        return {};
    return problem(QStringLiteral("%1 is sealed by %2, who does not sign the record: installations that "
                                  "accept that signer would refuse it; give the key, too, or --new-signer "
                                  "if it is meant")
                       .arg(m_build.bundle, missing));
}

ZELError Release::compareWithLast(const QJsonArray &records)
{
    QJsonObject last;
    for (const QJsonValue record : records) {
        if (last.isEmpty() || buildOf(record) > buildOf(last))
            last = record.toObject();
    }
    if (last.isEmpty())
        return {};
    QString bundle;
    if (const ZELError error = m_earlier.unpack(last, bundle))
        return error;
    const QString identifier =
        bundleInfo(bundle).value_or(QVariantMap())[QStringLiteral("CFBundleIdentifier")].toString();
    if (!identifier.isEmpty() && identifier != m_build.identifier)
        return problem(
            QStringLiteral("%1 is another application ('%2') than the releases in %3 ('%4'): each has a "
                           "folder of its own")
                .arg(m_build.bundle, m_build.identifier, m_folder, identifier));
    const QList<SealSigner> signers = sealSigners(bundle);
    if (signers == m_build.signers || m_options.newSigner)
        return {};
    return problem(
        QStringLiteral("%1 is sealed by another signer (%2) than build %3 (%4), and installations may "
                       "accept that one only; give --new-signer if it is meant")
            .arg(m_build.bundle, m_build.signers.value(0).subject)
            .arg(buildOf(last))
            .arg(signers.value(0).subject));
}

ZELError Release::addArchive()
{
    const QString name = stem() + QLatin1String(".zip");
    const QString archive = m_scratch.filePath(name);
    if (const ZELError error = writeBundleZip(m_build.bundle, archive))
        return error;
    ZELError error = unpackArchive(archive, m_scratch.filePath(QStringLiteral("proof")), m_unpacked);
    if (!error)
        error = verifySeal(m_unpacked);
    if (error)
        return problem(name + QLatin1String(" could not be installed: ") + error.message);
    m_record.build = m_build.number;
    m_record.version = m_build.version;
    return announce(name, m_record);
}

// Between the bundles as installations unpack them: patches then give the modes that archives give.
ZELError Release::addPatch(const QJsonObject &earlier, int format)
{
    const QString name =
        QStringLiteral("%1-%2-to-%3%4.zelpatch")
            .arg(m_build.name, QString::number(buildOf(earlier)), QString::number(m_build.number),
                 format == 1 ? QString() : u'.' + QString::number(format));
    QJsonObject record = earlier;
    QString oldBundle;
    if (const ZELError error = m_earlier.unpack(record, oldBundle))
        return error;
    PatchMakerOptions options;
    options.format = format;
    options.memory = m_options.memory;
    options.progress = m_options.progress;
    PatchSummary summary;
    const ZELError error = makePatch(oldBundle, m_unpacked, m_scratch.filePath(name), options, summary);
    if (error && !summary.lostModes.isEmpty())
        return leaveOut(earlier, format, error.message);
    if (error)
        return problem(
            QStringLiteral("no patch from build %1 could be made: %2; give --no-patches to release the "
                           "full archive alone")
                .arg(buildOf(earlier))
                .arg(error.message));
    if (summary.size >= *m_record.size && !m_options.patchOnly)
        return leaveOut(earlier, format, QStringLiteral("it would be no smaller than the archive"));
    PatchEntry entry;
    entry.build = buildOf(earlier);
    entry.format = format;
    entry.requirements = summary.requirements;
    if (const ZELError unsettled = announce(name, entry))
        return unsettled;
    m_record.patches.append(entry);
    return {};
}

ZELError Release::leaveOut(const QJsonObject &earlier, int format, const QString &reason)
{
    m_options.say(QStringLiteral("no patch of format %1 from build %2: %3")
                      .arg(format)
                      .arg(buildOf(earlier))
                      .arg(reason));
    m_added.leftOut.append(QJsonObject{
        {key::Build, buildOf(earlier)}, {key::Format, format}, {QLatin1String("reason"), reason}});
    return {};
}

void Release::finishRecord()
{
    if (signs())
        m_record.identifier = m_build.identifier;
    if (m_options.patchOnly && m_record.patches.isEmpty())
        m_options.say(QStringLiteral(
            "the build is offered to nobody: there is no patch, and it was asked for patches only"));
    if (!m_options.arch.isEmpty())
        m_record.arch = m_options.arch;
    m_record.isBeta = m_options.beta;
    m_record.isPatchOnly = m_options.patchOnly;
}

ZELError Release::addNotes(const QByteArray &html)
{
    const QString name = stem() + QLatin1String(".html");
    m_record.history = addressOf(name);
    if (signs())
        m_record.historySHA256 =
            QString::fromLatin1(QCryptographicHash::hash(html, QCryptographicHash::Sha256).toHex());
    m_made.append(name);
    return writeDurably(m_scratch.filePath(name), html);
}

// A finished file: on the disk, and in its record with all that it is known by.
ZELError Release::announce(const QString &name, OfferedFile &offered)
{
    offered.file = addressOf(name);
    if (const ZELError error = settleFile(m_scratch.filePath(name), offered))
        return error;
    if (offered.hash->isEmpty())
        return problem(name + QLatin1String(" has no hash that updaters could check it by"));
    m_made.append(name);
    m_options.say(QStringLiteral("%1: %2").arg(name, sizeText(*offered.size)));
    return {};
}

ZELError Release::moveFiles()
{
    for (const QString &name : std::as_const(m_made)) {
        if (const ZELError error = replaceFile(m_scratch.filePath(name), place(name)))
            return error;
        m_moved.append(name);
    }
    return settleFolder(m_folder);
}

// The feed may have been edited by hand since it was read.
ZELError Release::appendRecord()
{
    QJsonArray records;
    if (const ZELError error = openToAdd(m_folder, m_options, records))
        return error;
    if (const ZELError error = checkBegin(records))
        return error;
    records.append(m_added.record);
    if (const ZELError error = signs() ? signFeed(records, m_options.signing) : ZELError())
        return error;
    m_added.record = records.last().toObject();
    return writeFeed(m_folder, records, m_options.say);
}

// A feed may be in place although it could not be flushed; one that cannot be read may name anything.
bool Release::mayBeNamed() const
{
    QJsonArray records;
    if (readFeed(m_folder, records))
        return true;
    return std::any_of(records.constBegin(), records.constEnd(),
                       [this](const QJsonValue &record) { return buildOf(record) == m_build.number; });
}

} // namespace zel

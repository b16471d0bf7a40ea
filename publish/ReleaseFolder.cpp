#include "ReleaseFolder.h"

#include "base/FileDescriptor.h"
#include "common/WireValues.h"
#include "install/ArchiveExtractor.h"
#include "Interrupt.h"
#include "platform/BundleInfo.h"
#include "platform/Containment.h"
#include "platform/FileContents.h"
#include "platform/FileTree.h"
#include "ReleaseFiles.h"
#include "seal/BundleSeal.h"
#include "seal/SealSigners.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QUrl>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <optional>
#include <sys/file.h>

// A release folder is served while releases are added to it, and clients may ask at any moment, so that
// whatever lies in it under a name that a record gives has to be whole at every moment, a power cut included.
// That decides the order:
//
//   lock     One process at a time (".lock"; the system lets go of it however its holder ends). The feed is
//            read again under the lock, and what killed processes left is swept: nobody else can be working
//            there.
//   scratch  Archive, patches and notes are made in ".release-XXXXXX", private and never served. The archive
//            is proved by unpacking it, each patch by applying it, and each file is on the disk before its
//            hash is told.
//   files    They are moved into place, and the folder is brought to the disk. Names hold the build, so that
//            they meet nothing that the feed names already.
//   feed     "releases.json" is written last, aside and renamed. The records are signed with it, all of them:
//            what was signed before is opened at the start, so that a folder which cannot be signed is heard
//            of at once, and again here, for the feed may have changed.
//
// So a kill leaves: before "files" a scratch folder, which the next release sweeps; before "feed" files that
// no record names, which harm nobody and are replaced when the build is released again. A record without its
// files, which would break every client, is never there. After an error the files are removed, but only if
// the feed surely names none.

namespace zel {

namespace {

const QLatin1String FeedName("/releases.json");
const QLatin1String LockName("/.lock");
const QLatin1String ScratchName("/.release-");

ZELError problem(const QString &message)
{
    return ZELError::withMessage(message);
}

qint64 buildOf(const QJsonValue &record)
{
    return integerValue(record[key::Build].toVariant());
}

struct Build {
    QString bundle;
    QString name; // of the application
    qint64 number = 0;
    QString version;
    QString identifier;
    QList<SealSigner> signers;

    static ZELError read(const QString &bundle, Build &build)
    {
        const std::optional<QVariantMap> info = bundleInfo(bundle);
        if (!info)
            return problem(bundle + QLatin1String(" is not a bundle"));
        const QString number = (*info)[QStringLiteral("CFBundleVersion")].toString();
        bool understood = false;
        build.number = number.toLongLong(&understood);
        if (number.isEmpty())
            return problem(
                bundle + QLatin1String(" states no build: its Info.plist needs a CFBundleVersion above 0"));
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
};

// A feed is signed as a whole or not at all.
ZELError checkSigning(const QString &folder, const QJsonArray &records, const ReleaseFolder::Options &options)
{
    const bool signs = !options.signing.signers.isEmpty();
    if (!signs && isSigned(records))
        return problem(QStringLiteral("the records in %1 are signed: give --key and --cert").arg(folder));
    for (const QJsonValue record : records) {
        if (signs && !record.toObject().contains(key::Signed))
            return problem(
                QStringLiteral("build %1 in %2 is not signed: take its record out, or, if it is yours, have "
                               "'zelupdater refresh --sign-unsigned' sign it")
                    .arg(buildOf(record))
                    .arg(folder));
    }
    return {};
}

// One addition to a release folder, under the folder's lock.
class Release
{
public:
    Release(const QString &folder, const ReleaseFolder::Options &options, ReleaseFolder::Added &added)
        : m_folder(folder)
        , m_options(options)
        , m_added(added)
        , m_scratch(folder + ScratchName + QLatin1String("XXXXXX"))
    {
    }

    ZELError make(const Build &build, const QByteArray &notes, const QJsonArray &records)
    {
        m_build = build;
        if (!m_scratch.isValid())
            return problem(QStringLiteral("cannot write to %1: %2").arg(m_folder, m_scratch.errorString()));
        if (const ZELError error = compareWithSigners())
            return error;
        if (const ZELError error = compareWithLast(records))
            return error;
        if (const ZELError error = addArchive())
            return error;
        for (const QJsonValue earlier : records) {
            if (m_options.noPatches || buildOf(earlier) >= m_build.number)
                continue;
            if (const ZELError error = addPatch(earlier))
                return error;
        }
        finishRecord();
        const ZELError error = notes.isNull() ? ZELError() : addNotes(notes);
        m_added.record = m_record.toJson();
        return error;
    }

    // Files without a record harm nobody: a record without its files would.
    ZELError publish(const QString &feed)
    {
        const Uninterrupted publishing;
        ZELError error = moveFiles();
        if (!error)
            error = appendRecord(feed);
        if (error && !mayBeNamed()) {
            for (const QString &name : std::as_const(m_moved))
                QFile::remove(place(name));
        }
        return error;
    }

private:
    // A feed may be in place although it could not be flushed; one that cannot be read may name anything.
    bool mayBeNamed() const
    {
        QJsonArray records;
        if (ReleaseFolder(m_folder).read(records))
            return true;
        return std::any_of(records.constBegin(), records.constEnd(),
                           [this](const QJsonValue &record) { return buildOf(record) == m_build.number; });
    }

    ZELError compareWithLast(const QJsonArray &records)
    {
        QJsonValue last;
        for (const QJsonValue record : records) {
            if (last.isUndefined() || last.isNull() || buildOf(record) > buildOf(last))
                last = record;
        }
        if (last.isNull() || last.isUndefined())
            return {};
        QString bundle;
        if (const ZELError error = unpackEarlier(last, bundle))
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

    ZELError compareWithSigners() const
    {
        const QString missing = missingAmong(m_build.signers, fingerprintsOf(m_options.signing.signers));
        if (!signs() || m_options.newSigner || missing.isEmpty())
            return {};
        return problem(
            QStringLiteral("%1 is sealed by %2, who does not sign the record: installations that "
                           "accept that signer would refuse it; give the key, too, or --new-signer "
                           "if it is meant")
                .arg(m_build.bundle, missing));
    }

    ZELError addArchive()
    {
        const QString name = stem() + QLatin1String(".zip");
        const QString archive = m_scratch.filePath(name);
        if (const ZELError error = writeBundleZip(m_build.bundle, archive))
            return error;
        QString bundle;
        ZELError error = unpack(archive, QStringLiteral("proof"), bundle);
        if (!error)
            error = verifySeal(bundle);
        if (error)
            return problem(name + QLatin1String(" could not be installed: ") + error.message);
        m_record.build = m_build.number;
        m_record.version = m_build.version;
        return announce(name, m_record);
    }

    ZELError addPatch(const QJsonValue &earlier)
    {
        const QString name = QStringLiteral("%1-%2-to-%3.zelpatch")
                                 .arg(m_build.name, QString::number(buildOf(earlier)))
                                 .arg(m_build.number);
        QString oldBundle;
        if (const ZELError error = unpackEarlier(earlier, oldBundle))
            return error;
        PatchMakerOptions options;
        options.memory = m_options.memory;
        options.progress = m_options.progress;
        PatchSummary summary;
        const ZELError error =
            makePatch(oldBundle, m_build.bundle, m_scratch.filePath(name), options, summary);
        if (error && !summary.lostModes.isEmpty())
            return leaveOut(earlier, error.message);
        if (error)
            return problem(
                QStringLiteral("no patch from build %1 could be made: %2; give --no-patches to release the "
                               "full archive alone")
                    .arg(buildOf(earlier))
                    .arg(error.message));
        if (summary.size >= *m_record.size && !m_options.patchOnly)
            return leaveOut(earlier, QStringLiteral("it would be no smaller than the archive"));
        PatchEntry entry;
        entry.build = buildOf(earlier);
        if (const ZELError unsettled = announce(name, entry))
            return unsettled;
        m_record.patches.append(entry);
        return {};
    }

    ZELError leaveOut(const QJsonValue &earlier, const QString &reason)
    {
        m_options.say(QStringLiteral("no patch from build %1: %2").arg(buildOf(earlier)).arg(reason));
        m_added.leftOut.append(
            QJsonObject{{key::Build, buildOf(earlier)}, {QLatin1String("reason"), reason}});
        return {};
    }

    void finishRecord()
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

    ZELError addNotes(const QByteArray &html)
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
    ZELError announce(const QString &name, OfferedFile &offered)
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

    ZELError unpackEarlier(const QJsonValue &record, QString &bundle)
    {
        const QString archive = place(nameOf(record[key::File]));
        const QString folder = QStringLiteral("build-%1").arg(buildOf(record));
        const ZELError error = unpack(archive, folder, bundle);
        return error
            ? problem(QStringLiteral("the archive of build %1 cannot be read: %2; bring it back, or take the "
                                     "build's record out of %3")
                          .arg(buildOf(record))
                          .arg(error.message, place(FeedName.mid(1))))
            : ZELError();
    }

    // Archives are unpacked once, however often they are asked for.
    ZELError unpack(const QString &archive, const QString &name, QString &bundle)
    {
        QString &known = m_unpacked[name];
        ZELError error;
        bool isThere = false;
        if (known.isNull())
            error = lookAt(archive, isThere);
        if (known.isNull() && !error && !isThere)
            error = problem(archive + QLatin1String(" is gone"));
        if (known.isNull() && !error) {
            const QString folder = m_scratch.filePath(name);
            QDir().mkpath(folder);
            extractArchive(archive, folder, [&](bool, const QString &path, const ZELError &failed) {
                known = path;
                error = failed;
            });
        }
        bundle = known;
        return error;
    }

    ZELError moveFiles()
    {
        for (const QString &name : std::as_const(m_made)) {
            if (const ZELError error = replaceFile(m_scratch.filePath(name), place(name)))
                return error;
            m_moved.append(name);
        }
        return settleFolder(m_folder);
    }

    // The feed may have been edited by hand since it was read.
    ZELError appendRecord(const QString &feed)
    {
        QJsonArray records;
        if (const ZELError error = ReleaseFolder(m_folder).read(records))
            return error;
        if (const ZELError error = checkSigning(m_folder, records, m_options))
            return error;
        if (const ZELError error = openFeed(records, m_options.signing, m_options.say))
            return error;
        records.append(m_added.record);
        if (const ZELError error = signs() ? signFeed(records, m_options.signing) : ZELError())
            return error;
        m_added.record = records.last().toObject();
        return writeDurably(feed, QJsonDocument(records).toJson());
    }

    bool signs() const { return !m_options.signing.signers.isEmpty(); }

    QString stem() const { return m_build.name + u'-' + QString::number(m_build.number); }
    QString place(const QString &name) const { return m_folder + u'/' + name; }

    const QString m_folder;
    const ReleaseFolder::Options &m_options;
    ReleaseFolder::Added &m_added;
    const ScratchFolder m_scratch;
    Build m_build;
    UpdateRecord m_record; // the new one
    QMap<QString, QString> m_unpacked; // bundles, by the names of their folders
    QStringList m_made; // names of files in the scratch folder that are finished
    QStringList m_moved;
};

ZELError lockFolder(const QString &folder, const std::function<void(const QString &)> &say,
                    FileDescriptor &lock)
{
    if (const ZELError error = makeDurableFolder(folder))
        return error;
    const QByteArray name = QFile::encodeName(folder + LockName);
    lock = FileDescriptor(::open(name.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666));
    if (!lock)
        return ZELError::fromErrno(QLatin1String("cannot write to ") + folder, errno);
    if (::flock(lock.get(), LOCK_EX | LOCK_NB) == 0)
        return {};
    if (errno == EWOULDBLOCK) {
        say(QLatin1String("Waiting for another release in ") + folder);
        if (uninterrupted([&lock] { return ::flock(lock.get(), LOCK_EX); }) == 0)
            return {};
    }
    return ZELError::fromErrno(QLatin1String("cannot lock ") + folder, errno);
}

ZELError describeAll(const QString &folder, QJsonArray &records)
{
    for (QJsonValueRef listed : records) {
        QJsonObject record = listed.toObject();
        if (const ZELError error = describeFiles(folder, record))
            return error;
        listed = record;
    }
    return {};
}

// The feed under the lock, and what its signatures hold, if it has any: files that are not theirs any more
// are no base of patches.
ZELError readSigned(const QString &folder, const ReleaseFolder::Options &options, QJsonArray &records)
{
    records = {};
    if (const ZELError error = ReleaseFolder(folder).read(records))
        return error;
    if (const ZELError error = checkSigning(folder, records, options))
        return error;
    if (options.signing.signers.isEmpty())
        return {};
    if (const ZELError error = openFeed(records, options.signing, options.say))
        return error;
    return describeAll(folder, records);
}

// What a record that nobody has signed says of its bundle is compared with the bundle.
ZELError adopt(const QString &folder, const FeedSigning &signing, QJsonObject &record)
{
    const ScratchFolder scratch(folder + ScratchName + QLatin1String("XXXXXX"));
    QString bundle;
    ZELError error = scratch.isValid() ? ZELError() : problem(scratch.errorString());
    if (!error) {
        extractArchive(folder + u'/' + nameOf(record[key::File]), scratch.filePath(QStringLiteral("proof")),
                       [&](bool, const QString &path, const ZELError &failed) {
                           bundle = path;
                           error = failed;
                       });
    }
    if (!error)
        error = verifySeal(bundle);
    const QString others = error
        ? QString()
        : missingAmong(sealSigners(bundle), fingerprintsOf(signing.signers) + signing.former);
    if (!error && bundleBuild(bundle) != buildOf(record))
        error = problem(QStringLiteral("the bundle in it is of another build"));
    if (!error && !others.isEmpty())
        error = problem(QStringLiteral("it is sealed by %1, whose key is not given").arg(others));
    if (error)
        return problem(QStringLiteral("the archive of build %1 cannot be signed for: %2")
                           .arg(buildOf(record))
                           .arg(error.message));
    const QString identifier =
        bundleInfo(bundle).value_or(QVariantMap())[QStringLiteral("CFBundleIdentifier")].toString();
    record[key::Identifier] = identifier;
    return {};
}

ZELError adoptUnsigned(const QString &folder, const ReleaseFolder::RefreshOptions &options,
                       QJsonArray &records)
{
    for (QJsonValueRef listed : records) {
        QJsonObject record = listed.toObject();
        if (record.contains(key::Signed))
            continue;
        if (!options.signUnsigned)
            return problem(QStringLiteral("build %1 in %2 is not signed; give --sign-unsigned if its record "
                                          "and files are yours")
                               .arg(buildOf(record))
                               .arg(folder));
        if (const ZELError error = describeFiles(folder, record))
            return error;
        if (const ZELError error = adopt(folder, options.signing, record))
            return error;
        listed = record;
    }
    return {};
}

// The feed may be a link; what it leads to is replaced.
QString feedFile(const QString &folder)
{
    const QFileInfo feed(folder + FeedName);
    return feed.isSymLink() ? feed.canonicalFilePath() : feed.filePath();
}

// Under the lock nobody works in them.
void sweepScratch(const QString &folder)
{
    const QStringList pattern{ScratchName.mid(1) + u'*'};
    for (const QString &name : QDir(folder).entryList(pattern, QDir::Dirs | QDir::Hidden | QDir::NoSymLinks))
        removeTree(folder + u'/' + name);
}

} // namespace

ZELError ReleaseFolder::read(QJsonArray &records) const
{
    bool isThere = false;
    if (const ZELError error = lookAt(m_path, isThere))
        return error;
    if (isThere && !QFileInfo(m_path).isDir())
        return problem(m_path + QLatin1String(" is not a folder, or a link that leads nowhere"));
    const QString feed = m_path + FeedName;
    if (const ZELError error = lookAt(feed, isThere); error || !isThere)
        return error;
    QByteArray bytes;
    if (const ZELError error = readPublished(feed, bytes))
        return error;
    const QJsonDocument json = QJsonDocument::fromJson(bytes);
    if (!json.isArray())
        return problem(feed + QLatin1String(" is not a feed: it must hold a JSON array"));
    records = json.array();
    return {};
}

ZELError ReleaseFolder::add(const QString &bundle, const Options &options, Added &added) const
{
    Build build;
    QByteArray notes;
    QJsonArray records;
    FileDescriptor lock;
    if (!options.notes.isEmpty()) {
        if (const ZELError error = readPublished(options.notes, notes))
            return error;
    }
    if (const ZELError error = Build::read(bundle, build))
        return error;
    if (liesWithin(m_path, bundle))
        return problem(QStringLiteral("%1 lies in %2, whose seal it would break; give another folder")
                           .arg(m_path, bundle));
    if (const ZELError error = read(records))
        return error;
    if (const ZELError error = checkSigning(m_path, records, options))
        return error;
    if (const ZELError error = lockFolder(m_path, options.say, lock))
        return error;
    if (const ZELError error = readSigned(m_path, options, records))
        return error;
    sweepScratch(m_path);
    for (const QJsonValue known : std::as_const(records)) {
        if (buildOf(known) == build.number)
            return problem(QStringLiteral("build %1 is already in %2").arg(build.number).arg(m_path));
    }
    Release release(m_path, options, added);
    if (const ZELError error = release.make(build, notes, records))
        return error;
    return release.publish(feedFile(m_path));
}

ZELError ReleaseFolder::refresh(const RefreshOptions &options, QList<qint64> &builds) const
{
    QJsonArray records;
    FileDescriptor lock;
    if (const ZELError error = read(records))
        return error;
    if (records.isEmpty())
        return problem(m_path + QLatin1String(" holds no releases"));
    if (const ZELError error = lockFolder(m_path, options.say, lock))
        return error;
    records = {};
    if (const ZELError error = read(records))
        return error;
    sweepScratch(m_path);
    if (const ZELError error = adoptUnsigned(m_path, options, records))
        return error;
    if (const ZELError error = openFeed(records, options.signing, options.say))
        return error;
    if (const ZELError error = describeAll(m_path, records))
        return error;
    for (const QJsonValue record : std::as_const(records))
        builds.append(buildOf(record));
    if (const ZELError error = signFeed(records, options.signing))
        return error;
    const Uninterrupted publishing;
    return writeDurably(feedFile(m_path), QJsonDocument(records).toJson());
}

} // namespace zel

#include "ReleaseFolder.h"

#include "base/FileDescriptor.h"
#include "FeedAdoption.h"
#include "FeedFile.h"
#include "FeedRecord.h"
#include "Interrupt.h"
#include "platform/Containment.h"
#include "platform/FileTree.h"
#include "Release.h"
#include "ReleaseFiles.h"

#include <QDir>
#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

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

const QLatin1String LockName("/.lock");
const QLatin1String ScratchPattern("/.release-XXXXXX");

ZELError problem(const QString &message)
{
    return ZELError::withMessage(message);
}

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

// The scratch folder is private, but who may write here may put another in its place.
void warnOfOthers(const QString &folder, const std::function<void(const QString &)> &say)
{
    struct stat status;
    if (::stat(QFile::encodeName(folder).constData(), &status) == 0 && (status.st_mode & S_IWOTH)
        && !(status.st_mode & S_ISVTX))
        say(QStringLiteral("anybody may write to %1, and exchange there what is about to be signed")
                .arg(folder));
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

// Under the lock nobody works in them.
void sweepScratch(const QString &folder)
{
    const QStringList pattern{ScratchPattern.mid(1).chopped(6) + u'*'};
    for (const QString &name : QDir(folder).entryList(pattern, QDir::Dirs | QDir::Hidden | QDir::NoSymLinks))
        removeTree(folder + u'/' + name);
}

ZELError checkScratch(const QString &folder, const ScratchFolder &scratch)
{
    return scratch.isValid()
        ? ZELError()
        : problem(QStringLiteral("cannot write to %1: %2").arg(folder, scratch.errorString()));
}

ZELError readReleases(const QString &folder, QJsonArray &records)
{
    if (const ZELError error = readFeed(folder, records))
        return error;
    return records.isEmpty() ? problem(folder + QLatin1String(" holds no releases")) : ZELError();
}

// A feed that nobody has signed, if all of it is vouched for.
ZELError adopt(const QString &folder, const ReleaseFolder::RefreshOptions &options, QJsonArray &records,
               QJsonArray &leftOut)
{
    QList<qint64> missing = options.signUnsigned;
    for (const QJsonValue record : std::as_const(records))
        missing.removeAll(buildOf(record));
    if (!missing.isEmpty())
        return problem(
            QStringLiteral("build %1 is to be signed, and is not in %2").arg(missing[0]).arg(folder));
    if (const ZELError error = checkVouched(folder, records, options.signUnsigned))
        return error;
    if (isSigned(records))
        return {};
    const ScratchFolder scratch(folder + ScratchPattern);
    if (const ZELError error = checkScratch(folder, scratch))
        return error;
    const ZELError error = adoptUnsigned(folder, scratch.path(), options.signing, records, leftOut);
    for (const QJsonValue patch : std::as_const(leftOut))
        options.say(QStringLiteral("build %1: its patch from build %2 is left out: %3")
                        .arg(buildOf(patch))
                        .arg(patch[QLatin1String("from")].toInteger())
                        .arg(patch[QLatin1String("reason")].toString()));
    return error;
}

} // namespace

ZELError ReleaseFolder::add(const QString &bundle, const Options &options, Added &added) const
{
    NewBuild build;
    QByteArray notes;
    QJsonArray records;
    FileDescriptor lock;
    if (!options.notes.isEmpty()) {
        if (const ZELError error = readInput(options.notes, FeedLimits::Bytes, notes))
            return error;
    }
    if (const ZELError error = NewBuild::read(bundle, build))
        return error;
    if (liesWithin(m_path, bundle))
        return problem(QStringLiteral("%1 lies in %2, whose seal it would break; give another folder")
                           .arg(m_path, bundle));
    if (const ZELError error = readFeed(m_path, records))
        return error;
    if (const ZELError error = lockFolder(m_path, options.say, lock))
        return error;
    sweepScratch(m_path);
    if (const ZELError error = openToAdd(m_path, options, records))
        return error;
    if (!options.signing.signers.isEmpty()) {
        warnOfOthers(m_path, options.say);
        // Files that are not those of the signatures any more are no base of patches.
        if (const ZELError error = describeAll(m_path, records))
            return error;
    }
    for (const QJsonValue known : std::as_const(records)) {
        if (buildOf(known) == build.number)
            return problem(QStringLiteral("build %1 is already in %2").arg(build.number).arg(m_path));
    }
    const ScratchFolder scratch(m_path + ScratchPattern);
    if (const ZELError error = checkScratch(m_path, scratch))
        return error;
    Release release(m_path, scratch, options, added);
    if (const ZELError error = release.make(build, notes, records))
        return error;
    return release.publish();
}

ZELError ReleaseFolder::refresh(const RefreshOptions &options, Refreshed &refreshed) const
{
    QJsonArray records;
    FileDescriptor lock;
    if (const ZELError error = readReleases(m_path, records))
        return error;
    if (const ZELError error = lockFolder(m_path, options.say, lock))
        return error;
    if (const ZELError error = readReleases(m_path, records))
        return error;
    warnOfOthers(m_path, options.say);
    sweepScratch(m_path);
    if (const ZELError error = adopt(m_path, options, records, refreshed.leftOut))
        return error;
    if (const ZELError error = openFeed(records, options.signing, options.say))
        return error;
    if (const ZELError error = describeAll(m_path, records))
        return error;
    for (const QJsonValue record : std::as_const(records))
        refreshed.builds.append(buildOf(record));
    if (const ZELError error = signFeed(records, options.signing))
        return error;
    const Uninterrupted publishing;
    return writeFeed(m_path, records, options.say);
}

} // namespace zel

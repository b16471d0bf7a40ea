// A folder of releases: archives, patches, notes, and the feed that lists them.
#pragma once

#include "common/ZELError.h"
#include "PatchMaker.h"
#include "SignedFeed.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <functional>

namespace zel {

/// The feed of a release folder (FeedFile.h): update records whose addresses ("file", "history") are relative
/// to the folder. The server makes them absolute.
class ReleaseFolder
{
public:
    explicit ReleaseFolder(const QString &path)
        : m_path(path)
    {
    }

    struct Options {
        QString notes; ///< an HTML file; empty for none
        QString arch; ///< the only architecture word that the build is for; empty for any
        bool beta = false;
        bool patchOnly = false; ///< offer the build only to installations that a patch can bring there
        bool noPatches = false; ///< make none
        QList<int> patchFormats = {1, 2}; ///< a patch of each; clients before format 2 take the first kind

        /// The seal may be others' than the last release's, or than those who sign the record.
        bool newSigner = false;

        bool startAnew = false; ///< sign a first record although files of earlier releases lie there

        FeedSigning signing = {}; ///< of the records; its `newSigner` is the one above
        qint64 memory = PatchMakerOptions().memory; ///< as there
        std::function<void(const QString &line)> say;
        std::function<void(const QString &step, qint64 done, qint64 total)> progress;
    };

    struct Added {
        QJsonObject record;
        QJsonArray leftOut; ///< patches that were not made: objects of "build", "format" and "reason"
    };

    /// Adds a sealed bundle: its full archive, proved by unpacking it as an installation would, patches from
    /// each earlier build that is in the folder, and its record. A patch that is no smaller than the archive,
    /// or of format 1 and would bring new executables, is left out and said; any other that cannot be
    /// made is an error. The bundle has to be of the application, and by the signers, of the release with the
    /// highest build.
    ///
    /// All is made in a hidden, private folder, and moved into place at the end: the files first, then the
    /// feed, each on the disk before the next. After an error, or when the process is ended at any point, the
    /// folder offers what it offered before; what a killed process left is removed by the next. One process
    /// at a time adds to a folder; others wait for it.
    ///
    /// With signers the record is signed, and all others again, with the same date; a feed that has signed
    /// records takes no other. One without records, where archives or patches of other builds lie, was
    /// emptied by somebody: an error, unless it is to start anew. Those who sealed the bundle must be among
    /// the signers, as a host judges the record and the seal by the same pins. SignedFeed.h says what is
    /// signed again.
    ZELError add(const QString &bundle, const Options &options, Added &added) const;

    struct RefreshOptions {
        FeedSigning signing;
        QList<qint64> signUnsigned = {}; ///< all builds of a feed that nobody has signed so far
        std::function<void(const QString &line)> say;
    };

    struct Refreshed {
        QList<qint64> builds; ///< that were signed
        QJsonArray leftOut; ///< patches that were not: objects of "build", "from" and "reason"
    };

    /// Signs all records again, as SignedFeed.h says, so that clients take them for another while; the feed
    /// is replaced at once, under the lock that `add` takes. A feed that nobody has signed is signed if all
    /// of its builds are named, by what its files are proved to be (FeedAdoption.h).
    ZELError refresh(const RefreshOptions &options, Refreshed &refreshed) const;

private:
    const QString m_path;
};

} // namespace zel

// A folder of releases: archives, patches, notes, and the feed that lists them.
#pragma once

#include "PatchMaker.h"
#include "ZELError.h"

#include <QJsonArray>
#include <QString>
#include <QStringList>

#include <functional>

class QTemporaryDir;

namespace zel {

/// The feed of a release folder: "releases.json", an array of update records whose addresses ("file", "history") are
/// relative to the folder. The server makes them absolute.
class ReleaseFolder
{
public:
    explicit ReleaseFolder(const QString &path)
        : m_path(path)
    {
    }

    /// Reads the feed; a folder without one has no records yet. An error when it cannot be read or is not an array.
    ZELError read(QJsonArray &records) const;

    struct Options {
        QString notes; ///< an HTML file; null for none
        QString arch; ///< the only architecture word that the build is for; null for any
        bool beta = false;
        bool patchOnly = false; ///< offer the build only to installations that a patch can bring there
        qint64 memory = halfOfMemory(); ///< as in PatchMakerOptions
        std::function<void(const QString &line)> say;
        std::function<void(const QString &step, qint64 done, qint64 total)> progress;
    };

    /// Adds a sealed bundle: its full archive, proved by unpacking it as an installation would, a patch from each
    /// earlier build that is in the folder, and its record. A patch that cannot be made, or is no smaller than the
    /// archive, is left out and said. The feed is written last: after an error the folder offers what it offered before.
    ZELError add(const QString &bundle, const Options &options, QJsonObject &record) const;

private:
    struct Build;
    ZELError addFiles(const Build &build, const QJsonArray &records, const Options &options,
                      QJsonObject &record, QStringList &files) const;
    ZELError addPatch(const Build &build, const QJsonObject &earlier, const Options &options,
                      qint64 archiveSize, QJsonArray &patches, QStringList &files) const;
    ZELError proveArchive(const QString &archive) const;
    ZELError unpack(const QString &archive, const QString &folder, QString &bundle) const;
    ZELError cannotWrite(const QTemporaryDir &scratch) const;
    QString scratchPattern() const { return m_path + QStringLiteral("/.release-XXXXXX"); }
    QString file(const QString &name) const { return m_path + u'/' + name; }

    const QString m_path;
};

} // namespace zel

// One build on its way into a release folder.
#pragma once

#include "common/UpdateRecord.h"
#include "Interrupt.h"
#include "ReleasedBundles.h"
#include "ReleaseFolder.h"
#include "seal/SealSignature.h"

namespace zel {

/// A sealed bundle that is to be released.
struct NewBuild {
    QString bundle;
    QString name; ///< of the application
    qint64 number = 0;
    QString version;
    QString identifier;
    QList<SealSigner> signers; ///< of its seal

    /// Reads what the bundle says of itself; an error where that, its name or its seal is not fit for a
    /// release.
    static ZELError read(const QString &bundle, NewBuild &build);
};

/// The records of a folder as one can be added to them: what is inside of their signatures, if they are to be
/// signed again. An error where they are signed, and the new one would not be, or the other way round.
ZELError openToAdd(const QString &folder, const ReleaseFolder::Options &options, QJsonArray &records);

/// One addition to a release folder, under the folder's lock. ReleaseFolder.cpp says in which order.
class Release
{
public:
    /// All of them must outlive it. `scratch` is in the folder.
    Release(const QString &folder, const ScratchFolder &scratch, const ReleaseFolder::Options &options,
            ReleaseFolder::Added &added);

    /// Makes archive, patches, notes and record in the scratch folder; `notes` are null where there are none.
    ZELError make(const NewBuild &build, const QByteArray &notes, const QJsonArray &records);

    /// Moves the files into place, and puts the record into the feed. After an error the files are removed,
    /// unless the feed may name them.
    ZELError publish();

private:
    bool signs() const { return !m_options.signing.signers.isEmpty(); }
    QString stem() const { return m_build.name + u'-' + QString::number(m_build.number); }
    QString place(const QString &name) const { return m_folder + u'/' + name; }

    ZELError checkBegin(const QJsonArray &records) const;
    ZELError compareWithSigners() const;
    ZELError compareWithLast(const QJsonArray &records);
    ZELError addArchive();
    ZELError addPatch(const QJsonObject &earlier, int format);
    ZELError leaveOut(const QJsonObject &earlier, int format, const QString &reason);
    ZELError addNotes(const QByteArray &html);
    ZELError announce(const QString &name, OfferedFile &offered);
    void finishRecord();
    ZELError moveFiles();
    ZELError appendRecord();
    bool mayBeNamed() const;

    const QString m_folder;
    const ScratchFolder &m_scratch;
    const ReleaseFolder::Options &m_options;
    ReleaseFolder::Added &m_added;
    ReleasedBundles m_earlier;
    NewBuild m_build;
    QString m_unpacked; // the bundle as the new archive unpacks
    UpdateRecord m_record; // the new one
    QStringList m_made; // names of files in the scratch folder that are finished
    QStringList m_moved;
};

} // namespace zel

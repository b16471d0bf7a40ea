// A file that is replaced together with another.
#pragma once

#include "base/FileDescriptor.h"
#include "common/ZELError.h"

#include <QByteArray>

#include <optional>

namespace zel {

/// The folder of a seal, open: what is written there cannot be led elsewhere by a link.
class SealFolder
{
public:
    /// Makes the folder where it is missing, and removes what an earlier run that was killed left in it.
    ZELError open(const QString &path);

    int descriptor() const { return m_folder.get(); }
    const QString &path() const { return m_path; }

    /// Brings the names in the folder, and its own, to the disk.
    ZELError settle() const;

private:
    QString m_path;
    FileDescriptor m_folder;
};

/// One file of a seal while it is replaced: its new content is written aside, to the disk, moved into place, and taken
/// back if need be. What was written aside and not moved goes with the object, or with the next `SealFolder::open`.
class SealFile
{
public:
    /// Remembers what is in the file, in memory, unless that is larger than `rememberedSize` bytes. The folder must
    /// outlive the object.
    SealFile(const SealFolder &folder, const QByteArray &name, qint64 rememberedSize);
    ~SealFile();
    SealFile(const SealFile &) = delete;
    SealFile &operator=(const SealFile &) = delete;

    ZELError writeAside(const QByteArray &bytes);

    ZELError moveIntoPlace();

    /// Undoes `moveIntoPlace`, as well as the disk lets it: the file is what it was before, or gone where none was.
    void putBack();

private:
    ZELError failure() const;

    const SealFolder &m_folder;
    const QByteArray m_name;
    std::optional<QByteArray> m_previous;
    bool m_moved = false;
};

} // namespace zel

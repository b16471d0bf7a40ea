// Made, locked and swept so that no step trusts a name twice. The root is opened once and judged by its
// descriptor; a folder is made and opened below that descriptor, locked, and then compared with what its name
// stands for now, because another process's sweep may have come between any two of these. Whoever loses that
// race tries again under a new name.
//
// A lock file beside each folder was rejected: it would need sweeping itself, and a folder without one could
// be a crashed process's or one being made. The lock on the folder itself has neither question.
#include "StagingFolder.h"

#include "platform/FileTree.h"
#include "PrivateFolder.h"

#include <QDir>
#include <QFile>
#include <QUuid>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

namespace zel {

namespace {

constexpr QLatin1String Purpose("staging folder");

bool isHeld(const FileDescriptor &root, const QByteArray &name, FileDescriptor &folder)
{
    folder = FileDescriptor(::openat(root.get(), name.constData(), RealFolderFlags));
    return folder && lock(folder) != Lock::Ours;
}

} // namespace

QString stagingRoot()
{
    return folderOfUpdater(QStringLiteral("Patch"));
}

QString newUUID()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}

ZELError StagingFolder::make(const QString &root, std::shared_ptr<StagingFolder> &folder)
{
    if (root.isEmpty())
        return ZELError::withMessage(
            QStringLiteral("there is no place for updates: HOME is not set to an absolute path"));
    // Again, when another process's sweep was quicker: with the new folder, or with a root that was empty.
    for (int attempt = 0; attempt < 16; ++attempt) {
        FileDescriptor parent;
        if (const ZELError error = makePrivateFolder(root))
            return error;
        if (const ZELError error = openPrivateFolder(root, Purpose, parent)) {
            if (!QFileInfo::exists(root))
                continue;
            return error;
        }
        const QString name = newUUID();
        const QByteArray encoded = name.toLatin1();
        if (::mkdirat(parent.get(), encoded.constData(), 0700) != 0 && errno != ENOENT)
            return ZELError::fromErrno(QLatin1String("cannot make a staging folder in ") + root, errno);
        FileDescriptor made(::openat(parent.get(), encoded.constData(), RealFolderFlags));
        if (made && lock(made) != Lock::Others && isStillThere(parent, encoded, made)) {
            const QString path = QDir::cleanPath(root) + u'/' + name + u'/';
            folder = std::shared_ptr<StagingFolder>(new StagingFolder(path, std::move(made)));
            return {};
        }
    }
    return ZELError::withMessage(QLatin1String("staging folders do not stay in ") + root);
}

void StagingFolder::remove()
{
    removeTree(QDir::cleanPath(m_path));
}

void sweepStaging(const QString &root)
{
    FileDescriptor parent;
    if (root.isEmpty() || openPrivateFolder(root, Purpose, parent))
        return;
    const QDir folder(QDir::cleanPath(root));
    const auto everything = QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot;
    for (const QString &name : folder.entryList(everything)) {
        FileDescriptor held; // until it is gone
        if (!isHeld(parent, QFile::encodeName(name), held))
            removeTree(folder.filePath(name));
    }
    ::rmdir(QFile::encodeName(folder.path()).constData()); // unless something is left
}

} // namespace zel

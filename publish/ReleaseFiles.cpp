#include "ReleaseFiles.h"

#include "base/FileDescriptor.h"
#include "BundleTree.h"
#include "install/MD5Digest.h"
#include "platform/FileContents.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>
#include <QLocale>

#include <archive.h>
#include <archive_entry.h>
#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace zel {

namespace {

ZELError cannot(const char *what, const QString &path)
{
    return ZELError::fromErrno(QLatin1String("cannot ") + QLatin1String(what) + u' ' + path, errno);
}

FileDescriptor openFile(const QString &path, int flags)
{
    return FileDescriptor(::open(QFile::encodeName(path).constData(), flags | O_CLOEXEC));
}

// Reads an open file from its begin until `take` has enough; nothing is added after an error.
template <typename Take> ZELError readOpenFile(const FileDescriptor &file, const QString &path, Take take)
{
    QByteArray buffer(1 << 18, Qt::Uninitialized);
    for (;;) {
        const ssize_t count = readSome(file.get(), buffer.data(), size_t(buffer.size()));
        if (count <= 0)
            return count == 0 ? ZELError() : cannot("read", path);
        if (!take(QByteArrayView(buffer).first(count)))
            return {};
    }
}

// Links in the last place are not followed; a pipe is opened without a writer, and refused then.
ZELError openPublished(const QString &path, FileDescriptor &file)
{
    struct stat status;
    file = openFile(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
    if (!file && errno == ELOOP)
        return ZELError::withMessage(path + QLatin1String(" is a link: put the file itself there"));
    if (!file || ::fstat(file.get(), &status) != 0)
        return cannot("read", path);
    return S_ISREG(status.st_mode) ? ZELError() : ZELError::withMessage(path + QLatin1String(" is no file"));
}

ZELError readBounded(const FileDescriptor &file, const QString &path, qint64 most, QByteArray &bytes)
{
    const ZELError error = readOpenFile(file, path, [&](QByteArrayView piece) {
        bytes += piece;
        return bytes.size() <= most;
    });
    return bytes.size() <= most
        ? error
        : ZELError::withMessage(path + QLatin1String(" is larger than ") + sizeText(most));
}

// On the disk, in place of what was there.
ZELError writeAnew(const QString &path, const QByteArray &bytes)
{
    QFile::remove(path);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly | QIODevice::Unbuffered)
        || file.write(bytes) != bytes.size())
        return ZELError::withMessage(QLatin1String("cannot write ") + path + QLatin1String(": ")
                                     + file.errorString());
    return ::fsync(file.handle()) == 0 ? ZELError() : cannot("write", path);
}

using Archive = std::unique_ptr<struct archive, decltype(&archive_write_free)>;
using ArchiveEntry = std::unique_ptr<struct archive_entry, decltype(&archive_entry_free)>;

ZELError archiveError(const QString &what, struct archive *archive)
{
    const char *text = archive_error_string(archive);
    const QString reason = QString::fromUtf8(text ? text : "unknown error");
    // Which says nothing of a full disk.
    return reason == QLatin1String("Write error")
        ? ZELError::fromErrno(what, archive_errno(archive))
        : ZELError::withMessage(what + QLatin1String(": ") + reason);
}

ZELError writeContent(struct archive *archive, const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
        return ZELError::withMessage(QLatin1String("cannot read ") + path + QLatin1String(": ")
                                     + file.errorString());
    QByteArray buffer(1 << 18, Qt::Uninitialized);
    for (;;) {
        const qint64 count = file.read(buffer.data(), buffer.size());
        if (count < 0)
            return ZELError::withMessage(QLatin1String("cannot read ") + path + QLatin1String(": ")
                                         + file.errorString());
        if (count == 0)
            return {};
        if (archive_write_data(archive, buffer.constData(), size_t(count)) != count)
            return archiveError(QLatin1String("cannot archive ") + path, archive);
    }
}

// What the updater makes of any mode, so that an archive does not depend on its maker's umask either.
mode_t modeOf(const TreeItem &item)
{
    switch (item.kind) {
    case TreeItem::Folder:
        return S_IFDIR | 0755;
    case TreeItem::Link:
        return S_IFLNK | 0777;
    default:
        return S_IFREG | (item.isExecutable() ? 0755 : 0644);
    }
}

ZELError writeItem(struct archive *archive, const QString &path, const QString &name, const TreeItem &item)
{
    struct stat status;
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return ZELError::fromErrno(QLatin1String("cannot read ") + path, errno);
    const ArchiveEntry entry(archive_entry_new(), archive_entry_free);
    archive_entry_set_pathname_utf8(entry.get(), name.toUtf8().constData());
    archive_entry_set_mode(entry.get(), modeOf(item));
    archive_entry_set_mtime(entry.get(), status.st_mtime, 0);
    if (item.kind == TreeItem::File)
        archive_entry_set_size(entry.get(), status.st_size);
    if (item.kind == TreeItem::Link)
        archive_entry_set_symlink_utf8(entry.get(), item.target.toUtf8().constData());
    if (archive_write_header(archive, entry.get()) != ARCHIVE_OK)
        return archiveError(QLatin1String("cannot archive ") + path, archive);
    return item.kind == TreeItem::File ? writeContent(archive, path) : ZELError();
}

ZELError writeTree(struct archive *archive, const QString &bundle, const BundleTree &tree)
{
    const QString top = QFileInfo(bundle).fileName();
    TreeItem root;
    root.kind = TreeItem::Folder;
    if (const ZELError error = writeItem(archive, bundle, top, root))
        return error;
    for (const auto &[path, item] : tree) {
        if (const ZELError error = writeItem(archive, bundle + u'/' + path, top + u'/' + path, item))
            return error;
    }
    return {};
}

// A file of n * `MD5Digest::ChunkSize` bytes has no hash to check it by (MD5FromData.h), so an archive never
// has such a size: it ends in a comment of one byte then, whose length stands in the last two bytes of an
// archive without one.
ZELError avoidSizeWithoutHash(const QString &path)
{
    QFile file(path);
    if (file.size() % MD5Digest::ChunkSize != 0)
        return {};
    const QByteArrayView commentOfOne("\1\0 ", 3);
    const bool written = file.open(QIODevice::ReadWrite | QIODevice::ExistingOnly)
        && file.seek(file.size() - 2)
        && file.write(commentOfOne.data(), commentOfOne.size()) == commentOfOne.size() && file.flush();
    return written ? ZELError()
                   : ZELError::withMessage(QLatin1String("cannot write ") + path + QLatin1String(": ")
                                           + file.errorString());
}

} // namespace

ZELError readPublished(const QString &path, qint64 most, QByteArray &bytes)
{
    FileDescriptor file;
    const ZELError error = openPublished(path, file);
    return error ? error : readBounded(file, path, most, bytes);
}

ZELError readInput(const QString &path, qint64 most, QByteArray &bytes)
{
    const FileDescriptor file = openFile(path, O_RDONLY);
    return file ? readBounded(file, path, most, bytes) : cannot("read", path);
}

ZELError copyPublished(const QString &path, const QString &copy)
{
    FileDescriptor from;
    if (const ZELError error = openPublished(path, from))
        return error;
    const FileDescriptor to(
        ::open(QFile::encodeName(copy).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
    return to && copyData(from.get(), to.get()) ? ZELError() : cannot("copy", path);
}

ZELError writeDurably(const QString &path, const QByteArray &bytes)
{
    const QFileInfo place(path);
    // Always the same name: what a run that was killed left here is gone with the next.
    const QString aside = place.path() + QLatin1String("/.") + place.fileName() + QLatin1String(".new");
    ZELError error = writeAnew(aside, bytes);
    if (!error)
        error = replaceFile(aside, path);
    if (error) {
        QFile::remove(aside);
        return error;
    }
    return settleFolder(place.path());
}

ZELError settleFile(const QString &path, OfferedFile &facts)
{
    FileDescriptor file;
    if (const ZELError error = openPublished(path, file))
        return error;
    if (::fsync(file.get()) != 0)
        return cannot("write", path);
    qint64 size = 0;
    MD5Digest md5;
    QCryptographicHash sha256(QCryptographicHash::Sha256);
    const ZELError error = readOpenFile(file, path, [&](QByteArrayView piece) {
        size += piece.size();
        md5.add(piece);
        sha256.addData(piece);
        return true;
    });
    if (error)
        return error;
    facts.size = size;
    facts.hash = md5.result().value_or(QString());
    facts.sha256 = QString::fromLatin1(sha256.result().toHex());
    return {};
}

ZELError settleFolder(const QString &path)
{
    const FileDescriptor folder = openFile(path, O_RDONLY | O_DIRECTORY);
    return folder && ::fsync(folder.get()) == 0 ? ZELError() : cannot("write to", path);
}

ZELError makeDurableFolder(const QString &folder)
{
    if (QFileInfo(folder).isDir())
        return {};
    const QString above = QFileInfo(folder).path();
    if (const ZELError error = makeDurableFolder(above))
        return error;
    if (::mkdir(QFile::encodeName(folder).constData(), 0777) != 0 && errno != EEXIST)
        return ZELError::fromErrno(QLatin1String("cannot make the folder ") + folder, errno);
    return settleFolder(above);
}

ZELError lookAt(const QString &path, bool &isThere)
{
    struct stat status;
    isThere = ::lstat(QFile::encodeName(path).constData(), &status) == 0;
    return isThere || errno == ENOENT ? ZELError()
                                      : ZELError::fromErrno(QLatin1String("cannot look at ") + path, errno);
}

QString sizeText(qint64 bytes)
{
    return QLocale::c().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat);
}

ZELError writeBundleZip(const QString &bundle, const QString &zipPath)
{
    BundleTree tree;
    if (const ZELError error = readBundleTree(bundle, tree))
        return error;
    const QString aside = zipPath + QLatin1String(".part");
    const Archive archive(archive_write_new(), archive_write_free);
    archive_write_set_format_zip(archive.get());
    archive_write_set_options(archive.get(),
                              "zip:compression=deflate,zip:compression-level=9,zip:hdrcharset=UTF-8");
    if (archive_write_open_filename(archive.get(), QFile::encodeName(aside).constData()) != ARCHIVE_OK)
        return archiveError(QLatin1String("cannot write ") + zipPath, archive.get());
    ZELError error = writeTree(archive.get(), bundle, tree);
    if (archive_write_close(archive.get()) != ARCHIVE_OK && !error)
        error = archiveError(QLatin1String("cannot write ") + zipPath, archive.get());
    if (!error)
        error = avoidSizeWithoutHash(aside);
    if (!error)
        error = replaceFile(aside, zipPath);
    if (error)
        QFile::remove(aside);
    return error;
}

} // namespace zel

#include "ZipWriter.h"

#include "BundleTree.h"
#include "platform/FileContents.h"

#include <QFile>
#include <QFileInfo>

#include <archive.h>
#include <archive_entry.h>
#include <memory>
#include <sys/stat.h>

namespace zel {

namespace {

using Archive = std::unique_ptr<struct archive, decltype(&archive_write_free)>;
using Entry = std::unique_ptr<struct archive_entry, decltype(&archive_entry_free)>;

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
mode_t modeOf(const BundleItem &item)
{
    switch (item.kind) {
    case BundleItem::Folder:
        return S_IFDIR | 0755;
    case BundleItem::Link:
        return S_IFLNK | 0777;
    default:
        return S_IFREG | (item.executable ? 0755 : 0644);
    }
}

ZELError writeItem(struct archive *archive, const QString &path, const QString &name, const BundleItem &item)
{
    struct stat status;
    if (::lstat(QFile::encodeName(path).constData(), &status) != 0)
        return ZELError::fromErrno(QLatin1String("cannot read ") + path, errno);
    const Entry entry(archive_entry_new(), archive_entry_free);
    archive_entry_set_pathname_utf8(entry.get(), name.toUtf8().constData());
    archive_entry_set_mode(entry.get(), modeOf(item));
    archive_entry_set_mtime(entry.get(), status.st_mtime, 0);
    if (item.kind == BundleItem::File)
        archive_entry_set_size(entry.get(), status.st_size);
    if (item.kind == BundleItem::Link)
        archive_entry_set_symlink_utf8(entry.get(), item.target.toUtf8().constData());
    if (archive_write_header(archive, entry.get()) != ARCHIVE_OK)
        return archiveError(QLatin1String("cannot archive ") + path, archive);
    return item.kind == BundleItem::File ? writeContent(archive, path) : ZELError();
}

ZELError writeTree(struct archive *archive, const QString &bundle, const BundleTree &tree)
{
    const QString top = QFileInfo(bundle).fileName();
    BundleItem root;
    root.kind = BundleItem::Folder;
    if (const ZELError error = writeItem(archive, bundle, top, root))
        return error;
    for (const auto &[path, item] : tree) {
        if (const ZELError error = writeItem(archive, bundle + u'/' + path, top + u'/' + path, item))
            return error;
    }
    return {};
}

// A file of n * 32768 bytes has no hash to check it by (MD5FromData.h), so an archive never has such a size:
// it ends in a comment of one byte then, whose length stands in the last two bytes of an archive without one.
ZELError avoidSizeWithoutHash(const QString &path)
{
    constexpr qint64 hashedChunk = 32768;
    QFile file(path);
    if (file.size() % hashedChunk != 0)
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

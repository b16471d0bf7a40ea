#include "ReleaseFiles.h"

#include "base/FileDescriptor.h"
#include "install/MD5Digest.h"
#include "platform/FileContents.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <fcntl.h>
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

// Reads an open file from its begin; nothing is added after an error.
template <typename Take> ZELError readOpenFile(const FileDescriptor &file, const QString &path, Take take)
{
    QByteArray buffer(1 << 18, Qt::Uninitialized);
    for (;;) {
        const ssize_t count = readSome(file.get(), buffer.data(), size_t(buffer.size()));
        if (count <= 0)
            return count == 0 ? ZELError() : cannot("read", path);
        take(QByteArrayView(buffer).first(count));
    }
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

} // namespace

ZELError readPublished(const QString &path, QByteArray &bytes)
{
    const FileDescriptor file = openFile(path, O_RDONLY);
    if (!file)
        return cannot("read", path);
    return readOpenFile(file, path, [&bytes](QByteArrayView piece) { bytes += piece; });
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

ZELError settleFile(const QString &path, QJsonObject &facts)
{
    const FileDescriptor file = openFile(path, O_RDONLY);
    if (!file)
        return cannot("read", path);
    if (::fsync(file.get()) != 0)
        return cannot("write", path);
    qint64 size = 0;
    MD5Digest md5;
    QCryptographicHash sha256(QCryptographicHash::Sha256);
    const ZELError error = readOpenFile(file, path, [&](QByteArrayView piece) {
        size += piece.size();
        md5.add(piece);
        sha256.addData(piece);
    });
    if (error)
        return error;
    facts[QLatin1String("size")] = size;
    facts[QLatin1String("hash")] = md5.result().value_or(QString());
    facts[QLatin1String("sha256")] = QString::fromLatin1(sha256.result().toHex());
    return {};
}

ZELError settleFolder(const QString &path)
{
    const FileDescriptor folder = openFile(path, O_RDONLY | O_DIRECTORY);
    return folder && ::fsync(folder.get()) == 0 ? ZELError() : cannot("write to", path);
}

} // namespace zel

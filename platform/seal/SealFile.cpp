#include "SealFile.h"

#include <QFile>

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zel {

namespace {

// Always the same name, so that what a killed process left is known for what it is: sealed in, it could never go.
QByteArray asideOf(const QByteArray &name)
{
    return '.' + name + ".new";
}

} // namespace

ZELError SealFolder::open(const QString &path)
{
    m_path = path;
    const QByteArray name = QFile::encodeName(path);
    const auto cannot = [&path](const char *what) {
        return ZELError::fromErrno(QLatin1String("cannot ") + QLatin1String(what) + u' ' + path, errno);
    };
    if (::mkdir(name.constData(), 0777) != 0 && errno != EEXIST)
        return cannot("make");
    m_folder = FileDescriptor(::open(name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!m_folder)
        return cannot("open");
    for (const char *file : {"CodeResources", "CodeSignature"}) {
        if (::unlinkat(m_folder.get(), asideOf(file).constData(), 0) != 0 && errno != ENOENT)
            return cannot("write to");
    }
    return {};
}

ZELError SealFolder::settle() const
{
    const FileDescriptor above(::openat(m_folder.get(), "..", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return ::fsync(m_folder.get()) == 0 && above && ::fsync(above.get()) == 0
        ? ZELError()
        : ZELError::fromErrno(QLatin1String("cannot write to ") + m_path, errno);
}

SealFile::SealFile(const SealFolder &folder, const QByteArray &name, qint64 rememberedSize)
    : m_folder(folder)
    , m_name(name)
{
    const FileDescriptor file(
        ::openat(folder.descriptor(), name.constData(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    QFile previous;
    if (file && previous.open(file.get(), QIODevice::ReadOnly) && previous.size() <= rememberedSize)
        m_previous = previous.readAll();
}

SealFile::~SealFile()
{
    ::unlinkat(m_folder.descriptor(), asideOf(m_name).constData(), 0);
}

ZELError SealFile::writeAside(const QByteArray &bytes)
{
    // Known before the other file is moved, which would have to be put back.
    struct stat status;
    if (::fstatat(m_folder.descriptor(), m_name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0
        && S_ISDIR(status.st_mode)) {
        errno = EISDIR;
        return failure();
    }
    FileDescriptor file(::openat(m_folder.descriptor(), asideOf(m_name).constData(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    return file && writeAll(file.get(), bytes.constData(), size_t(bytes.size())) && ::fsync(file.get()) == 0
            && file.close()
        ? ZELError()
        : failure();
}

ZELError SealFile::moveIntoPlace()
{
    const int folder = m_folder.descriptor();
    m_moved = ::renameat(folder, asideOf(m_name).constData(), folder, m_name.constData()) == 0;
    return m_moved ? ZELError() : failure();
}

void SealFile::putBack()
{
    if (m_moved && !m_previous)
        ::unlinkat(m_folder.descriptor(), m_name.constData(), 0);
    else if (m_moved && !writeAside(*m_previous))
        moveIntoPlace();
}

ZELError SealFile::failure() const
{
    return ZELError::fromErrno(
        QLatin1String("cannot write ") + m_folder.path() + u'/' + QFile::decodeName(m_name), errno);
}

} // namespace zel

// A file is replaced in one step: the new one is written beside it, in the same file system, and renamed.
// Others see the old content or the new one, never half of it. That is a promise to other processes and not
// to the disk: those who need it to outlast a power failure (a seal, a release folder) bring it there
// themselves.
//
// Copies take the cheapest way that both file systems know: data shared as a clone costs neither time nor
// space, a copy inside the kernel no way through memory. Only then it is read and written. A bundle of
// gigabytes is copied with every patch, so this decides how long an update takes.
#include "FileContents.h"

#include "base/SystemCalls.h"

#include <QFile>
#include <QUuid>

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#ifdef __linux__
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>
#endif

namespace zel {

namespace {

bool copyThroughMemory(int from, int to)
{
    std::vector<char> buffer(1 << 18);
    for (;;) {
        const ssize_t count = readSome(from, buffer.data(), buffer.size());
        if (count <= 0)
            return count == 0;
        if (!writeAll(to, buffer.data(), size_t(count)))
            return false;
    }
}

#ifdef __linux__

constexpr size_t CopyStep = size_t(1) << 30;

bool cannotCopyInKernel(int number)
{
    return number == EXDEV || number == EINVAL || number == ENOSYS || number == EOPNOTSUPP || number == EPERM;
}

std::vector<std::string> attributeNames(int file)
{
    std::vector<std::string> names;
    const ssize_t size = ::flistxattr(file, nullptr, 0);
    if (size <= 0)
        return names;
    std::vector<char> list(static_cast<size_t>(size));
    const ssize_t length = ::flistxattr(file, list.data(), list.size());
    for (ssize_t at = 0; at < length; at += ssize_t(names.back().size()) + 1)
        names.emplace_back(list.data() + at);
    return names;
}

bool mayBeLeftOut(int number)
{
    return number == ENOTSUP || number == EPERM || number == EACCES || number == ENODATA;
}

bool copyExtendedAttributes(int from, int to)
{
    for (const std::string &name : attributeNames(from)) {
        const ssize_t size = ::fgetxattr(from, name.c_str(), nullptr, 0);
        std::vector<char> value(size > 0 ? static_cast<size_t>(size) : 0);
        if (size < 0 || ::fgetxattr(from, name.c_str(), value.data(), value.size()) != size)
            continue;
        if (::fsetxattr(to, name.c_str(), value.data(), value.size(), 0) != 0 && !mayBeLeftOut(errno))
            return false;
    }
    return true;
}

#else

bool copyExtendedAttributes(int, int)
{
    return true;
}

#endif

// As for `replaceFile`, with errno. ENOTSUP: a user who names a device wants the bytes to go into it, and
// root could take it away from everybody.
bool moveIntoPlace(int folder, const QByteArray &aside, const QByteArray &name)
{
    struct stat status;
    if (::fstatat(folder, name.constData(), &status, 0) == 0 && !S_ISREG(status.st_mode)
        && !S_ISDIR(status.st_mode)) {
        errno = ENOTSUP;
        return false;
    }
    return ::renameat(folder, aside.constData(), folder, name.constData()) == 0;
}

} // namespace

std::optional<QByteArray> readFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return std::nullopt;
    return bytes;
}

// The name is not made of the file's own, which may be as long as names can be.
FileAside::FileAside(int folder, const QByteArray &name)
    : m_folder(folder)
    , m_name(name)
    , m_aside(name.left(name.lastIndexOf('/') + 1) + '.' + QUuid::createUuid().toByteArray(QUuid::Id128))
    , m_file(::openat(folder, m_aside.constData(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666))
{
    if (!m_file)
        m_aside = {}; // it may be another's
}

FileAside::~FileAside()
{
    if (!m_aside.isNull())
        ::unlinkat(m_folder, m_aside.constData(), 0);
}

bool FileAside::moveIntoPlace()
{
    if (!m_file.close() || !zel::moveIntoPlace(m_folder, m_aside, m_name))
        return false;
    m_aside = {};
    return true;
}

bool writeFileAtomically(int folder, const QByteArray &name, QByteArrayView bytes)
{
    int number = 0;
    {
        FileAside file(folder, name);
        if (file && writeAll(file.descriptor(), bytes.data(), size_t(bytes.size())) && file.moveIntoPlace())
            return true;
        number = errno;
    }
    errno = number;
    return false;
}

ZELError replaceFile(const QString &aside, const QString &path)
{
    return moveIntoPlace(AT_FDCWD, QFile::encodeName(aside), QFile::encodeName(path))
        ? ZELError()
        : ZELError::fromErrno(QLatin1String("cannot write ") + path, errno);
}

ZELError writeFileAtomically(const QString &path, QByteArrayView bytes)
{
    return writeFileAtomically(AT_FDCWD, QFile::encodeName(path), bytes)
        ? ZELError()
        : ZELError::fromErrno(QLatin1String("cannot write ") + path, errno);
}

bool copyData(int from, int to)
{
#ifdef __linux__
    if (::ioctl(to, FICLONE, from) == 0)
        return true;
    bool copied = false;
    for (;;) {
        const ssize_t count =
            uninterrupted([=] { return ::copy_file_range(from, nullptr, to, nullptr, CopyStep, 0); });
        if (count < 0 && !cannotCopyInKernel(errno))
            return false;
        // Some kernels answer 0 for files that have data but no size: those are read as streams.
        if (count < 0 || (count == 0 && !copied))
            break;
        if (count == 0)
            return true;
        copied = true;
    }
#endif
    return copyThroughMemory(from, to);
}

bool copyAttributes(int from, int to, const struct stat &status)
{
    return copyExtendedAttributes(from, to) && ::fchmod(to, status.st_mode & 0777) == 0
        && ::futimens(to, timesOf(status).data()) == 0;
}

ZELError requireSpace(const QString &folder, qint64 bytes)
{
    const FileDescriptor opened(
        ::open(QFile::encodeName(folder).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened)
        return ZELError::fromErrno(QLatin1String("cannot read ") + folder, errno);
    const std::optional<std::int64_t> writable = writableBytes(opened.get());
    if (!writable || bytes <= *writable)
        return {};
    return ZELError::withMessage(QStringLiteral("too little free space in %1: %2 bytes are missing")
                                     .arg(folder)
                                     .arg(bytes - *writable));
}

} // namespace zel

// Two files for each: HASH.part, which is locked by the process that writes it, and HASH.validator, which
// says what version of the file at the server the bytes are of. Bytes are worth nothing without that, so it
// goes first and comes last: it is removed before the part is emptied, and written before the first byte
// comes. A process may be killed between any two of these.
//
// Neither file is trusted for its name. Another program of the user's may have put a link there, or a pipe
// that nobody writes to; and the bytes may be anything, which only the hash finds out in the end. The
// validator goes into a header, so it is read within bounds and must be one.
#include "PartialDownload.h"

#include "net/PartialContent.h"
#include "platform/FileContents.h"
#include "platform/FileTree.h"
#include "PrivateFolder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <map>
#include <sys/stat.h>
#include <thread>
#include <utility>
#include <vector>

namespace zel {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int FileFlags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
constexpr QLatin1String Purpose("folder of downloads");
const char *const PartSuffix = ".part";
const char *const ValidatorSuffix = ".validator";

constexpr size_t MostKept = 4;
constexpr qint64 MostBytes = qint64(16) << 30; // of all; as long as an archive may be
constexpr time_t LongestKept = 14 * 24 * 60 * 60;

bool isHash(QByteArrayView text)
{
    return text.size() == 64 && std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
           });
}

// A second name would have a file elsewhere written to.
bool isOwn(const FileDescriptor &file)
{
    struct stat status;
    return file && ::fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1
        && status.st_uid == ::geteuid() && !(status.st_mode & (S_IWGRP | S_IWOTH));
}

qint64 lengthOf(const FileDescriptor &file)
{
    struct stat status;
    return ::fstat(file.get(), &status) == 0 ? qint64(status.st_size) : 0;
}

struct Kept {
    QByteArray hash;
    time_t written;
    qint64 size;
};

// Newest first; at the end, as if they were as old as can be, what is no file and validators of none.
std::vector<Kept> partsIn(FolderListing &listing)
{
    std::map<QByteArray, Kept> parts;
    while (const char *entry = listing.next()) {
        const QByteArray name(entry);
        const QByteArray hash = name.left(name.indexOf('.'));
        if (!isHash(hash) || (name != hash + PartSuffix && name != hash + ValidatorSuffix))
            continue;
        struct stat status;
        const QByteArray part = hash + PartSuffix;
        const bool isFile = ::fstatat(listing.folder(), part.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0
            && S_ISREG(status.st_mode);
        parts[hash] = isFile ? Kept{hash, status.st_mtime, status.st_size} : Kept{hash, 0, 0};
    }
    std::vector<Kept> sorted;
    for (const auto &[hash, part] : parts)
        sorted.push_back(part);
    std::sort(sorted.begin(), sorted.end(),
              [](const Kept &a, const Kept &b) { return a.written > b.written; });
    return sorted;
}

// What is no file of ours but has the name of one cannot be written, and makes room. Not so what was ours
// until another process removed it just now, which may have a new one there.
FileDescriptor openPart(const FileDescriptor &folder, const QByteArray &name)
{
    FileDescriptor file(::openat(folder.get(), name.constData(), O_RDWR | O_CREAT | FileFlags, 0600));
    if (isOwn(file))
        return file;
    if (file ? isStillThere(folder, name, file) : errno == ELOOP || errno == EISDIR || errno == ENXIO)
        removeItem(folder.get(), name.constData());
    return FileDescriptor();
}

Lock lockUntil(Clock::time_point end, const std::stop_token &stop, const FileDescriptor &file)
{
    constexpr std::chrono::milliseconds pause(10);
    for (;;) {
        const Lock result = lock(file);
        if (result != Lock::Others || stop.stop_requested() || Clock::now() >= end)
            return result;
        std::this_thread::sleep_for(pause);
    }
}

// The validator first: the part alone is worth nothing, but the other way round the next one would find bytes
// of another version under it. Both under the lock: whoever has it next begins with files of his own.
void removeBoth(const FileDescriptor &folder, const QByteArray &hash)
{
    removeItem(folder.get(), (hash + ValidatorSuffix).constData());
    removeItem(folder.get(), (hash + PartSuffix).constData());
}

// A part that is missing is made, for its lock: another process may be about to begin with that very file,
// and the validator to be its own.
void removeKept(const FileDescriptor &folder, const QByteArray &hash)
{
    const FileDescriptor file = openPart(folder, hash + PartSuffix);
    if (file && lock(file) == Lock::Ours && isStillThere(folder, hash + PartSuffix, file))
        removeBoth(folder, hash);
}

} // namespace

QString downloadRoot()
{
    return folderOfUpdater(QStringLiteral("Download"));
}

std::shared_ptr<PartialDownload> PartialDownload::take(const QString &root, const QString &sha256,
                                                       qint64 size, std::chrono::milliseconds patience,
                                                       const std::stop_token &stop)
{
    const QByteArray hash = sha256.toLower().toLatin1();
    if (root.isEmpty() || !isHash(hash))
        return nullptr;
    const Clock::time_point end = Clock::now() + patience;
    // Again, when another process removed the folder because it was empty, or has just finished the file.
    for (int attempt = 0; attempt < 16; ++attempt) {
        FileDescriptor folder;
        if (makePrivateFolder(root))
            return nullptr;
        if (openPrivateFolder(root, Purpose, folder)) {
            if (!QFileInfo::exists(root))
                continue;
            return nullptr;
        }
        FileDescriptor file = openPart(folder, hash + PartSuffix);
        if (!file)
            continue;
        if (lockUntil(end, stop, file) != Lock::Ours)
            return nullptr;
        if (!isStillThere(folder, hash + PartSuffix, file))
            continue;
        const std::shared_ptr<PartialDownload> part(
            new PartialDownload(QDir::cleanPath(root), hash, std::move(folder), std::move(file)));
        part->readValidator(size);
        return part;
    }
    return nullptr;
}

void PartialDownload::readValidator(qint64 size)
{
    const QByteArray name = m_name + ValidatorSuffix;
    const FileDescriptor file(::openat(m_folder.get(), name.constData(), O_RDONLY | FileFlags));
    char text[1024];
    const ssize_t length = isOwn(file) ? readSome(file.get(), text, sizeof text) : 0;
    const QByteArray validator(text, std::max<ssize_t>(length, 0));
    if (isValidator(validator) && (size < 0 || lengthOf(m_file) <= size))
        m_validator = validator;
    setContinued(kept() > 0);
}

void PartialDownload::letGo()
{
    if (!m_file)
        return;
    if (kept() == 0)
        remove();
    m_file = FileDescriptor();
    ::rmdir(QFile::encodeName(m_root).constData()); // unless something is kept there
}

void PartialDownload::discard()
{
    if (m_file)
        remove();
    letGo();
}

QString PartialDownload::location() const
{
    return m_root + u'/' + QString::fromLatin1(m_name) + QLatin1String(PartSuffix);
}

bool PartialDownload::startAgain(const QByteArray &validator)
{
    const QByteArray name = m_name + ValidatorSuffix;
    setContinued(false);
    m_validator.clear();
    if (!removeItem(m_folder.get(), name.constData()) && errno != ENOENT)
        return false;
    if (::ftruncate(m_file.get(), 0) != 0)
        return false;
    if (!validator.isEmpty())
        writeValidator(validator);
    return true;
}

// The validator goes while the name is still locked: under the next part of that name lies one of its own.
bool PartialDownload::moveTo(const QString &path)
{
    const QByteArray part = m_name + PartSuffix;
    const QByteArray target = QFile::encodeName(path);
    const QByteArray validator = std::exchange(m_validator, {});
    removeItem(m_folder.get(), (m_name + ValidatorSuffix).constData());
    if (::renameat(m_folder.get(), part.constData(), AT_FDCWD, target.constData()) != 0
        && (errno != EXDEV || !copyTo(target))) {
        const int error = errno;
        writeValidator(validator);
        errno = error;
        return false;
    }
    letGo();
    return true;
}

bool PartialDownload::copyTo(const QByteArray &target)
{
    FileDescriptor copy(
        ::open(target.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    return copy && ::lseek(m_file.get(), 0, SEEK_SET) == 0 && copyData(m_file.get(), copy.get())
        && copy.close();
}

// What has the names by now is another's where this one's part was moved away.
void PartialDownload::remove()
{
    if (isStillThere(m_folder, m_name + PartSuffix, m_file))
        removeBoth(m_folder, m_name);
    m_validator.clear();
}

// Without it the next process begins again.
void PartialDownload::writeValidator(const QByteArray &validator)
{
    const QByteArray name = m_name + ValidatorSuffix;
    FileDescriptor file(
        ::openat(m_folder.get(), name.constData(), O_WRONLY | O_CREAT | O_EXCL | FileFlags, 0600));
    if (file && writeAll(file.get(), validator.constData(), size_t(validator.size())) && file.close())
        m_validator = validator;
}

void sweepDownloads(const QString &root)
{
    FileDescriptor folder;
    if (root.isEmpty() || openPrivateFolder(root, Purpose, folder))
        return;
    FolderListing listing(folder.get(), ".");
    if (!listing)
        return;
    const time_t now = ::time(nullptr);
    size_t left = 0;
    qint64 bytes = 0;
    for (const Kept &part : partsIn(listing)) {
        const bool fits = left < MostKept && part.size <= MostBytes - bytes;
        if (!fits || std::llabs(now - part.written) > LongestKept) {
            removeKept(folder, part.hash);
        } else {
            ++left;
            bytes += part.size;
        }
    }
    ::rmdir(QFile::encodeName(QDir::cleanPath(root)).constData()); // unless something is left
}

} // namespace zel

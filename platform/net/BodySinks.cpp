// A body is a stranger's, and so is the length that it announces. The announced length is judged before the
// first byte is taken, the real one with each piece. For a file, the disk's free space counts too: others
// write to it meanwhile, so it is asked again for each MiB (`allow`), and not for each piece, which would be
// a system call for every read of the network.
#include "BodySinks.h"

#include "base/SystemCalls.h"
#include "URLRequest.h"

#include <QDir>
#include <QFileInfo>

namespace zel {

namespace {

constexpr qint64 GrantSize = 1024 * 1024;

ZELError tooLong(qint64 limit)
{
    ZELError error =
        ZELError::withMessage(QStringLiteral("the answer is longer than the limit of %1 bytes").arg(limit));
    error.code = URLErrorCode::TooLong;
    return error;
}

} // namespace

BodyInMemory::BodyInMemory(qint64 limit)
    : m_limit(limit)
{
}

ZELError BodyInMemory::open()
{
    return {};
}

ZELError BodyInMemory::expect(qint64 size)
{
    return size > m_limit ? tooLong(m_limit) : ZELError();
}

ZELError BodyInMemory::write(QByteArrayView bytes)
{
    if (bytes.size() > m_limit - m_body.size())
        return tooLong(m_limit);
    m_body.append(bytes);
    return {};
}

BodyInFile::BodyInFile(const QString &folder, qint64 limit)
    : m_folder(QDir::cleanPath(folder))
    , m_file(m_folder + QStringLiteral("/XXXXXX.download"))
    , m_limit(limit)
    , m_left(limit)
{
}

ZELError BodyInFile::open()
{
    QDir().mkpath(QFileInfo(m_folder).path());
    QDir().mkdir(m_folder, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    // Asking for the name gives the file one: it may start without.
    const bool made =
        m_file.open(QIODevice::ReadWrite | QIODevice::Unbuffered) && !m_file.fileName().isEmpty();
    return made ? ZELError() : failure(m_file.errorString());
}

ZELError BodyInFile::expect(qint64 size)
{
    return size > m_limit ? tooLong(m_limit) : allow(size);
}

ZELError BodyInFile::write(QByteArrayView bytes)
{
    if (bytes.size() > m_left)
        return tooLong(m_limit);
    if (bytes.size() > m_granted)
        if (const ZELError error = allow(qMax(bytes.size(), qMin(m_left, GrantSize))))
            return error;
    m_left -= bytes.size();
    m_granted -= bytes.size();
    while (!bytes.isEmpty()) {
        const qint64 written = m_file.write(bytes.data(), bytes.size());
        if (written <= 0)
            return failure(m_file.errorString());
        bytes = bytes.sliced(written);
    }
    return {};
}

// An announced size is granted for a MiB only: others write to the file system meanwhile.
ZELError BodyInFile::allow(qint64 size)
{
    const qint64 writable = writableBytes(m_file.handle()).value_or(size);
    if (size > writable)
        return failure(
            QStringLiteral("no space for %1 bytes, %2 are missing").arg(size).arg(size - writable));
    m_granted = qMin(size, GrantSize);
    return {};
}

ZELError BodyInFile::failure(const QString &reason) const
{
    return ZELError::withMessage(
        QStringLiteral("cannot write the download in \"%1\": %2").arg(m_folder, reason));
}

} // namespace zel

// A body is a stranger's, and so is the length that it announces. The announced length is judged before the
// first byte is taken, the real one with each piece. For a file, the disk's free space counts too: others
// write to it meanwhile, so it is asked again for each MiB (`allow`), and not for each piece, which would be
// a system call for every read of the network.
//
// A file may be continued by a later answer (`begin`). What is not the file, because of its status or its
// length, is written aside: a server that is out of order for a minute, or a network that wants a login
// first, costs nothing of what has come. So is what may be the file and begins anew, where something is kept
// that would be given up for nothing: without a length it may as well be a page, and of the version that is
// kept, or of one that cannot be continued, a beginning is no gain. Once it has come whole, whoever knows the
// file's hash decides, and drops what was kept.
//
// Where the disk is full, that goes as well (`noSpace`): it would lie there for days, and the rest of the
// file finds no more room beside it than the whole does without it.
#include "BodySinks.h"

#include "base/FileDescriptor.h"
#include "base/SystemCalls.h"
#include "URLRequest.h"

#include <QDir>

#include <utility>

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

ZELError BodyInMemory::begin(const BodyStart &start)
{
    m_body = "";
    return start.size > m_limit ? tooLong(m_limit) : ZELError();
}

ZELError BodyInMemory::write(QByteArrayView bytes)
{
    if (bytes.size() > m_limit - m_body.size())
        return tooLong(m_limit);
    m_body.append(bytes);
    return {};
}

BodyInFile::BodyInFile(const QString &folder, qint64 limit, std::shared_ptr<BodyFile> file)
    : m_folder(QDir::cleanPath(folder))
    , m_file(file ? std::move(file) : std::make_shared<TemporaryBodyFile>(m_folder))
    , m_current(m_file.get())
    , m_limit(limit)
    , m_left(limit)
{
}

ZELError BodyInFile::open()
{
    return m_file->open();
}

ZELError BodyInFile::begin(const BodyStart &start)
{
    m_current = m_file.get();
    m_aside.reset();
    m_isFile = start.isFile;
    m_granted = 0;
    m_left = m_limit - start.offset;
    if (start.size > m_limit || m_left < 0)
        return tooLong(m_limit);
    const bool isBetter = m_file->kept() == 0 || start.offset > 0
        || (start.size >= 0 && !start.validator.isEmpty() && start.validator != m_file->validator());
    if (!start.isFile || !isBetter) {
        m_aside = std::make_unique<TemporaryBodyFile>(m_folder);
        m_current = m_aside.get();
        if (const ZELError error = m_aside->open())
            return error;
    } else if (const ZELError error = this->start(start.offset, start.validator))
        return error;
    return start.size < 0 ? ZELError() : allow(start.size - start.offset);
}

ZELError BodyInFile::start(qint64 offset, const QByteArray &validator)
{
    if (offset > 0)
        m_file->setContinued(true);
    const bool ready = (offset > 0 || m_file->startAgain(validator))
        && ::lseek(m_file->descriptor(), offset, SEEK_SET) == offset;
    return ready ? ZELError() : failure(qt_error_string(errno));
}

ZELError BodyInFile::write(QByteArrayView bytes)
{
    if (bytes.size() > m_left) {
        m_current->startAgain({}); // nothing that a longer file begins with is worth keeping
        return tooLong(m_limit);
    }
    if (bytes.size() > m_granted)
        if (const ZELError error = allow(qMax(bytes.size(), qMin(m_left, GrantSize))))
            return error;
    m_left -= bytes.size();
    m_granted -= bytes.size();
    if (writeAll(m_current->descriptor(), bytes.data(), size_t(bytes.size())))
        return {};
    const int error = errno;
    const QString reason = qt_error_string(error);
    return error == ENOSPC || error == EDQUOT ? noSpace(reason) : failure(reason);
}

// An announced size is granted for a MiB only: others write to the file system meanwhile.
ZELError BodyInFile::allow(qint64 size)
{
    const qint64 writable = writableBytes(m_current->descriptor()).value_or(size);
    if (size > writable)
        return noSpace(
            QStringLiteral("no space for %1 bytes, %2 are missing").arg(size).arg(size - writable));
    m_granted = qMin(size, GrantSize);
    return {};
}

ZELError BodyInFile::noSpace(const QString &reason)
{
    if (m_isFile)
        m_file->startAgain({});
    return failure(reason);
}

ZELError BodyInFile::failure(const QString &reason) const
{
    return ZELError::withMessage(
        QStringLiteral("cannot write the download in \"%1\": %2").arg(m_folder, reason));
}

} // namespace zel

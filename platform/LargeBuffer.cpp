// A payload may be larger than memory, and a host must not end because of it. So the block is mapped, not
// allocated: a refusal is an error and not an exception, all of it goes back to the system at once, and
// beyond a limit a nameless file stands behind it, into which the system can move what is not used at the
// moment. The file's space is taken before it is mapped, because a page for which there is none raises
// SIGBUS, which no caller could turn into a failed step.
#include "LargeBuffer.h"

#include "base/LargePages.h"
#include "base/SystemCalls.h"
#include "FileContents.h"

#include <QFile>

#include <cerrno>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

namespace zel {

namespace {

ZELError makeFile(const QString &folder, qint64 size, FileDescriptor &file)
{
    if (const ZELError error = requireSpace(folder, size))
        return error;
    file = unnamedFile(QFile::encodeName(folder).toStdString());
    // What is mapped but has no space ends the process when it is touched.
    const int number = file ? takeSpace(file.get(), size) : errno;
    return number == 0 ? ZELError()
                       : ZELError::fromErrno(QLatin1String("cannot make a file in ") + folder, number);
}

} // namespace

LargeBuffer::LargeBuffer(LargeBuffer &&other) noexcept
    : m_data(std::exchange(other.m_data, nullptr))
    , m_size(std::exchange(other.m_size, 0))
{
}

LargeBuffer &LargeBuffer::operator=(LargeBuffer &&other) noexcept
{
    std::swap(m_data, other.m_data);
    std::swap(m_size, other.m_size);
    return *this;
}

LargeBuffer::~LargeBuffer()
{
    if (m_data)
        ::munmap(m_data, size_t(m_size));
}

ZELError LargeBuffer::reserve(qint64 size, qint64 memoryLimit, const QString &folder, LargeBuffer &result)
{
    result = {};
    if (size == 0)
        return {};
    FileDescriptor file;
    if (size > memoryLimit) {
        if (const ZELError error = makeFile(folder, size, file))
            return error;
    }
    const int kind = file ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS;
    void *const data = ::mmap(nullptr, size_t(size), PROT_READ | PROT_WRITE, kind, file.get(), 0);
    if (data == MAP_FAILED)
        return ZELError::fromErrno(QStringLiteral("cannot reserve %1 bytes").arg(size), errno);
    if (!file)
        adviseLargePages(data, size_t(size));
    result.m_data = static_cast<char *>(data);
    result.m_size = size;
    return {};
}

} // namespace zel

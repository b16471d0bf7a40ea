#include "DeltaFile.h"

#include "base/FileDescriptor.h"
#include "delta/deltaformat.h"
#include "delta/owned.h"
#include "move/movedelta.h"
#include "SHA256.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <sys/stat.h>

namespace zel {

namespace {

std::span<const unsigned char> bytesOf(QByteArrayView bytes)
{
    return {reinterpret_cast<const unsigned char *>(bytes.data()), size_t(bytes.size())};
}

// All of a file, which may not be shorter than it was.
bool readAll(int file, unsigned char *bytes, size_t size)
{
    while (size > 0) {
        const ssize_t count = readSome(file, bytes, size);
        if (count <= 0)
            return false;
        bytes += count;
        size -= size_t(count);
    }
    return true;
}

} // namespace

void hashPage(std::span<const unsigned char> page, unsigned char *hash)
{
    const QByteArray digest =
        sha256BytesOf({reinterpret_cast<const char *>(page.data()), qsizetype(page.size())});
    std::memcpy(hash, digest.constData(), size_t(digest.size()));
}

qint64 outcomeOf(QByteArrayView delta)
{
    if (isMoveDelta(bytesOf(delta)))
        return qint64(moveDeltaNewSize(bytesOf(delta)).value_or(0));
    if (delta.size() < qsizetype(DeltaHeaderSize))
        return 0;
    return std::max<qint64>(deltaIntegerAt(bytesOf(delta), NewSizeOffset), 0);
}

bool applyMoveDeltaFile(int oldFile, QByteArrayView delta, int newFile)
{
    struct stat status;
    const auto newSize = size_t(outcomeOf(delta));
    if (::fstat(oldFile, &status) != 0)
        return false;
    const auto oldSize = size_t(status.st_size);
    const Bytes oldBytes = allocateBytes(status.st_size);
    const Bytes newBytes = allocateBytes(qint64(newSize));
    try {
        return oldBytes && newBytes && readAll(oldFile, oldBytes.get(), oldSize)
            && applyMoveDelta({oldBytes.get(), oldSize}, bytesOf(delta), {newBytes.get(), newSize}, hashPage)
            && writeAll(newFile, reinterpret_cast<const char *>(newBytes.get()), newSize);
    } catch (const std::bad_alloc &) {
        return false;
    }
}

} // namespace zel

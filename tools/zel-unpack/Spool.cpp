#include "Spool.h"

#include "base/DiskSpace.h"

#include <cerrno>
#include <fcntl.h>
#include <stdlib.h>
#include <vector>

namespace zel {

static FileDescriptor unnamedFile(const char *folder)
{
    const int unnamed = ::open(folder, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (unnamed >= 0 || (errno != EOPNOTSUPP && errno != EISDIR && errno != ENOENT))
        return FileDescriptor(unnamed);
    // Some network and overlay file systems know no files without names.
    std::string path = std::string(folder) + "/.zel-unpack-XXXXXX";
    const int named = ::mkostemp(path.data(), O_CLOEXEC);
    if (named >= 0)
        ::unlink(path.c_str());
    return FileDescriptor(named);
}

bool writeAll(int file, const char *data, size_t length)
{
    while (length > 0) {
        const ssize_t written = ::write(file, data, length);
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0) {
            data += written;
            length -= size_t(written);
        }
    }
    return true;
}

Problem spoolInput(int input, const char *folder, Spool &spool)
{
    spool.file = unnamedFile(folder);
    if (!spool.file)
        return systemProblem("cannot make a file for the input");
    const std::optional<int64_t> writable = writableBytes(spool.file.get());
    constexpr int pipeSize = 1 << 20; // fewer switches between writer and reader than with the usual 64 KiB
    ::fcntl(input, F_SETPIPE_SZ, pipeSize);
    std::vector<char> buffer(256 * 1024);
    while (true) {
        const ssize_t length = ::read(input, buffer.data(), buffer.size());
        if (length == 0)
            return {};
        if (length < 0 && errno == EINTR)
            continue;
        if (length < 0)
            return systemProblem("cannot read the input");
        spool.size += uint64_t(length);
        if (spool.size > maximumInputSize)
            return "the input is larger than " + std::to_string(maximumInputSize) + " bytes";
        if (writable && spool.size > uint64_t(*writable))
            return "the disk has too little room: of the input, " + std::to_string(*writable)
                + " bytes may be written";
        if (!writeAll(spool.file.get(), buffer.data(), size_t(length)))
            return systemProblem("cannot store the input");
    }
}

Problem readAt(int file, void *buffer, size_t length, uint64_t offset)
{
    auto *to = static_cast<char *>(buffer);
    while (length > 0) {
        const ssize_t got = ::pread(file, to, length, off_t(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return systemProblem("cannot read the stored input");
        if (got == 0)
            return "the archive ends too early";
        to += got;
        length -= size_t(got);
        offset += uint64_t(got);
    }
    return {};
}

} // namespace zel

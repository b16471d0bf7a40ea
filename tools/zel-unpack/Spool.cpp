#include "Spool.h"

#include "base/SystemCalls.h"

#include <vector>

namespace zel {

Problem spoolInput(int input, const char *folder, Spool &spool)
{
    spool.file = unnamedFile(folder);
    if (!spool.file)
        return systemProblem("cannot make a file for the input");
    const std::optional<int64_t> writable = writableBytes(spool.file.get());
    widenPipe(input);
    std::vector<char> buffer(256 * 1024);
    while (true) {
        const ssize_t length = readSome(input, buffer.data(), buffer.size());
        if (length == 0)
            return {};
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
        const ssize_t got = uninterrupted([=] { return ::pread(file, to, length, off_t(offset)); });
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

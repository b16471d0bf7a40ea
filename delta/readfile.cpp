#include "readfile.h"

#include "base/StandardFiles.h"
#include "owned.h"

unsigned char *readfile(const char *path, std::int64_t *size)
{
    const zel::File file(zel::openToRead(path));
    if (!file || !zel::seekToEnd(file.get()))
        return nullptr;
    const std::int64_t end = zel::positionOf(file.get());
    if (end == -1)
        return nullptr;
    if (size)
        *size = end;
    zel::Bytes bytes = zel::allocateBytes(end);
    if (!bytes || !zel::seekTo(file.get(), 0))
        return nullptr;
    const auto wanted = static_cast<std::size_t>(end);
    if (std::fread(bytes.get(), 1, wanted, file.get()) < wanted) {
        if (!std::ferror(file.get()))
            errno = EIO; // the file shrank while it was read, which the system does not count as an error
        return nullptr;
    }
    return bytes.release();
}

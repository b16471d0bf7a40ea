// Owners of what the C library hands out. They keep errno, so that a message after a failure names its cause.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace zel {

struct Free {
    void operator()(void *memory) const
    {
        const int cause = errno;
        std::free(memory);
        errno = cause;
    }
};

struct CloseFile {
    void operator()(std::FILE *file) const
    {
        const int cause = errno;
        std::fclose(file);
        errno = cause;
    }
};

using Bytes = std::unique_ptr<unsigned char[], Free>;
using Entries = std::unique_ptr<std::int64_t[], Free>;
using File = std::unique_ptr<std::FILE, CloseFile>;

/// Room for `size` + 1 bytes with unset contents; null, with errno set, when there is no memory.
inline Bytes allocateBytes(std::int64_t size)
{
    return Bytes(static_cast<unsigned char *>(std::malloc(static_cast<std::size_t>(size) + 1)));
}

/// Room for `count` entries with unset contents; null, with errno set, when there is no memory.
inline Entries allocateEntries(std::int64_t count)
{
    const auto entries = static_cast<std::size_t>(count);
    return Entries(static_cast<std::int64_t *>(::reallocarray(nullptr, entries, sizeof(std::int64_t))));
}

} // namespace zel

// Owners of what the C library hands out. They keep errno, so that a message after a failure names its cause.
#pragma once

#include "base/LargePages.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <memory>

namespace zel {

struct FreeMemory {
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

using Bytes = std::unique_ptr<unsigned char[], FreeMemory>;
template <typename T> using Array = std::unique_ptr<T[], FreeMemory>;
using Entries = Array<std::int64_t>;
using File = std::unique_ptr<std::FILE, CloseFile>;

/// Room for `count` entries with unset contents; null, with errno set, when there is no memory or when a
/// count, which may be a hostile delta's, is more than addresses reach on this processor.
template <typename T = std::int64_t> Array<T> allocateEntries(std::uint64_t count)
{
    if (count > std::numeric_limits<std::size_t>::max() / sizeof(T)) {
        errno = ENOMEM;
        return nullptr;
    }
    const std::size_t bytes = static_cast<std::size_t>(count) * sizeof(T);
    Array<T> block(static_cast<T *>(std::malloc(bytes)));
    adviseLargePages(block.get(), bytes);
    return block;
}

/// Room for `size` + 1 bytes, as above.
inline Bytes allocateBytes(std::int64_t size)
{
    return allocateEntries<unsigned char>(static_cast<std::uint64_t>(size) + 1);
}

} // namespace zel

// Owners of what the C library hands out. They keep errno, so that a message after a failure names its cause.
#pragma once

#include "base/LargePages.h"

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
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

/// Room for `size` + 1 bytes with unset contents; null, with errno set, when there is no memory.
inline Bytes allocateBytes(std::int64_t size)
{
    const auto bytes = static_cast<std::size_t>(size) + 1;
    Bytes block(static_cast<unsigned char *>(std::malloc(bytes)));
    adviseLargePages(block.get(), bytes);
    return block;
}

/// Room for `count` entries with unset contents; null, with errno set, when there is no memory.
template <typename T = std::int64_t> Array<T> allocateEntries(std::int64_t count)
{
    const auto entries = static_cast<std::size_t>(count);
    Array<T> block(static_cast<T *>(::reallocarray(nullptr, entries, sizeof(T))));
    adviseLargePages(block.get(), entries * sizeof(T));
    return block;
}

} // namespace zel

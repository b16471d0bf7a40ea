// Owners of what the C library hands out. They keep errno, so that a message after a failure names its cause.
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sys/mman.h>
#include <utility>

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
template <typename T> using Array = std::unique_ptr<T[], Free>;
using Entries = Array<std::int64_t>;
using File = std::unique_ptr<std::FILE, CloseFile>;

/// Lets the system back a large block with large pages, where it knows them: sorting and searching jump about
/// in it, and are half as fast when each jump has to look up a page first.
template <typename Owner> Owner withLargePages(Owner block, std::size_t size)
{
    constexpr std::size_t largePage = std::size_t(1) << 21;
    const auto begin = reinterpret_cast<std::uintptr_t>(block.get());
    const auto first = (begin + largePage - 1) & ~(largePage - 1);
    const auto end = (begin + size) & ~(largePage - 1);
#ifdef MADV_HUGEPAGE
    if (block && first < end) {
        const int cause = errno;
        ::madvise(reinterpret_cast<void *>(first), end - first, MADV_HUGEPAGE);
        errno = cause;
    }
#endif
    return block;
}

/// Room for `size` + 1 bytes with unset contents; null, with errno set, when there is no memory.
inline Bytes allocateBytes(std::int64_t size)
{
    const auto bytes = static_cast<std::size_t>(size) + 1;
    return withLargePages(Bytes(static_cast<unsigned char *>(std::malloc(bytes))), bytes);
}

/// Room for `count` entries with unset contents; null, with errno set, when there is no memory.
template <typename T = std::int64_t> Array<T> allocateEntries(std::int64_t count)
{
    const auto entries = static_cast<std::size_t>(count);
    Array<T> block(static_cast<T *>(::reallocarray(nullptr, entries, sizeof(T))));
    return withLargePages(std::move(block), entries * sizeof(T));
}

} // namespace zel

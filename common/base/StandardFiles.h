// Streams of the C library, where the systems differ: names, modes, positions beyond 2 GiB, and streams in
// memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <span>
#include <string>

namespace zel {

#ifdef _WIN32
inline std::string systemName(const std::filesystem::path &path)
{
    return path.string();
}
#else
/// A path as the C library and messages take it, without a copy where it is kept that way.
inline const std::string &systemName(const std::filesystem::path &path)
{
    return path.native();
}
#endif

/// Opens a file of bytes that no program inherits; null, with errno set, on failure. A file opened to be
/// written is emptied, or made.
std::FILE *openToRead(const char *path);
std::FILE *openToWrite(const char *path);

/// False, or -1, with errno set, where the stream has no position.
bool seekTo(std::FILE *file, std::int64_t position);
bool seekToEnd(std::FILE *file);
std::int64_t positionOf(std::FILE *file);

/// A stream whose bytes are had back once it is flushed.
class MemoryStream
{
public:
    MemoryStream();
    MemoryStream(const MemoryStream &) = delete;
    MemoryStream &operator=(const MemoryStream &) = delete;
    ~MemoryStream();

    /// Null, with errno set, when it could not be opened.
    std::FILE *file() const { return m_file; }

    /// What was written and flushed; good while nothing more is written. No bytes where they cannot be had.
    std::span<const std::byte> bytes();

private:
    char *m_buffer = nullptr;
    std::size_t m_size = 0;
    std::FILE *m_file;
};

} // namespace zel

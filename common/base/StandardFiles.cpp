#include "StandardFiles.h"

#include <cstdlib>

namespace zel {

#ifdef _WIN32

// N: not inherited; b: line ends stay as they are.
std::FILE *openToRead(const char *path)
{
    return std::fopen(path, "rbN");
}

std::FILE *openToWrite(const char *path)
{
    return std::fopen(path, "wbN");
}

bool seekTo(std::FILE *file, std::int64_t position)
{
    return ::_fseeki64(file, position, SEEK_SET) == 0;
}

bool seekToEnd(std::FILE *file)
{
    return ::_fseeki64(file, 0, SEEK_END) == 0;
}

std::int64_t positionOf(std::FILE *file)
{
    return ::_ftelli64(file);
}

// There are no streams in memory there: a temporary file, which the system keeps in memory as long as it can,
// is read back.
MemoryStream::MemoryStream()
    : m_file(std::tmpfile())
{
}

std::span<const std::byte> MemoryStream::bytes()
{
    const std::int64_t size = positionOf(m_file);
    std::free(m_buffer);
    m_buffer = size > 0 ? static_cast<char *>(std::malloc(static_cast<std::size_t>(size))) : nullptr;
    m_size =
        m_buffer && seekTo(m_file, 0) ? std::fread(m_buffer, 1, static_cast<std::size_t>(size), m_file) : 0;
    return std::as_bytes(std::span(m_buffer, m_size));
}

#else

std::FILE *openToRead(const char *path)
{
    return std::fopen(path, "re");
}

std::FILE *openToWrite(const char *path)
{
    return std::fopen(path, "we");
}

bool seekTo(std::FILE *file, std::int64_t position)
{
    return ::fseeko(file, position, SEEK_SET) == 0;
}

bool seekToEnd(std::FILE *file)
{
    return ::fseeko(file, 0, SEEK_END) == 0;
}

std::int64_t positionOf(std::FILE *file)
{
    return ::ftello(file);
}

MemoryStream::MemoryStream()
    : m_file(::open_memstream(&m_buffer, &m_size))
{
}

std::span<const std::byte> MemoryStream::bytes()
{
    return std::as_bytes(std::span(m_buffer, m_size));
}

#endif

MemoryStream::~MemoryStream()
{
    if (m_file)
        std::fclose(m_file);
    std::free(m_buffer);
}

} // namespace zel

// The owner of one open file descriptor, and reading and writing that signals do not cut short.
#pragma once

#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace zel {

/// How a folder is opened that must be one itself: with a link in the last place that fails.
constexpr int RealFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

/// Closes its descriptor when it goes out of scope; -1 stands for none. Moved, never copied.
class FileDescriptor
{
public:
    explicit FileDescriptor(int descriptor = -1)
        : m_descriptor(descriptor)
    {
    }
    FileDescriptor(FileDescriptor &&other) noexcept
        : m_descriptor(std::exchange(other.m_descriptor, -1))
    {
    }
    FileDescriptor &operator=(FileDescriptor &&other) noexcept
    {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~FileDescriptor() { close(); }

    explicit operator bool() const { return m_descriptor >= 0; }
    int get() const { return m_descriptor; }

    /// Gives the descriptor away, for another to close.
    int release() { return std::exchange(m_descriptor, -1); }

    /// Closes now, for those who want to know whether it worked: false leaves the reason in `errno`. Not
    /// tried again after a signal: the number is free by then, and may be another thread's.
    bool close() { return m_descriptor < 0 || ::close(std::exchange(m_descriptor, -1)) == 0; }

private:
    int m_descriptor;
};

/// Calls `call` again for as long as signals interrupt it (`EINTR`); its result otherwise, with `errno` on
/// failure.
template <typename Call> auto uninterrupted(Call call)
{
    auto result = call();
    while (result < 0 && errno == EINTR)
        result = call();
    return result;
}

/// Reads at most `size` bytes, as many as there are by now: 0 at the end, -1 with `errno` on failure.
inline ssize_t readSome(int file, void *bytes, std::size_t size)
{
    return uninterrupted([=] { return ::read(file, bytes, size); });
}

/// Writes all of it. False, with `errno`, on failure; what was written by then stays.
inline bool writeAll(int file, const char *bytes, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = uninterrupted([=] { return ::write(file, bytes, size); });
        if (written < 0)
            return false;
        bytes += written;
        size -= std::size_t(written);
    }
    return true;
}

} // namespace zel

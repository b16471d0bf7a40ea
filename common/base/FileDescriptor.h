// The owner of one open file descriptor.
#pragma once

#include <unistd.h>
#include <utility>

namespace zel {

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

    /// Closes now, for those who want to know whether it worked: false leaves the reason in `errno`.
    bool close() { return m_descriptor < 0 || ::close(std::exchange(m_descriptor, -1)) == 0; }

private:
    int m_descriptor;
};

} // namespace zel

// A file descriptor with one owner.
#pragma once

#include <unistd.h>
#include <utility>

namespace zel
{

class FileDescriptor
{
public:
    FileDescriptor() = default;
    explicit FileDescriptor(int descriptor)
        : m_descriptor(descriptor)
    {
    }
    FileDescriptor(FileDescriptor &&other) noexcept
        : m_descriptor(other.release())
    {
    }
    FileDescriptor &operator=(FileDescriptor &&other) noexcept
    {
        std::swap(m_descriptor, other.m_descriptor);
        return *this;
    }
    ~FileDescriptor() { close(); }

    int get() const { return m_descriptor; }
    explicit operator bool() const { return m_descriptor >= 0; }
    int release() { return std::exchange(m_descriptor, -1); }

    /// Closes now; false, with errno, when the system reports that data was lost.
    bool close() { return m_descriptor < 0 || ::close(release()) == 0; }

private:
    int m_descriptor = -1;
};

} // namespace zel

#include "CopyFile.h"

#include "base/FileDescriptor.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#ifdef __linux__
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>
#endif

namespace {

bool copyThroughMemory(int from, int to)
{
    std::vector<char> buffer(1 << 18);
    for (;;) {
        const ssize_t count = readSome(from, buffer.data(), buffer.size());
        if (count <= 0)
            return count == 0;
        if (!writeAll(to, buffer.data(), size_t(count)))
            return false;
    }
}

#ifdef __linux__

constexpr size_t CopyStep = size_t(1) << 30;

bool cannotCopyInKernel(int number)
{
    return number == EXDEV || number == EINVAL || number == ENOSYS || number == EOPNOTSUPP || number == EPERM;
}

std::vector<std::string> attributeNames(int file)
{
    std::vector<std::string> names;
    const ssize_t size = ::flistxattr(file, nullptr, 0);
    if (size <= 0)
        return names;
    std::vector<char> list(static_cast<size_t>(size));
    const ssize_t length = ::flistxattr(file, list.data(), list.size());
    for (ssize_t at = 0; at < length; at += ssize_t(names.back().size()) + 1)
        names.emplace_back(list.data() + at);
    return names;
}

bool mayBeLeftOut(int number)
{
    return number == ENOTSUP || number == EPERM || number == EACCES || number == ENODATA;
}

bool copyExtendedAttributes(int from, int to)
{
    for (const std::string &name : attributeNames(from)) {
        const ssize_t size = ::fgetxattr(from, name.c_str(), nullptr, 0);
        std::vector<char> value(size > 0 ? static_cast<size_t>(size) : 0);
        if (size < 0 || ::fgetxattr(from, name.c_str(), value.data(), value.size()) != size)
            continue;
        if (::fsetxattr(to, name.c_str(), value.data(), value.size(), 0) != 0 && !mayBeLeftOut(errno))
            return false;
    }
    return true;
}

#else

bool copyExtendedAttributes(int, int)
{
    return true;
}

#endif

} // namespace

namespace zel {

bool copyData(int from, int to)
{
#ifdef __linux__
    if (::ioctl(to, FICLONE, from) == 0)
        return true;
    bool copied = false;
    for (;;) {
        const ssize_t count =
            uninterrupted([=] { return ::copy_file_range(from, nullptr, to, nullptr, CopyStep, 0); });
        if (count < 0 && !cannotCopyInKernel(errno))
            return false;
        // Some kernels answer 0 for files that have data but no size: those are read as streams.
        if (count < 0 || (count == 0 && !copied))
            break;
        if (count == 0)
            return true;
        copied = true;
    }
#endif
    return copyThroughMemory(from, to);
}

bool copyAttributes(int from, int to, const struct stat &status)
{
    const std::array<timespec, 2> times = {status.st_atim, status.st_mtim};
    return copyExtendedAttributes(from, to) && ::fchmod(to, status.st_mode & 0777) == 0
        && ::futimens(to, times.data()) == 0;
}

} // namespace zel

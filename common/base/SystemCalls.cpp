#include "SystemCalls.h"

#include <algorithm>
#include <cstdlib>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#ifdef __linux__
#include <climits>
#include <link.h>
#include <sys/resource.h>
#endif

namespace zel {

namespace {

FileDescriptor unlinkedFile(std::string path)
{
    path += "/.zel-XXXXXX";
    FileDescriptor named(::mkostemp(path.data(), O_CLOEXEC));
    if (named)
        ::unlink(path.c_str());
    return named;
}

} // namespace

// The reserve is not for the updater: what a full disk breaks first is whatever else the user works with.
std::optional<std::int64_t> writableBytes(int descriptor)
{
    constexpr double largestReserve = 64 << 20;
    struct statvfs status;
    if (::fstatvfs(descriptor, &status) != 0)
        return std::nullopt;
    // Sizes of network file systems may not fit into 64 bits; doubles are exact enough to judge by.
    const double block = double(status.f_frsize);
    const double reserve = std::min(largestReserve, double(status.f_blocks) * block / 20);
    const double free = double(status.f_bavail) * block - reserve;
    return std::int64_t(std::clamp(free, 0.0, 9e18));
}

FileDescriptor unnamedFile(const std::string &folder)
{
#ifdef O_TMPFILE
    FileDescriptor unnamed(::open(folder.c_str(), O_TMPFILE | O_RDWR | O_EXCL | O_CLOEXEC, 0600));
    // Some network and overlay file systems know no files without names.
    if (unnamed || (errno != EOPNOTSUPP && errno != EISDIR && errno != ENOENT))
        return unnamed;
#endif
    return unlinkedFile(folder);
}

// The system's own call for that, and not zeros that are written: it costs nothing where the file system
// knows of it, and the C library fills the file where not.
int takeSpace(int file, std::int64_t size)
{
#ifdef __APPLE__
    fstore_t wanted = {F_ALLOCATEALL, F_PEOFPOSMODE, 0, size, 0};
    return ::fcntl(file, F_PREALLOCATE, &wanted) != -1 && ::ftruncate(file, size) == 0 ? 0 : errno;
#else
    int number = EINTR;
    while (number == EINTR)
        number = ::posix_fallocate(file, 0, size);
    return number;
#endif
}

bool makePipe(FileDescriptor &reading, FileDescriptor &writing)
{
    int ends[2];
#ifdef __APPLE__
    if (::pipe(ends) != 0)
        return false;
    for (const int end : ends)
        ::fcntl(end, F_SETFD, FD_CLOEXEC);
#else
    if (::pipe2(ends, O_CLOEXEC) != 0)
        return false;
#endif
    reading = FileDescriptor(ends[0]);
    writing = FileDescriptor(ends[1]);
    return true;
}

void widenPipe([[maybe_unused]] int pipe)
{
#ifdef F_SETPIPE_SZ
    ::fcntl(pipe, F_SETPIPE_SZ, 1 << 20);
#endif
}

std::int64_t machineMemory()
{
    return std::int64_t(::sysconf(_SC_PHYS_PAGES)) * ::sysconf(_SC_PAGESIZE);
}

std::array<timespec, 2> timesOf(const struct stat &status)
{
#ifdef __APPLE__
    return {status.st_atimespec, status.st_mtimespec};
#else
    return {status.st_atim, status.st_mtim};
#endif
}

void limitMemory([[maybe_unused]] pid_t process, [[maybe_unused]] std::uint64_t bytes)
{
#ifdef __linux__
    const rlimit limit{rlim_t(bytes), rlim_t(bytes)};
    ::prlimit(process, RLIMIT_DATA, &limit, nullptr);
#endif
}

// A host may load the library from anywhere, so what belongs to it (the archive tool, the notes' module) is
// looked for from where its code lies. Every binary has a copy of this function, which is its own landmark.
std::string ownBinary()
{
    Dl_info info = {};
    void *const code = reinterpret_cast<void *>(&ownBinary);
#ifdef __GLIBC__
    void *map = nullptr;
    if (::dladdr1(code, &info, &map, RTLD_DL_LINKMAP) == 0)
        return {};
    if (const char *library = static_cast<link_map *>(map)->l_name; *library)
        return library;
    // The program has no name there, and for `dladdr` the one it was called by, which may be relative.
    std::string program(PATH_MAX, '\0');
    const ssize_t size = ::readlink("/proc/self/exe", program.data(), program.size());
    program.resize(std::size_t(std::max<ssize_t>(size, 0)));
    return program;
#else
    return ::dladdr(code, &info) != 0 ? info.dli_fname : "";
#endif
}

} // namespace zel

#include "Calls.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/syscall.h>

namespace {

using Outcomes = std::span<const std::string_view>;

// What each call fails with on a machine that breaks, runs full or is set up oddly.
constexpr std::string_view looking[] = {"EIO", "EACCES", "ENOENT"};
constexpr std::string_view opening[] = {"EIO", "EMFILE", "EACCES", "ENOSPC", "kill"};
constexpr std::string_view reading[] = {"EIO", "short"};
constexpr std::string_view listing[] = {"EIO"};
constexpr std::string_view writing[] = {"ENOSPC", "EIO", "short", "kill"};
constexpr std::string_view flushing[] = {"EIO", "kill"};
constexpr std::string_view naming[] = {"EIO", "ENOSPC", "EPERM", "kill"};
constexpr std::string_view renaming[] = {"EIO", "EXDEV", "EINVAL", "kill"};
constexpr std::string_view copying[] = {"EIO", "EINVAL", "ENOSYS", "short"};
constexpr std::string_view reserving[] = {"ENOMEM"};
constexpr std::string_view starting[] = {"EAGAIN"};
constexpr std::string_view running[] = {"ENOENT", "ENOMEM"};
constexpr std::string_view joining[] = {"EMFILE"};
constexpr std::string_view talking[] = {"ECONNRESET", "kill"};
constexpr std::string_view locking[] = {"ENOLCK", "EINTR"};
constexpr std::string_view waiting[] = {"EINTR"};
constexpr std::string_view cloning[] = {"EINVAL", "EOPNOTSUPP"};
constexpr std::string_view drawing[] = {"ENOSYS"};

constexpr CallFaults calls[] = {
    {"access", SYS_access, -1, looking},
    {"chmod", SYS_chmod, -1, naming},
    {"clone3", SYS_clone3, -1, starting},
    {"close", SYS_close, -1, flushing},
    {"connect", SYS_connect, -1, talking},
    {"copy_file_range", SYS_copy_file_range, 4, copying},
    {"dup2", SYS_dup2, -1, joining},
    {"eventfd2", SYS_eventfd2, -1, joining},
    {"execve", SYS_execve, -1, running},
    {"faccessat", SYS_faccessat, -1, looking},
    {"faccessat2", SYS_faccessat2, -1, looking},
    {"fallocate", SYS_fallocate, -1, writing},
    {"fchmod", SYS_fchmod, -1, naming},
    {"fchmodat", SYS_fchmodat, -1, naming},
    {"fcntl", SYS_fcntl, -1, joining},
    {"fdatasync", SYS_fdatasync, -1, flushing},
    {"flock", SYS_flock, -1, locking},
    {"fstat", SYS_fstat, -1, listing},
    {"fstatfs", SYS_fstatfs, -1, listing},
    {"fsync", SYS_fsync, -1, flushing},
    {"ftruncate", SYS_ftruncate, -1, writing},
    {"getcwd", SYS_getcwd, -1, looking},
    {"getdents64", SYS_getdents64, -1, listing},
    {"getrandom", SYS_getrandom, 1, drawing},
    {"ioctl", SYS_ioctl, -1, cloning},
    {"link", SYS_link, -1, naming},
    {"linkat", SYS_linkat, -1, naming},
    {"lseek", SYS_lseek, -1, listing},
    {"lstat", SYS_lstat, -1, looking},
    {"mkdir", SYS_mkdir, -1, naming},
    {"mkdirat", SYS_mkdirat, -1, naming},
    {"mmap", SYS_mmap, -1, reserving},
    {"newfstatat", SYS_newfstatat, -1, looking},
    {"open", SYS_open, -1, opening},
    {"openat", SYS_openat, -1, opening},
    {"openat2", SYS_openat2, -1, opening},
    {"pipe2", SYS_pipe2, -1, joining},
    {"poll", SYS_poll, -1, waiting},
    {"pread64", SYS_pread64, 2, reading},
    {"pwrite64", SYS_pwrite64, 2, writing},
    {"read", SYS_read, 2, reading},
    {"readlink", SYS_readlink, -1, looking},
    {"readlinkat", SYS_readlinkat, -1, looking},
    {"recvfrom", SYS_recvfrom, 2, talking},
    {"rename", SYS_rename, -1, renaming},
    {"renameat", SYS_renameat, -1, renaming},
    {"renameat2", SYS_renameat2, -1, renaming},
    {"rmdir", SYS_rmdir, -1, naming},
    {"sendfile", SYS_sendfile, 3, copying},
    {"sendto", SYS_sendto, 2, talking},
    {"socket", SYS_socket, -1, joining},
    {"socketpair", SYS_socketpair, -1, joining},
    {"stat", SYS_stat, -1, looking},
    {"statfs", SYS_statfs, -1, listing},
    {"statx", SYS_statx, -1, looking},
    {"symlink", SYS_symlink, -1, naming},
    {"symlinkat", SYS_symlinkat, -1, naming},
    {"sync_file_range", SYS_sync_file_range, -1, flushing},
    {"syncfs", SYS_syncfs, -1, flushing},
    {"unlink", SYS_unlink, -1, naming},
    {"unlinkat", SYS_unlinkat, -1, naming},
    {"utimensat", SYS_utimensat, -1, naming},
    {"write", SYS_write, 2, writing},
    {"writev", SYS_writev, -1, writing},
};

} // namespace

std::span<const CallFaults> knownCalls()
{
    return calls;
}

const CallFaults *findCall(std::string_view name)
{
    const auto found = std::ranges::find(calls, name, &CallFaults::call);
    return found == std::end(calls) ? nullptr : found;
}

const CallFaults *findCall(long number)
{
    const auto found = std::ranges::find(calls, number, &CallFaults::number);
    return found == std::end(calls) ? nullptr : found;
}

int errorNumber(std::string_view name)
{
    for (int number = 1; number < 200; ++number) {
        const char *const text = ::strerrorname_np(number);
        if (text && name == text)
            return number;
    }
    return 0;
}

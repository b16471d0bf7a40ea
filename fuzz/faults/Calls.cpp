#include "Calls.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/syscall.h>

namespace {

using Outcomes = std::span<const std::string_view>;

// What each call fails with on a machine that breaks, runs full or is set up oddly.
constexpr std::string_view Looking[] = {"EIO", "EACCES", "ENOENT"};
constexpr std::string_view Opening[] = {"EIO", "EMFILE", "EACCES", "ENOSPC", "kill"};
constexpr std::string_view Reading[] = {"EIO", "short"};
constexpr std::string_view Listing[] = {"EIO"};
constexpr std::string_view Writing[] = {"ENOSPC", "EIO", "short", "kill"};
constexpr std::string_view Sizing[] = {"ENOSPC", "EIO", "kill"};
constexpr std::string_view Flushing[] = {"EIO", "kill"};
constexpr std::string_view Naming[] = {"EIO", "ENOSPC", "EPERM", "kill"};
constexpr std::string_view Renaming[] = {"EIO", "EXDEV", "EINVAL", "kill"};
constexpr std::string_view Copying[] = {"EIO", "EINVAL", "ENOSYS", "short"};
constexpr std::string_view Reserving[] = {"ENOMEM"};
constexpr std::string_view Starting[] = {"EAGAIN"};
constexpr std::string_view Running[] = {"ENOENT", "ENOMEM"};
constexpr std::string_view Joining[] = {"EMFILE"};
constexpr std::string_view Talking[] = {"ECONNRESET", "kill"};
constexpr std::string_view Locking[] = {"ENOLCK", "EINTR"};
constexpr std::string_view Waiting[] = {"EINTR"};
constexpr std::string_view Cloning[] = {"EINVAL", "EOPNOTSUPP"};
constexpr std::string_view Drawing[] = {"ENOSYS"};

constexpr CallFaults Calls[] = {
    {"access", SYS_access, -1, Looking},
    {"chmod", SYS_chmod, -1, Naming},
    {"clone3", SYS_clone3, -1, Starting},
    {"close", SYS_close, -1, Flushing},
    {"connect", SYS_connect, -1, Talking},
    {"copy_file_range", SYS_copy_file_range, 4, Copying},
    {"dup2", SYS_dup2, -1, Joining},
    {"eventfd2", SYS_eventfd2, -1, Joining},
    {"execve", SYS_execve, -1, Running},
    {"faccessat", SYS_faccessat, -1, Looking},
    {"faccessat2", SYS_faccessat2, -1, Looking},
    {"fallocate", SYS_fallocate, -1, Sizing},
    {"fchmod", SYS_fchmod, -1, Naming},
    {"fchmodat", SYS_fchmodat, -1, Naming},
    {"fcntl", SYS_fcntl, -1, Joining},
    {"fdatasync", SYS_fdatasync, -1, Flushing},
    {"flock", SYS_flock, -1, Locking},
    {"fstat", SYS_fstat, -1, Listing},
    {"fstatfs", SYS_fstatfs, -1, Listing},
    {"fsync", SYS_fsync, -1, Flushing},
    {"ftruncate", SYS_ftruncate, -1, Sizing},
    {"getcwd", SYS_getcwd, -1, Looking},
    {"getdents64", SYS_getdents64, -1, Listing},
    {"getrandom", SYS_getrandom, 1, Drawing},
    {"ioctl", SYS_ioctl, -1, Cloning},
    {"link", SYS_link, -1, Naming},
    {"linkat", SYS_linkat, -1, Naming},
    {"lseek", SYS_lseek, -1, Listing},
    {"lstat", SYS_lstat, -1, Looking},
    {"mkdir", SYS_mkdir, -1, Naming},
    {"mkdirat", SYS_mkdirat, -1, Naming},
    {"mmap", SYS_mmap, -1, Reserving},
    {"newfstatat", SYS_newfstatat, -1, Looking},
    {"open", SYS_open, -1, Opening},
    {"openat", SYS_openat, -1, Opening},
    {"openat2", SYS_openat2, -1, Opening},
    {"pipe2", SYS_pipe2, -1, Joining},
    {"poll", SYS_poll, -1, Waiting},
    {"pread64", SYS_pread64, 2, Reading},
    {"pwrite64", SYS_pwrite64, 2, Writing},
    {"read", SYS_read, 2, Reading},
    {"readlink", SYS_readlink, -1, Looking},
    {"readlinkat", SYS_readlinkat, -1, Looking},
    {"recvfrom", SYS_recvfrom, 2, Talking},
    {"rename", SYS_rename, -1, Renaming},
    {"renameat", SYS_renameat, -1, Renaming},
    {"renameat2", SYS_renameat2, -1, Renaming},
    {"rmdir", SYS_rmdir, -1, Naming},
    {"sendfile", SYS_sendfile, 3, Copying},
    {"sendto", SYS_sendto, 2, Talking},
    {"socket", SYS_socket, -1, Joining},
    {"socketpair", SYS_socketpair, -1, Joining},
    {"stat", SYS_stat, -1, Looking},
    {"statfs", SYS_statfs, -1, Listing},
    {"statx", SYS_statx, -1, Looking},
    {"symlink", SYS_symlink, -1, Naming},
    {"symlinkat", SYS_symlinkat, -1, Naming},
    {"sync_file_range", SYS_sync_file_range, -1, Flushing},
    {"syncfs", SYS_syncfs, -1, Flushing},
    {"unlink", SYS_unlink, -1, Naming},
    {"unlinkat", SYS_unlinkat, -1, Naming},
    {"utimensat", SYS_utimensat, -1, Naming},
    {"write", SYS_write, 2, Writing},
    {"writev", SYS_writev, -1, Sizing},
};

} // namespace

std::span<const CallFaults> knownCalls()
{
    return Calls;
}

const CallFaults *findCall(std::string_view name)
{
    const auto found = std::ranges::find(Calls, name, &CallFaults::call);
    return found == std::end(Calls) ? nullptr : found;
}

const CallFaults *findCall(long number)
{
    const auto found = std::ranges::find(Calls, number, &CallFaults::number);
    return found == std::end(Calls) ? nullptr : found;
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

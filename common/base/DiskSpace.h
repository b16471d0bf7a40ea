// How much may still be written to a file system.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <sys/statvfs.h>

namespace zel {

/// Bytes that may still be written to the file system of an open file or folder: what is free for this user, less a
/// reserve of 64 MiB (a twentieth of a smaller file system), so that an update never takes the last of it. Never
/// negative; nothing where the system does not say.
inline std::optional<std::int64_t> writableBytes(int descriptor)
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

} // namespace zel

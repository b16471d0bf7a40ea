// Making a binary delta that takes long enough to be watched.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <vector>

namespace zel {

using DeltaProgress = std::function<void(std::int64_t done, std::int64_t total)>;

/// As `bsdiff2`, with the same bytes. `progress` may be empty; it hears, on the calling thread, how many bytes are done
/// of those of both files: first the old one's are sorted, in a few steps, then the new one's are searched, by about a
/// hundredth at a time.
std::optional<std::vector<std::byte>> makeDelta(const std::filesystem::path &oldPath,
                                                const std::filesystem::path &newPath,
                                                const DeltaProgress &progress);

} // namespace zel

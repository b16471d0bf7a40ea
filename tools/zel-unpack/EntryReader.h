// The data of single entries of a spooled zip archive.
#pragma once

#include "ZipDirectory.h"

#include <functional>
#include <zlib.h>

namespace zel {

/// Reads entries, one after the other, in any order. Each thread needs a reader of its own; a reader holds
/// about 450 KiB whatever the entries' sizes.
class EntryReader
{
public:
    using Sink = std::function<Problem(const char *data, size_t length)>;

    /// `archive` must stay open, and `dataEnd` is where its directory begins.
    EntryReader(int archive, uint64_t dataEnd);
    ~EntryReader();
    EntryReader(const EntryReader &) = delete;
    EntryReader &operator=(const EntryReader &) = delete;

    /// Hands the unpacked data to `sink`, piece by piece, never more of it than the entry declares. It is a
    /// problem when the data is damaged, cut, longer or shorter than declared or has another checksum, which
    /// is known at the end only.
    Problem read(const ZipEntry &entry, const Sink &sink);

private:
    struct Reading;

    Problem copy(Reading &reading);
    Problem inflateAll(Reading &reading);
    Problem refill(Reading &reading);
    Problem deliver(Reading &reading, const char *data, size_t length) const;

    int m_archive;
    uint64_t m_dataEnd;
    z_stream m_stream{};
    bool m_ready;
    std::vector<char> m_input;
    std::vector<char> m_output;
};

} // namespace zel

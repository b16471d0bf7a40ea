// A zip archive, stored on the disk since a pipe cannot be read from its end, and the directory there, which
// alone says what the archive holds.
//
// It is read here and not by a general archive library for the sake of the names and kinds: such a library
// takes names from the headers that precede the data, brings them into composed form (so that a bundle's seal
// no longer finds its files), cuts them at a NUL byte, and turns a device into an empty file without a word.
// What is left to do with a strict reading is little: zlib unpacks the data.
#pragma once

#include "base/FileDescriptor.h"
#include "Problem.h"

#include <cstdint>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace zel {

/// What may be in an archive; with these the tool stays below 32 MiB of memory, and what it leaves can be
/// walked and removed by any program.
constexpr uint64_t MaximumDirectorySize = 10 << 20; ///< bytes of the archive's directory
constexpr size_t MaximumEntries = 100'000; ///< entries, the folders that they imply included
constexpr uint64_t MaximumTotalSize = uint64_t(16) << 30; ///< bytes of all files together, unpacked

/// What an archive may unpack to besides: a fixed part, for files of nothing but zeros, and a multiple of its
/// own size. "deflate" packs a run 1,032:1, logs and tables hardly 30:1, so that only what is made to fill
/// disks exceeds both.
constexpr uint64_t FreeExpansion = uint64_t(256) << 20;
constexpr uint64_t MostExpansion = 64;
constexpr size_t MaximumDepth = 128; ///< components of a name
constexpr size_t MaximumNameLength = 4095; ///< bytes of a whole name
constexpr size_t MaximumComponentLength = 255; ///< bytes of each component

/// Bytes of an archive: what may be in it, stored, and the headers.
constexpr uint64_t MaximumInputSize = uint64_t(17) << 30;

/// The whole input, in a file without a name, which is gone when the process is, however it ends.
struct Spool {
    FileDescriptor file;
    uint64_t size = 0;
};

/// Reads `input` to its end into a spool below `folder`, so that it lies in the destination's file system and
/// not in a temporary folder, which may be memory. An input that is larger than any archive may be, or than
/// what may be written to the disk, is a problem like any other.
Problem spoolInput(int input, const char *folder, Spool &spool);

/// Reads exactly `length` bytes at `offset`; may be called from several threads.
Problem readAt(int file, void *buffer, size_t length, uint64_t offset);

struct ZipEntry {
    enum class Kind : uint8_t { File, Folder, Link };

    std::string_view name; ///< the archive's own bytes, without a leading "./" and a folder's trailing slash
    uint64_t headerOffset = 0; ///< of the header before the data
    uint64_t packedSize = 0;
    uint64_t size = 0; ///< as declared; nothing of the data has been read
    int64_t modified = 0; ///< seconds since 1970
    uint32_t checksum = 0; ///< CRC-32 of the unpacked data
    Kind kind = Kind::File;
    bool executable = false; ///< a file that its owner may execute; nothing else of a mode is taken over
    bool packed = false; ///< deflated, else stored
};

class ZipDirectory
{
public:
    /// Reads the directory of a complete archive on one disk. What cannot be extracted whole is a problem:
    /// encrypted entries, methods other than "stored" and "deflated", kinds other than file, folder and link.
    Problem read(const Spool &archive);

    /// In the order of their data in the archive.
    const std::vector<ZipEntry> &entries() const { return m_entries; }

    /// Where the data of the entries must have ended.
    uint64_t dataEnd() const { return m_dataEnd; }

private:
    Problem readEntries(uint64_t count);

    std::vector<char> m_bytes; // holds the names
    std::vector<ZipEntry> m_entries;
    uint64_t m_dataEnd = 0;
};

/// Where an entry's data begins; a problem when it does not lie whole before `dataEnd`. The header before the
/// data repeats what the directory says, and only its own length matters.
Problem findData(int archive, const ZipEntry &entry, uint64_t dataEnd, uint64_t &offset);

} // namespace zel

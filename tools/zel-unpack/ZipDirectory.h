// The directory at the end of a zip archive, which alone says what the archive holds.
//
// It is read here and not by a general archive library for the sake of the names and kinds: such a library takes
// names from the headers that precede the data, brings them into composed form (so that a bundle's seal no longer
// finds its files), cuts them at a NUL byte, and turns a device into an empty file without a word. What is left
// to do with a strict reading is little: zlib unpacks the data.
#pragma once

#include "Problem.h"
#include "Spool.h"

#include <cstdint>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace zel {

/// What may be in an archive; with these the tool stays below 32 MiB of memory, and what it leaves can be walked and
/// removed by any program.
constexpr uint64_t maximumDirectorySize = 10 << 20; ///< bytes of the archive's directory
constexpr size_t maximumEntries = 100'000; ///< entries, the folders that they imply included
constexpr uint64_t maximumTotalSize = uint64_t(16) << 30; ///< bytes of all files together, unpacked
constexpr size_t maximumDepth = 128; ///< components of a name
constexpr size_t maximumNameLength = 4095; ///< bytes of a whole name
constexpr size_t maximumComponentLength = 255; ///< bytes of each component

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

} // namespace zel

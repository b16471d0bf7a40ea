// The layout of a move delta, which docs/move-delta-format.md describes: what both sides of the engine read
// and write.
//
// A move delta copies parts of an old file to new places, as an ordinary one does, but before it corrects a
// copy it predicts it: in programs and tables nearly every byte that changed stands for a place (a call's
// distance, the address of a string), and changed because that place moved. Where places moved to, the copies
// tell. The delta says which stretches of the files are what; whoever makes it has looked into the program's
// headers, so that whoever applies it need not.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace zel {

inline constexpr std::string_view MoveDeltaMark = "ZELMOVE1";

// Limits of what a reader takes; a writer keeps within them. They bound what a small delta can cost: all
// that they allow takes some 70 MiB beside the files.
inline constexpr std::uint64_t LargestMoveFile = 0x7FFFFFFF; // bytes of the old and of the new file
inline constexpr std::size_t MostMoveCopies = 1 << 20;
inline constexpr std::size_t MostImages = 4;
inline constexpr std::size_t MostRanges = 1024; // of all images together
inline constexpr std::size_t MostWordRanges = 64; // of these
inline constexpr std::size_t MostPageHashes = 16;

/// What a range holds, and so how its bytes are predicted where they are copied.
enum class RangeKind : unsigned char {
    Plain, ///< anything: as in the old file
    Arm64, ///< instructions of AArch64
    X86_64, ///< instructions of x86-64
    Words, ///< words of four bytes that may be places, of whatever origin
    Pointers, ///< words of eight bytes that may be addresses
    ChainedPointers, ///< words of eight bytes whose lower 36 bits may be places, from the image's base on
};
inline constexpr unsigned RangeKinds = 6;

/// A part of a program as it lies in both files and in memory; what a linker calls a section.
struct MovedRange {
    struct Side {
        std::uint64_t offset = 0; ///< in the file
        std::uint64_t address = 0; ///< in memory
        std::uint64_t size = 0; ///< in bytes

        bool operator==(const Side &) const = default;
    };

    RangeKind kind = RangeKind::Plain;
    bool isInFile = true; ///< else it only has addresses: cleared memory
    Side old;
    Side now;

    bool operator==(const MovedRange &) const = default;
};

/// One program; a file may hold several, for as many processors.
struct MovedImage {
    std::uint64_t oldBase = 0; ///< what chained pointers count from
    std::uint64_t newBase = 0;
    std::vector<MovedRange> ranges;

    bool operator==(const MovedImage &) const = default;
};

/// A table of SHA-256 hashes of the new file's own pages, which is not carried but computed.
struct PageHashes {
    std::uint64_t table = 0; ///< where it begins; it lies behind the pages
    std::uint64_t start = 0; ///< where the first page begins
    std::uint64_t end = 0; ///< where the last one ends, which may be shorter
    std::uint64_t pageSize = 0;

    std::uint64_t count() const { return (end - start + pageSize - 1) / pageSize; }

    bool operator==(const PageHashes &) const = default;
};
inline constexpr std::uint64_t PageHashSize = 32;

/// A part of the old file that comes at some place of the new one.
struct MovedCopy {
    std::uint32_t newStart = 0;
    std::uint32_t oldStart = 0;
    std::uint32_t length = 0;

    std::uint32_t newEnd() const { return newStart + length; }
    std::uint32_t oldEnd() const { return oldStart + length; }

    bool operator==(const MovedCopy &) const = default;
};

/// A move delta taken apart. Copies follow each other in the new file; what they leave of it is inserted.
struct MoveDelta {
    std::uint64_t oldSize = 0;
    std::uint64_t newSize = 0;
    std::vector<MovedImage> images;
    std::vector<PageHashes> pageHashes;
    std::vector<MovedCopy> copies;
    std::span<const unsigned char>
        corrections; ///< pairs of a number of copied bytes that stand and one to add
    std::span<const unsigned char> inserts;
};

/// Where the streams of a written delta begin, each of which has content of its own kind.
struct MoveStreams {
    std::size_t corrections = 0;
    std::size_t inserts = 0;
};

/// Takes a delta apart; the streams are parts of `delta`. Nothing when it is corrupt: all that applying it
/// relies on has been judged, but for the corrections. Throws std::bad_alloc; memory: 12 bytes per copy.
std::optional<MoveDelta> readMoveDelta(std::span<const unsigned char> delta);

/// Where the streams begin in a delta; nothing when it is corrupt.
std::optional<MoveStreams> moveStreams(std::span<const unsigned char> delta);

/// The delta's bytes. Throws std::bad_alloc.
std::vector<std::byte> writeMoveDelta(const MoveDelta &delta);

/// Whether a reader would take these ranges, in images of a delta between files of these sizes.
bool areRangesValid(const MoveDelta &delta);

/// Whether it would take these hashes of pages.
bool arePageHashesValid(const MoveDelta &delta);

/// Numbers as they stand in the delta, one after the other: seven bits a byte, lowest first, the top bit set
/// in all bytes but the last (LEB128).
class NumberReader
{
public:
    explicit NumberReader(std::span<const unsigned char> bytes)
        : m_bytes(bytes)
    {
    }

    /// Zero once something is missing or does not fit into 64 bits, from when on `isIntact` says no.
    std::uint64_t number();
    /// Zigzag: 0, -1, 1, -2, ...
    std::int64_t signedNumber();
    unsigned char byte();
    std::span<const unsigned char> bytes(std::uint64_t count);
    std::span<const unsigned char> rest() const { return m_bytes; }
    bool isIntact() const { return m_isIntact; }
    bool isAtEnd() const { return m_bytes.empty(); }

private:
    std::span<const unsigned char> m_bytes;
    bool m_isIntact = true;
};

void appendNumber(std::vector<std::byte> &bytes, std::uint64_t number);

} // namespace zel

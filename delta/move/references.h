// Predicting what copied bytes have become.
//
// A copy brings old bytes to a new place. Where they refer to other places, the new file refers to where
// those moved, seen from the new place; the copies tell where that is. What they do not tell is learned:
// when a reference turns out to lead elsewhere, all later ones to the same place are taken to lead there
// too, which the two sides of the engine can do alike, as both know the new file up to where they are. The
// ideas are those of B. S. Baker, U. Manber and R. Muth, "Compressing Differences of Executable Code"
// (1999), and of C. Percival, "Naive Differences of Executable Code" (2003); learning comes on top.
//
// What is predicted badly costs size, never correctness: every byte is corrected where it differs.
#pragma once

#include "arm64.h"
#include "copyindex.h"
#include "moveformat.h"

#include <array>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace zel {

/// Makes predicted bytes what they are in the new file: by the corrections of a delta, or by the new file
/// itself. It is called before bytes are learned from.
class Settler
{
public:
    virtual ~Settler() = default;

    /// Settles the new file's copied bytes from where the last call stopped up to `newEnd`. Between two
    /// copies it skips what is inserted.
    void settle(std::uint32_t newEnd)
    {
        if (m_next < newEnd)
            settleUpTo(newEnd);
    }

protected:
    virtual void settleUpTo(std::uint32_t newEnd) = 0;

    std::uint32_t m_next = 0; ///< nothing before this place is to be settled
};

/// Rebuilds one copy after the other, in their order. The delta's parts belong to the caller and outlive it.
class ReferenceModel
{
public:
    /// Ranges and copies have been judged (readMoveDelta). Memory: the index of the copies, 4 MiB for each
    /// image, a 128th of the old code and 256 KiB for each range of words. Throws std::bad_alloc.
    ReferenceModel(std::span<const unsigned char> oldBytes, const std::vector<MovedImage> &images,
                   const std::vector<MovedCopy> &copies);
    ~ReferenceModel();
    ReferenceModel(const ReferenceModel &) = delete;
    ReferenceModel &operator=(const ReferenceModel &) = delete;

    /// Writes the copy to its place in the new file and has all of it settled.
    void rebuild(const MovedCopy &copy, unsigned char *newFile, Settler &settler);

private:
    struct Image;
    struct Range;
    struct Piece;

    void rebuildPiece(const Piece &piece);
    void rebuildArm64(const Piece &piece);
    void rebuildX86(const Piece &piece);
    void rebuildWords(const Piece &piece);
    void rebuildPointers(const Piece &piece);
    std::optional<std::uint64_t> predict(Image &image, std::uint64_t target);
    void learn(Image &image, std::uint64_t target, std::optional<std::uint64_t> predicted,
               std::uint64_t actual) const;

    std::span<const unsigned char> m_old;
    std::optional<CopyIndex> m_index; // where there are images, which alone ask it
    std::vector<std::unique_ptr<Image>> m_images;
    std::vector<std::unique_ptr<Range>> m_ranges; // that are in the files, in their order in the old one
};

} // namespace zel

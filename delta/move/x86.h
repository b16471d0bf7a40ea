// Lengths of x86-64 instructions, and where in them a distance of 32 bits stands.
//
// Instructions follow each other without a mark, so that to find one is to know the lengths of those before.
// All that is needed of an instruction is its length and the place of its distance, for which a table of 256
// entries per opcode map is enough (Intel 64 and IA-32 Architectures Software Developer's Manual, volume 2,
// appendix A). A walk that begins in the middle of an instruction, or passes through data, is soon back in
// step, and whatever it takes for a distance meanwhile only predicts badly. That is why a whole disassembler,
// a megabyte in every host, would gain next to nothing.
#pragma once

#include <cstddef>
#include <span>

namespace zel::x86 {

inline constexpr std::size_t LongestInstruction = 15;
inline constexpr std::size_t DistanceSize = 4;

struct Instruction {
    unsigned char length = 1; ///< in bytes; 1 for what is no instruction
    unsigned char distance = 0; ///< where the four bytes of the distance begin; 0 when there is none
    bool isBranch = false; ///< the distance is a jump's or call's, not an operand's
};

/// The instruction that `bytes` begin with, of which there is one at least. The distance counts from the
/// instruction's end.
Instruction decode(std::span<const unsigned char> bytes);

} // namespace zel::x86
